/// @file SlotMap.cpp

#include "SlotMap.h"

#include <algorithm>

namespace fatlib {

SlotMap::SlotMap(const std::vector<bool>& used) {
  Grow(static_cast<std::uint32_t>(used.size()));
  for (std::uint32_t slot = 0; slot < m_nTotal; ++slot) {
    if (used[slot]) Take(slot, 1);
  }
}

void SlotMap::Grow(std::uint32_t count) {
  if (m_nHint > m_nTotal) m_nHint = m_nTotal;
  m_nTotal += count;
  m_Words.resize((m_nTotal + BITS - 1) / BITS);
}

void SlotMap::Take(std::uint32_t first, std::uint32_t count) {
  for (std::uint32_t slot = first; slot - first < count && slot < m_nTotal; ++slot) {
    if (IsUsed(slot)) continue;
    m_Words[slot / BITS] |= std::uint64_t{1} << slot % BITS;
    ++m_nUsed;
  }
  while (m_nHint < m_nTotal && IsUsed(m_nHint)) ++m_nHint;
}

void SlotMap::Release(std::uint32_t first, std::uint32_t count) {
  for (std::uint32_t slot = first; slot - first < count && slot < m_nTotal; ++slot) {
    if (!IsUsed(slot)) continue;
    m_Words[slot / BITS] &= ~(std::uint64_t{1} << slot % BITS);
    --m_nUsed;
  }
  m_nHint = std::min(m_nHint, first);
}

std::uint32_t SlotMap::FindRun(std::uint32_t count) const {
  std::uint32_t run = 0;
  for (std::uint32_t slot = m_nHint; slot < m_nTotal; ++slot) {
    if (slot % BITS == 0 && m_Words[slot / BITS] == UINT64_MAX) {  // 64 slots in use at once
      run = 0;
      slot += BITS - 1;
      continue;
    }
    run = IsUsed(slot) ? 0 : run + 1;
    if (run == count) return slot + 1 - count;
  }
  return NONE;
}

std::uint32_t SlotMap::FreeAtEnd() const {
  std::uint32_t slot = m_nTotal;
  while (slot > m_nHint && !IsUsed(slot - 1)) --slot;
  return m_nTotal - slot;
}

}  // namespace fatlib
