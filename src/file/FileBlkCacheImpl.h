/// @file FileBlkCacheImpl.h
/// The operations of CFileBlkCache. Included by FileBlkCache.h only.

#ifndef FATLIB_FILEBLKCACHEIMPL_H
#define FATLIB_FILEBLKCACHEIMPL_H

// ---------------------------------------------------------------------------------------------- the pool

template <class OWNER>
typename CFileBlkCache<OWNER>::CFileBlkPool* CFileBlkCache<OWNER>::CFileBlkPool::Create(unsigned int blocks) {
  CFileBlkPool* pool = new CFileBlkPool;
  if (pool == nullptr) return nullptr;
  pool->m_nTotal = blocks;
  pool->m_nUsed = 0;
  InitListHead(&pool->m_LruList);
  pool->m_pBlocks = static_cast<FILE_BLOCK*>(osMemAllocArray(blocks, sizeof(FILE_BLOCK)));
  pool->m_ppFreeBlocks = static_cast<FILE_BLOCK**>(osMemAllocArray(blocks, sizeof(FILE_BLOCK*)));
  // Zeroed by the kernel as it is used: a pool that is hardly used costs hardly anything.
  unsigned char* data = osMemAllocBlocks(static_cast<std::size_t>(blocks) * BLOCK_BYTES, pool->m_pBlockMem);
  if (pool->m_pBlocks == nullptr || pool->m_ppFreeBlocks == nullptr || pool->m_pBlockMem == nullptr) {
    pool->Destory();
    return nullptr;
  }
  for (unsigned int i = 0; i < blocks; ++i) {
    FILE_BLOCK& block = pool->m_pBlocks[i];
    block = FILE_BLOCK();
    block.Data = data + static_cast<std::size_t>(i) * BLOCK_BYTES;
    pool->m_ppFreeBlocks[i] = &block;
  }
  return pool;
}

template <class OWNER>
void CFileBlkCache<OWNER>::CFileBlkPool::Destory() {
  osMemFree(m_pBlocks);
  osMemFree(m_ppFreeBlocks);
  osMemFree(m_pBlockMem);
  delete this;
}

/// Hands out a free block, or the least recently used one of any file after writing it back. When that fails the caller
/// gives up, and the victim is lost to the pool.
template <class OWNER>
int CFileBlkCache<OWNER>::CFileBlkPool::GetBlock(FILE_BLOCK*& block) {
  FILE_BLOCK* taken;
  if (m_nUsed < m_nTotal) {
    taken = m_ppFreeBlocks[m_nUsed++];
  } else {
    if (IsListEmpty(&m_LruList)) return STATUS_NO_MEMORY;  // every block was lost
    taken = FATLIB_CONTAINER_OF(m_LruList.Flink, FILE_BLOCK, LruLink);
    taken->Loan.End();
    const int status = FlushAndDelBlock(taken);
    taken->pOwner = nullptr;
    if (status < 0) return status;
  }
  taken->bDirty = false;
  taken->nValid = 0;
  block = taken;
  return STATUS_SUCCESS;
}

/// Takes back a block that is in no list.
template <class OWNER>
void CFileBlkCache<OWNER>::CFileBlkPool::RecycleBlock(FILE_BLOCK* block) {
  block->pOwner = nullptr;
  m_ppFreeBlocks[--m_nUsed] = block;
}

template <class OWNER>
bool CFileBlkCache<OWNER>::GlobalInitialize(unsigned int blocks) {
  if (IsInitialized()) return true;
  const unsigned int grow = blocks < 16 ? 1 : blocks / 16;
  s_pFileBlkPool = CFileBlkPool::Create(blocks);
  s_pBuckList = new CLookasideList(sizeof(CBlkCacheBucket), grow);
  s_SplitInfos = static_cast<SPLIT_INFO*>(osMemAllocArray(blocks + 1, sizeof(SPLIT_INFO)));
  const bool haveNodes = s_pBuckList != nullptr && s_pBuckList->FreeCount() == grow;
  if (s_pFileBlkPool != nullptr && haveNodes && s_SplitInfos != nullptr) return true;
  GlobalTerminate();
  return false;
}

