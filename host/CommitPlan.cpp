/// @file CommitPlan.cpp

#include "CommitPlan.h"

#include <algorithm>
#include <map>
#include <memory>
#include <unordered_set>

#include "CommitFat.h"
#include "CommitSlots.h"
#include "Error.h"
#include "Narrow.h"

namespace fatlib {

namespace {

class Planner {
 public:
  Planner(Device* base, CommitSectors* held, const CommitTree& tree, CommitPlan* plan)
      : m_pBase(base), m_pHeld(held), m_Tree(tree), m_pPlan(plan) {
    m_Layers.push_back(std::make_unique<CommitSectors>(base, held->BytesPerSector()));
  }

  std::error_code Run();

 private:
  bool IsOtherVolume() const;
  void FindDirectories(CommitTree::PLACES* places) const;
  std::error_code CompareDirectories();
  std::error_code FindOwners(SlotComparison* comparison);
  std::error_code LookForOwners(SlotComparison* comparison, DirectoryPlace place, std::uint64_t* steps);
  void SortSectors();
  void OrderSectors(const DirectoryChange& change);

  std::error_code Allocate();
  std::error_code Diminish();
  std::error_code CutLinks();
  std::error_code Link(bool ofDirectories);
  std::error_code MakeFinal(const std::set<std::uint64_t>& sectors);
  std::error_code MakeAllFinal();
  std::error_code EndPhase(bool oneByOne = false);
  CommitSectors* Stage() { return m_Layers.back().get(); }

