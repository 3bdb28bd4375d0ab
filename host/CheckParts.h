/// @file CheckParts.h
/// The parts of a check, in the order in which Check calls them. Not part of the face for hosts.

#ifndef FATLIB_CHECKPARTS_H
#define FATLIB_CHECKPARTS_H

#include <vector>

#include "ClusterUse.h"
#include "DefectList.h"

namespace fatlib {

/// What was looked at, in bytes of the volume. Once it was told to stop, it stays so.
class CheckProgress {
 public:
  CheckProgress(const Progress& progress, const Geometry& geometry)
      : m_Progress(progress), m_nBytesPerCluster(geometry.bytesPerCluster), m_nTotal(geometry.clusters) {}

  /// @return false when the check is to stop
  bool Report(std::uint64_t clusters) {
    if (m_Progress && !m_bStopped)
      m_bStopped = !m_Progress(clusters * m_nBytesPerCluster, m_nTotal * m_nBytesPerCluster);
    return !m_bStopped;
  }
  bool IsStopped() const { return m_bStopped; }

 private:
  const Progress& m_Progress;
  std::uint64_t m_nBytesPerCluster;
  std::uint64_t m_nTotal;  // clusters
  bool m_bStopped = false;
};

/// Boot sectors, sizes and FSInfo's signatures (of CheckBoot.cpp).
void CheckBoot(Medium* medium, DefectList* defects);

/// The FAT but for its chains (of CheckFat.cpp): its copies, first entries and reserved bits.
void CheckFat(Medium* medium, DefectList* defects, CheckProgress* progress);

/// All that is reached from the root (of CheckTree.cpp). Fills the report but for free, bad and lost clusters.
void CheckTree(Medium* medium, ClusterUse* use, CheckReport* report, CheckProgress* progress);

/// Two entries of a directory with the same name.
struct NameClash {
  Defect::Kind kind;  ///< DuplicateShortName or DuplicateLongName
  std::size_t entry;
  std::size_t other;  ///< an earlier one
};

/// At most one clash of each entry (of CheckNames.cpp). Labels, "." and ".." have no name.
std::vector<NameClash> FindNameClashes(const std::vector<RawEntry>& entries);

/// What no chain has (of CheckLost.cpp), and whether FSInfo knows how much that is.
void CheckLost(Medium* medium, ClusterUse* use, CheckReport* report, CheckProgress* progress);

}  // namespace fatlib

#endif  // FATLIB_CHECKPARTS_H
