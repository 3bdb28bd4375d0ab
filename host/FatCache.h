/// @file FatCache.h
/// The entries of the first FAT, read in blocks of 256 KiB. Not part of the face for hosts.
///
/// Memory is bounded by what the device holds, not by what the boot sector says: entries behind the end of the device
/// are 0 and take none. At most 64 MiB of blocks are kept.

#ifndef FATLIB_FATCACHE_H
#define FATLIB_FATCACHE_H

#include <cstddef>
#include <cstdint>
#include <system_error>
#include <vector>

#include "Medium.h"

namespace fatlib {

class FatCache {
 public:
  /// Both must live as long as the object.
  FatCache(Device* device, const Geometry* geometry);

  /// @param cluster  0 to clusters + 1
  /// @param value    out: 12, 16 or all 32 bits
  [[nodiscard]] std::error_code Get(std::uint32_t cluster, std::uint32_t* value);
  /// The same for an entry of the block that was used last, which is where the next link of a chain mostly lies.
  /// @return false when it lies elsewhere
  bool GetNear(std::uint32_t cluster, std::uint32_t* value) const {
    const std::uint64_t at = PositionOf(cluster) - m_nNearPosition;  // wraps for one in front of the block
    if (at >= m_nNearBytes) return false;
    *value = Decode(m_pNear + static_cast<std::ptrdiff_t>(at), cluster);
    return true;
  }
  /// In every copy; 12, 16 or all 32 bits are written.
  /// @return DiskCorrupt when the FAT is too short
  [[nodiscard]] std::error_code Set(std::uint32_t cluster, std::uint32_t value);
  /// See Medium::CountFree.
  [[nodiscard]] std::error_code CountFree(std::uint32_t* clusters);
  /// @param from     a cluster of the volume, at which the search begins; it goes on at cluster 2
  /// @param cluster  out: the first free one that the FAT has an entry for
  /// @return DiskFull when there is none
  [[nodiscard]] std::error_code FindFree(std::uint32_t from, std::uint32_t* cluster);
  void Forget();

 private:
  static constexpr std::uint32_t BLOCK_BYTES = 256 * 1024;
  static constexpr std::size_t MAX_BLOCKS = 256;
  using BLOCK = std::vector<unsigned char>;

  // Bytes from the start of the FAT.
  std::uint64_t PositionOf(std::uint32_t cluster) const {
    if (m_pGeometry->type == FatType::Fat12) return cluster + cluster / 2;
    return std::uint64_t{cluster} * EntryBytes();
  }
  std::uint32_t EntryBytes() const { return m_pGeometry->type == FatType::Fat32 ? 4 : 2; }
  std::uint32_t Decode(const unsigned char* bytes, std::uint32_t cluster) const {
    const std::uint32_t word = bytes[0] | std::uint32_t{bytes[1]} << 8;
    if (m_pGeometry->type == FatType::Fat32)
      return word | std::uint32_t{bytes[2]} << 16 | std::uint32_t{bytes[3]} << 24;
    if (m_pGeometry->type == FatType::Fat16) return word;
    return (cluster & 1) != 0 ? word >> 4 : word & 0xFFF;
  }
  void Encode(unsigned char* bytes, std::uint32_t cluster, std::uint32_t value) const;
  bool IsFree(std::uint32_t value) const;
  std::uint64_t FatBytes() const { return std::uint64_t{m_pGeometry->sectorsPerFat} * m_pGeometry->bytesPerSector; }
  std::uint64_t BytesOnDevice() const;
  std::size_t BlockSize(std::uint64_t number) const;
  std::error_code ReadBlock(std::uint64_t number, BLOCK* block);
  std::error_code Load(std::uint64_t number, const BLOCK** block);
  std::error_code CountFreeInBlocks(std::uint32_t* clusters);
  std::error_code SetInCopy(std::uint32_t copy, std::uint32_t cluster, std::uint32_t value);

  Device* m_pDevice;
  const Geometry* m_pGeometry;
  std::vector<BLOCK> m_Blocks;  // by number; empty when it is not loaded
  std::size_t m_nLoaded = 0;
  std::size_t m_nHand = 0;                 // where the search for a block to drop goes on
  const unsigned char* m_pNear = nullptr;  // the block that was used last
  std::uint64_t m_nNearPosition = 0;       // of it, from the start of the FAT
  std::uint64_t m_nNearBytes = 0;          // in which an entry can begin; 0: there is none
  bool m_bCounted = false;
  std::uint32_t m_nFree = 0;  // valid when counted
};

}  // namespace fatlib

#endif  // FATLIB_FATCACHE_H
