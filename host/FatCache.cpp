/// @file FatCache.cpp

#include "FatCache.h"

#include <algorithm>
#include <cstring>

#include "Error.h"
#include "Narrow.h"

namespace fatlib {

namespace {

/// Entries that are 0 in both kinds of wide FAT. `MASK` has the bits that count, in the order of the bytes in memory,
/// so that no entry has to be put together from its bytes.
template <class ENTRY>
std::uint32_t CountZeros(const unsigned char* bytes, std::size_t entries,
                         const unsigned char (&maskBytes)[sizeof(ENTRY)]) {
  ENTRY mask;
  std::memcpy(&mask, maskBytes, sizeof mask);
  std::uint32_t zeros = 0;
  for (std::size_t i = 0; i < entries; ++i) {
    ENTRY entry;
    std::memcpy(&entry, bytes + i * sizeof entry, sizeof entry);
    zeros += (entry & mask) == 0 ? 1u : 0u;
  }
  return zeros;
}

}  // namespace

FatCache::FatCache(Device* device, const Geometry* geometry) : m_pDevice(device), m_pGeometry(geometry) {}

void FatCache::Forget() {
  m_Blocks.clear();
  m_nLoaded = 0;
  m_nNearBytes = 0;
  m_bCounted = false;
}

// The top four bits of a FAT32 entry mean nothing.
bool FatCache::IsFree(std::uint32_t value) const {
  return (m_pGeometry->type == FatType::Fat32 ? value & 0x0FFFFFFF : value) == 0;
}

// ---------------------------------------------------------------------------------------------- blocks

/// Of what the clusters need entries for; from the start of the FAT.
std::uint64_t FatCache::BytesOnDevice() const {
  const std::uint64_t start = m_pGeometry->FatPosition(0);
  const std::uint64_t needed = PositionOf(m_pGeometry->clusters + 1) + EntryBytes();
  return std::min(needed, m_pDevice->Size() - std::min(m_pDevice->Size(), start));
}

/// @param number  of a block that begins on the device
std::size_t FatCache::BlockSize(std::uint64_t number) const {
  return ToSize(std::min<std::uint64_t>(BLOCK_BYTES, BytesOnDevice() - number * BLOCK_BYTES));
}

std::error_code FatCache::ReadBlock(std::uint64_t number, BLOCK* block) {
  block->resize(BlockSize(number));
  return m_pDevice->Read(m_pGeometry->FatPosition(0) + number * BLOCK_BYTES, block->data(), block->size());
}

/// @param block  out: null when it lies behind the end of the device; valid until the next call
std::error_code FatCache::Load(std::uint64_t number, const BLOCK** block) {
  *block = nullptr;
  if (number < m_Blocks.size() && !m_Blocks[ToSize(number)].empty()) {
    *block = &m_Blocks[ToSize(number)];
    return {};
  }
  if (number * BLOCK_BYTES >= BytesOnDevice()) return {};
  BLOCK read;
  if (const std::error_code error = ReadBlock(number, &read)) return error;
  m_nNearBytes = 0;
  if (m_nLoaded == MAX_BLOCKS) {
    do {
      m_nHand = (m_nHand + 1) % m_Blocks.size();
    } while (m_Blocks[m_nHand].empty());
    m_Blocks[m_nHand] = BLOCK();
    --m_nLoaded;
  }
  if (number >= m_Blocks.size()) m_Blocks.resize(ToSize(number) + 1);
  m_Blocks[ToSize(number)] = std::move(read);
  ++m_nLoaded;
  *block = &m_Blocks[ToSize(number)];
  return {};
}

// ---------------------------------------------------------------------------------------------- entries

std::error_code FatCache::Get(std::uint32_t cluster, std::uint32_t* value) {
  // All entries of a FAT12 lie in the first block, and the others do not cross from one block to the next.
  const std::uint64_t position = PositionOf(cluster);
  const BLOCK* block = nullptr;
  if (const std::error_code error = Load(position / BLOCK_BYTES, &block)) return error;
  const auto at = ToSize(position % BLOCK_BYTES);
  if (block != nullptr && at + EntryBytes() <= block->size()) {
    m_pNear = block->data();
    m_nNearPosition = position - at;
    m_nNearBytes = block->size() - EntryBytes() + 1;
    *value = Decode(block->data() + at, cluster);
    return {};
  }
  unsigned char bytes[4] = {};  // the device ends here
  for (std::size_t i = 0; block != nullptr && at + i < block->size(); ++i) bytes[i] = (*block)[at + i];
  *value = Decode(bytes, cluster);
  return {};
}

// On FAT12 the neighbour's four bits stay.
void FatCache::Encode(unsigned char* bytes, std::uint32_t cluster, std::uint32_t value) const {
  if (m_pGeometry->type == FatType::Fat12) {
    const std::uint32_t word = bytes[0] | std::uint32_t{bytes[1]} << 8;
    value = (cluster & 1) != 0 ? (word & 0xF) | value << 4 : (word & 0xF000) | (value & 0xFFF);
  }
  for (std::uint32_t i = 0; i < EntryBytes(); ++i) bytes[i] = static_cast<unsigned char>(value >> (8 * i));
}

std::error_code FatCache::SetInCopy(std::uint32_t copy, std::uint32_t cluster, std::uint32_t value) {
  const std::uint64_t position = m_pGeometry->FatPosition(copy) + PositionOf(cluster);
  unsigned char bytes[4];
  if (const std::error_code error = m_pDevice->Read(position, bytes, EntryBytes())) return error;
  Encode(bytes, cluster, value);
  return m_pDevice->Write(position, bytes, EntryBytes());
}

std::error_code FatCache::Set(std::uint32_t cluster, std::uint32_t value) {
  if (PositionOf(cluster) + EntryBytes() > FatBytes()) return Status::DiskCorrupt;
  std::uint32_t before;
  std::error_code error = Get(cluster, &before);
  if (error) return error;
  for (std::uint32_t copy = 0; copy < m_pGeometry->fats && !error; ++copy) error = SetInCopy(copy, cluster, value);
  const auto number = ToSize(PositionOf(cluster) / BLOCK_BYTES);
  const auto at = ToSize(PositionOf(cluster) % BLOCK_BYTES);
  if (error || number >= m_Blocks.size() || at + EntryBytes() > m_Blocks[number].size()) {
    Forget();  // it is not known what is on the device now, or the device has become longer
    return error;
  }
  Encode(m_Blocks[number].data() + at, cluster, value);
  if (m_bCounted && m_pGeometry->IsCluster(cluster)) m_nFree += (IsFree(value) ? 1u : 0u) - (IsFree(before) ? 1u : 0u);
  return {};
}

// ---------------------------------------------------------------------------------------------- free clusters

std::error_code FatCache::CountFree(std::uint32_t* clusters) {
  if (!m_bCounted) {
    if (const std::error_code error = CountFreeInBlocks(&m_nFree)) return error;
    m_bCounted = true;
  }
  *clusters = m_nFree;
  return {};
}

// Blocks that are not kept are counted as they pass through the processor's cache, and not kept either: that is faster
// than filling fresh memory with them.
std::error_code FatCache::CountFreeInBlocks(std::uint32_t* clusters) {
  std::uint32_t cluster = 2;
  std::uint32_t left = m_pGeometry->clusters;
  std::uint32_t zeros = 0;
  BLOCK passing;
  while (left != 0) {
    const std::uint64_t position = PositionOf(cluster);
    const std::uint64_t number = position / BLOCK_BYTES;
    if (m_pGeometry->type == FatType::Fat12 || position + EntryBytes() > BytesOnDevice()) {
      // Narrow entries, or the first one that is cut off or behind the end of the device, where all are 0.
      std::uint32_t value;
      if (const std::error_code error = Get(cluster, &value)) return error;
      zeros += IsFree(value) ? 1u : 0u;
      ++cluster;
      --left;
      if (position >= BytesOnDevice()) {
        zeros += left;
        break;
      }
      continue;
    }
    const BLOCK* block = &passing;
    if (number < m_Blocks.size() && m_Blocks[ToSize(number)].size() == BlockSize(number)) {
      block = &m_Blocks[ToSize(number)];
    } else if (const std::error_code error = ReadBlock(number, &passing)) {
      return error;
    }
    const auto at = ToSize(position % BLOCK_BYTES);
    const std::uint32_t entries = std::min(left, static_cast<std::uint32_t>((block->size() - at) / EntryBytes()));
    zeros += m_pGeometry->type == FatType::Fat16
                 ? CountZeros<std::uint16_t>(block->data() + at, entries, {0xFF, 0xFF})
                 : CountZeros<std::uint32_t>(block->data() + at, entries, {0xFF, 0xFF, 0xFF, 0x0F});
    cluster += entries;
    left -= entries;
  }
  *clusters = zeros;
  return {};
}

std::error_code FatCache::FindFree(std::uint32_t from, std::uint32_t* cluster) {
  const std::uint64_t bits = m_pGeometry->type == FatType::Fat12 ? 12 : EntryBytes() * 8;
  const std::uint64_t inFat = FatBytes() * 8 / bits;
  const auto end = static_cast<std::uint32_t>(std::min<std::uint64_t>(inFat, m_pGeometry->clusters + 2));
  if (end <= 2) return Status::DiskFull;
  const std::uint32_t start = from >= 2 && from < end ? from : 2;
  std::uint32_t candidate = start;
  do {
    std::uint32_t value;
    if (const std::error_code error = Get(candidate, &value)) return error;
    // All 32 bits of a FAT32 entry: the library takes it for free only then.
    if (value == 0) {
      *cluster = candidate;
      return {};
    }
    if (++candidate == end) candidate = 2;
  } while (candidate != start);
  return Status::DiskFull;
}

}  // namespace fatlib
