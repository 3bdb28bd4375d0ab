/// @file Gpt.cpp

#include "Gpt.h"

#include <fatlib/Text.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "DiskBytes.h"

namespace fatimg {

namespace {

constexpr std::uint32_t SECTOR_SIZES[] = {512, 4096, 2048, 1024};
constexpr std::size_t HEADER_BYTES = 92;
constexpr std::size_t ENTRY_BYTES = 128;
constexpr std::size_t NAME_UNITS = 36;
// Tables have 128 entries of 128 bytes. What claims much more is no table, and is not read into memory.
constexpr std::uint64_t MAX_ARRAY_BYTES = 4u << 20;

// What of a header is needed.
struct GPT_HEADER {
  std::uint64_t arraySector;
  std::uint32_t entries;
  std::uint32_t entryBytes;
  std::uint32_t arrayCrc;
};

bool ParseHeader(Bytes& sector, std::uint64_t ownSector, GPT_HEADER* header) {
  if (std::memcmp(sector.data(), "EFI PART", 8) != 0) return false;
  const std::uint32_t size = Get32(sector, 12);
  if (size < HEADER_BYTES || size > sector.size() || Get64(sector, 24) != ownSector) return false;
  const std::uint32_t crc = Get32(sector, 16);
  std::memset(&sector[16], 0, 4);  // the checksum was made with zeros in its place
  if (Crc32(sector.data(), size) != crc) return false;
  *header = {Get64(sector, 72), Get32(sector, 80), Get32(sector, 84), Get32(sector, 88)};
  return header->entryBytes >= ENTRY_BYTES && header->entryBytes % 8 == 0 &&
         std::uint64_t{header->entries} * header->entryBytes <= MAX_ARRAY_BYTES;
}

// A GUID is stored with its first three fields little-endian.
std::string GuidText(const Bytes& bytes, std::size_t at) {
  char text[40];
  std::snprintf(text, sizeof text, "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x", Get32(bytes, at),
                Get16(bytes, at + 4), Get16(bytes, at + 6), bytes[at + 8], bytes[at + 9], bytes[at + 10],
                bytes[at + 11], bytes[at + 12], bytes[at + 13], bytes[at + 14], bytes[at + 15]);
  return text;
}

std::string NameText(const Bytes& bytes, std::size_t at) {
  std::u16string name;
  for (std::size_t i = 0; i < NAME_UNITS; ++i) {
    const auto unit = static_cast<char16_t>(Get16(bytes, at + 2 * i));
    if (unit == 0) break;
    name += unit;
  }
  return fatlib::ToUtf8(name);
}

bool IsUnused(const Bytes& bytes, std::size_t at) {
  for (std::size_t i = 0; i < 16; ++i) {
    if (bytes[at + i] != 0) return false;
  }
  return true;
}

void ParseEntries(const Bytes& array, const GPT_HEADER& header, PartitionTable* table) {
  // No disk has sectors whose position in bytes does not fit.
  const std::uint64_t maxSector = (UINT64_MAX >> 1) / table->bytesPerSector;
  for (std::uint32_t i = 0; i < header.entries; ++i) {
    const std::size_t at = std::size_t{i} * header.entryBytes;
    const std::uint64_t first = Get64(array, at + 32);
    const std::uint64_t last = Get64(array, at + 40);
    if (IsUnused(array, at) || first == 0 || last < first || last >= maxSector) continue;
    Partition partition;
    partition.number = i + 1;
    partition.offset = first * table->bytesPerSector;
    partition.length = (last - first + 1) * table->bytesPerSector;
    partition.type = GuidText(array, at);
    partition.name = NameText(array, at + 56);
    partition.bootable = (array[at + 48] & 0x04) != 0;
    table->partitions.push_back(partition);
  }
}

std::error_code TryHeader(fatlib::Device* disk, std::uint32_t bytesPerSector, std::uint64_t sector,
                          PartitionTable* table, bool* found) {
  Bytes bytes(bytesPerSector);
  std::error_code error = disk->Read(sector * bytesPerSector, bytes.data(), bytes.size());
  GPT_HEADER header{};
  if (error || !ParseHeader(bytes, sector, &header)) return error;
  const std::uint64_t sectors = disk->Size() / bytesPerSector;
  Bytes array(static_cast<std::size_t>(header.entries) * header.entryBytes);
  const std::uint64_t arraySectors = (array.size() + bytesPerSector - 1) / bytesPerSector;
  if (arraySectors > sectors || header.arraySector > sectors - arraySectors) return {};
  error = disk->Read(header.arraySector * bytesPerSector, array.data(), array.size());
  if (error || Crc32(array.data(), array.size()) != header.arrayCrc) return error;
  PartitionTable read;
  read.kind = PartitionTable::Gpt;
  read.bytesPerSector = bytesPerSector;
  read.backup = sector != 1;
  ParseEntries(array, header, &read);
  *table = read;
  *found = true;
  return {};
}

}  // namespace

std::uint32_t Crc32(const unsigned char* bytes, std::size_t size) {
  static const std::array<std::uint32_t, 256> table = [] {
    std::array<std::uint32_t, 256> made{};
    for (std::uint32_t i = 0; i < made.size(); ++i) {
      std::uint32_t value = i;
      for (int bit = 0; bit < 8; ++bit) value = (value & 1u) != 0 ? value >> 1 ^ 0xEDB88320u : value >> 1;
      made[i] = value;
    }
    return made;
  }();
  std::uint32_t crc = 0xFFFFFFFFu;
  for (std::size_t i = 0; i < size; ++i) crc = table[(crc ^ bytes[i]) & 0xFFu] ^ crc >> 8;
  return ~crc;
}

std::error_code ReadGpt(fatlib::Device* disk, PartitionTable* table, bool* found) {
  *found = false;
  for (const bool backup : {false, true}) {
    for (const std::uint32_t bytesPerSector : SECTOR_SIZES) {
      const std::uint64_t sectors = disk->Size() / bytesPerSector;
      if (sectors < 3) continue;
      const std::error_code error = TryHeader(disk, bytesPerSector, backup ? sectors - 1 : 1, table, found);
      if (error || *found) return error;
    }
  }
  return {};
}

}  // namespace fatimg