template <class OWNER>
void CFileBlkCache<OWNER>::GlobalTerminate() {
  osMemFree(s_SplitInfos);
  s_SplitInfos = nullptr;
  if (s_pFileBlkPool != nullptr) s_pFileBlkPool->Destory();
  s_pFileBlkPool = nullptr;
  if (s_pBuckList != nullptr) s_pBuckList->ShrinkAll();
  delete s_pBuckList;
  s_pBuckList = nullptr;
}

// ---------------------------------------------------------------------------------------------- one file's table

template <class OWNER>
void CFileBlkCache<OWNER>::CBlkCacheBucket::AddFirst(unsigned int blk, FILE_BLOCK* block) {
  pNext = nullptr;
  nCount = 1;
  Slots[0].nBlkNo = blk;
  Slots[0].pBlock = block;
}

template <class OWNER>
bool CFileBlkCache<OWNER>::IsCached(unsigned int blk) const {
  if (m_ppBuckets == nullptr) return false;
  for (const CBlkCacheBucket* node = m_ppBuckets[blk % BUCKETS]; node != nullptr; node = node->pNext) {
    for (unsigned int i = 0; i < node->nCount; ++i) {
      if (node->Slots[i].nBlkNo == blk) return true;
    }
  }
  return false;
}

/// @return the cached block, now the most recently used one of the pool; or null
template <class OWNER>
typename CFileBlkCache<OWNER>::FILE_BLOCK* CFileBlkCache<OWNER>::FindBlock(unsigned int blk) {
  if (m_ppBuckets == nullptr) return nullptr;
  FILE_BLOCK* found = m_pLastFound != nullptr && m_pLastFound->BlkNo() == blk ? m_pLastFound : nullptr;
  for (CBlkCacheBucket* node = m_ppBuckets[blk % BUCKETS]; found == nullptr && node != nullptr; node = node->pNext) {
    for (unsigned int i = 0; i < node->nCount && found == nullptr; ++i) {
      if (node->Slots[i].nBlkNo == blk) found = node->Slots[i].pBlock;
    }
  }
  if (found == nullptr) return nullptr;
  m_pLastFound = found;
  s_pFileBlkPool->UpdateLruList(found);
  return found;
}

/// Enters a block that FindBlock missed. @return false when memory runs out, with nothing changed
template <class OWNER>
bool CFileBlkCache<OWNER>::AddBlock(unsigned int blk, FILE_BLOCK* block) {
  if (m_ppBuckets == nullptr) {
    m_ppBuckets = static_cast<CBlkCacheBucket**>(osMemAllocZeroed(BUCKETS * sizeof(CBlkCacheBucket*)));
    if (m_ppBuckets == nullptr) return false;
  }
  CBlkCacheBucket** link = &m_ppBuckets[blk % BUCKETS];
  while (*link != nullptr && (*link)->pNext != nullptr) link = &(*link)->pNext;
  CBlkCacheBucket* last = *link;
  if (last != nullptr && last->nCount < BUCKET_SLOTS) {
    last->Slots[last->nCount].nBlkNo = blk;
    last->Slots[last->nCount].pBlock = block;
    ++last->nCount;
  } else {
    CBlkCacheBucket* node = static_cast<CBlkCacheBucket*>(s_pBuckList->Allocate());
    if (node == nullptr) return false;
    node->AddFirst(blk, block);
    *(last == nullptr ? link : &last->pNext) = node;
  }
  s_pFileBlkPool->InsertIntoLruList(block);
  return true;
}

/// Takes a block out of its bucket, where the chain's very last slot fills the gap, and off the recency list.
template <class OWNER>
void CFileBlkCache<OWNER>::DelBlock(FILE_BLOCK* block) {
  if (m_pLastFound == block) m_pLastFound = nullptr;
  CBlkCacheBucket** link = &m_ppBuckets[block->BlkNo() % BUCKETS];
  CBlkCacheBucket* holder = nullptr;
  unsigned int slot = 0;
  for (CBlkCacheBucket* node = *link; node != nullptr && holder == nullptr; node = node->pNext) {
    for (unsigned int i = 0; i < node->nCount; ++i) {
      if (node->Slots[i].pBlock != block) continue;
      holder = node;
      slot = i;
      break;
    }
  }
  if (holder == nullptr) return;
  while ((*link)->pNext != nullptr) link = &(*link)->pNext;
  CBlkCacheBucket* last = *link;
  holder->Slots[slot] = last->Slots[--last->nCount];
  if (last->nCount == 0) {
    *link = nullptr;
    s_pBuckList->Recycle(last);
  }
  s_pFileBlkPool->RemoveFromLruList(block);
}

