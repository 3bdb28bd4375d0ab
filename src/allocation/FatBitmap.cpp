/// @file FatBitmap.cpp

#include "allocation/FatBitmap.h"

#include "allocation/FatTable.h"
#include "allocation/XRuns.h"

int CFatBitmap::LoadBitmapFromTable(CFatTable* table, FAT_IDX_BITS bits, unsigned int entries) {
  int status = AllocMem(entries);
  if (status < 0) return status;
  m_nFreeClusters = 0;
  SetAllBits();
  const unsigned int shift = table->BlockEntryShift();
  unsigned int end = entries;
  // Highest block first: afterwards the blocks of the lowest clusters, which are allocated first, are the newest ones
  // in the cache.
  while (end > FIRST_CLUSTER) {
    const unsigned int block = (end - 1) >> shift;
    const unsigned int first = block << shift;
    const unsigned char* data;
    status = table->ReadBlock(block, data);
    if (status < 0) {
      FreeMem();
      return status;
    }
    ClearFreeBits(data, bits, first, end);
    end = first;
  }
  for (SEARCHED& searched : m_Searched) searched = {};
  m_nHint = FIRST_CLUSTER;
  (void)FindNextForward_0_Bit(FIRST_CLUSTER, &m_nHint);  // without a free cluster the hint stays
  return status;
}

namespace {

// The three widths as the loop below reads them: the entry `n` of a block that starts with entry `first`.
struct FAT12_ENTRIES {
  static constexpr unsigned int BITS = 12;
  static bool IsFree(const unsigned char* data, unsigned int n) {
    const unsigned int word = reinterpret_cast<const le16*>(data + n * 3 / 2)->Load();
    return ((n & 1) != 0 ? word >> 4 : word & 0x0FFF) == FAT_FREE;
  }
};
struct FAT16_ENTRIES {
  static constexpr unsigned int BITS = 16;
  static bool IsFree(const unsigned char* data, unsigned int n) {
    return reinterpret_cast<const le16*>(data)[n].Load() == FAT_FREE;
  }
};
struct FAT32_ENTRIES {
  static constexpr unsigned int BITS = 32;
  static bool IsFree(const unsigned char* data, unsigned int n) {
    return reinterpret_cast<const le32*>(data)[n].Load() == FAT_FREE;
  }
};

// Large volumes are mostly free, and what a boot sector claims beyond the medium's end is wholly so: stretches of this
// many entries are first compared with zeros, which mean free in every width.
constexpr unsigned int STRETCH = 256;
const unsigned char s_Zeros[STRETCH * FAT32_ENTRIES::BITS / 8] = {};

// Clears the bits of the free ones among entries begin .. end - 1 of a block, a byte of the bitmap at a time.
// @return how many there are
template <class ENTRIES>
unsigned int ClearBitsOfFree(const unsigned char* data, unsigned char* bits, unsigned int begin, unsigned int end) {
  unsigned int nFree = 0;
  unsigned int n = begin;
  while (n < end) {
    if (n % STRETCH == 0 && end - n >= STRETCH &&
        osMemEqual(data + n / 8 * ENTRIES::BITS, s_Zeros, STRETCH / 8 * ENTRIES::BITS)) {
      osMemZero(bits + n / 8, STRETCH / 8);
      nFree += STRETCH;
      n += STRETCH;
      continue;
    }
    unsigned int mask = 0;
    if (n % 8 == 0 && end - n >= 8) {
      for (unsigned int i = 0; i < 8; ++i) mask |= (ENTRIES::IsFree(data, n + i) ? 1u : 0u) << i;
      n += 8;
    } else {
      mask = (ENTRIES::IsFree(data, n) ? 1u : 0u) << n % 8;
      ++n;
    }
    if (mask == 0) continue;
    bits[(n - 1) / 8] = static_cast<unsigned char>(bits[(n - 1) / 8] & ~mask);
    if (mask == 0xFF) {
      nFree += 8;
    } else {
      for (; mask != 0; mask &= mask - 1) ++nFree;
    }
  }
  return nFree;
}

}  // namespace

