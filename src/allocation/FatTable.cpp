/// @file FatTable.cpp

#include "allocation/FatTable.h"

#include "allocation/XRuns.h"
#include "storage/FatVolume.h"

namespace {

unsigned int CeilDiv(std::uint64_t a, unsigned int b) { return static_cast<unsigned int>((a + b - 1) / b); }

le16& Entry16(CFatTable::CACHE_BLK* block, unsigned int byteOffset) {
  return *reinterpret_cast<le16*>(block->m_Data + byteOffset);
}

le32& Entry32(CFatTable::CACHE_BLK* block, unsigned int byteOffset) {
  return *reinterpret_cast<le32*>(block->m_Data + byteOffset);
}

}  // namespace

// ---------------------------------------------------------------------------------------------- cached blocks

bool CFatTable::AllocBlocks() {
  const unsigned int nBlocks = m_nLastBlk < MAX_BLOCKS ? m_nLastBlk + 1 : MAX_BLOCKS + 1;
  unsigned char* data = osMemAllocBlocks(static_cast<std::size_t>(nBlocks) * BLOCK_BYTES, m_pBlockMem);
  m_pBlks = static_cast<CACHE_BLK*>(osMemAllocArray(nBlocks, sizeof(CACHE_BLK)));
  m_ppFreeBlks = static_cast<CACHE_BLK**>(osMemAllocArray(nBlocks, sizeof(CACHE_BLK*)));
  if (data == nullptr || m_pBlks == nullptr || m_ppFreeBlks == nullptr) return false;
  for (unsigned int i = 0; i < nBlocks; ++i) {
    m_pBlks[i] = {0, 0, false, data + static_cast<std::size_t>(i) * BLOCK_BYTES};
    m_ppFreeBlks[nBlocks - 1 - i] = &m_pBlks[i];
  }
  m_nFreeBlks = nBlocks;
  return true;
}

void CFatTable::FreeBlocks() {
  osMemFree(m_ppFreeBlks);
  osMemFree(m_pBlks);
  osMemFree(m_pBlockMem);
  m_ppFreeBlks = nullptr;
  m_pBlks = nullptr;
  m_pBlockMem = nullptr;
  m_nFreeBlks = 0;
}

void CFatTable::CACHE_BLK::Free(CACHE_BLK* block, CFatTable* table) {
  if (block->m_bDirty) {
    (void)table->WriteBlock(block);  // nobody is left to hear of a failure
    for (unsigned int i = 0; i < table->m_nWriteDelay; ++i) {
      // The slot stays counted: the list is flushed when a fourth block was listed, not when four wait.
      if (table->m_pWriteDelayBlks[i] == block) table->m_pWriteDelayBlks[i] = nullptr;
    }
  }
  if (table->m_pNewest == block) table->m_pNewest = nullptr;
  table->m_ppFreeBlks[table->m_nFreeBlks++] = block;
}

// ---------------------------------------------------------------------------------------------- the table

CFatTable::CFatTable()
    : m_nBlkEntShift(0),
      m_nBlkSectShift(0),
      m_pfnReadNextClusterNo(nullptr),
      m_pfnWriteNextClusterNo(nullptr),
      m_nBlkSects(0),
      m_nLastBlkSects(0),
      m_nLastBlk(0),
      m_nWriteDelay(0),
      m_pWriteDelayBlks(),
      m_nEntries(0),
      m_pBlockMem(nullptr),
      m_pRetiredMem(nullptr),
      m_pBlks(nullptr),
      m_ppFreeBlks(nullptr),
      m_nFreeBlks(0),
      m_pNewest(nullptr) {}

CFatVolume* CFatTable::Volume() { return static_cast<CFatVolume*>(this); }

int CFatTable::Create(FAT_IDX_BITS bits, unsigned int sectorShift, unsigned int clusters) {
  const std::uint64_t entries = static_cast<std::uint64_t>(clusters) + FIRST_CLUSTER;
  const unsigned int bytesPerSector = 1u << sectorShift;
  if (entries > UINT32_MAX) return STATUS_INVALID_PARAMETER;
  m_nEntries = static_cast<unsigned int>(entries);
  m_nBlkSectShift = BLOCK_SHIFT - sectorShift;
  m_nBlkSects = 1u << m_nBlkSectShift;
  switch (bits) {
    case FAT_BITS_12:
      m_nBlkEntShift = BLOCK_SHIFT;  // no entry number of a FAT12 reaches it: all lie in block 0
      m_pfnReadNextClusterNo = &_ReadNextClusterNo_Fat12;
      m_pfnWriteNextClusterNo = &_WriteNextClusterNo_Fat12;
      m_nLastBlkSects = CeilDiv(entries * 3, 2 * bytesPerSector);
      m_nLastBlk = 0;
      break;
    case FAT_BITS_16:
      m_nBlkEntShift = BLOCK_SHIFT - 1;
      m_pfnReadNextClusterNo = &_ReadNextClusterNo_Fat16;
      m_pfnWriteNextClusterNo = &_WriteNextClusterNo_Fat16;
      m_nLastBlkSects = ((m_nBlkSects - 1) & (CeilDiv(entries * 2, bytesPerSector) - 1)) + 1;
      m_nLastBlk = CeilDiv(entries, 1u << m_nBlkEntShift) - 1;
      break;
    case FAT_BITS_32:
      m_nBlkEntShift = BLOCK_SHIFT - 2;
      m_pfnReadNextClusterNo = &_ReadNextClusterNo_Fat32;
      m_pfnWriteNextClusterNo = &_WriteNextClusterNo_Fat32;
      m_nLastBlkSects = ((m_nBlkSects - 1) & (CeilDiv(entries * 4, bytesPerSector) - 1)) + 1;
      m_nLastBlk = CeilDiv(entries, 1u << m_nBlkEntShift) - 1;
      break;
    default:
      return STATUS_INVALID_PARAMETER;
  }
  if (m_nLastBlkSects > m_nBlkSects) return STATUS_INVALID_PARAMETER;  // a FAT12 longer than its one block
  m_nWriteDelay = 0;
  m_pNewest = nullptr;
  if (!m_Cache.Create(this) || !AllocBlocks()) return STATUS_NO_MEMORY;
  return m_Bitmap.LoadBitmapFromTable(this, bits, m_nEntries);
}

