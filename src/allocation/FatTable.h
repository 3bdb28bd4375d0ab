/// @file FatTable.h
/// The file allocation table: reads and writes the entry of a cluster, allocates chains and gives clusters back.
///
/// Behind it lies a cache of 256 KiB blocks of the FAT. A changed block goes on a list of up to four blocks that wait
/// to be written, so that a burst of changes costs few transfers:
///
///   absent --read on a miss--> CLEAN --change--> DIRTY, listed --the fourth block is listed--> CLEAN
///                                                     |  on a failing flush the block stays dirty and listed, or
///                                                     |  unlisted when the list has no room for it
///                                                     +--evicted, or the table is destroyed--> written, absent
///
/// Only the first FAT is ever written here. The second one is left stale on purpose: CFatVolume::BackupFirstFat copies
/// the whole FAT at unmount.

#ifndef FATLIB_FATTABLE_H
#define FATLIB_FATTABLE_H

#include "allocation/FatBitmap.h"
#include "allocation/LruHash.h"
#include "storage/FatMpb.h"

class CFatVolume;
class CRuns;

constexpr unsigned int FAT_FREE = 0;                   // entry of a free cluster
constexpr unsigned int FAT_END_OF_CHAIN = 0x0FFFFFFF;  // written on every width, which keeps its low bits
constexpr unsigned int FIRST_CLUSTER = 2;              // entries 0 and 1 belong to no cluster
constexpr unsigned int NO_CLUSTER = 0xFFFFFFFF;

class CFatTable {
 public:
  static constexpr unsigned int BLOCK_SHIFT = 18;
  static constexpr unsigned int BLOCK_BYTES = 1u << BLOCK_SHIFT;
  static constexpr unsigned int MAX_BLOCKS = 256;  // 64 MiB of FAT
  static constexpr unsigned int BUCKETS = 269;
  static constexpr unsigned int WRITE_DELAY_SLOTS = 4;

  /// One cached block of the FAT.
  struct CACHE_BLK {
    unsigned int m_nRefNo;   // block number: FAT bytes from m_nRefNo x 256 KiB
    unsigned int m_nSector;  // sector on the medium of its first byte
    bool m_bDirty;           // changed since it was last written
    unsigned char* m_Data;   // BLOCK_BYTES, page-aligned; the first GetCcBlkSects(m_nRefNo) sectors are the medium's

    /// Writes the block back if it is dirty (whether that works or not), takes it off the write-delay list, gives it
    /// back.
    static void Free(CACHE_BLK* block, CFatTable* table);
  };

  /// Prepares the cache and builds the free-cluster bitmap from the whole FAT.
  /// @param bits         width of an entry
  /// @param sectorShift  log2 of the sector size
  /// @param clusters     clusters of the volume; the FAT has two entries more
  /// @return negative: STATUS_INVALID_PARAMETER for another width, STATUS_NO_MEMORY, or the status of a failed read.
  ///         The caller calls Abandon then.
  [[nodiscard]] int Create(FAT_IDX_BITS bits, unsigned int sectorShift, unsigned int clusters);
  /// Writes what is dirty and frees everything. @return the status of flushing the write-delay list
  int Destory();
  /// Frees everything and writes nothing.
  void Abandon();

  /// Reads the entry of a cluster: the number of the next one, or a value with another meaning. FAT32 entries come with
  /// all 32 bits.
  /// @return negative: STATUS_DISK_CORRUPT for a cluster that the volume does not have, or the status of a failed read
  [[nodiscard]] int ReadNextClusterNo(unsigned int cluster, unsigned int& next) {
    return m_pfnReadNextClusterNo(this, cluster, next);
  }
  /// Changes the entry of a cluster. The narrow widths keep the value's low bits; FAT32 stores all 32.
  /// @return negative as above, or the status of a failed flush of the write-delay list (the change is made then, and
  ///         waits to be written again)
  [[nodiscard]] int WriteNextClusterNo(unsigned int cluster, unsigned int value) {
    return m_pfnWriteNextClusterNo(this, cluster, value);
  }
  /// Sets the entries of `count` clusters from `cluster` on to free, lowest first, up to the first failure.
  [[nodiscard]] int FreeEntries(unsigned int cluster, unsigned int count);

  /// Takes `count` free clusters, links them behind a chain and ends it.
  /// @param runs  an empty map; the new clusters are added to it
  /// @param last  in: last cluster of the chain to extend, or NO_CLUSTER; out, on success: the first new cluster
  /// @return negative: STATUS_DISK_FULL (nothing changed), STATUS_DISK_CORRUPT, or that of a failed entry write, which
  ///         leaves the clusters marked used until the next mount
  [[nodiscard]] int AllocateClusters(unsigned int count, CRuns* runs, unsigned int& last);

