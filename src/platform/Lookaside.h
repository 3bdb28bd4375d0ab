/// @file Lookaside.h
/// An allocator of fixed-size blocks that keeps a stack of free ones. It grows by a fixed number of blocks when all are
/// in use, and gives as many back when twice that number lies free.

#ifndef FATLIB_LOOKASIDE_H
#define FATLIB_LOOKASIDE_H

#include "platform/Platform.h"

class CLookasideList : public OS_ALLOCATED {
 public:
  /// Makes the stack and the first stock of `growCount` blocks. When memory runs out the list starts with fewer blocks,
  /// or with none; Allocate tries again.
  CLookasideList(unsigned int blockSize, unsigned int growCount);
  /// Frees at most one growth step of free blocks and the stack. Blocks in use, and free ones beyond that step, are not
  /// freed: an owner that wants nothing left behind returns all blocks and calls Shrink first (see ShrinkAll).
  ~CLookasideList();
  CLookasideList(const CLookasideList&) = delete;
  CLookasideList& operator=(const CLookasideList&) = delete;

  /// @return a block with undefined contents; null when memory runs out
  [[nodiscard]] void* Allocate();
  /// Takes a block back. Null is not allowed.
  void Recycle(void* block);
  /// Adds `growCount` blocks. @return false when memory ran out before the last of them (those made are kept).
  bool Grow();
  /// Frees up to `growCount` free blocks.
  void Shrink();
  /// Shrinks until no more than one growth step lies free, so that the destructor leaves nothing behind.
  void ShrinkAll() {
    while (FreeCount() > m_nGrow) Shrink();
  }

  unsigned int FreeCount() const { return static_cast<unsigned int>(m_nTop + 1); }
  unsigned int InUse() const { return m_nInUse; }
  unsigned int Total() const { return m_nTotal; }

 private:
  void** m_ppFree;            // stack of free blocks, m_nCapacity long; null when it could not be had
  int m_nTop;                 // index of the top free block, -1 when none is free
  unsigned int m_nInUse;      // blocks handed out
  unsigned int m_nTotal;      // blocks owned: free plus in use
  unsigned int m_nCapacity;   // 2 x m_nGrow
  unsigned int m_nGrow;       // blocks per growth or shrink step
  unsigned int m_nBlockSize;  // bytes per block
};

#endif  // FATLIB_LOOKASIDE_H