int CFatTable::Destory() {
  const int status = Retire();
  FreeRetiredMemory();
  return status;
}

int CFatTable::Retire() {
  const int status = FlushWriteDelay();
  m_Cache.Destory();
  FreeRetiredMemory();
  m_pRetiredMem = m_pBlockMem;
  m_pBlockMem = nullptr;
  FreeBlocks();
  m_Bitmap.FreeMem();
  m_nWriteDelay = 0;
  return status;
}

unsigned char* CFatTable::RetiredMemory(std::size_t bytes) {
  if (bytes > BLOCK_BYTES) return osMemResizeBlocks(bytes, m_pRetiredMem);
  // So little is as soon had anew.
  FreeRetiredMemory();
  m_pRetiredMem = osMemAlloc(static_cast<unsigned int>(bytes));
  return static_cast<unsigned char*>(m_pRetiredMem);
}

void CFatTable::FreeRetiredMemory() {
  osMemFree(m_pRetiredMem);
  m_pRetiredMem = nullptr;
}

void CFatTable::Abandon() {
  m_Cache.ForEach([](CACHE_BLK* block) { block->m_bDirty = false; });
  m_nWriteDelay = 0;
  (void)Destory();  // nothing is dirty or listed: no transfer is made, so none can fail
}

// ---------------------------------------------------------------------------------------------- block cache

int CFatTable::ReadCachedBlock(unsigned int block, CACHE_BLK*& out) {
  // The newest block needs no look-up, and its place in the recency order does not change.
  if (m_pNewest != nullptr && m_pNewest->m_nRefNo == block) {
    out = m_pNewest;
    return STATUS_SUCCESS;
  }
  CACHE_BLK* found = m_Cache.FindEntry(block);
  int status = STATUS_SUCCESS;
  if (found == nullptr) {
    found = m_ppFreeBlks[m_nFreeBlks - 1];
    found->m_nRefNo = block;
    found->m_bDirty = false;
    found->m_nSector = Volume()->FatStartSector() + (block << m_nBlkSectShift);
    status = Volume()->ReadSectors(found->m_Data, found->m_nSector, GetCcBlkSects(block));
    if (status < 0) return status;
    --m_nFreeBlks;
    m_Cache.AddEntry(found);
  }
  m_pNewest = found;
  out = found;
  return status;
}

int CFatTable::ReadBlock(unsigned int block, const unsigned char*& data) {
  CACHE_BLK* found;
  const int status = ReadCachedBlock(block, found);
  if (status >= 0) data = found->m_Data;
  return status;
}

int CFatTable::WriteBlock(CACHE_BLK* block) {
  return Volume()->WriteSectors(block->m_Data, block->m_nSector, GetCcBlkSects(block->m_nRefNo));
}

int CFatTable::WriteCachedBlock(CACHE_BLK* block) {
  for (unsigned int i = m_nWriteDelay; i-- > 0;) {
    if (m_pWriteDelayBlks[i] == block) return STATUS_SUCCESS;  // marked dirty already
  }
  block->m_bDirty = true;
  if (m_nWriteDelay == WRITE_DELAY_SLOTS) {
    // An earlier flush failed on its first block. If this one fails too, the block waits, dirty, for its eviction.
    const int status = FlushWriteDelay();
    if (status < 0) return status;
  }
  m_pWriteDelayBlks[m_nWriteDelay++] = block;
  return m_nWriteDelay < WRITE_DELAY_SLOTS ? STATUS_SUCCESS : FlushWriteDelay();
}