template <class OWNER>
int CFileBlkCache<OWNER>::FlushAndDelBlock(FILE_BLOCK* block) {
  block->pOwner->BlkCache().DelBlock(block);
  return FlushBlockToStorage(block);
}

/// The dirty mark goes first: a write-back that fails is not tried again.
template <class OWNER>
int CFileBlkCache<OWNER>::FlushBlockToStorage(FILE_BLOCK* block) {
  if (!block->bDirty) return STATUS_SUCCESS;
  block->bDirty = false;
  const long long offset = static_cast<long long>(block->llOffset);
  block->ExtendValid(BytesUpTo(block->pOwner->Limit(), offset));
  return block->pOwner->WriteToStorage(offset, BLOCK_BYTES, block->Data);
}

/// Releases the blocks and nodes of one bucket. The first failed write ends the writing.
template <class OWNER>
int CFileBlkCache<OWNER>::FlushAllBlks(CBlkCacheBucket* bucket, bool write) {
  int status = STATUS_SUCCESS;
  while (bucket != nullptr) {
    for (unsigned int i = 0; i < bucket->nCount; ++i) {
      FILE_BLOCK* block = bucket->Slots[i].pBlock;
      if (write && status >= 0) status = FlushBlockToStorage(block);
      block->Loan.End();
      s_pFileBlkPool->RemoveFromLruList(block);
      s_pFileBlkPool->RecycleBlock(block);
    }
    CBlkCacheBucket* next = bucket->pNext;
    s_pBuckList->Recycle(bucket);
    bucket = next;
  }
  return status;
}

template <class OWNER>
void CFileBlkCache<OWNER>::ReleaseAllBlks(bool write) {
  if (m_ppBuckets == nullptr) return;
  m_pLastFound = nullptr;
  for (unsigned int i = 0; i < BUCKETS; ++i) {
    (void)FlushAllBlks(m_ppBuckets[i], write);  // the object goes whatever happens, and there is nobody to tell
  }
  osMemFree(m_ppBuckets);
  m_ppBuckets = nullptr;
}

// ---------------------------------------------------------------------------------------------- loading blocks

/// The bytes of a block at `pos` that lie before the limit.
template <class OWNER>
unsigned int CFileBlkCache<OWNER>::BytesUpTo(long long limit, long long pos) {
  if (pos >= limit) return 0;
  return limit - pos < BLOCK_BYTES ? static_cast<unsigned int>(limit - pos) : BLOCK_BYTES;
}

/// Enters a block that GetBlock gave, or gives it back to the pool.
template <class OWNER>
int CFileBlkCache<OWNER>::AddNewBlock(unsigned int blk, FILE_BLOCK* block) {
  block->pOwner = m_pFile;
  block->llOffset = static_cast<unsigned long long>(blk) * BLOCK_BYTES;
  if (AddBlock(blk, block)) return STATUS_SUCCESS;
  s_pFileBlkPool->RecycleBlock(block);
  return STATUS_NO_MEMORY;
}

/// Caches a block that FindBlock missed, with what storage holds of it up to the limit.
template <class OWNER>
int CFileBlkCache<OWNER>::LoadNewBlock(unsigned int blk, long long limit, FILE_BLOCK*& block) {
  int status = s_pFileBlkPool->GetBlock(block);
  if (status < 0) return status;
  const long long start = static_cast<long long>(blk) * BLOCK_BYTES;
  const unsigned int bytes = BytesUpTo(limit, start);
  status = m_pFile->ReadFromStorage(start, bytes, block->Data);
  if (status < 0) {
    s_pFileBlkPool->RecycleBlock(block);
    return status;
  }
  block->nValid = bytes;
  return AddNewBlock(blk, block);
}

