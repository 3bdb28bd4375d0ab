/// @file CommitChanges.cpp

#include "CommitChanges.h"

#include <algorithm>

#include "Error.h"

namespace fatlib {

/// The directories of which a sector is held, or which have other clusters.
void CommitChanges::FindDirectories(CommitTree::PLACES* places) {
  const Geometry& geometry = m_pBefore->Layout();
  const std::uint64_t dataStart = geometry.firstDataSector * geometry.bytesPerSector;
  if (geometry.RootPosition() != dataStart &&
      m_pHeld->Holds(geometry.RootPosition(), dataStart - geometry.RootPosition())) {
    places->insert(Medium::ROOT);
  }
  DirectoryPlace place = Medium::ROOT;
  const auto& sectors = m_pHeld->Sectors();
  for (auto sector = sectors.lower_bound(geometry.firstDataSector); sector != sectors.end(); ++sector) {
    const auto cluster =
        static_cast<std::uint32_t>((sector->first - geometry.firstDataSector) / geometry.sectorsPerCluster + 2);
    if (m_pTree->FindOwner(cluster, &place)) places->insert(place);
  }
  for (const FatChange& change : fat) {
    if (m_pTree->FindOwner(change.cluster, &place)) {
      places->insert(place);
      resized.insert(place);
    }
  }
}

std::error_code CommitChanges::Find(Medium* before, Medium* after, const CommitSectors& held, const CommitTree& tree) {
  m_pBefore = before;
  m_pAfter = after;
  m_pHeld = &held;
  m_pTree = &tree;
  if (const std::error_code error = FindFatChanges(before, after, held, &fat)) return error;
  return CompareDirectories();
}

std::error_code CommitChanges::CompareDirectories() {
  for (const FatChange& change : fat) {
    const bool cut = change.IsRelinked() && !m_pBefore->IsEndOfChain(change.was);
    if (cut) m_Cut.insert(change.cluster);
  }
  SlotComparison comparison(m_pBefore, m_pAfter, !m_Cut.empty());
  CommitTree::PLACES places;
  FindDirectories(&places);
  for (const DirectoryPlace place : places) {
    DirectoryChange change;
    if (const std::error_code error = comparison.Compare(place, &change)) return error;
    removed.insert(change.removed.begin(), change.removed.end());
    directories.push_back(std::move(change));
  }
  removed.erase(Medium::ROOT);
  // Nothing leads to what is below a directory that goes.
  const auto gone = [this](const DirectoryChange& change) { return m_pTree->IsIn(change.place, removed); };
  for (const DirectoryChange& change : directories) {
    for (const Extent& extent : change.lost) {
      for (std::uint32_t i = 0; i < extent.count; ++i) lost.insert(extent.first + i);
    }
    if (gone(change)) continue;
    for (const std::uint32_t place : change.added) added.emplace_back(place, change.place);
  }
  if (!m_Cut.empty()) {
    if (const std::error_code error = FindOwners(&comparison)) return error;
  }
  directories.erase(std::remove_if(directories.begin(), directories.end(), gone), directories.end());
  return {};
}

/// A file that was cut and grew again inside the granularity of times has the same entry, and another chain. Its entry
/// is found by looking at all of them, when no changed entry and no directory has the chain that changes.
std::error_code CommitChanges::FindOwners(SlotComparison* comparison) {
  std::uint64_t steps = std::uint64_t{m_pBefore->Layout().clusters} * 4;
  for (const auto& owner : m_pTree->Owners()) m_Cut.erase(owner.first);
  for (const DirectoryChange& change : directories) {
    for (std::uint32_t cluster : change.chains) {
      for (; !m_Cut.empty() && m_pBefore->Layout().IsCluster(cluster) && steps != 0; --steps) {
        m_Cut.erase(cluster);
        if (const std::error_code error = m_pBefore->FatEntry(cluster, &cluster)) return error;
      }
    }
  }
  if (m_Cut.empty()) return {};
  if (const std::error_code error = LookForOwners(comparison, Medium::ROOT, &steps)) return error;
  for (const auto& [place, parent] : m_pTree->Parents()) {
    if (m_pTree->IsIn(place, removed)) continue;
    if (const std::error_code error = LookForOwners(comparison, place, &steps)) return error;
  }
  return {};
}

std::error_code CommitChanges::LookForOwners(SlotComparison* comparison, DirectoryPlace place, std::uint64_t* steps) {
  std::vector<RawEntry> entries;
  const std::error_code unread = m_pBefore->ReadDirectory(place, &entries);
  if (unread && unread != Status::DiskCorrupt) return unread;
  for (const RawEntry& entry : entries) {
    if (entry.IsDirectory() || entry.IsLabel() || entry.IsDot()) continue;
    bool found = false;
    std::uint32_t cluster = entry.firstCluster;
    for (; !m_Cut.empty() && m_pBefore->Layout().IsCluster(cluster) && *steps != 0; --*steps) {
      found = m_Cut.erase(cluster) != 0 || found;
      if (const std::error_code error = m_pBefore->FatEntry(cluster, &cluster)) return error;
    }
    if (!found) continue;
    std::uint32_t size = 0;
    std::uint64_t position = 0;
    if (const std::error_code error = comparison->SizeMeanwhile(entry, entry.size, &size)) return error;
    if (const std::error_code error = m_pBefore->SlotPosition(place, entry.ShortSlot(), &position)) return error;
    if (size != entry.size) patches.push_back(SlotComparison::SizePatch(position, size));
  }
  return {};
}

}  // namespace fatlib
