/// @file CommitPlan.cpp

#include "CommitPlan.h"

#include <algorithm>
#include <memory>

#include "CommitChanges.h"
#include "CommitFat.h"
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
  void SortSectors();
  void OrderSectors(const DirectoryChange& change);

  std::error_code Allocate();
  std::error_code Diminish();
  std::error_code CutLinks(bool half);
  std::error_code Link(bool ofDirectories, bool half);
  std::error_code MakeFinal(const std::set<std::uint64_t>& sectors);
  std::error_code MakeAllFinal();
  std::error_code EndPhase();
  CommitSectors* Stage() { return m_Layers.back().get(); }

  Device* m_pBase;
  CommitSectors* m_pHeld;
  const CommitTree& m_Tree;
  CommitPlan* m_pPlan;
  Medium m_Before;
  Medium m_After;
  CommitChanges m_Changes;
  std::set<std::uint64_t> m_Unreached;  // sectors that no directory leads to in the third phase
  std::set<std::uint64_t> m_Hidden;     // sectors behind the old end of a directory
  std::set<std::uint64_t> m_Reached;
  std::set<std::uint64_t> m_Behind;                      // sectors behind the new end of a directory
  std::vector<std::unique_ptr<CommitSectors>> m_Layers;  // each over the one before: what a phase writes
};

/// Whether the boot sector has become that of a volume with another layout.
bool Planner::IsOtherVolume() const {
  const Geometry& was = m_Before.Layout();
  const Geometry& is = m_After.Layout();
  return was.type != is.type || was.bytesPerSector != is.bytesPerSector || was.bytesPerCluster != is.bytesPerCluster ||
         was.clusters != is.clusters || was.fats != is.fats || was.FatPosition(0) != is.FatPosition(0) ||
         was.sectorsPerFat != is.sectorsPerFat || was.firstDataSector != is.firstDataSector ||
         was.rootCluster != is.rootCluster;
}

std::error_code Planner::Run() {
  std::error_code opened = m_Before.Open(m_pBase);
  if (!opened) opened = m_After.Open(m_pHeld);
  if (opened && opened != Status::NotAVolume) return opened;
  // Of a volume that is made anew, or destroyed, nothing is to be kept.
  if (opened || IsOtherVolume()) return MakeAllFinal();
  if (const std::error_code error = m_Changes.Find(&m_Before, &m_After, *m_pHeld, m_Tree)) return error;
  m_pPlan->removed = m_Changes.removed;
  m_pPlan->resized = m_Changes.resized;
  m_pPlan->added = m_Changes.added;
  if (const std::error_code error = Allocate()) return error;
  if (const std::error_code error = Diminish()) return error;
  if (const std::error_code error = EndPhase()) return error;
  SortSectors();
  for (const bool half : {true, false}) {
    if (const std::error_code error = CutLinks(half)) return error;
    if (const std::error_code error = EndPhase()) return error;
  }
  for (const bool ofDirectories : {false, true}) {
    for (const bool half : {true, false}) {
      if (const std::error_code error = Link(ofDirectories, half)) return error;
      if (!ofDirectories && !half) {
        if (const std::error_code error = MakeFinal(m_Unreached)) return error;
      }
      if (const std::error_code error = EndPhase()) return error;
    }
  }
  for (const std::set<std::uint64_t>* sectors : {&m_Hidden, &m_Reached, &m_Behind}) {
    if (const std::error_code error = MakeFinal(*sectors)) return error;
    if (const std::error_code error = EndPhase()) return error;
  }
  return MakeAllFinal();
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
      reached = m_Tree.FindOwner(cluster, &place) && m_Changes.lost.count(cluster) == 0 &&
                !m_Tree.IsIn(place, m_Changes.removed);
    }
    (reached ? m_Reached : m_Unreached).insert(sector);
  };
  for (const auto& [sector, bytes] : m_pHeld->Sectors()) sort(sector);
  for (const auto& layer : m_Layers) {
    for (const auto& [sector, bytes] : layer->Sectors()) sort(sector);
  }
  for (const DirectoryChange& change : m_Changes.directories) OrderSectors(change);
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
  for (const FatChange& change : m_Changes.fat) {
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
  for (const DirectoryChange& change : m_Changes.directories) {
    if (const std::error_code error = put(change.patches)) return error;
  }
  return put(m_Changes.patches);
}

std::error_code Planner::CutLinks(bool half) {
  const Geometry& geometry = m_Before.Layout();
  for (const FatChange& change : m_Changes.fat) {
    if (!change.IsRelinked() || m_Before.IsEndOfChain(change.was)) continue;
    std::uint32_t value = m_Before.IsEndOfChain(change.is) ? change.is : EndOfChain(geometry.type);
    if (half) {
      if (!LiesInTwoSectors(geometry, change.cluster)) continue;
      value = HalfLinked(change.cluster, change.was);
    }
    if (const std::error_code error = PutFatEntry(geometry, Stage(), change.cluster, value)) return error;
  }
  return {};
}

std::error_code Planner::Link(bool ofDirectories, bool half) {
  const Geometry& geometry = m_Before.Layout();
  for (const FatChange& change : m_Changes.fat) {
    if (!change.IsRelinked() || m_Tree.HasCluster(change.cluster) != ofDirectories) continue;
    if (half && (m_Before.IsEndOfChain(change.is) || !LiesInTwoSectors(geometry, change.cluster))) continue;
    const std::uint32_t value = half ? HalfLinked(change.cluster, change.is) : change.is;
    if (const std::error_code error = PutFatEntry(geometry, Stage(), change.cluster, value)) return error;
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
std::error_code Planner::EndPhase() {
  constexpr std::size_t MAX_WRITE_BYTES = std::size_t{1} << 20;
  CommitSectors* const stage = Stage();
  Device* const below = m_Layers.size() == 1 ? m_pBase : m_Layers[m_Layers.size() - 2].get();
  CommitPhase phase;
  std::vector<unsigned char> old(stage->BytesPerSector());
  for (const auto& [sector, bytes] : stage->Sectors()) {
    const std::uint64_t position = stage->PositionOf(sector);
    if (const std::error_code error = below->Read(position, old.data(), old.size())) return error;
    if (old == bytes) continue;
    const bool joins = !phase.empty() && phase.back().position + phase.back().bytes.size() == position &&
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