  Device* m_pBase;
  CommitSectors* m_pHeld;
  const CommitTree& m_Tree;
  CommitPlan* m_pPlan;
  Medium m_Before;
  Medium m_After;
  std::vector<FatChange> m_Fat;
  std::vector<DirectoryChange> m_Directories;
  std::unordered_set<std::uint32_t> m_Cut;   // clusters whose links become others, and whose file is not known yet
  std::unordered_set<std::uint32_t> m_Lost;  // clusters that directories lose
  std::vector<SlotPatch> m_Patches;          // of entries that are not changed, but their chains
  std::set<std::uint64_t> m_Unreached;       // sectors that no directory leads to in the third phase
  std::set<std::uint64_t> m_Hidden;          // sectors behind the old end of a directory
  std::set<std::uint64_t> m_Reached;
  std::set<std::uint64_t> m_Behind;                      // sectors behind the new end of a directory
  std::vector<std::unique_ptr<CommitSectors>> m_Layers;  // each over the one before: what a phase writes
};

/// Whether the boot sector has become that of a volume with another layout: there is nothing to be kept then.
bool Planner::IsOtherVolume() const {
  const Geometry& was = m_Before.Layout();
  const Geometry& is = m_After.Layout();
  return was.type != is.type || was.bytesPerSector != is.bytesPerSector || was.bytesPerCluster != is.bytesPerCluster ||
         was.clusters != is.clusters || was.fats != is.fats || was.FatPosition(0) != is.FatPosition(0) ||
         was.sectorsPerFat != is.sectorsPerFat || was.firstDataSector != is.firstDataSector ||
         was.rootCluster != is.rootCluster;
}

std::error_code Planner::Run() {
  if (const std::error_code error = m_Before.Open(m_pBase)) return error;
  if (m_After.Open(m_pHeld) || IsOtherVolume()) return MakeAllFinal();
  if (const std::error_code error = FindFatChanges(&m_Before, &m_After, *m_pHeld, &m_Fat)) return error;
  if (const std::error_code error = CompareDirectories()) return error;
  if (const std::error_code error = Allocate()) return error;
  if (const std::error_code error = Diminish()) return error;
  if (const std::error_code error = EndPhase()) return error;
  SortSectors();
  if (const std::error_code error = CutLinks()) return error;
  if (const std::error_code error = EndPhase(m_Before.Layout().type == FatType::Fat12)) return error;
  if (const std::error_code error = Link(false)) return error;
  if (const std::error_code error = MakeFinal(m_Unreached)) return error;
  if (const std::error_code error = EndPhase()) return error;
  if (const std::error_code error = Link(true)) return error;
  if (const std::error_code error = EndPhase()) return error;
  for (const std::set<std::uint64_t>* sectors : {&m_Hidden, &m_Reached, &m_Behind}) {
    if (const std::error_code error = MakeFinal(*sectors)) return error;
    if (const std::error_code error = EndPhase()) return error;
  }
  return MakeAllFinal();
}

// ---------------------------------------------------------------------------------------------- what changes

/// The directories of which a sector is held, or which have other clusters.
void Planner::FindDirectories(CommitTree::PLACES* places) const {
  const Geometry& geometry = m_Before.Layout();
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
    if (m_Tree.FindOwner(cluster, &place)) places->insert(place);
  }
  for (const FatChange& change : m_Fat) {
    if (m_Tree.FindOwner(change.cluster, &place)) {
      places->insert(place);
      m_pPlan->resized.insert(place);
    }
  }
}

std::error_code Planner::CompareDirectories() {
  for (const FatChange& change : m_Fat) {
    const bool cut = change.IsRelinked() && !m_Before.IsEndOfChain(change.was);
    if (cut) m_Cut.insert(change.cluster);
  }
  SlotComparison comparison(&m_Before, &m_After, !m_Cut.empty());
  CommitTree::PLACES places;
  FindDirectories(&places);
  for (const DirectoryPlace place : places) {
    DirectoryChange change;
    if (const std::error_code error = comparison.Compare(place, &change)) return error;
    m_pPlan->removed.insert(change.removed.begin(), change.removed.end());
    m_Directories.push_back(std::move(change));
  }
  m_pPlan->removed.erase(Medium::ROOT);
  // Nothing leads to what is below a directory that goes.
  const auto gone = [this](const DirectoryChange& change) { return m_Tree.IsIn(change.place, m_pPlan->removed); };
  for (const DirectoryChange& change : m_Directories) {
    for (const Extent& extent : change.lost) {
      for (std::uint32_t i = 0; i < extent.count; ++i) m_Lost.insert(extent.first + i);
    }
    if (gone(change)) continue;
    for (const std::uint32_t place : change.added) m_pPlan->added.emplace_back(place, change.place);
  }
  if (!m_Cut.empty()) {
    if (const std::error_code error = FindOwners(&comparison)) return error;
  }
  m_Directories.erase(std::remove_if(m_Directories.begin(), m_Directories.end(), gone), m_Directories.end());
  return {};
}

/// A file that was cut and grew again inside the granularity of times has the same entry, and another chain. Its entry
/// is found by looking at all of them, when no changed entry and no directory has the chain that changes.
std::error_code Planner::FindOwners(SlotComparison* comparison) {
  std::uint64_t steps = std::uint64_t{m_Before.Layout().clusters} * 4;
  for (const auto& owner : m_Tree.Owners()) m_Cut.erase(owner.first);
  for (const DirectoryChange& change : m_Directories) {
    for (std::uint32_t cluster : change.chains) {
      for (; !m_Cut.empty() && m_Before.Layout().IsCluster(cluster) && steps != 0; --steps) {
        m_Cut.erase(cluster);
        if (const std::error_code error = m_Before.FatEntry(cluster, &cluster)) return error;
      }
    }
  }
  if (m_Cut.empty()) return {};
  if (const std::error_code error = LookForOwners(comparison, Medium::ROOT, &steps)) return error;
  for (const auto& [place, parent] : m_Tree.Parents()) {
    if (m_Tree.IsIn(place, m_pPlan->removed)) continue;
    if (const std::error_code error = LookForOwners(comparison, place, &steps)) return error;
  }
  return {};
}

std::error_code Planner::LookForOwners(SlotComparison* comparison, DirectoryPlace place, std::uint64_t* steps) {
  std::vector<RawEntry> entries;
  const std::error_code unread = m_Before.ReadDirectory(place, &entries);
  if (unread && unread != Status::DiskCorrupt) return unread;
  for (const RawEntry& entry : entries) {
    if (entry.IsDirectory() || entry.IsLabel() || entry.IsDot()) continue;
    bool found = false;
    std::uint32_t cluster = entry.firstCluster;
    for (; !m_Cut.empty() && m_Before.Layout().IsCluster(cluster) && *steps != 0; --*steps) {
      found = m_Cut.erase(cluster) != 0 || found;
      if (const std::error_code error = m_Before.FatEntry(cluster, &cluster)) return error;
    }
    if (!found) continue;
    std::uint32_t size = 0;
    std::uint64_t position = 0;
    if (const std::error_code error = comparison->SizeMeanwhile(entry, entry.size, &size)) return error;
    if (const std::error_code error = m_Before.SlotPosition(place, entry.ShortSlot(), &position)) return error;
    if (size != entry.size) m_Patches.push_back(SlotComparison::SizePatch(position, size));
  }
  return {};
}

// ---------------------------------------------------------------------------------------------- where it lies

/// Says when each sector outside of the FATs becomes final: those that are held, and those that were changed before.
void Planner::SortSectors() {
  const Geometry& geometry = m_Before.Layout();
  const std::uint64_t fats = m_pHeld->SectorOf(geometry.FatPosition(0));
  const std::uint64_t fatsEnd = m_pHeld->SectorOf(geometry.RootPosition());
  const auto sort = [&](std::uint64_t sector) {
    if (sector >= fats && sector < fatsEnd) return;
    bool reached = sector < geometry.firstDataSector;
    if (!reached) {
      const auto cluster =
          static_cast<std::uint32_t>((sector - geometry.firstDataSector) / geometry.sectorsPerCluster + 2);
      DirectoryPlace place = Medium::ROOT;
      reached =
          m_Tree.FindOwner(cluster, &place) && m_Lost.count(cluster) == 0 && !m_Tree.IsIn(place, m_pPlan->removed);
    }
    (reached ? m_Reached : m_Unreached).insert(sector);
  };
  for (const auto& [sector, bytes] : m_pHeld->Sectors()) sort(sector);
  for (const auto& layer : m_Layers) {
    for (const auto& [sector, bytes] : layer->Sectors()) sort(sector);
  }
  for (const DirectoryChange& change : m_Directories) OrderSectors(change);
}

void Planner::OrderSectors(const DirectoryChange& change) {
  const Geometry& geometry = m_Before.Layout();
  const std::uint32_t slots = geometry.bytesPerSector / Geometry::SLOT_BYTES;
  const auto order = [&](std::uint64_t first, std::uint64_t count, std::uint64_t slotsBefore) {
    for (auto sector = m_Reached.lower_bound(first); sector != m_Reached.end() && *sector < first + count;) {
      const std::uint64_t slot = slotsBefore + (*sector - first) * slots;
      if (slot > change.newEnd) {
        m_Behind.insert(*sector);
        sector = m_Reached.erase(sector);
      } else if (slot > change.oldEnd) {
        m_Hidden.insert(*sector);
        sector = m_Reached.erase(sector);
      } else {
        ++sector;
      }
    }
  };
  if (change.place == Medium::ROOT && geometry.type != FatType::Fat32) {
    const std::uint64_t first = m_pHeld->SectorOf(geometry.RootPosition());
    order(first, geometry.firstDataSector - first, 0);
    return;
  }
  std::uint64_t before = 0;
  for (const Extent& extent : change.clusters) {
    order(m_pHeld->SectorOf(geometry.ClusterPosition(extent.first)),
          std::uint64_t{extent.count} * geometry.sectorsPerCluster, before);
    before += std::uint64_t{extent.count} * geometry.SlotsPerCluster();
  }
}

// ---------------------------------------------------------------------------------------------- the phases

std::error_code Planner::Allocate() {
  for (const FatChange& change : m_Fat) {
    if (!change.IsAllocated()) continue;
    if (const std::error_code error = PutFatEntry(m_Before.Layout(), Stage(), change.cluster, change.is)) return error;
  }
  return {};
}

std::error_code Planner::Diminish() {
  const auto put = [this](const std::vector<SlotPatch>& patches) {
    for (const SlotPatch& patch : patches) {
      if (const std::error_code error = Stage()->Put(patch.position, patch.bytes.data(), patch.count)) return error;
    }
    return std::error_code();
  };
  for (const DirectoryChange& change : m_Directories) {
    if (const std::error_code error = put(change.patches)) return error;
  }
  return put(m_Patches);
}

std::error_code Planner::CutLinks() {
  for (const FatChange& change : m_Fat) {
    if (!change.IsRelinked() || m_Before.IsEndOfChain(change.was)) continue;
    const std::uint32_t end = m_Before.IsEndOfChain(change.is) ? change.is : EndOfChain(m_Before.Layout().type);
    if (const std::error_code error = PutFatEntry(m_Before.Layout(), Stage(), change.cluster, end)) return error;
  }
  return {};
}

std::error_code Planner::Link(bool ofDirectories) {
  for (const FatChange& change : m_Fat) {
    if (!change.IsRelinked() || m_Tree.HasCluster(change.cluster) != ofDirectories) continue;
    if (const std::error_code error = PutFatEntry(m_Before.Layout(), Stage(), change.cluster, change.is)) return error;
  }
  return {};
}

std::error_code Planner::MakeFinal(const std::set<std::uint64_t>& sectors) {
  std::vector<unsigned char> bytes(m_pHeld->BytesPerSector());
  for (const std::uint64_t sector : sectors) {
    const std::uint64_t position = m_pHeld->PositionOf(sector);
    if (const std::error_code error = m_pHeld->Read(position, bytes.data(), bytes.size())) return error;
    if (const std::error_code error = Stage()->Put(position, bytes.data(), bytes.size())) return error;
  }
  return {};
}

/// The rest: clusters that become free, and bytes of the FATs that are no cluster's entry.
std::error_code Planner::MakeAllFinal() {
  std::set<std::uint64_t> sectors;
  for (const auto& [sector, bytes] : m_pHeld->Sectors()) sectors.insert(sector);
  for (const auto& layer : m_Layers) {
    for (const auto& [sector, bytes] : layer->Sectors()) sectors.insert(sector);
  }
  if (const std::error_code error = MakeFinal(sectors)) return error;
  return EndPhase();
}

/// Takes what was put since the last phase, and differs.
std::error_code Planner::EndPhase(bool oneByOne) {
  constexpr std::size_t MAX_WRITE_BYTES = std::size_t{1} << 20;
  CommitSectors* const stage = Stage();
  Device* const below = m_Layers.size() == 1 ? m_pBase : m_Layers[m_Layers.size() - 2].get();
  CommitPhase phase;
  std::vector<unsigned char> old(stage->BytesPerSector());
  for (const auto& [sector, bytes] : stage->Sectors()) {
    const std::uint64_t position = stage->PositionOf(sector);
    if (const std::error_code error = below->Read(position, old.data(), old.size())) return error;
    if (old == bytes) continue;
    const bool joins = !oneByOne && !phase.empty() && phase.back().position + phase.back().bytes.size() == position &&
                       phase.back().bytes.size() < MAX_WRITE_BYTES;
    if (!joins) {
      phase.push_back({position, bytes});
    } else {
      phase.back().bytes.insert(phase.back().bytes.end(), bytes.begin(), bytes.end());
    }
  }
  if (phase.empty()) {
    stage->Clear();
    return {};
  }
  if (oneByOne) std::reverse(phase.begin(), phase.end());
  m_pPlan->phases.push_back(std::move(phase));
  m_Layers.push_back(std::make_unique<CommitSectors>(stage, stage->BytesPerSector()));
  return {};
}

}  // namespace

std::error_code PlanCommit(Device* base, CommitSectors* held, const CommitTree& tree, CommitPlan* plan) {
  *plan = {};
  return Planner(base, held, tree, plan).Run();
}

}  // namespace fatlib
