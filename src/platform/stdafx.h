/// @file stdafx.h
/// What every part of the library shares: the status values and the little-endian integers of the on-medium records.

#ifndef FATLIB_STDAFX_H
#define FATLIB_STDAFX_H

#include <cstddef>
#include <cstdint>

// A status is a signed 32-bit value: negative is failure, zero or positive is success. Transfers may return a positive
// byte count, so callers test `status < 0`, never `status != 0`.
constexpr int StatusValue(std::uint32_t bits) { return static_cast<int>(bits); }

constexpr int STATUS_SUCCESS = 0;
constexpr int STATUS_INVALID_PARAMETER = StatusValue(0xC000000Du);  // null memory image, size too large
constexpr int STATUS_END_OF_FILE = StatusValue(0xC0000011u);
constexpr int STATUS_NO_MEMORY = StatusValue(0xC0000017u);
constexpr int STATUS_DISK_CORRUPT = StatusValue(0xC0000032u);  // broken cluster chain, bad FSInfo
constexpr int STATUS_DISK_FULL = StatusValue(0xC000007Fu);     // also: no room in a directory
constexpr int STATUS_REFUSED = StatusValue(0xC0000098u);       // object open, directory not empty, bad move target
constexpr int STATUS_FILE_CORRUPT = StatusValue(0xC0000102u);  // or an object could not be built or loaded
constexpr int STATUS_OPEN_FAILED = StatusValue(0xC0000136u);   // device could not be opened
constexpr int STATUS_UNRECOGNIZED_VOLUME = StatusValue(0xC000014Fu);  // boot sector refused
constexpr int STATUS_NAME_EXISTS = StatusValue(0xC0000183u);
constexpr int STATUS_IO_ERROR = StatusValue(0xC0000185u);
constexpr int STATUS_NOT_FOUND = StatusValue(0xC0000225u);  // a path component was not found

// Little-endian integers made of bytes, as they lie on the medium: alignment 1, no padding, readable at any address.
struct le16 {
  std::uint8_t Bytes[2];
  constexpr std::uint16_t Load() const { return static_cast<std::uint16_t>(Bytes[0] | Bytes[1] << 8); }
  constexpr void Store(std::uint16_t value) {
    Bytes[0] = static_cast<std::uint8_t>(value);
    Bytes[1] = static_cast<std::uint8_t>(value >> 8);
  }
};

struct le32 {
  std::uint8_t Bytes[4];
  constexpr std::uint32_t Load() const {
    return Bytes[0] | static_cast<std::uint32_t>(Bytes[1]) << 8 | static_cast<std::uint32_t>(Bytes[2]) << 16 |
           static_cast<std::uint32_t>(Bytes[3]) << 24;
  }
  constexpr void Store(std::uint32_t value) {
    Bytes[0] = static_cast<std::uint8_t>(value);
    Bytes[1] = static_cast<std::uint8_t>(value >> 8);
    Bytes[2] = static_cast<std::uint8_t>(value >> 16);
    Bytes[3] = static_cast<std::uint8_t>(value >> 24);
  }
};

static_assert(sizeof(le16) == 2 && alignof(le16) == 1, "a 16-bit field takes two bytes at any address");
static_assert(sizeof(le32) == 4 && alignof(le32) == 1, "a 32-bit field takes four bytes at any address");

#endif  // FATLIB_STDAFX_H
