/// @file PartitionedDisk.h
/// Builds disks with partition tables, byte by byte and independently of the code under test.

#ifndef FATLIB_TESTS_PARTITIONEDDISK_H
#define FATLIB_TESTS_PARTITIONEDDISK_H

#include <cstdint>
#include <string>
#include <vector>

/// A disk in memory. Sectors are counted in 512 bytes where nothing else is said.
class CDisk {
 public:
  /// The types as they are stored.
  static const std::vector<unsigned char> ESP;
  static const std::vector<unsigned char> DATA;

  struct MBR_ENTRY {
    unsigned int Status;
    unsigned int Type;
    std::uint32_t First;
    std::uint32_t Count;
  };
  struct GPT_ENTRY {
    std::vector<unsigned char> Type;
    std::uint64_t First;
    std::uint64_t Last;
    std::u16string Name;
  };

  explicit CDisk(std::size_t sectors) : m_Bytes(sectors * 512) {}
  const std::vector<unsigned char>& Bytes() const { return m_Bytes; }
  std::size_t Size() const { return m_Bytes.size(); }
  unsigned char& At(std::size_t offset) { return m_Bytes.at(offset); }

  /// Sets an entry of the record in a sector, and signs it.
  void SetMbr(std::size_t i, const MBR_ENTRY& entry, std::size_t sector = 0);
  void Sign(std::size_t sector);
  /// Writes a protective record and both tables; numbers of sectors in the size given.
  void SetGpt(std::size_t bytesPerSector, const std::vector<GPT_ENTRY>& entries);
  /// Makes the checksums of the first table right.
  void Resum(std::size_t bytesPerSector);

 private:
  void Put(std::size_t at, std::uint64_t value, std::size_t bytes);
  void SumHeader(std::size_t header, std::size_t array);

  std::vector<unsigned char> m_Bytes;
};

#endif  // FATLIB_TESTS_PARTITIONEDDISK_H
