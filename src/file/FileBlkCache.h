/// @file FileBlkCache.h
/// The write-back cache that all file and directory data passes through: one process-wide pool of 256 KiB blocks with
/// one recency list, and for each file a small hash table of the blocks it owns.
///
///   A pool block:  FREE --GetBlock--> held by one call --AddBlock--> CACHED: clean or dirty --evicted, or its file is
///                  destroyed--> written if dirty --> FREE, or handed to the call that evicted it
///                  A victim whose write-back failed is LOST: in no list, until the pool is destroyed.
///   CACHED  in its file's table and in the recency list, exactly once each.
///   ON LOAN a cached block that a borrower reads in place; the loan ends before the block changes or leaves.
///   CLEAN   the first nValid bytes equal the medium's.   DIRTY  they are newer.
///   Bytes at and behind nValid were never loaded; they read as 0, and are cleared before anyone sees them.
///
/// OWNER, the object that owns blocks, brings ReadFromStorage and WriteToStorage (file positions, the latter cut at the
/// file's limit), Limit, and BlkCache.

#ifndef FATLIB_FILEBLKCACHE_H
#define FATLIB_FILEBLKCACHE_H

#include <cstdint>

#include "file/BlockLoan.h"
#include "platform/ListEntry.h"
#include "platform/Lookaside.h"
#include "platform/Platform.h"

template <class OWNER>
class CFileBlkCache {
 public:
  static constexpr unsigned int BLOCK_BYTES = 0x40000;
  static constexpr unsigned int BLOCK_MASK = BLOCK_BYTES - 1;
  static constexpr unsigned int BUCKETS = 269;
  static constexpr unsigned int BUCKET_SLOTS = 8;

  // --- process-wide ------------------------------------------------------------------------------------------------

  /// Makes the pool; one that stands already is kept. The blocks take memory when they are first used.
  /// @return false when memory runs out: nothing is held then
  static bool GlobalInitialize(unsigned int blocks);
  /// Frees everything and writes nothing. Every file object must have been destroyed, or cut off with Abandon.
  static void GlobalTerminate();
  static bool IsInitialized() { return s_pFileBlkPool != nullptr; }

  // --- one file's cache --------------------------------------------------------------------------------------------

  CFileBlkCache() : m_pFile(nullptr), m_ppBuckets(nullptr), m_pLastFound(nullptr) {}
  CFileBlkCache(const CFileBlkCache&) = delete;
  CFileBlkCache& operator=(const CFileBlkCache&) = delete;

  void Create(OWNER* file) { m_pFile = file; }
  /// Writes the dirty blocks, bucket by bucket, and gives all blocks back. Where a write fails, the rest of that bucket
  /// is dropped. May be called again.
  void Destory() { ReleaseAllBlks(true); }
  /// The same without writing.
  void Abandon() { ReleaseAllBlks(false); }

  /// Transfers `len` bytes at `pos`, which the caller has cut to the limit.
  /// @param done   out: the bytes copied to or from cached blocks, plus, for each uncached piece, the length of the
  ///               last piece if it was aligned and reached the end of the request; else nothing for them. Kept on
  ///               purpose: the data is complete whatever it says. On failure what it held so far.
  /// @param limit  the file's limit in bytes; nothing beyond is read from storage
  /// @return negative: STATUS_NO_MEMORY, or the status of a failed transfer, also of another file's block that had to
  ///         make room. Blocks handled before stay cached.
  [[nodiscard]] int Read(long long pos, unsigned int len, unsigned char* buf, unsigned int* done, long long limit) {
    return Transfer<false>(pos, len, buf, done, limit);
  }
  [[nodiscard]] int Write(long long pos, unsigned int len, unsigned char* buf, unsigned int* done, long long limit) {
    return Transfer<true>(pos, len, buf, done, limit);
  }

  /// Makes block 0 of a new directory: `len` bytes of data, the rest zero, dirty, without reading storage.
  [[nodiscard]] int WriteFstClustOfDir(const void* data, unsigned int len);

  /// Gives a block's bytes in place, loading it as a read from its start would.
  /// @param data   out: valid until the next call on any file's cache
  /// @param bytes  out: up to the limit; 1 to BLOCK_BYTES. Behind them zeros follow up to a multiple of 32.
  /// @param loan   out, unless null: by which the caller may go on reading the bytes after that
  /// @return negative: STATUS_END_OF_FILE when the block starts at or beyond the limit, else as Read
  [[nodiscard]] int PeekBlock(unsigned int blk, const unsigned char*& data, unsigned int& bytes, long long limit,
                              BLOCK_LOAN** loan = nullptr);

  /// For tests and statistics.
  bool IsCached(unsigned int blk) const;
  static unsigned int BlocksInUse() { return s_pFileBlkPool == nullptr ? 0 : s_pFileBlkPool->m_nUsed; }

