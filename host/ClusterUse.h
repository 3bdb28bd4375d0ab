/// @file ClusterUse.h
/// Which clusters the chains of a volume have, found by following them one after the other. Not part of the face for
/// hosts.
///
/// Every cluster is passed once, with one bit of memory for each that has an entry in the FAT on the device, so that
/// chains which loop or run into each other cost no more than others. What a chain shares with an earlier one is passed
/// again for its length, but no more than MAX_SHARED_STEPS times in all.

#ifndef FATLIB_CLUSTERUSE_H
#define FATLIB_CLUSTERUSE_H

#include <cstdint>
#include <vector>

#include "Medium.h"

namespace fatlib {

struct ChainSurvey {
  enum End {
    Ended,
    Loops,       ///< at: the cluster that was reached twice
    Broken,      ///< at: the last cluster; value: what its entry holds
    Unreadable,  ///< at: the cluster whose entry could not be read
    Unknown,     ///< behind a cross-link, where the chain it runs into has a defect of its own, or too long to follow
  } end = Ended;
  std::uint32_t clusters = 0;  ///< passed, those shared with another chain included
  std::uint32_t runs = 0;      ///< of its own clusters
  std::uint32_t at = 0;
  std::uint32_t value = 0;
  std::uint32_t crossLink = 0;  ///< the first cluster that an earlier chain has; 0: none
};

class ClusterUse {
 public:
  static constexpr std::uint64_t MAX_SHARED_STEPS = 1u << 22;

  /// @param medium  must live as long as the object
  explicit ClusterUse(Medium* medium);

  /// @param first  a cluster of the volume
  ChainSurvey Follow(std::uint32_t first);
  /// Whether a chain that was followed has it.
  bool IsReached(std::uint32_t cluster) const { return cluster < m_Reached.size() && m_Reached[cluster]; }
  /// Marks a cluster by itself, as reached. @return false when it was already
  bool Mark(std::uint32_t cluster);
  std::uint64_t Reached() const { return m_nReached; }
  /// One more than the last cluster that has an entry in the FAT on the device.
  std::uint32_t End() const { return static_cast<std::uint32_t>(m_Reached.size()); }
  void Clear();

 private:
  bool IsOnPath(std::uint32_t first, std::uint32_t steps, std::uint32_t cluster);
  void FollowShared(std::uint32_t cluster, ChainSurvey* chain);

  Medium* m_pMedium;
  std::vector<bool> m_Reached;  // by cluster
  std::uint64_t m_nReached = 0;
  std::uint64_t m_nSharedSteps = 0;
};

}  // namespace fatlib

#endif  // FATLIB_CLUSTERUSE_H