template <class OWNER>
int CFileBlkCache<OWNER>::PeekBlock(unsigned int blk, const unsigned char*& data, unsigned int& bytes, long long limit,
                                    BLOCK_LOAN** loan) {
  constexpr unsigned int SLOT_MASK = 31;
  const unsigned int inBlock = BytesUpTo(limit, static_cast<long long>(blk) * BLOCK_BYTES);
  if (inBlock == 0) return STATUS_END_OF_FILE;
  FILE_BLOCK* block = FindBlock(blk);
  if (block == nullptr) {
    const int status = LoadNewBlock(blk, limit, block);
    if (status < 0) return status;
  }
  block->ExtendValid((inBlock + SLOT_MASK) & ~SLOT_MASK);
  data = block->Data;
  bytes = inBlock;
  if (loan != nullptr) *loan = &block->Loan;
  return STATUS_SUCCESS;
}

template <class OWNER>
int CFileBlkCache<OWNER>::WriteFstClustOfDir(const void* data, unsigned int len) {
  FILE_BLOCK* block;
  const int status = s_pFileBlkPool->GetBlock(block);
  if (status < 0) return status;
  osMemCpy(block->Data, data, len);
  block->nValid = len;
  block->bDirty = true;
  return AddNewBlock(0, block);
}

// ---------------------------------------------------------------------------------------------- transfers

template <class OWNER>
template <bool WRITE>
void CFileBlkCache<OWNER>::CopyBlockBytes(FILE_BLOCK* block, unsigned int off, unsigned char* buf, unsigned int n) {
  if (WRITE) {
    block->Loan.End();
    block->bDirty = true;
  }
  if (n == 0) return;  // the buffer may be null then
  if (WRITE) {
    block->ExtendValid(off);
    osMemCpyLarge(block->Data + off, buf, n);
    if (block->nValid < off + n) block->nValid = off + n;
  } else {
    block->ExtendValid(off + n);
    osMemCpyLarge(buf, block->Data + off, n);
  }
}

/// Loads a block that is touched only in part, and copies that part.
template <class OWNER>
template <bool WRITE>
int CFileBlkCache<OWNER>::PartialBlock(unsigned int blk, unsigned int off, unsigned char* buf, unsigned int n,
                                       long long limit) {
  FILE_BLOCK* block;
  const int status = LoadNewBlock(blk, limit, block);
  if (status >= 0) CopyBlockBytes<WRITE>(block, off, buf, n);
  return status;
}

/// Caches whole blocks with the bytes of a buffer.
template <class OWNER>
int CFileBlkCache<OWNER>::WholeBlocks(unsigned int fstBlk, unsigned int endBlk, const unsigned char* buf, bool dirty) {
  for (unsigned int blk = fstBlk; blk < endBlk; ++blk) {
    FILE_BLOCK* block;
    int status = s_pFileBlkPool->GetBlock(block);
    if (status < 0) return status;
    osMemCpyLarge(block->Data, buf, BLOCK_BYTES);
    block->nValid = BLOCK_BYTES;
    block->bDirty = dirty;
    status = AddNewBlock(blk, block);
    if (status < 0) return status;
    buf += BLOCK_BYTES;
  }
  return STATUS_SUCCESS;
}

/// Reads straight into the caller's buffer. A back-end never sees an odd address: it may hand the buffer to a device.
template <class OWNER>
int CFileBlkCache<OWNER>::ReadWhole(long long pos, unsigned int len, unsigned char* buf) {
  if ((reinterpret_cast<std::uintptr_t>(buf) & 1) == 0) return m_pFile->ReadFromStorage(pos, len, buf);
  unsigned char* bounce = static_cast<unsigned char*>(osMemAlloc(len));
  if (bounce == nullptr) return STATUS_NO_MEMORY;
  const int status = m_pFile->ReadFromStorage(pos, len, bounce);
  if (status >= 0) osMemCpyLarge(buf, bounce, len);
  osMemFree(bounce);
  return status;
}

