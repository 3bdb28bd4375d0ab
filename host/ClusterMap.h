/// @file ClusterMap.h
/// A chain as runs of clusters that can be searched. Not part of the face for hosts.

#ifndef FATLIB_CLUSTERMAP_H
#define FATLIB_CLUSTERMAP_H

#include <cstdint>
#include <vector>

#include "Medium.h"

namespace fatlib {

class ClusterMap {
 public:
  ClusterMap() = default;
  explicit ClusterMap(std::vector<Extent> extents);

  std::uint32_t Clusters() const { return m_nClusters; }
  const std::vector<Extent>& Extents() const { return m_Extents; }
  /// What lies together from a cluster of the chain on.
  /// @param index  below Clusters()
  Extent From(std::uint32_t index) const;

 private:
  std::vector<Extent> m_Extents;
  std::vector<std::uint32_t> m_Starts;  // of each extent: clusters before it
  std::uint32_t m_nClusters = 0;
};

}  // namespace fatlib

#endif  // FATLIB_CLUSTERMAP_H
