/// @file MemHooks.cpp
/// Replaces members of g_OsServices, and puts them back.

#include "support/MemHooks.h"

#include <algorithm>
#include <stdexcept>

CMemHooks* CMemHooks::s_pActive = nullptr;
std::time_t CFixedClock::s_Now = 0;

CMemHooks::CMemHooks() : m_Saved(g_OsServices) {
  if (s_pActive != nullptr) throw std::logic_error("the memory is already hooked");
  s_pActive = this;
  g_OsServices.pfnMalloc = &CMemHooks::Malloc;
  g_OsServices.pfnCalloc = &CMemHooks::Calloc;
  g_OsServices.pfnRealloc = &CMemHooks::Realloc;
  g_OsServices.pfnFree = &CMemHooks::Free;
}

CMemHooks::~CMemHooks() {
  g_OsServices.pfnMalloc = m_Saved.pfnMalloc;
  g_OsServices.pfnCalloc = m_Saved.pfnCalloc;
  g_OsServices.pfnRealloc = m_Saved.pfnRealloc;
  g_OsServices.pfnFree = m_Saved.pfnFree;
  s_pActive = nullptr;
}

void CMemHooks::FailAt(unsigned int nth, DURATION duration) {
  m_nCountdown = nth;
  m_Duration = duration;
  m_nRefuseFrom = 0;
  m_bFired = false;
}

void CMemHooks::FailAbove(std::size_t bytes) {
  m_nCountdown = 0;
  m_nRefuseFrom = bytes;
  m_bFired = false;
}

void CMemHooks::Heal() {
  m_nCountdown = 0;
  m_nRefuseFrom = 0;
}

bool CMemHooks::Refuses(std::size_t size) {
  ++m_nAllocations;
  m_nLargestRequest = std::max(m_nLargestRequest, size);
  bool refuse = m_nRefuseFrom != 0 && size >= m_nRefuseFrom;
  if (m_nCountdown > 1) {
    --m_nCountdown;
  } else if (m_nCountdown == 1) {
    refuse = true;
    if (m_Duration == ONCE) m_nCountdown = 0;
  }
  if (refuse) m_bFired = true;
  return refuse;
}

void CMemHooks::Enter(void* memory, std::size_t size) {
  if (memory == nullptr) return;
  m_Blocks[memory] = size;
  m_nBytes += size;
  m_nPeakBytes = std::max(m_nPeakBytes, m_nBytes);
}

void CMemHooks::Leave(void* memory) {
  if (memory == nullptr) return;
  const auto found = m_Blocks.find(memory);
  if (found == m_Blocks.end()) {
    ++m_nUnknownFrees;
    return;
  }
  m_nBytes -= found->second;
  m_Blocks.erase(found);
}

void* CMemHooks::Malloc(std::size_t size) {
  if (s_pActive->Refuses(size)) return nullptr;
  void* memory = s_pActive->m_Saved.pfnMalloc(size);
  s_pActive->Enter(memory, size);
  return memory;
}

void* CMemHooks::Calloc(std::size_t count, std::size_t size) {
  if (s_pActive->Refuses(count * size)) return nullptr;
  void* memory = s_pActive->m_Saved.pfnCalloc(count, size);
  s_pActive->Enter(memory, count * size);
  return memory;
}

void* CMemHooks::Realloc(void* memory, std::size_t size) {
  if (s_pActive->Refuses(size)) return nullptr;
  void* moved = s_pActive->m_Saved.pfnRealloc(memory, size);
  if (moved == nullptr) return nullptr;
  s_pActive->Leave(memory);
  s_pActive->Enter(moved, size);
  return moved;
}

void CMemHooks::Free(void* memory) {
  s_pActive->Leave(memory);
  s_pActive->m_Saved.pfnFree(memory);
}

CFixedClock::CFixedClock(std::time_t seconds) : m_pfnSaved(g_OsServices.pfnTime) {
  s_Now = seconds;
  g_OsServices.pfnTime = &CFixedClock::Now;
}

CFixedClock::~CFixedClock() { g_OsServices.pfnTime = m_pfnSaved; }

std::time_t CFixedClock::Now(std::time_t* out) {
  if (out != nullptr) *out = s_Now;
  return s_Now;
}