  // Give clusters back to the free-cluster bitmap. The entries in the FAT are the caller's to free.
  void RecycleClusters(CRuns* runs) { m_Bitmap.RecycleClusters(runs); }
  void RecycleOneCluster(unsigned int cluster) { m_Bitmap.RecycleOneCluster(cluster); }

  const CFatBitmap& Bitmap() const { return m_Bitmap; }
  CFatVolume* Volume();

  /// Gives a block's bytes to a reader that wants many entries at once: the same transfer, at the same moment, as
  /// ReadNextClusterNo of one of them.
  /// @param data  out: GetCcBlkSects(block) sectors of the FAT, valid until the next call of this class
  [[nodiscard]] int ReadBlock(unsigned int block, const unsigned char*& data);
  /// @return log2 of the entries per block; all entries of a FAT12 lie in block 0
  unsigned int BlockEntryShift() const { return m_nBlkEntShift; }

 protected:
  CFatTable();

  /// Destory, but the memory that the blocks were in stays, for RetiredMemory.
  int Retire();
  /// Memory of that size in one piece: that of a retired table, whose pages are there already, as far as it goes.
  /// @return valid until FreeRetiredMemory, which is to be called in any case; null when it cannot be had
  unsigned char* RetiredMemory(std::size_t bytes);
  void FreeRetiredMemory();

 private:
  using READ_FUNCTION = int (*)(CFatTable*, unsigned int, unsigned int&);
  using WRITE_FUNCTION = int (*)(CFatTable*, unsigned int, unsigned int);

  static int _ReadNextClusterNo_Fat12(CFatTable* table, unsigned int cluster, unsigned int& next);
  static int _ReadNextClusterNo_Fat16(CFatTable* table, unsigned int cluster, unsigned int& next);
  static int _ReadNextClusterNo_Fat32(CFatTable* table, unsigned int cluster, unsigned int& next);
  static int _WriteNextClusterNo_Fat12(CFatTable* table, unsigned int cluster, unsigned int value);
  static int _WriteNextClusterNo_Fat16(CFatTable* table, unsigned int cluster, unsigned int value);
  static int _WriteNextClusterNo_Fat32(CFatTable* table, unsigned int cluster, unsigned int value);

  bool IsCluster(unsigned int n) const { return n >= FIRST_CLUSTER && n < m_nEntries; }
  bool AllocBlocks();
  void FreeBlocks();
  int ReadCachedBlock(unsigned int block, CACHE_BLK*& out);
  int WriteCachedBlock(CACHE_BLK* block);
  int FlushWriteDelay();
  int WriteBlock(CACHE_BLK* block);
  unsigned int GetCcBlkSects(unsigned int block) const { return block == m_nLastBlk ? m_nLastBlkSects : m_nBlkSects; }

  unsigned int m_nBlkEntShift;           // log2 of the entries per block: 17 on FAT16, 16 on FAT32
  unsigned int m_nBlkSectShift;          // log2 of the sectors per block
  READ_FUNCTION m_pfnReadNextClusterNo;  // the codec of this volume's width, chosen once
  WRITE_FUNCTION m_pfnWriteNextClusterNo;
  CLruHash<CACHE_BLK, CFatTable, MAX_BLOCKS, BUCKETS> m_Cache;
  unsigned int m_nBlkSects;      // sectors per block
  unsigned int m_nLastBlkSects;  // sectors of the last block that hold entries; those behind them are never touched
  unsigned int m_nLastBlk;       // number of the last block
  unsigned int m_nWriteDelay;    // slots of the list below in use; a slot is null when its block was evicted
  CACHE_BLK* m_pWriteDelayBlks[WRITE_DELAY_SLOTS];
  CFatBitmap m_Bitmap;
  unsigned int m_nEntries;   // clusters + 2
  void* m_pBlockMem;         // the data of all blocks; they take memory when they are first used
  void* m_pRetiredMem;       // what that was, of a retired table; or null
  CACHE_BLK* m_pBlks;        // one more than the cache holds: a block is read before its victim is written back
  CACHE_BLK** m_ppFreeBlks;  // stack of those that are not cached
  unsigned int m_nFreeBlks;
  CACHE_BLK* m_pNewest;  // the most recently used block, so that runs of accesses skip the hash; or null
};

#endif  // FATLIB_FATTABLE_H
