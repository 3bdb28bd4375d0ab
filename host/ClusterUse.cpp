/// @file ClusterUse.cpp

#include "ClusterUse.h"

#include <algorithm>

#include "Narrow.h"

namespace fatlib {

namespace {

// Clusters, and the two entries in front of them, for which the first FAT has entries on the device.
std::uint64_t EntriesOnDevice(const Geometry& geometry, std::uint64_t deviceBytes) {
  const std::uint64_t start = geometry.FatPosition(0);
  const std::uint64_t claimed = std::uint64_t{geometry.sectorsPerFat} * geometry.bytesPerSector;
  const std::uint64_t bytes = std::min(claimed, deviceBytes - std::min(deviceBytes, start));
  const std::uint64_t entries = bytes * 8 / static_cast<unsigned int>(geometry.type);
  return std::min<std::uint64_t>(entries, std::uint64_t{geometry.clusters} + 2);
}

}  // namespace

ClusterUse::ClusterUse(Medium* medium)
    : m_pMedium(medium), m_Reached(ToSize(EntriesOnDevice(medium->Layout(), medium->Base()->Size()))) {}

void ClusterUse::Clear() {
  m_Reached.assign(m_Reached.size(), false);
  m_nReached = 0;
  m_nSharedSteps = 0;
}

bool ClusterUse::Mark(std::uint32_t cluster) {
  if (cluster >= m_Reached.size() || m_Reached[cluster]) return false;
  m_Reached[cluster] = true;
  ++m_nReached;
  return true;
}

ChainSurvey ClusterUse::Follow(std::uint32_t first) {
  ChainSurvey chain;
  std::uint32_t cluster = first;
  std::uint32_t last = 0;  // the cluster before
  for (;;) {
    if (IsReached(cluster)) {
      if (IsOnPath(first, chain.clusters, cluster)) {
        chain.end = ChainSurvey::Loops;
        chain.at = cluster;
      } else {
        chain.crossLink = cluster;
        FollowShared(cluster, &chain);
      }
      return chain;
    }
    chain.end = ChainSurvey::Broken;
    if (!Mark(cluster)) {  // the FAT has no entry for it
      if (last == 0) chain.at = cluster;
      return chain;
    }
    chain.at = cluster;
    ++chain.clusters;
    if (last == 0 || cluster != last + 1) ++chain.runs;
    if (m_pMedium->FatEntry(cluster, &chain.value)) {
      chain.end = ChainSurvey::Unreadable;
      return chain;
    }
    if (m_pMedium->IsEndOfChain(chain.value)) {
      chain.end = ChainSurvey::Ended;
      return chain;
    }
    if (!m_pMedium->Layout().IsCluster(chain.value)) return chain;
    last = cluster;
    cluster = chain.value;
  }
}

// Only for a chain with a defect, after which it is not followed any more: all calls together pass each cluster once.
bool ClusterUse::IsOnPath(std::uint32_t first, std::uint32_t steps, std::uint32_t cluster) {
  std::uint32_t at = first;
  for (std::uint32_t i = 0; i < steps; ++i) {
    if (at == cluster) return true;
    if (m_pMedium->FatEntry(at, &at)) return false;
  }
  return false;
}

// The chain that is run into has been followed to its end, so that no new cluster can come; but it can loop. A mark is
// set anew after 1, 2, 4 ... steps: once it lies on the loop, the loop leads back to it.
void ClusterUse::FollowShared(std::uint32_t cluster, ChainSurvey* chain) {
  chain->end = ChainSurvey::Unknown;
  std::uint32_t mark = 0;
  std::uint32_t stepsToMark = 1;
  std::uint32_t steps = 0;
  while (IsReached(cluster) && cluster != mark) {
    if (++m_nSharedSteps > MAX_SHARED_STEPS) return;
    ++chain->clusters;
    if (++steps == stepsToMark) {
      mark = cluster;
      stepsToMark *= 2;
      steps = 0;
    }
    if (m_pMedium->FatEntry(cluster, &cluster)) return;
    if (m_pMedium->IsEndOfChain(cluster)) {
      chain->end = ChainSurvey::Ended;
      return;
    }
  }
}

}  // namespace fatlib