 private:
  struct FILE_BLOCK {
    _LST_ENTRY LruLink;           // place in the pool's recency list
    OWNER* pOwner;                // null while free, held or lost
    unsigned long long llOffset;  // file position of the first byte
    bool bDirty;                  // newer than storage
    unsigned int nValid;          // bytes of Data that were loaded or written
    unsigned char* Data;          // BLOCK_BYTES, page-aligned
    BLOCK_LOAN Loan;

    unsigned int BlkNo() const { return static_cast<unsigned int>(llOffset / BLOCK_BYTES); }
    void ExtendValid(unsigned int bytes) {
      if (bytes <= nValid) return;
      osMemZero(Data + nValid, bytes - nValid);
      nValid = bytes;
    }
  };

  struct CBlkCacheBucket;

  /// The process-wide pool. Headers and data lie apart, so that the data can be page-aligned.
  struct CFileBlkPool : OS_ALLOCATED {
    unsigned int m_nTotal;
    unsigned int m_nUsed;  // blocks handed out; the free ones are m_ppFreeBlocks[m_nUsed ..]
    _LST_ENTRY m_LruList;  // cached blocks, least recently used first
    FILE_BLOCK* m_pBlocks;
    void* m_pBlockMem;
    FILE_BLOCK** m_ppFreeBlocks;

    static CFileBlkPool* Create(unsigned int blocks);
    void Destory();
    int GetBlock(FILE_BLOCK*& block);
    void RecycleBlock(FILE_BLOCK* block);
    void UpdateLruList(FILE_BLOCK* block) { MoveToTailList(&m_LruList, &block->LruLink); }
    void InsertIntoLruList(FILE_BLOCK* block) { InsertTailList(&m_LruList, &block->LruLink); }
    void RemoveFromLruList(FILE_BLOCK* block) { (void)RemoveEntryList(&block->LruLink); }
  };

  /// One node of a bucket's chain.
  struct CBlkCacheBucket {
    CBlkCacheBucket* pNext;
    unsigned int nCount;  // slots in use, 1 to 8
    struct {
      unsigned int nBlkNo;
      FILE_BLOCK* pBlock;
    } Slots[BUCKET_SLOTS];

    void AddFirst(unsigned int blk, FILE_BLOCK* block);
  };

  /// One uncached piece of a request.
  struct SPLIT_INFO {
    unsigned char* pBuf;  // the caller's buffer at the piece's start
    long long llPos;      // file position of the piece's start
    unsigned int nLen;    // bytes
    unsigned int nFstBlk;
    unsigned int nEndBlk;   // block after the last one
    unsigned int nHeadOff;  // offset of llPos in its block
    unsigned int nTailLen;  // bytes in the last block if it is covered in part, else 0
  };

  template <bool WRITE>
  int Transfer(long long pos, unsigned int len, unsigned char* buf, unsigned int* done, long long limit);
  template <bool WRITE>
  int SplitForBlks(const SPLIT_INFO& piece, long long limit);
  template <bool WRITE>
  int PartialBlock(unsigned int blk, unsigned int off, unsigned char* buf, unsigned int n, long long limit);
  template <bool WRITE>
  static void CopyBlockBytes(FILE_BLOCK* block, unsigned int off, unsigned char* buf, unsigned int n);
  int WholeBlocks(unsigned int fstBlk, unsigned int endBlk, const unsigned char* buf, bool dirty);
  int ReadWhole(long long pos, unsigned int len, unsigned char* buf);

  FILE_BLOCK* FindBlock(unsigned int blk);
  bool AddBlock(unsigned int blk, FILE_BLOCK* block);
  void DelBlock(FILE_BLOCK* block);
  int LoadNewBlock(unsigned int blk, long long limit, FILE_BLOCK*& block);
  int AddNewBlock(unsigned int blk, FILE_BLOCK* block);
  int FlushAllBlks(CBlkCacheBucket* bucket, bool write);
  void ReleaseAllBlks(bool write);
  static int FlushAndDelBlock(FILE_BLOCK* block);
  static int FlushBlockToStorage(FILE_BLOCK* block);
  static unsigned int BytesUpTo(long long limit, long long pos);

  static inline CFileBlkPool* s_pFileBlkPool = nullptr;
  static inline CLookasideList* s_pBuckList = nullptr;
  static inline SPLIT_INFO* s_SplitInfos = nullptr;  // one more than the pool has blocks: cached blocks separate pieces

  OWNER* m_pFile;
  CBlkCacheBucket** m_ppBuckets;  // chains by block number mod BUCKETS; null until a block was added
  FILE_BLOCK* m_pLastFound;       // answers a look-up of the same block again; null when unknown
};

#include "file/FileBlkCacheImpl.h"

#endif  // FATLIB_FILEBLKCACHE_H
