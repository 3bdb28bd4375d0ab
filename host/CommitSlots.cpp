/// @file CommitSlots.cpp

#include "CommitSlots.h"

#include <algorithm>
#include <cstddef>

#include "Error.h"
#include "Layout.h"
#include "Narrow.h"
#include "SlotReader.h"
#include "Text.h"

namespace fatlib {

namespace {

/// A directory with a broken chain is what its sound part says.
std::error_code Tolerated(const std::error_code& error) {
  return error == Status::DiskCorrupt ? std::error_code() : error;
}

SlotPatch PatchOf(std::uint64_t position, std::uint32_t count) {
  SlotPatch patch;
  patch.position = position;
  patch.count = count;
  return patch;
}

}  // namespace

// Each cluster is in one chain. Where a damaged volume has some in several, the walks end all the same.
SlotComparison::SlotComparison(Medium* before, Medium* after, bool relinked)
    : m_pBefore(before),
      m_pAfter(after),
      m_bRelinked(relinked),
      m_nSteps(std::uint64_t{before->Layout().clusters} * 4) {}

SlotPatch SlotComparison::SizePatch(std::uint64_t slotPosition, std::uint32_t size) {
  Le32 stored;
  stored.Store(size);
  SlotPatch patch = PatchOf(slotPosition + offsetof(ShortEntry, size), sizeof stored);
  std::copy_n(stored.bytes, sizeof stored, patch.bytes.begin());
  return patch;
}

std::error_code SlotComparison::CommonClusters(std::uint32_t first, std::uint32_t* clusters) {
  *clusters = 0;
  const Geometry& geometry = m_pBefore->Layout();
  std::uint32_t cluster = first;
  for (; geometry.IsCluster(cluster) && m_nSteps != 0; --m_nSteps) {
    std::uint32_t was = 0;
    std::uint32_t is = 0;
    if (const std::error_code error = m_pBefore->FatEntry(cluster, &was)) return error;
    if (const std::error_code error = m_pAfter->FatEntry(cluster, &is)) return error;
    ++*clusters;
    if (was != is) break;
    cluster = was;
  }
  return {};
}

std::error_code SlotComparison::SizeMeanwhile(const RawEntry& was, std::uint32_t sizeAfter, std::uint32_t* size) {
  *size = std::min(was.size, sizeAfter);
  if (!m_bRelinked || *size == 0) return {};
  std::uint32_t clusters = 0;
  if (const std::error_code error = CommonClusters(was.firstCluster, &clusters)) return error;
  const std::uint64_t bytes = std::uint64_t{clusters} * m_pBefore->Layout().bytesPerCluster;
  *size = static_cast<std::uint32_t>(std::min<std::uint64_t>(*size, bytes));
  return {};
}

/// Whether no cluster of an old chain is in use afterwards. No, where the chain is too long to tell.
std::error_code SlotComparison::AllFreed(std::uint32_t first, bool* freed) {
  *freed = false;
  std::uint32_t cluster = first;
  for (; m_pBefore->Layout().IsCluster(cluster); --m_nSteps) {
    std::uint32_t is = 0;
    if (const std::error_code error = m_pAfter->FatEntry(cluster, &is)) return error;
    if (is != 0 || m_nSteps == 0) return {};
    if (const std::error_code error = m_pBefore->FatEntry(cluster, &cluster)) return error;
  }
  *freed = true;
  return {};
}

void SlotComparison::IndexNew() {
  if (!m_Names.empty()) return;
  for (std::size_t i = 0; i < m_New.size(); ++i) {
    if (m_New[i].IsLabel() || m_New[i].IsDot()) continue;
    m_Names.emplace(UpCase(m_New[i].name), i);
    m_Names.emplace(UpCase(m_New[i].ShortNameText()), i);
    if (m_New[i].firstCluster != 0) m_Firsts.emplace(m_New[i].firstCluster, i);
  }
}

bool SlotComparison::IsInSectorOf(const RawEntry& was, const RawEntry& is, std::uint32_t commonSlots) const {
  const std::uint32_t slots = m_pBefore->Layout().bytesPerSector / Geometry::SLOT_BYTES;
  return was.ShortSlot() < commonSlots && is.ShortSlot() / slots == was.ShortSlot() / slots;
}

/// What an entry becomes in one write of a sector: the entry of its file in the same sector, or the one of its name.
/// @return null when there is none
const RawEntry* SlotComparison::FindSuccessor(const RawEntry& was, std::uint32_t commonSlots) {
  const auto from =
      std::lower_bound(m_New.begin(), m_New.end(), was.ShortSlot(),
                       [](const RawEntry& entry, std::uint32_t slot) { return entry.ShortSlot() < slot; });
  const bool there = from != m_New.end() && from->ShortSlot() == was.ShortSlot() && was.ShortSlot() < commonSlots;
  const bool sameFile = there && from->firstCluster == was.firstCluster;
  if (sameFile && (was.firstCluster != 0 || was.shortName == from->shortName)) return &*from;
  if (was.IsLabel()) return there ? &*from : nullptr;
  IndexNew();
  const auto first = m_Firsts.find(was.firstCluster);
  if (first != m_Firsts.end() && IsInSectorOf(was, m_New[first->second], commonSlots)) return &m_New[first->second];
  const auto name = m_Names.find(UpCase(was.ShortNameText()));
  if (name != m_Names.end() && IsInSectorOf(was, m_New[name->second], commonSlots)) return &m_New[name->second];
  return sameFile ? &*from : nullptr;
}

/// Whether an entry of the new directory that is not the successor has one of the names that an old one has.
bool SlotComparison::IsNameTaken(const RawEntry& was, const RawEntry& is) {
  IndexNew();
  for (const std::u16string& name : {was.name, was.ShortNameText()}) {
    const auto found = m_Names.find(UpCase(name));
    if (found != m_Names.end() && &m_New[found->second] != &is) return true;
  }
  return false;
}

/// @param is  what the entry becomes, or null
std::error_code SlotComparison::Decide(const RawEntry& was, const RawEntry* is, Fate* fate, std::uint32_t* size) {
  *fate = Fate::Goes;
  if (is == nullptr || was.IsLabel() != is->IsLabel()) return {};
  const bool sameChain = was.firstCluster == is->firstCluster;
  const bool sameName = was.shortName == is->shortName && was.name == is->name;
  if (was.IsLabel() || (sameChain && was.size == is->size && was.attributes == is->attributes && sameName)) {
    *fate = Fate::Stays;
    return {};
  }
  if (was.IsDirectory() != is->IsDirectory()) return {};
  if (!sameChain && (was.IsDirectory() || was.shortName != is->shortName)) return {};
  if (!sameName && IsNameTaken(was, *is)) return {};
  *fate = Fate::Stays;
  if (was.IsDirectory() || was.firstCluster == 0) return {};
  if (sameChain) {
    if (const std::error_code error = SizeMeanwhile(was, is->size, size)) return error;
    if (*size != was.size) *fate = Fate::Shrinks;
    return {};
  }
  bool freed = false;
  if (const std::error_code error = AllFreed(was.firstCluster, &freed)) return error;
  if (!freed) *fate = Fate::IsEmptied;
  return {};
}

std::error_code SlotComparison::Patch(const RawEntry& was, Fate fate, std::uint32_t size, DirectoryChange* change) {
  if (fate == Fate::Goes) {
    for (std::uint32_t slot = was.firstSlot; slot <= was.ShortSlot(); ++slot) {
      SlotPatch patch = PatchOf(0, 1);
      if (const std::error_code error = m_pBefore->SlotPosition(change->place, slot, &patch.position)) return error;
      patch.bytes[0] = SlotReader::DELETED;
      change->patches.push_back(patch);
    }
    return {};
  }
  std::uint64_t position = 0;
  if (const std::error_code error = m_pBefore->SlotPosition(change->place, was.ShortSlot(), &position)) return error;
  if (fate == Fate::Shrinks) change->patches.push_back(SizePatch(position, size));
  if (fate == Fate::IsEmptied) {
    static_assert(offsetof(ShortEntry, size) == offsetof(ShortEntry, clusterLow) + sizeof(Le16));
    change->patches.push_back(PatchOf(position + offsetof(ShortEntry, clusterHigh), sizeof(Le16)));
    change->patches.push_back(PatchOf(position + offsetof(ShortEntry, clusterLow), sizeof(Le16) + sizeof(Le32)));
  }
  return {};
}

std::error_code SlotComparison::CompareChains(DirectoryPlace place, std::uint32_t* commonSlots,
                                              DirectoryChange* change) {
  const Geometry& geometry = m_pBefore->Layout();
  *commonSlots = UINT32_MAX;
  if (place == Medium::ROOT && geometry.type != FatType::Fat32) return {};
  const std::uint32_t first = place == Medium::ROOT ? geometry.rootCluster : place;
  std::vector<Extent> old;
  if (const std::error_code error = Tolerated(m_pBefore->Chain(first, &old))) return error;
  if (const std::error_code error = Tolerated(m_pAfter->Chain(first, &change->clusters))) return error;
  std::uint32_t common = 0;
  if (const std::error_code error = CommonClusters(first, &common)) return error;
  *commonSlots = static_cast<std::uint32_t>(
      std::min<std::uint64_t>(UINT32_MAX, std::uint64_t{common} * geometry.SlotsPerCluster()));
  for (const Extent& extent : old) {
    const std::uint32_t kept = std::min(common, extent.count);
    if (kept != extent.count) change->lost.push_back({extent.first + kept, extent.count - kept});
    common -= kept;
  }
  return {};
}

/// @param used  which slots are in use, as far as the directory goes
std::error_code SlotComparison::EndSlot(Medium* medium, DirectoryPlace place, const std::vector<bool>& used,
                                        std::uint32_t* end) {
  constexpr std::uint32_t SLOT_BYTES = Geometry::SLOT_BYTES;
  const std::uint32_t sectorSlots = medium->Layout().bytesPerSector / SLOT_BYTES;
  auto slot = static_cast<std::uint32_t>(used.rend() - std::find(used.rbegin(), used.rend(), true));
  std::vector<unsigned char> bytes(std::size_t{sectorSlots} * SLOT_BYTES);
  for (bool isRead = false; slot < used.size(); ++slot) {
    const std::uint32_t inSector = slot % sectorSlots;
    if (inSector == 0 || !isRead) {
      std::uint64_t start = 0;
      if (const std::error_code error = medium->SlotPosition(place, slot - inSector, &start)) return error;
      if (const std::error_code error = medium->Base()->Read(start, bytes.data(), bytes.size())) return error;
      isRead = true;
    }
    if (bytes[std::size_t{inSector} * SLOT_BYTES] == SlotReader::NEVER_USED) break;
  }
  *end = slot;
  return {};
}

std::error_code SlotComparison::Compare(DirectoryPlace place, DirectoryChange* change) {
  *change = {};
  change->place = place;
  m_Names.clear();
  m_Firsts.clear();
  std::vector<bool> used;
  if (const std::error_code error = Tolerated(m_pBefore->ReadDirectory(place, &m_Old, nullptr, &used))) return error;
  if (const std::error_code error = EndSlot(m_pBefore, place, used, &change->oldEnd)) return error;
  if (const std::error_code error = Tolerated(m_pAfter->ReadDirectory(place, &m_New, nullptr, &used))) return error;
  if (const std::error_code error = EndSlot(m_pAfter, place, used, &change->newEnd)) return error;
  std::uint32_t commonSlots = 0;
  if (const std::error_code error = CompareChains(place, &commonSlots, change)) return error;

  std::vector<bool> stays(m_New.size());
  for (const RawEntry& was : m_Old) {
    if (was.IsDot()) continue;
    const RawEntry* const is = FindSuccessor(was, commonSlots);
    Fate fate = Fate::Stays;
    std::uint32_t size = 0;
    if (const std::error_code error = Decide(was, is, &fate, &size)) return error;
    if (const std::error_code error = Patch(was, fate, size, change)) return error;
    if (was.IsDirectory() && fate == Fate::Goes) change->removed.push_back(was.firstCluster);
    if (is != nullptr && was.IsDirectory() && fate != Fate::Goes)
      stays[static_cast<std::size_t>(is - m_New.data())] = true;
    const bool same = is != nullptr && is->firstCluster == was.firstCluster && is->size == was.size;
    if (!was.IsDirectory() && !was.IsLabel() && !(same && fate == Fate::Stays)) {
      change->chains.push_back(was.firstCluster);
    }
  }
  for (std::size_t i = 0; i < m_New.size(); ++i) {
    if (m_New[i].IsDirectory() && !m_New[i].IsDot() && !stays[i]) change->added.push_back(m_New[i].firstCluster);
  }
  return {};
}

}  // namespace fatlib
