/// @file Lookaside.cpp

#include "platform/Lookaside.h"

CLookasideList::CLookasideList(unsigned int blockSize, unsigned int growCount)
    : m_ppFree(static_cast<void**>(osMemAllocArray(2 * static_cast<std::size_t>(growCount), sizeof(void*)))),
      m_nTop(-1),
      m_nInUse(0),
      m_nTotal(0),
      m_nCapacity(2 * growCount),
      m_nGrow(growCount),
      m_nBlockSize(blockSize) {
  Grow();
}

CLookasideList::~CLookasideList() {
  Shrink();
  osMemFree(m_ppFree);
}

bool CLookasideList::Grow() {
  if (m_ppFree == nullptr) return false;
  for (unsigned int i = 0; i < m_nGrow && FreeCount() < m_nCapacity; ++i) {
    void* block = osMemAlloc(m_nBlockSize);
    if (block == nullptr) return false;
    m_ppFree[++m_nTop] = block;
    ++m_nTotal;
  }
  return true;
}

void CLookasideList::Shrink() {
  for (unsigned int i = 0; i < m_nGrow && m_nTop >= 0; ++i) {
    osMemFree(m_ppFree[m_nTop--]);
    --m_nTotal;
  }
}

void* CLookasideList::Allocate() {
  if (m_nTop < 0) {
    // One block is enough to go on: a growth that ran out of memory half-way is no failure yet.
    Grow();
    if (m_nTop < 0) return nullptr;
  }
  ++m_nInUse;
  return m_ppFree[m_nTop--];
}

void CLookasideList::Recycle(void* block) {
  --m_nInUse;
  m_ppFree[++m_nTop] = block;
  if (m_nTop == static_cast<int>(m_nCapacity) - 1) Shrink();
}