// Clears the bits of the free entries among first .. end - 1, which lie in one block of the FAT. `first` is a multiple
// of 8.
void CFatBitmap::ClearFreeBits(const unsigned char* data, FAT_IDX_BITS bits, unsigned int first, unsigned int end) {
  const unsigned int begin = first < FIRST_CLUSTER ? FIRST_CLUSTER : 0;
  unsigned char* bytes = m_pBits + first / 8;
  if (bits == FAT_BITS_32) {
    m_nFreeClusters += ClearBitsOfFree<FAT32_ENTRIES>(data, bytes, begin, end - first);
  } else if (bits == FAT_BITS_16) {
    m_nFreeClusters += ClearBitsOfFree<FAT16_ENTRIES>(data, bytes, begin, end - first);
  } else {
    m_nFreeClusters += ClearBitsOfFree<FAT12_ENTRIES>(data, bytes, begin, end - first);
  }
}

// Moves the hint to the first free cluster at or after `from`. When `from` is the end of the map it becomes that; when
// no free cluster follows it stays: nothing below it was freed.
void CFatBitmap::AdvanceHint(unsigned int from) { (void)FindNextForward_0_Bit(from, &m_nHint); }

// Find_0_Bits(count, m_nHint), but what the last search for about as much has passed over is not searched again: on a
// fragmented volume every growth of a file would walk the whole map.
unsigned int CFatBitmap::FindHole(unsigned int count) {
  SEARCHED& searched = m_Searched[gGetLog2Of(count)];
  const bool known = searched.Count != 0 && count >= searched.Count;
  if (known && searched.End == NOT_FOUND) return NOT_FOUND;
  const unsigned int from = known && searched.End > m_nHint ? searched.End : m_nHint;
  const unsigned int start = Find_0_Bits(count, from);
  // A larger request tells nothing about smaller ones: what is known of those stays.
  if (!known || count == searched.Count) searched = {count, start};
  return start;
}

int CFatBitmap::AllocateClusters(unsigned int count, CRuns* runs) {
  if (m_nFreeClusters < count) return STATUS_DISK_FULL;
  const unsigned int start = FindHole(count);
  if (start != NOT_FOUND) {
    if (!runs->AppendEntry(start, count)) return STATUS_DISK_CORRUPT;
    SetBits(start, count);
    m_nFreeClusters -= count;
    if (start == m_nHint) AdvanceHint(start + count);
    return STATUS_SUCCESS;
  }
  // No hole is large enough: fill the lowest ones. None lies below the hint.
  CRuns pieces;
  if (!pieces.Initialize()) return STATUS_DISK_CORRUPT;
  unsigned int position = m_nHint;
  unsigned int remaining = count;
  int status = STATUS_SUCCESS;
  while (remaining != 0) {
    unsigned int holeStart = 0;
    unsigned int length = FindNextForward_0_Run(position, &holeStart);
    if (length > remaining) length = remaining;
    if (length == 0 || !pieces.AppendEntry(holeStart, length)) {
      status = STATUS_DISK_CORRUPT;
      break;
    }
    position = holeStart + length;
    remaining -= length;
  }
  if (status >= 0 && !runs->AppendRuns(&pieces)) status = STATUS_DISK_CORRUPT;
  if (status >= 0) {
    for (unsigned int run = 1; run <= pieces.NumberOfRuns(); ++run) {
      SetBits(pieces.StartingLbn(run), pieces.LengthOfRun(run));
    }
    m_nFreeClusters -= count;
    AdvanceHint(position);
  }
  pieces.Uninitialize();
  return status;
}

void CFatBitmap::Recycle(unsigned int start, unsigned int count) {
  if (start < m_nHint) m_nHint = start;
  for (SEARCHED& searched : m_Searched) {
    if (searched.End >= start) searched = {};
  }
  ClearBits(start, count);
  m_nFreeClusters += count;
}

void CFatBitmap::RecycleClusters(CRuns* runs) {
  for (unsigned int run = 1; run <= runs->NumberOfRuns(); ++run) {
    Recycle(runs->StartingLbn(run), runs->LengthOfRun(run));
  }
}
