/// @file Slabs.h
/// Memory for many small objects of a few sizes: slabs of 2 KiB, each cut into places of one size. A place costs no
/// header, and neighbours in time become neighbours in memory.
///
/// A slab belongs to nobody but the pool: objects of different owners share it, an object may change its owner or
/// outlive it, and the slab goes when the last of its places is given back.

#ifndef FATLIB_SLABS_H
#define FATLIB_SLABS_H

#include "platform/Platform.h"

class CSlabPool {
 public:
  static constexpr unsigned int SLAB_BYTES = 2048 - sizeof(void*);  // with what malloc adds, 2 KiB
  static constexpr unsigned int UNIT = 16;                          // sizes are rounded up to multiples of it
  static constexpr unsigned int MAX_BYTES = 640;

  constexpr CSlabPool() : m_pWithRoom() {}
  CSlabPool(const CSlabPool&) = delete;
  CSlabPool& operator=(const CSlabPool&) = delete;

  /// @param bytes  1 to MAX_BYTES
  /// @param place  out: to be kept by the object, for Recycle
  /// @return memory aligned to UNIT, with undefined contents; null when there is none
  [[nodiscard]] void* Allocate(unsigned int bytes, unsigned short& place);
  void Recycle(void* object, unsigned short place);

 private:
  struct SLAB;
  struct FREE_PLACE {
    FREE_PLACE* pNext;
  };

  SLAB* AddSlab(unsigned int sizeClass);
  void Link(SLAB* slab);
  void Unlink(SLAB* slab);

  SLAB* m_pWithRoom[MAX_BYTES / UNIT];  // by size, the slabs that have a free place; the first one is used first
};

#endif  // FATLIB_SLABS_H
