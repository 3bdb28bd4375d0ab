/// @file DiskBytes.h
/// Numbers in the sectors of a partition table.

#ifndef FATIMG_DISKBYTES_H
#define FATIMG_DISKBYTES_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace fatimg {

using Bytes = std::vector<unsigned char>;

/// Little-endian numbers. The caller knows that the bytes are there.
inline std::uint32_t Get32(const Bytes& bytes, std::size_t at) {
  return std::uint32_t{bytes[at]} | std::uint32_t{bytes[at + 1]} << 8 | std::uint32_t{bytes[at + 2]} << 16 |
         std::uint32_t{bytes[at + 3]} << 24;
}
inline std::uint32_t Get16(const Bytes& bytes, std::size_t at) {
  return std::uint32_t{bytes[at]} | std::uint32_t{bytes[at + 1]} << 8;
}
inline std::uint64_t Get64(const Bytes& bytes, std::size_t at) {
  return std::uint64_t{Get32(bytes, at)} | std::uint64_t{Get32(bytes, at + 4)} << 32;
}

/// The CRC-32 of Ethernet and ZIP.
std::uint32_t Crc32(const unsigned char* bytes, std::size_t size);

}  // namespace fatimg

#endif  // FATIMG_DISKBYTES_H
