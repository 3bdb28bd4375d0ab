/// @file Slabs.cpp

#include "platform/Slabs.h"

#include <new>

#if FATLIB_CHECKED_MEMORY
#include <sanitizer/asan_interface.h>
#endif

namespace {

// In checked builds a place that nobody has is as forbidden as freed memory, but for its link.
#if FATLIB_CHECKED_MEMORY
void Forbid(const void* memory, std::size_t bytes) { ASAN_POISON_MEMORY_REGION(memory, bytes); }
void Permit(const void* memory, std::size_t bytes) { ASAN_UNPOISON_MEMORY_REGION(memory, bytes); }
#else
void Forbid(const void*, std::size_t) {}
void Permit(const void*, std::size_t) {}
#endif

}  // namespace

/// The head of a slab. Its places follow: those handed back are in a list, those behind nFresh were never used.
struct CSlabPool::SLAB {
  SLAB* pNext;  // in the list of its size, while it has room
  SLAB* pBefore;
  FREE_PLACE* pFree;
  unsigned short nSizeClass;  // places are (nSizeClass + 1) units large
  unsigned short nUsed;       // places handed out
  unsigned short nFresh;      // offset of the first place that was never used
  unsigned short nEnd;        // offset at which there is no further one

  unsigned int PlaceBytes() const { return (nSizeClass + 1u) * UNIT; }
  unsigned char* At(unsigned int offset) { return reinterpret_cast<unsigned char*>(this) + offset; }
  bool HasRoom() const { return pFree != nullptr || nFresh < nEnd; }
};

void CSlabPool::Link(SLAB* slab) {
  SLAB*& first = m_pWithRoom[slab->nSizeClass];
  slab->pBefore = nullptr;
  slab->pNext = first;
  if (first != nullptr) first->pBefore = slab;
  first = slab;
}

void CSlabPool::Unlink(SLAB* slab) {
  if (slab->pNext != nullptr) slab->pNext->pBefore = slab->pBefore;
  if (slab->pBefore != nullptr) {
    slab->pBefore->pNext = slab->pNext;
  } else {
    m_pWithRoom[slab->nSizeClass] = slab->pNext;
  }
}

CSlabPool::SLAB* CSlabPool::AddSlab(unsigned int sizeClass) {
  constexpr unsigned int HEAD = (sizeof(SLAB) + UNIT - 1) / UNIT * UNIT;
  void* memory = osMemAlloc(SLAB_BYTES);
  if (memory == nullptr) return nullptr;
  SLAB* slab = new (memory) SLAB{};
  slab->nSizeClass = static_cast<unsigned short>(sizeClass);
  slab->nFresh = HEAD;
  const unsigned int nPlaces = (SLAB_BYTES - HEAD) / slab->PlaceBytes();
  slab->nEnd = static_cast<unsigned short>(HEAD + nPlaces * slab->PlaceBytes());
  Forbid(slab->At(HEAD), SLAB_BYTES - HEAD);
  Link(slab);
  return slab;
}

void* CSlabPool::Allocate(unsigned int bytes, unsigned short& place) {
  const unsigned int sizeClass = (bytes - 1) / UNIT;
  SLAB* slab = m_pWithRoom[sizeClass];
  if (slab == nullptr) slab = AddSlab(sizeClass);
  if (slab == nullptr) return nullptr;
  unsigned char* object = reinterpret_cast<unsigned char*>(slab->pFree);
  if (object != nullptr) {
    slab->pFree = slab->pFree->pNext;
  } else {
    object = slab->At(slab->nFresh);
    slab->nFresh = static_cast<unsigned short>(slab->nFresh + slab->PlaceBytes());
  }
  Permit(object, bytes);
  ++slab->nUsed;
  if (!slab->HasRoom()) Unlink(slab);
  place = static_cast<unsigned short>(object - slab->At(0));
  return object;
}

void CSlabPool::Recycle(void* object, unsigned short place) {
  SLAB* slab = reinterpret_cast<SLAB*>(static_cast<unsigned char*>(object) - place);
  const bool hadRoom = slab->HasRoom();
  if (--slab->nUsed == 0) {
    if (hadRoom) Unlink(slab);
    osMemFree(slab);
    return;
  }
  Permit(object, sizeof(FREE_PLACE));  // the object may have been smaller
  slab->pFree = new (object) FREE_PLACE{slab->pFree};
  Forbid(slab->pFree + 1, slab->PlaceBytes() - sizeof(FREE_PLACE));
  if (!hadRoom) Link(slab);
}
