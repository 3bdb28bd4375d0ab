/// @file ClusterMap.cpp

#include "ClusterMap.h"

#include <algorithm>

namespace fatlib {

ClusterMap::ClusterMap(std::vector<Extent> extents) : m_Extents(std::move(extents)) {
  m_Starts.reserve(m_Extents.size());
  for (const Extent& extent : m_Extents) {
    m_Starts.push_back(m_nClusters);
    m_nClusters += extent.count;
  }
}

Extent ClusterMap::From(std::uint32_t index) const {
  const auto after = std::upper_bound(m_Starts.begin(), m_Starts.end(), index);
  const auto at = static_cast<std::size_t>(after - m_Starts.begin()) - 1;
  const std::uint32_t skipped = index - m_Starts[at];
  return {m_Extents[at].first + skipped, m_Extents[at].count - skipped};
}

}  // namespace fatlib
