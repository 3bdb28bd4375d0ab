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
  // Highest block first: afterwards the blocks of the lowest clusters, which are allocated first, are the newest ones in
  // the cache.
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
  m_nHint = FIRST_CLUSTER;
  (void)FindNextForward_0_Run(FIRST_CLUSTER, &m_nHint);  // without a free cluster the hint stays
  return status;
}

// Clears the bits of the free entries among first .. end - 1, which lie in one block of the FAT.
void CFatBitmap::ClearFreeBits(const unsigned char* data, FAT_IDX_BITS bits, unsigned int first, unsigned int end) {
  const le16* entries16 = reinterpret_cast<const le16*>(data);
  const le32* entries32 = reinterpret_cast<const le32*>(data);
  unsigned int n = first < FIRST_CLUSTER ? FIRST_CLUSTER : first;
  unsigned int nFree = 0;
  while (n < end) {
    // A byte of the bitmap at a time: `first` is a multiple of 8, so only the ends of the FAT have partial bytes.
    const unsigned int byteEnd = (n | 7) + 1 < end ? (n | 7) + 1 : end;
    unsigned int freeBits = 0;
    for (; n < byteEnd; ++n) {
      unsigned int entry;
      if (bits == FAT_BITS_32) {
        entry = entries32[n - first].Load();
      } else if (bits == FAT_BITS_16) {
        entry = entries16[n - first].Load();
      } else {
        const unsigned int word = reinterpret_cast<const le16*>(data + n * 3 / 2)->Load();
        entry = (n & 1) != 0 ? word >> 4 : word & 0x0FFF;
      }
      const unsigned int isFree = entry == FAT_FREE ? 1 : 0;
      freeBits |= isFree << (n & 7);
      nFree += isFree;
    }
    unsigned char& byte = m_pBits[(n - 1) / 8];
    byte = static_cast<unsigned char>(byte & ~freeBits);
  }
  m_nFreeClusters += nFree;
}

// Moves the hint to the first free cluster at or after `from`. When `from` is the end of the map it becomes that; when no
// free cluster follows it stays: nothing below it was freed.
void CFatBitmap::AdvanceHint(unsigned int from) { (void)FindNextForward_0_Run(from, &m_nHint); }

int CFatBitmap::AllocateClusters(unsigned int count, CRuns* runs) {
  if (m_nFreeClusters < count) return STATUS_DISK_FULL;
  const unsigned int start = Find_0_Bits(count, m_nHint);
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
  ClearBits(start, count);
  m_nFreeClusters += count;
}

void CFatBitmap::RecycleClusters(CRuns* runs) {
  for (unsigned int run = 1; run <= runs->NumberOfRuns(); ++run) {
    Recycle(runs->StartingLbn(run), runs->LengthOfRun(run));
  }
}