/// Carries out one uncached piece: a first block that is touched from its middle on, whole blocks, and a last block
/// that is touched in part. Whole blocks are read with a single transfer, and written with none at all: they only get
/// dirty.
template <class OWNER>
template <bool WRITE>
int CFileBlkCache<OWNER>::SplitForBlks(const SPLIT_INFO& piece, long long limit) {
  unsigned char* buf = piece.pBuf;
  long long pos = piece.llPos;
  unsigned int len = piece.nLen;
  unsigned int blk = piece.nFstBlk;
  if (piece.nHeadOff != 0) {
    const unsigned int rest = BLOCK_BYTES - piece.nHeadOff;
    const unsigned int n = len < rest ? len : rest;
    const int status = PartialBlock<WRITE>(blk, piece.nHeadOff, buf, n, limit);
    if (status < 0) return status;
    if (n == len) return STATUS_SUCCESS;
    buf += n;
    pos += n;
    len -= n;
    ++blk;
  }
  const unsigned int endWhole = piece.nTailLen != 0 ? piece.nEndBlk - 1 : piece.nEndBlk;
  len -= piece.nTailLen;
  if (blk < endWhole) {
    int status = WRITE ? STATUS_SUCCESS : ReadWhole(pos, len, buf);
    if (status >= 0) status = WholeBlocks(blk, endWhole, buf, WRITE);
    if (status < 0) return status;
    buf += len;
  }
  if (piece.nTailLen == 0) return STATUS_SUCCESS;
  return PartialBlock<WRITE>(endWhole, 0, buf, piece.nTailLen, limit);
}

/// Walks the request block by block: cached blocks are served at once, and the stretches between them are noted as
/// pieces, which are carried out afterwards.
template <class OWNER>
template <bool WRITE>
int CFileBlkCache<OWNER>::Transfer(long long pos, unsigned int len, unsigned char* buf, unsigned int* done,
                                   long long limit) {
  unsigned int blk = static_cast<unsigned int>(pos / BLOCK_BYTES);
  const unsigned int off = static_cast<unsigned int>(pos) & BLOCK_MASK;
  unsigned int nPieces = 0;
  unsigned int open = 0;  // bytes of the piece that is being gathered
  *done = 0;
  if (off != 0) {
    unsigned int n = BLOCK_BYTES - off < len ? BLOCK_BYTES - off : len;
    FILE_BLOCK* block = FindBlock(blk);
    if (block != nullptr) {
      CopyBlockBytes<WRITE>(block, off, buf, n);
      *done = n;
      buf += n;
      pos += n;
      len -= n;
      ++blk;
    } else {
      SPLIT_INFO& piece = s_SplitInfos[nPieces++];
      piece.pBuf = buf;
      piece.llPos = pos;
      piece.nFstBlk = blk++;
      piece.nHeadOff = off;
      piece.nLen = n;
      len -= n;
      while (len > 0 && FindBlock(blk) == nullptr) {
        n = len < BLOCK_BYTES ? len : BLOCK_BYTES;
        piece.nLen += n;
        len -= n;
        ++blk;
      }
      piece.nEndBlk = blk;
      piece.nTailLen = len == 0 ? n & BLOCK_MASK : 0;
      buf += piece.nLen;
      pos += piece.nLen;
    }
  }
  while (len > 0) {
    const unsigned int n = len < BLOCK_BYTES ? len : BLOCK_BYTES;
    FILE_BLOCK* block = FindBlock(blk);
    if (block != nullptr) {
      if (open != 0) {
        SPLIT_INFO& piece = s_SplitInfos[nPieces++];
        piece.nLen = open;
        piece.nEndBlk = blk;
        piece.nTailLen = 0;
        buf += open;
        pos += open;
        open = 0;
      }
      CopyBlockBytes<WRITE>(block, 0, buf, n);
      *done += n;
      buf += n;
      pos += n;
    } else {
      if (open == 0) {
        SPLIT_INFO& piece = s_SplitInfos[nPieces];
        piece.pBuf = buf;
        piece.llPos = pos;
        piece.nFstBlk = blk;
        piece.nHeadOff = 0;
      }
      open += n;
    }
    len -= n;
    ++blk;
  }
  if (open != 0) {
    SPLIT_INFO& piece = s_SplitInfos[nPieces++];
    piece.nLen = open;
    piece.nEndBlk = blk;
    piece.nTailLen = open & BLOCK_MASK;
  }
  for (unsigned int i = 0; i < nPieces; ++i) {
    const int status = SplitForBlks<WRITE>(s_SplitInfos[i], limit);
    if (status < 0) return status;
    *done += open;
  }
  return STATUS_SUCCESS;
}

#endif  // FATLIB_FILEBLKCACHEIMPL_H
