/// @file CommitTree.cpp

#include "CommitTree.h"

#include "Error.h"

namespace fatlib {

std::error_code CommitTree::Build(Medium* medium) {
  m_Owners.clear();
  m_Parents.clear();
  return Add(medium, Medium::ROOT, Medium::ROOT);
}

bool CommitTree::FindOwner(std::uint32_t cluster, DirectoryPlace* place) const {
  const auto owner = m_Owners.find(cluster);
  if (owner == m_Owners.end()) return false;
  *place = owner->second;
  return true;
}

bool CommitTree::IsIn(DirectoryPlace place, const PLACES& places) const {
  if (places.empty()) return false;
  // A directory that was moved into itself has itself above it.
  for (std::size_t steps = 0; steps <= m_Parents.size(); ++steps) {
    if (places.count(place) != 0) return true;
    const auto parent = m_Parents.find(place);
    if (parent == m_Parents.end()) return false;
    place = parent->second;
  }
  return false;
}

void CommitTree::Remove(const PLACES& places) {
  if (places.empty()) return;
  // With the tree as it was: a directory whose parent is gone could not be told from one in the root.
  PLACES gone;
  for (const auto& [place, parent] : m_Parents) {
    if (IsIn(place, places)) gone.insert(place);
  }
  for (const DirectoryPlace place : gone) m_Parents.erase(place);
  for (auto owner = m_Owners.begin(); owner != m_Owners.end();) {
    owner = gone.count(owner->second) != 0 ? m_Owners.erase(owner) : std::next(owner);
  }
}

std::error_code CommitTree::Claim(Medium* medium, DirectoryPlace place) {
  const Geometry& geometry = medium->Layout();
  if (place == Medium::ROOT && geometry.type != FatType::Fat32) return {};
  std::vector<Extent> extents;
  const std::error_code error = medium->Chain(place == Medium::ROOT ? geometry.rootCluster : place, &extents);
  if (error && error != Status::DiskCorrupt) return error;
  for (const Extent& extent : extents) {
    for (std::uint32_t i = 0; i < extent.count; ++i) {
      if (!m_Owners.emplace(extent.first + i, place).second) return Status::DiskCorrupt;
    }
  }
  return extents.empty() ? Status::DiskCorrupt : error;
}

std::error_code CommitTree::Refresh(Medium* medium, DirectoryPlace place) {
  for (auto owner = m_Owners.begin(); owner != m_Owners.end();) {
    owner = owner->second == place ? m_Owners.erase(owner) : std::next(owner);
  }
  return Claim(medium, place);
}

std::error_code CommitTree::Add(Medium* medium, DirectoryPlace place, DirectoryPlace parent) {
  struct STEP {
    DirectoryPlace place;
    DirectoryPlace parent;
  };
  std::error_code first;
  std::vector<STEP> steps = {{place, parent}};
  std::vector<RawEntry> entries;
  while (!steps.empty()) {
    const STEP step = steps.back();
    steps.pop_back();
    if (step.place != Medium::ROOT && !m_Parents.emplace(step.place, step.parent).second) {
      first = Status::DiskCorrupt;
      continue;
    }
    std::error_code error = Claim(medium, step.place);
    if (error == Status::DiskCorrupt) {
      first = error;
      DirectoryPlace owner = 0;
      const bool has = step.place == Medium::ROOT || (FindOwner(step.place, &owner) && owner == step.place);
      if (!has) {
        m_Parents.erase(step.place);
        continue;
      }
    } else if (error) {
      return error;
    }
    error = medium->ReadDirectory(step.place, &entries);
    if (error && error != Status::DiskCorrupt) return error;
    if (error) first = error;
    for (const RawEntry& entry : entries) {
      if (!entry.IsDirectory() || entry.IsDot()) continue;
      if (medium->Layout().IsCluster(entry.firstCluster)) {
        steps.push_back({entry.firstCluster, step.place});
      } else {
        first = Status::DiskCorrupt;
      }
    }
  }
  return first;
}

}  // namespace fatlib
