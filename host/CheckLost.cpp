/// @file CheckLost.cpp
/// Clusters that are in use, and that nothing reaches.

#include "CheckParts.h"
#include "Layout.h"

namespace fatlib {

namespace {

class LostCheck {
 public:
  LostCheck(Medium* medium, ClusterUse* use, CheckReport* report, CheckProgress* progress)
      : m_pMedium(medium),
        m_Geometry(medium->Layout()),
        m_pUse(use),
        m_pReport(report),
        m_Defects(report),
        m_pProgress(progress),
        m_HasPrevious(use->End()) {}

  void Run() {
    if (!Count()) return;
    if (m_pReport->lostClusters != 0) TellChains();
    CompareFsInfo();
  }

 private:
  bool IsLost(std::uint32_t cluster, std::uint32_t entry) const {
    return entry != 0 && !m_pMedium->IsBadCluster(entry) && !m_pUse->IsReached(cluster);
  }
  bool Goes(std::uint32_t clusters) { return clusters % (1u << 20) != 0 || m_pProgress->Report(clusters); }

  // Also finds out which lost clusters another one leads to.
  bool Count() {
    for (std::uint32_t cluster = 2; cluster < m_pUse->End(); ++cluster) {
      std::uint32_t entry = 0;
      if (!Goes(cluster)) return false;
      if (m_pMedium->FatEntry(cluster, &entry)) {
        m_Defects.Add(Defect::Unreadable, m_Geometry.FatPosition(0));
        return false;
      }
      if (entry == 0) ++m_pReport->freeClusters;
      if (m_pMedium->IsBadCluster(entry)) ++m_pReport->badClusters;
      if (!IsLost(cluster, entry)) continue;
      ++m_pReport->lostClusters;
      if (entry < m_HasPrevious.size()) m_HasPrevious[entry] = true;
    }
    // Those behind the end of the FAT on the device read as 0.
    m_pReport->freeClusters += m_Geometry.clusters + std::uint64_t{2} - m_pUse->End();
    return m_pProgress->Report(m_Geometry.clusters);
  }

  // Chains with a beginning first; what is left then leads back to itself.
  void TellChains() {
    for (const bool loops : {false, true}) {
      for (std::uint32_t cluster = 2; cluster < m_pUse->End(); ++cluster) {
        if (!loops && m_HasPrevious[cluster]) continue;
        std::uint32_t entry = 0;
        if (m_pMedium->FatEntry(cluster, &entry) || !IsLost(cluster, entry)) continue;
        m_Defects.Add(Defect::LostChain, cluster, Take(cluster));
      }
    }
  }

  // Counts the clusters of a lost chain as far as no earlier one has them.
  std::uint32_t Take(std::uint32_t first) {
    std::uint32_t clusters = 0;
    std::uint32_t cluster = first;
    std::uint32_t entry = 0;
    while (m_Geometry.IsCluster(cluster) && !m_pMedium->FatEntry(cluster, &entry) && IsLost(cluster, entry) &&
           m_pUse->Mark(cluster)) {
      ++clusters;
      cluster = entry;
    }
    return clusters;
  }

  void CompareFsInfo() {
    FsInfoSector info;
    if (!m_Geometry.HasFsInfo()) return;
    if (m_pMedium->Base()->Read(m_Geometry.FsInfoPosition(), &info, sizeof info) || !info.IsValid())
      return;  // told before
    const std::uint32_t says = info.freeClusters.Load();
    if (says != FsInfoSector::UNKNOWN && says != m_pReport->freeClusters) {
      m_Defects.Add(Defect::FsInfoWrongCount, says, m_pReport->freeClusters);
    }
  }

  Medium* m_pMedium;
  const Geometry& m_Geometry;
  ClusterUse* m_pUse;
  CheckReport* m_pReport;
  DefectList m_Defects;
  CheckProgress* m_pProgress;
  std::vector<bool> m_HasPrevious;  // by cluster: a lost one leads to it
};

}  // namespace

void CheckLost(Medium* medium, ClusterUse* use, CheckReport* report, CheckProgress* progress) {
  LostCheck(medium, use, report, progress).Run();
}

}  // namespace fatlib