int CFatTable::FlushWriteDelay() {
  for (unsigned int i = m_nWriteDelay; i-- > 0;) {
    CACHE_BLK* block = m_pWriteDelayBlks[i];
    if (block == nullptr) continue;
    const int status = WriteBlock(block);
    if (status < 0) {
      m_nWriteDelay = i + 1;  // this block and those below it stay listed and are tried again
      return status;
    }
    block->m_bDirty = false;
  }
  m_nWriteDelay = 0;
  return STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------------------------- entry codecs

// FAT12 packs two entries into three bytes. Entry n starts at byte n * 3 / 2, where a 16-bit word holds it in its low
// twelve bits for an even n and in its high ones for an odd n: the bytes 5A 4B C3 are the entries 0xB5A and 0xC34.

int CFatTable::_ReadNextClusterNo_Fat12(CFatTable* table, unsigned int cluster, unsigned int& next) {
  if (!table->IsCluster(cluster)) return STATUS_DISK_CORRUPT;
  CACHE_BLK* block;
  const int status = table->ReadCachedBlock(0, block);
  if (status < 0) return status;
  const unsigned int word = Entry16(block, cluster * 3 / 2).Load();
  next = (cluster & 1) != 0 ? word >> 4 : word & 0x0FFF;
  return status;
}

int CFatTable::_ReadNextClusterNo_Fat16(CFatTable* table, unsigned int cluster, unsigned int& next) {
  if (!table->IsCluster(cluster)) return STATUS_DISK_CORRUPT;
  CACHE_BLK* block;
  const int status = table->ReadCachedBlock(cluster >> (BLOCK_SHIFT - 1), block);
  if (status < 0) return status;
  next = Entry16(block, cluster * 2 & (BLOCK_BYTES - 1)).Load();
  return status;
}

int CFatTable::_ReadNextClusterNo_Fat32(CFatTable* table, unsigned int cluster, unsigned int& next) {
  if (!table->IsCluster(cluster)) return STATUS_DISK_CORRUPT;
  CACHE_BLK* block;
  const int status = table->ReadCachedBlock(cluster >> (BLOCK_SHIFT - 2), block);
  if (status < 0) return status;
  next = Entry32(block, cluster * 4 & (BLOCK_BYTES - 1)).Load();
  return status;
}

int CFatTable::_WriteNextClusterNo_Fat12(CFatTable* table, unsigned int cluster, unsigned int value) {
  if (!table->IsCluster(cluster)) return STATUS_DISK_CORRUPT;
  CACHE_BLK* block;
  const int status = table->ReadCachedBlock(0, block);
  if (status < 0) return status;
  le16& entry = Entry16(block, cluster * 3 / 2);
  const unsigned int word = entry.Load();
  // The neighbour's nibble stays.
  const unsigned int changed =
      (cluster & 1) != 0 ? (word & 0x000F) | (value << 4 & 0xFFF0) : (word & 0xF000) | (value & 0x0FFF);
  entry.Store(static_cast<std::uint16_t>(changed));
  return table->WriteCachedBlock(block);
}

int CFatTable::_WriteNextClusterNo_Fat16(CFatTable* table, unsigned int cluster, unsigned int value) {
  if (!table->IsCluster(cluster)) return STATUS_DISK_CORRUPT;
  CACHE_BLK* block;
  const int status = table->ReadCachedBlock(cluster >> (BLOCK_SHIFT - 1), block);
  if (status < 0) return status;
  Entry16(block, cluster * 2 & (BLOCK_BYTES - 1)).Store(static_cast<std::uint16_t>(value));
  return table->WriteCachedBlock(block);
}

int CFatTable::_WriteNextClusterNo_Fat32(CFatTable* table, unsigned int cluster, unsigned int value) {
  if (!table->IsCluster(cluster)) return STATUS_DISK_CORRUPT;
  CACHE_BLK* block;
  const int status = table->ReadCachedBlock(cluster >> (BLOCK_SHIFT - 2), block);
  if (status < 0) return status;
  Entry32(block, cluster * 4 & (BLOCK_BYTES - 1)).Store(value);  // all 32 bits: the reserved top four are not kept
  return table->WriteCachedBlock(block);
}

// ---------------------------------------------------------------------------------------------- chains

int CFatTable::FreeEntries(unsigned int cluster, unsigned int count) {
  for (unsigned int i = 0; i < count; ++i) {
    const int status = WriteNextClusterNo(cluster + i, FAT_FREE);
    if (status < 0) return status;
  }
  return STATUS_SUCCESS;
}

int CFatTable::AllocateClusters(unsigned int count, CRuns* runs, unsigned int& last) {
  if (count == 0) return STATUS_INVALID_PARAMETER;
  int status = m_Bitmap.AllocateClusters(count, runs);
  if (status < 0) return status;
  unsigned int tail = last;
  for (unsigned int run = 1; run <= runs->NumberOfRuns(); ++run) {
    const unsigned int start = runs->StartingLbn(run);
    const unsigned int end = start + runs->LengthOfRun(run);
    for (unsigned int cluster = start; cluster < end; ++cluster) {
      if (tail != NO_CLUSTER) {
        status = WriteNextClusterNo(tail, cluster);
        if (status < 0) return status;
      }
      tail = cluster;
    }
  }
  status = WriteNextClusterNo(tail, FAT_END_OF_CHAIN);
  if (status >= 0) last = runs->StartingLbn(1);
  return status;
}
