/// @file DirectoryRoom.cpp

#include "DirectoryRoom.h"

#include <algorithm>
#include <numeric>

namespace fatimg {

DirectoryRoom::DirectoryRoom(const std::vector<bool>& used, std::uint32_t slotsPerCluster)
    : m_nSlots(static_cast<std::uint32_t>(used.size())), m_nSlotsPerCluster(slotsPerCluster) {
  for (const bool taken : used) {
    if (!taken) {
      ++m_nTail;
    } else if (m_nTail != 0) {
      m_Gaps.push_back(m_nTail);
      m_nTail = 0;
    }
  }
}

DirectoryRoom DirectoryRoom::OfNewDirectory(std::uint32_t slotsPerCluster) {
  std::vector<bool> used(slotsPerCluster);
  std::fill_n(used.begin(), 2, true);
  return DirectoryRoom(used, slotsPerCluster);
}

bool DirectoryRoom::Take(std::uint32_t slots, std::uint32_t* clusters) {
  *clusters = 0;
  const auto gap = std::find_if(m_Gaps.begin(), m_Gaps.end(), [&](std::uint32_t length) { return length >= slots; });
  if (gap != m_Gaps.end()) {
    *gap -= slots;
    return true;
  }
  if (m_nTail < slots && m_nSlotsPerCluster == 0) {  // the gaps are merged into one in front of the tail
    const std::uint32_t merged = std::accumulate(m_Gaps.begin(), m_Gaps.end(), m_nTail);
    if (merged < slots) return false;
    m_Gaps.clear();
    m_nTail = merged;
  }
  if (m_nTail < slots) {
    const std::uint32_t grown = (slots - m_nTail + m_nSlotsPerCluster - 1) / m_nSlotsPerCluster;
    if (m_nSlots + grown * m_nSlotsPerCluster > MAX_SLOTS) return false;
    *clusters = grown;
    m_nTail += grown * m_nSlotsPerCluster;
    m_nSlots += grown * m_nSlotsPerCluster;
  }
  m_nTail -= slots;
  return true;
}

}  // namespace fatimg
