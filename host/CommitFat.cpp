/// @file CommitFat.cpp

#include "CommitFat.h"

#include <algorithm>

#include "Layout.h"

namespace fatlib {

namespace {

/// Bytes from the start of a FAT.
std::uint64_t EntryOffset(FatType type, std::uint32_t cluster) {
  return std::uint64_t{cluster} * static_cast<std::uint32_t>(type) / 8;
}

/// The first cluster whose entry has a part at or behind a byte of a FAT.
std::uint64_t ClusterAt(FatType type, std::uint64_t offset) { return offset * 8 / static_cast<std::uint32_t>(type); }

}  // namespace

std::uint32_t EndOfChain(FatType type) {
  return type == FatType::Fat12 ? 0xFFFu : type == FatType::Fat16 ? 0xFFFFu : 0x0FFFFFFFu;
}

bool LiesInTwoSectors(const Geometry& geometry, std::uint32_t cluster) {
  if (geometry.type != FatType::Fat12) return false;
  return EntryOffset(geometry.type, cluster) % geometry.bytesPerSector == geometry.bytesPerSector - 1;
}

std::uint32_t HalfLinked(std::uint32_t cluster, std::uint32_t value) {
  return (cluster & 1) != 0 ? 0xFF0 | (value & 0xF) : 0xF00 | (value & 0xFF);
}

std::error_code FindFatChanges(Medium* before, Medium* after, const CommitSectors& held,
                               std::vector<FatChange>* changes) {
  changes->clear();
  const Geometry& geometry = before->Layout();
  const std::uint64_t start = geometry.FatPosition(0);
  const std::uint64_t fatEnd = geometry.FatPosition(1);
  std::uint32_t next = 2;  // an entry of FAT12 may have parts in two sectors
  for (auto sector = held.Sectors().lower_bound(held.SectorOf(start)); sector != held.Sectors().end(); ++sector) {
    const std::uint64_t position = held.PositionOf(sector->first);
    if (position >= fatEnd) break;
    const std::uint64_t from = std::max<std::uint64_t>(next, ClusterAt(geometry.type, position - start));
    const std::uint64_t last = ClusterAt(geometry.type, position - start + held.BytesPerSector() - 1);
    for (std::uint64_t i = from; i <= last && i < std::uint64_t{geometry.clusters} + 2; ++i) {
      FatChange change;
      change.cluster = static_cast<std::uint32_t>(i);
      if (const std::error_code error = before->FatEntry(change.cluster, &change.was)) return error;
      if (const std::error_code error = after->FatEntry(change.cluster, &change.is)) return error;
      if (change.was != change.is) changes->push_back(change);
      next = change.cluster + 1;
    }
  }
  return {};
}

std::error_code PutFatEntry(const Geometry& geometry, CommitSectors* sectors, std::uint32_t cluster,
                            std::uint32_t value) {
  for (std::uint32_t copy = 0; copy < geometry.fats; ++copy) {
    const std::uint64_t position = geometry.FatPosition(copy) + EntryOffset(geometry.type, cluster);
    std::error_code error;
    if (geometry.type == FatType::Fat32) {
      Le32 entry;
      entry.Store(value);
      error = sectors->Put(position, &entry, sizeof entry);
    } else {
      Le16 entry{};
      if (geometry.type == FatType::Fat12) {
        // The other half of one of the two bytes belongs to a neighbour.
        error = sectors->Read(position, &entry, sizeof entry);
        const std::uint32_t old = entry.Load();
        value &= 0xFFF;
        entry.Store((cluster & 1) != 0 ? (old & 0xF) | value << 4 : (old & 0xF000) | value);
      } else {
        entry.Store(value);
      }
      if (!error) error = sectors->Put(position, &entry, sizeof entry);
    }
    if (error) return error;
  }
  return {};
}

}  // namespace fatlib
