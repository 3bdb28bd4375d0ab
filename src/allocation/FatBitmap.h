/// @file FatBitmap.h
/// Which clusters are free. Built once, at mount, from every entry of the FAT; from then on it alone decides where new
/// clusters go. The entries of the FAT are written by others.
///
/// One bit per FAT entry, set when the entry is in use (allocated, end of chain, bad or reserved). Bits 0 and 1 are
/// always set. Invariant: no cluster below m_nHint is free.

#ifndef FATLIB_FATBITMAP_H
#define FATLIB_FATBITMAP_H

#include "allocation/XBitmap.h"
#include "storage/FatMpb.h"

class CFatTable;
class CRuns;

class CFatBitmap : public CBitmap {
 public:
  CFatBitmap() : m_nHint(0), m_nFreeClusters(0), m_Searched() {}

  /// Reads the whole FAT, a block at a time, the highest first.
  /// @param entries  clusters + 2
  /// @return negative: STATUS_NO_MEMORY, or the status of a failed read (no memory is held then)
  [[nodiscard]] int LoadBitmapFromTable(CFatTable* table, FAT_IDX_BITS bits, unsigned int entries);

  /// Chooses `count` free clusters, marks them used and appends them to `runs`: one contiguous run if there is any, the
  /// first from the hint on; otherwise the lowest free holes in ascending order, the last one cut to what is needed.
  /// @return negative, with nothing marked: STATUS_DISK_FULL, or STATUS_DISK_CORRUPT when the run map could not grow or
  ///         the free count promised more than the map holds
  [[nodiscard]] int AllocateClusters(unsigned int count, CRuns* runs);

  /// Marks every cluster of the map free. Freeing what is free already counts twice.
  void RecycleClusters(CRuns* runs);
  void RecycleOneCluster(unsigned int cluster) { Recycle(cluster, 1); }

  unsigned int FreeClusters() const { return m_nFreeClusters; }
  unsigned int Hint() const { return m_nHint; }

 private:
  void ClearFreeBits(const unsigned char* data, FAT_IDX_BITS bits, unsigned int first, unsigned int end);
  void AdvanceHint(unsigned int from);
  void Recycle(unsigned int start, unsigned int count);
  unsigned int FindHole(unsigned int count);

  // What a search has found out: no hole of `Count` clusters or more starts below `End`. One for requests of 2^i
  // clusters and more, below 2^(i + 1).
  struct SEARCHED {
    unsigned int Count;
    unsigned int End;
  };

  unsigned int m_nHint;          // where searches start; may name a used cluster
  unsigned int m_nFreeClusters;  // clear bits
  SEARCHED m_Searched[32];
};

#endif  // FATLIB_FATBITMAP_H
