/// @file PartitionedDisk.cpp

#include "PartitionedDisk.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::size_t ENTRIES = 128;
constexpr std::size_t ENTRY_BYTES = 128;

// Bit by bit, as the standard defines it.
std::uint32_t CrcOf(const unsigned char* bytes, std::size_t count) {
  std::uint32_t crc = ~0u;
  for (std::size_t i = 0; i < count; ++i) {
    crc ^= bytes[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1u) != 0 ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
  }
  return ~crc;
}

}  // namespace

const std::vector<unsigned char> CDisk::ESP{0x28, 0x73, 0x2A, 0xC1, 0x1F, 0xF8, 0xD2, 0x11,
                                            0xBA, 0x4B, 0x00, 0xA0, 0xC9, 0x3E, 0xC9, 0x3B};
const std::vector<unsigned char> CDisk::DATA{0xA2, 0xA0, 0xD0, 0xEB, 0xE5, 0xB9, 0x33, 0x44,
                                             0x87, 0xC0, 0x68, 0xB6, 0xB7, 0x26, 0x99, 0xC7};

void CDisk::Put(std::size_t at, std::uint64_t value, std::size_t bytes) {
  for (std::size_t i = 0; i < bytes; ++i) m_Bytes.at(at + i) = static_cast<unsigned char>(value >> (8 * i));
}

void CDisk::Sign(std::size_t sector) { Put(sector * 512 + 510, 0xAA55, 2); }

void CDisk::SetMbr(std::size_t i, const MBR_ENTRY& entry, std::size_t sector) {
  const std::size_t at = sector * 512 + 446 + 16 * i;
  Put(at, entry.Status, 1);
  Put(at + 4, entry.Type, 1);
  Put(at + 8, entry.First, 4);
  Put(at + 12, entry.Count, 4);
  Sign(sector);
}

void CDisk::SetGpt(std::size_t bytesPerSector, const std::vector<GPT_ENTRY>& entries) {
  SetMbr(0, {0, 0xEE, 1, 0xFFFFFFFFu});
  const std::size_t sectors = Size() / bytesPerSector;
  const std::size_t arraySectors = ENTRIES * ENTRY_BYTES / bytesPerSector;
  for (const bool backup : {false, true}) {
    const std::size_t own = backup ? sectors - 1 : 1;
    const std::size_t array = backup ? sectors - 1 - arraySectors : 2;
    for (std::size_t i = 0; i < entries.size(); ++i) {
      const std::size_t at = array * bytesPerSector + i * ENTRY_BYTES;
      std::copy(entries[i].Type.begin(), entries[i].Type.end(), m_Bytes.begin() + static_cast<std::ptrdiff_t>(at));
      Put(at + 16, i + 1, 8);
      Put(at + 32, entries[i].First, 8);
      Put(at + 40, entries[i].Last, 8);
      for (std::size_t k = 0; k < entries[i].Name.size(); ++k) Put(at + 56 + 2 * k, entries[i].Name[k], 2);
    }
    const std::size_t header = own * bytesPerSector;
    std::memcpy(&m_Bytes.at(header), "EFI PART", 8);
    Put(header + 8, 0x00010000, 4);
    Put(header + 12, 92, 4);
    Put(header + 24, own, 8);
    Put(header + 32, backup ? 1 : sectors - 1, 8);
    Put(header + 40, 2 + arraySectors, 8);
    Put(header + 48, sectors - 2 - arraySectors, 8);
    Put(header + 72, array, 8);
    Put(header + 80, ENTRIES, 4);
    Put(header + 84, ENTRY_BYTES, 4);
    SumHeader(header, array * bytesPerSector);
  }
}

void CDisk::Resum(std::size_t bytesPerSector) { SumHeader(bytesPerSector, 2 * bytesPerSector); }

void CDisk::SumHeader(std::size_t header, std::size_t array) {
  Put(header + 88, CrcOf(&m_Bytes.at(array), ENTRIES * ENTRY_BYTES), 4);
  Put(header + 16, 0, 4);
  Put(header + 16, CrcOf(&m_Bytes.at(header), 92), 4);
}
