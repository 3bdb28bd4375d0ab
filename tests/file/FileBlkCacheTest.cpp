/// @file FileBlkCacheTest.cpp
/// The block cache under fake files, whose storage is bytes in memory that logs transfers and fails them on demand.
/// Small pools make eviction a matter of a few calls.
///
/// Beside the single rules there is a plain twin of the whole cache: the same requests go to both, and after every step
/// results, counts, delivered bytes, storage calls, bucket chains and recency order must be the same.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <list>
#include <map>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "file/FileBlkCache.h"
#include "support/MemHooks.h"

namespace {

constexpr unsigned int BLOCK = 0x40000;
constexpr unsigned int BUCKETS = 269;
constexpr int END_OF_FILE = static_cast<int>(0xC0000011u);
constexpr int NO_MEMORY = static_cast<int>(0xC0000017u);
constexpr int IO_ERROR = static_cast<int>(0xC0000185u);

using BYTES = std::vector<unsigned char>;

// ---------------------------------------------------------------- storage

/// One call of ReadFromStorage or WriteToStorage, with its arguments.
struct CALL {
  char Kind;  // R or W
  int File;
  long long Pos;
  unsigned int Len;
  std::uint64_t Hash = 0;  // of the bytes that a write has stored
  bool Failed = false;

  bool operator==(const CALL& other) const {
    return Kind == other.Kind && File == other.File && Pos == other.Pos && Len == other.Len && Hash == other.Hash &&
           Failed == other.Failed;
  }
};
using CALLS = std::vector<CALL>;

std::ostream& operator<<(std::ostream& out, const CALL& call) {
  return out << call.Kind << " file " << call.File << " at 0x" << std::hex << call.Pos << " len 0x" << call.Len
             << std::dec << (call.Failed ? " FAILED" : "");
}

/// Calls without the hashes of what was written.
CALLS Shape(CALLS calls) {
  for (CALL& call : calls) call.Hash = 0;
  return calls;
}
CALL ReadOf(int file, long long pos, unsigned int len = BLOCK) { return {'R', file, pos, len}; }
/// The cache always offers a whole block; the file cuts it at its limit.
CALL WriteOf(int file, unsigned int blk) { return {'W', file, static_cast<long long>(blk) * BLOCK, BLOCK}; }

/// What several files share: the log of their calls, and the fault to come.
struct CJournal {
  enum FILTER { All, Reads, Writes };

  CALLS Calls;
  unsigned int Countdown = 0;  // calls that pass the filter until one fails; 0: none fails
  bool ForGood = false;
  FILTER Filter = All;

  void FailAt(unsigned int nth, FILTER filter = All, bool forGood = false) {
    Countdown = nth;
    Filter = filter;
    ForGood = forGood;
  }
  void Heal() { Countdown = 0; }
  bool Fails(char kind) {
    if (Countdown == 0 || (Filter == Reads && kind != 'R') || (Filter == Writes && kind != 'W')) return false;
    if (Countdown > 1) {
      --Countdown;
      return false;
    }
    if (!ForGood) Countdown = 0;
    return true;
  }
  CALLS Take() { return std::exchange(Calls, {}); }
};

std::uint64_t Mix(std::uint64_t x) {
  x += 0x9E3779B97F4A7C15u;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9u;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBu;
  return x ^ (x >> 31);
}

std::uint64_t HashOf(const unsigned char* bytes, std::size_t count) {
  std::uint64_t hash = count;
  for (; count >= 8; count -= 8, bytes += 8) {
    std::uint64_t word;
    std::memcpy(&word, bytes, 8);
    hash = (hash ^ word) * 0x100000001B3u;
    hash ^= hash >> 29;
  }
  for (; count > 0; --count) hash = (hash ^ *bytes++) * 0x100000001B3u;
  return hash;
}

/// The bytes behind a file: different at every place of every file until they are written.
class CStore {
 public:
  CStore(int file, long long limit, CJournal& journal) : m_nFile(file), m_nLimit(limit), m_pJournal(&journal) {}

  long long Limit() const { return m_nLimit; }
  void SetLimit(long long limit) { m_nLimit = limit; }
  bool SawOddBuffer() const { return m_bSawOddBuffer; }

  int Read(long long pos, unsigned int len, unsigned char* buf) {
    CALL call{'R', m_nFile, pos, len};
    call.Failed = m_pJournal->Fails('R');
    m_pJournal->Calls.push_back(call);
    if ((reinterpret_cast<std::uintptr_t>(buf) & 1) != 0) m_bSawOddBuffer = true;
    if (call.Failed) return IO_ERROR;
    CopyOut(pos, len, buf);
    return 1;  // any result that is not negative is a success
  }

  int Write(long long pos, unsigned int len, const unsigned char* buf) {
    CALL call{'W', m_nFile, pos, len};
    const long long room = std::max(0LL, m_nLimit - pos);
    const unsigned int stored = static_cast<unsigned int>(std::min<long long>(len, room));
    call.Failed = m_pJournal->Fails('W');
    if (!call.Failed) call.Hash = HashOf(buf, stored);
    m_pJournal->Calls.push_back(call);
    if (call.Failed) return IO_ERROR;
    for (unsigned int i = 0; i < stored;) {
      const unsigned int off = static_cast<unsigned int>((pos + i) % BLOCK);
      const unsigned int part = std::min(stored - i, BLOCK - off);
      std::memcpy(Chunk(pos + i).data() + off, buf + i, part);
      i += part;
    }
    return 1;
  }

  /// What storage holds.
  BYTES Content(long long pos, unsigned int len) {
    BYTES bytes(len);
    CopyOut(pos, len, bytes.data());
    return bytes;
  }

  bool SameBytes(const CStore& other) const { return m_Chunks == other.m_Chunks; }

 private:
  void CopyOut(long long pos, unsigned int len, unsigned char* buf) {
    for (unsigned int i = 0; i < len;) {
      const unsigned int off = static_cast<unsigned int>((pos + i) % BLOCK);
      const unsigned int part = std::min(len - i, BLOCK - off);
      std::memcpy(buf + i, Chunk(pos + i).data() + off, part);
      i += part;
    }
  }
  BYTES& Chunk(long long pos) {
    const long long number = pos / BLOCK;
    BYTES& chunk = m_Chunks[number];
    if (!chunk.empty()) return chunk;
    chunk.resize(BLOCK);
    const std::uint64_t seed = Mix(static_cast<std::uint64_t>(m_nFile + 1) << 40 ^ static_cast<std::uint64_t>(number));
    for (std::size_t i = 0; i < BLOCK; i += 8) {
      const std::uint64_t word = Mix(seed + i) | 0x0101010101010101u;  // no byte is 0
      std::memcpy(chunk.data() + i, &word, 8);
    }
    return chunk;
  }

  int m_nFile;
  long long m_nLimit;
  CJournal* m_pJournal;
  std::map<long long, BYTES> m_Chunks;
  bool m_bSawOddBuffer = false;
};

/// The owner of blocks.
class CFakeFile {
 public:
  CFakeFile(int number, long long limit, CJournal& journal) : m_Store(number, limit, journal) { m_Cache.Create(this); }
  ~CFakeFile() { m_Cache.Destory(); }
  CFakeFile(const CFakeFile&) = delete;
  CFakeFile& operator=(const CFakeFile&) = delete;

  int ReadFromStorage(long long pos, unsigned int len, unsigned char* buf) { return m_Store.Read(pos, len, buf); }
  int WriteToStorage(long long pos, unsigned int len, unsigned char* buf) { return m_Store.Write(pos, len, buf); }
  long long Limit() const { return m_Store.Limit(); }
  CFileBlkCache<CFakeFile>& BlkCache() { return m_Cache; }

  CStore& Store() { return m_Store; }
  bool Cached(unsigned int blk) const { return m_Cache.IsCached(blk); }

  int Read(long long pos, unsigned int len, unsigned char* buf, unsigned int* done) {
    return m_Cache.Read(pos, len, buf, done, Limit());
  }
  int Write(long long pos, unsigned int len, unsigned char* buf, unsigned int* done) {
    return m_Cache.Write(pos, len, buf, done, Limit());
  }
  /// For requests whose count is not looked at.
  BYTES MustRead(long long pos, unsigned int len) {
    BYTES bytes(len);
    unsigned int done;
    EXPECT_EQ(Read(pos, len, bytes.data(), &done), 0);
    return bytes;
  }
  void MustWrite(long long pos, BYTES bytes) {
    unsigned int done;
    EXPECT_EQ(Write(pos, static_cast<unsigned int>(bytes.size()), bytes.data(), &done), 0);
  }
  /// Caches a block, clean.
  void Load(unsigned int blk) { MustRead(static_cast<long long>(blk) * BLOCK, 1); }
  /// Caches a block, dirty.
  void Dirty(unsigned int blk, unsigned char value = 0xDD) { MustWrite(static_cast<long long>(blk) * BLOCK, {value}); }

 private:
  CStore m_Store;
  CFileBlkCache<CFakeFile> m_Cache;
};

using CACHE = CFileBlkCache<CFakeFile>;

// ---------------------------------------------------------------- the private state

// An explicit instantiation may name what is private: the tests look at the state of the cache without a door in it.
template <auto MEMBER, class TAG>
struct CReveal {
  friend auto Reveal(TAG) { return MEMBER; }
};
struct POOL_TAG {
  friend auto Reveal(POOL_TAG);
};
struct PIECES_TAG {
  friend auto Reveal(PIECES_TAG);
};
struct BUCKETS_TAG {
  friend auto Reveal(BUCKETS_TAG);
};
template struct CReveal<&CACHE::s_pFileBlkPool, POOL_TAG>;
template struct CReveal<&CACHE::s_SplitInfos, PIECES_TAG>;
template struct CReveal<&CACHE::m_ppBuckets, BUCKETS_TAG>;

/// A cached block as the comparisons see it.
struct SEEN {
  const void* Owner;
  unsigned int Blk;
  bool Dirty;

  bool operator==(const SEEN& other) const { return Owner == other.Owner && Blk == other.Blk && Dirty == other.Dirty; }
};
std::ostream& operator<<(std::ostream& out, const SEEN& seen) {
  return out << "block " << seen.Blk << (seen.Dirty ? " dirty" : " clean") << " of " << seen.Owner;
}

/// The recency list, least recently used first. Follows the backward links too.
std::vector<SEEN> Recency() {
  auto* pool = *Reveal(POOL_TAG());
  using FILE_BLOCK = std::remove_pointer_t<decltype(pool->m_pBlocks)>;
  std::vector<SEEN> seen;
  for (_LST_ENTRY* link = pool->m_LruList.Flink; link != &pool->m_LruList; link = link->Flink) {
    EXPECT_EQ(link->Flink->Blink, link);
    const FILE_BLOCK* block = FATLIB_CONTAINER_OF(link, FILE_BLOCK, LruLink);
    seen.push_back({block->pOwner, static_cast<unsigned int>(block->llOffset / BLOCK), block->bDirty});
    EXPECT_EQ(block->llOffset % BLOCK, 0u);
    if (seen.size() > pool->m_nTotal) {
      ADD_FAILURE() << "the recency list has no end";
      break;
    }
  }
  return seen;
}

/// Block numbers by bucket, node and slot, one vector for each bucket in use. Every node but a chain's last is full.
std::vector<std::vector<unsigned int>> Chains(CFakeFile& file) {
  std::vector<std::vector<unsigned int>> chains;
  auto** buckets = file.BlkCache().*Reveal(BUCKETS_TAG());
  if (buckets == nullptr) return chains;
  for (unsigned int i = 0; i < BUCKETS; ++i) {
    if (buckets[i] == nullptr) continue;
    chains.emplace_back();
    for (auto* node = buckets[i]; node != nullptr; node = node->pNext) {
      EXPECT_TRUE(node->nCount == 8 || (node->pNext == nullptr && node->nCount > 0 && node->nCount < 8));
      for (unsigned int slot = 0; slot < node->nCount; ++slot) {
        EXPECT_EQ(node->Slots[slot].pBlock->BlkNo(), node->Slots[slot].nBlkNo);
        EXPECT_EQ(node->Slots[slot].pBlock->pOwner, &file);
        EXPECT_EQ(node->Slots[slot].nBlkNo % BUCKETS, i);
        chains.back().push_back(node->Slots[slot].nBlkNo);
      }
    }
  }
  return chains;
}

/// The blocks on the free stack are different ones, none of them in the recency list.
void ExpectPoolHoldsTogether() {
  auto* pool = *Reveal(POOL_TAG());
  ASSERT_LE(pool->m_nUsed, pool->m_nTotal);
  std::vector<const void*> blocks;
  for (unsigned int i = pool->m_nUsed; i < pool->m_nTotal; ++i) blocks.push_back(&pool->m_ppFreeBlocks[i]->LruLink);
  for (_LST_ENTRY* link = pool->m_LruList.Flink; link != &pool->m_LruList; link = link->Flink) blocks.push_back(link);
  std::sort(blocks.begin(), blocks.end());
  EXPECT_EQ(std::adjacent_find(blocks.begin(), blocks.end()), blocks.end());
}

// ---------------------------------------------------------------- the twin

/// The cache once more, as plainly as it can be said: a block is fresh zeros whenever it is taken, chains are vectors,
/// and every byte is copied.
class CTwin {
 public:
  CTwin(unsigned int blocks, std::vector<CStore*> stores)
      : m_nTotal(blocks), m_Stores(std::move(stores)), m_Buckets(m_Stores.size()) {}

  int Read(unsigned int file, long long pos, unsigned int len, unsigned char* buf, unsigned int* done) {
    return Access(false, file, pos, len, buf, done);
  }
  int Write(unsigned int file, long long pos, unsigned int len, unsigned char* buf, unsigned int* done) {
    return Access(true, file, pos, len, buf, done);
  }

  int WriteFstClustOfDir(unsigned int file, const BYTES& data) {
    BLOCK_PTR block;
    const int status = GetBlock(block);
    if (status < 0) return status;
    std::copy(data.begin(), data.end(), block->Data.begin());
    Add(file, 0, block, true);
    return 0;
  }

  int Peek(unsigned int file, unsigned int blk, BYTES& data) {
    const long long start = static_cast<long long>(blk) * BLOCK;
    if (start >= Limit(file)) return END_OF_FILE;
    BLOCK_PTR block = Find(file, blk);
    if (block == nullptr) {
      const int status = Load(file, blk, false, block);
      if (status < 0) return status;
    }
    data = block->Data;
    data.resize(static_cast<std::size_t>(std::min<long long>(BLOCK, Limit(file) - start)));
    return 0;
  }

  void Release(unsigned int file, bool write) {
    for (auto& bucket : m_Buckets[file]) {
      bool failed = false;
      for (const BLOCK_PTR& block : bucket.second) {
        if (write && !failed) failed = Flush(*block) < 0;
        m_Lru.remove(block);
        --m_nUsed;
      }
    }
    m_Buckets[file].clear();
  }

  bool Cached(unsigned int file, unsigned int blk) const {
    const auto bucket = m_Buckets[file].find(blk % BUCKETS);
    return bucket != m_Buckets[file].end() && std::any_of(bucket->second.begin(), bucket->second.end(),
                                                          [blk](const BLOCK_PTR& block) { return block->Blk == blk; });
  }
  unsigned int Used() const { return m_nUsed; }
  std::vector<SEEN> Recency(const std::vector<const void*>& owners) const {
    std::vector<SEEN> seen;
    for (const BLOCK_PTR& block : m_Lru) seen.push_back({owners[block->File], block->Blk, block->Dirty});
    return seen;
  }
  std::vector<std::vector<unsigned int>> Chains(unsigned int file) const {
    std::vector<std::vector<unsigned int>> chains;
    for (const auto& bucket : m_Buckets[file]) {
      chains.emplace_back();
      for (const BLOCK_PTR& block : bucket.second) chains.back().push_back(block->Blk);
    }
    return chains;
  }

 private:
  struct TWIN_BLOCK {
    unsigned int File = 0;
    unsigned int Blk = 0;
    bool Dirty = false;
    BYTES Data;
  };
  using BLOCK_PTR = std::shared_ptr<TWIN_BLOCK>;
  struct PIECE {
    unsigned char* Buf;
    long long Pos;
    unsigned int Len, FstBlk, EndBlk, HeadOff, TailLen;
  };

  long long Limit(unsigned int file) const { return m_Stores[file]->Limit(); }

  int Flush(TWIN_BLOCK& block) {
    if (!block.Dirty) return 0;
    block.Dirty = false;
    return m_Stores[block.File]->Write(static_cast<long long>(block.Blk) * BLOCK, BLOCK, block.Data.data());
  }

  BLOCK_PTR Find(unsigned int file, unsigned int blk) {
    const auto bucket = m_Buckets[file].find(blk % BUCKETS);
    if (bucket == m_Buckets[file].end()) return nullptr;
    for (const BLOCK_PTR& block : bucket->second) {
      if (block->Blk != blk) continue;
      m_Lru.remove(block);
      m_Lru.push_back(block);
      return block;
    }
    return nullptr;
  }

  void Add(unsigned int file, unsigned int blk, const BLOCK_PTR& block, bool dirty) {
    block->File = file;
    block->Blk = blk;
    block->Dirty = dirty;
    m_Buckets[file][blk % BUCKETS].push_back(block);
    m_Lru.push_back(block);
  }

  int GetBlock(BLOCK_PTR& block) {
    block = std::make_shared<TWIN_BLOCK>();
    if (m_nUsed < m_nTotal) {
      ++m_nUsed;
      block->Data.resize(BLOCK);
    } else {
      if (m_Lru.empty()) return NO_MEMORY;
      const BLOCK_PTR victim = m_Lru.front();
      m_Lru.pop_front();
      std::vector<BLOCK_PTR>& bucket = m_Buckets[victim->File][victim->Blk % BUCKETS];
      *std::find(bucket.begin(), bucket.end(), victim) = bucket.back();
      bucket.pop_back();
      if (bucket.empty()) m_Buckets[victim->File].erase(victim->Blk % BUCKETS);
      const int status = Flush(*victim);
      if (status < 0) return status;  // the block stays counted as used: it is lost
      block->Data.swap(victim->Data);
      std::fill(block->Data.begin(), block->Data.end(), static_cast<unsigned char>(0));
    }
    return 0;
  }

  int Load(unsigned int file, unsigned int blk, bool dirty, BLOCK_PTR& block) {
    int status = GetBlock(block);
    if (status < 0) return status;
    const long long start = static_cast<long long>(blk) * BLOCK;
    const unsigned int len = static_cast<unsigned int>(std::min<long long>(BLOCK, Limit(file) - start));
    status = m_Stores[file]->Read(start, len, block->Data.data());
    if (status < 0) {
      --m_nUsed;
      return status;
    }
    Add(file, blk, block, dirty);
    return 0;
  }

  static void Copy(bool write, TWIN_BLOCK& block, unsigned int off, unsigned char* buf, unsigned int n) {
    if (write) block.Dirty = true;
    for (unsigned int i = 0; i < n; i += 8) {
      const unsigned int part = std::min(8u, n - i);
      unsigned char* data = block.Data.data() + off + i;
      std::memcpy(write ? data : buf + i, write ? buf + i : data, part);
    }
  }

  int Access(bool write, unsigned int file, long long pos, unsigned int len, unsigned char* buf, unsigned int* done) {
    unsigned int blk = static_cast<unsigned int>(pos >> 18);
    const unsigned int off = static_cast<unsigned int>(pos & 0x3FFFF);
    std::vector<PIECE> pieces;
    unsigned int open = 0;
    *done = 0;
    if (off != 0) {
      unsigned int n = std::min(BLOCK - off, len);
      const BLOCK_PTR head = Find(file, blk);
      if (head != nullptr) {
        Copy(write, *head, off, buf, n);
        *done = n;
        buf += n;
        pos += n;
        len -= n;
        ++blk;
      } else {
        PIECE piece{buf, pos, n, blk, 0, off, 0};
        len -= n;
        ++blk;
        while (len > 0 && Find(file, blk) == nullptr) {
          n = std::min(len, BLOCK);
          piece.Len += n;
          len -= n;
          ++blk;
        }
        piece.EndBlk = blk;
        if (len == 0) {
          piece.TailLen = n & 0x3FFFF;
        } else {
          buf += piece.Len;
          pos += piece.Len;
        }
        pieces.push_back(piece);
      }
    }
    PIECE opened{};
    while (len > 0) {
      const unsigned int n = std::min(len, BLOCK);
      const BLOCK_PTR cached = Find(file, blk);
      if (cached != nullptr) {
        if (open != 0) {
          opened.Len = open;
          opened.EndBlk = blk;
          opened.TailLen = 0;
          pieces.push_back(opened);
          buf += open;
          pos += open;
          open = 0;
        }
        Copy(write, *cached, 0, buf, n);
        *done += n;
        buf += n;
        pos += n;
      } else {
        if (open == 0) opened = {buf, pos, 0, blk, 0, 0, 0};
        open += n;
      }
      len -= n;
      ++blk;
    }
    if (open != 0) {
      opened.Len = open;
      opened.EndBlk = blk;
      opened.TailLen = open & 0x3FFFF;
      pieces.push_back(opened);
    }
    for (const PIECE& piece : pieces) {
      const int status = Split(write, file, piece);
      if (status < 0) return status;
      *done += open;
    }
    return 0;
  }

  int Split(bool write, unsigned int file, PIECE piece) {
    BLOCK_PTR block;
    if (piece.HeadOff != 0) {
      const int status = Load(file, piece.FstBlk, write, block);
      if (status < 0) return status;
      const unsigned int n = std::min(BLOCK - piece.HeadOff, piece.Len);
      Copy(write, *block, piece.HeadOff, piece.Buf, n);
      if (n == piece.Len) return 0;
      piece.Buf += n;
      piece.Pos += n;
      piece.Len -= n;
      ++piece.FstBlk;
    }
    const unsigned int endWhole = piece.TailLen != 0 ? piece.EndBlk - 1 : piece.EndBlk;
    piece.Len -= piece.TailLen;
    if (piece.FstBlk < endWhole && !write) {
      const int status = m_Stores[file]->Read(piece.Pos, piece.Len, piece.Buf);
      if (status < 0) return status;
    }
    for (unsigned int blk = piece.FstBlk; blk < endWhole; ++blk) {
      const int status = GetBlock(block);
      if (status < 0) return status;
      std::memcpy(block->Data.data(), piece.Buf, BLOCK);
      Add(file, blk, block, write);
      piece.Buf += BLOCK;
    }
    if (piece.TailLen == 0) return 0;
    const int status = Load(file, endWhole, write, block);
    if (status < 0) return status;
    Copy(write, *block, 0, piece.Buf, piece.TailLen);
    return 0;
  }

  unsigned int m_nTotal;
  unsigned int m_nUsed = 0;
  std::vector<CStore*> m_Stores;
  std::vector<std::map<unsigned int, std::vector<BLOCK_PTR>>> m_Buckets;  // per file
  std::list<BLOCK_PTR> m_Lru;
};

// ---------------------------------------------------------------- the frame

/// A pool, and the check that nothing is left of it.
class FileBlkCache : public ::testing::Test {
 protected:
  void TearDown() override {
    EXPECT_EQ(CACHE::BlocksInUse(), m_nLost) << "blocks not given back";
    CACHE::GlobalTerminate();
    m_Memory.Heal();
    EXPECT_EQ(m_Memory.Outstanding(), 0u);
    EXPECT_EQ(m_Memory.UnknownFrees(), 0u);
  }
  void MakePool(unsigned int blocks) { ASSERT_TRUE(CACHE::GlobalInitialize(blocks)); }
  /// Says that so many blocks were lost to failed evictions.
  void ExpectLost(unsigned int blocks) { m_nLost = blocks; }

  CMemHooks m_Memory;
  CJournal m_Journal;

 private:
  unsigned int m_nLost = 0;
};

/// `count` bytes from `from` on.
BYTES Part(const BYTES& bytes, std::size_t from, std::size_t count) {
  const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(from);
  return BYTES(begin, begin + static_cast<std::ptrdiff_t>(count));
}

BYTES Pattern(unsigned int count, unsigned int seed) {
  BYTES bytes(count);
  for (unsigned int i = 0; i < count; ++i)
    bytes[i] = static_cast<unsigned char>(Mix(seed * 0x10001u + i / 8) >> (i % 8 * 8));
  return bytes;
}

// ---------------------------------------------------------------- reads

TEST_F(FileBlkCache, SmallReadOfUncachedFile_LoadsBlockUpToLimitAndReportsItsLength) {
  MakePool(4);
  CFakeFile file(0, 1000, m_Journal);
  BYTES buffer(100);
  unsigned int done = 7;
  EXPECT_EQ(file.Read(0, 100, buffer.data(), &done), 0);
  EXPECT_EQ(done, 100u);
  EXPECT_EQ(buffer, file.Store().Content(0, 100));
  EXPECT_EQ(m_Journal.Take(), CALLS({ReadOf(0, 0, 1000)}));

  EXPECT_EQ(file.Read(100, 100, buffer.data(), &done), 0);
  EXPECT_EQ(done, 100u);
  EXPECT_EQ(buffer, file.Store().Content(100, 100));
  EXPECT_TRUE(m_Journal.Take().empty());
}

TEST_F(FileBlkCache, ReadInsideUncachedBlock_DeliversDataButReportsNothing) {
  MakePool(4);
  CFakeFile file(0, 3 * BLOCK, m_Journal);
  BYTES buffer(50);
  unsigned int done = 7;
  EXPECT_EQ(file.Read(BLOCK + 10, 50, buffer.data(), &done), 0);
  EXPECT_EQ(done, 0u);
  EXPECT_EQ(buffer, file.Store().Content(BLOCK + 10, 50));
  EXPECT_EQ(m_Journal.Take(), CALLS({ReadOf(0, BLOCK)}));
  EXPECT_TRUE(file.Cached(1));

  EXPECT_EQ(file.Read(BLOCK + 10, 50, buffer.data(), &done), 0);
  EXPECT_EQ(done, 50u);
}

TEST_F(FileBlkCache, ReadOfWholeUncachedBlocks_IsOneTransferIntoTheCallersBuffer) {
  MakePool(8);
  CFakeFile file(0, 8 * BLOCK, m_Journal);
  unsigned int done;
  BYTES buffer(3 * BLOCK);
  EXPECT_EQ(file.Read(2 * BLOCK, 3 * BLOCK, buffer.data(), &done), 0);
  EXPECT_EQ(done, 3 * BLOCK);
  EXPECT_EQ(buffer, file.Store().Content(2 * BLOCK, 3 * BLOCK));
  EXPECT_EQ(m_Journal.Take(), CALLS({ReadOf(0, 2 * BLOCK, 3 * BLOCK)}));
  EXPECT_EQ(file.MustRead(3 * BLOCK + 5, 100), file.Store().Content(3 * BLOCK + 5, 100));
  EXPECT_TRUE(m_Journal.Take().empty());
}

TEST_F(FileBlkCache, ReadWithHeadWholeBlocksAndTail_LoadsHeadFirstAndTailLast) {
  MakePool(8);
  CFakeFile file(0, 5 * BLOCK + 77, m_Journal);
  const BYTES read = file.MustRead(BLOCK + 8, 4 * BLOCK + 20);
  EXPECT_EQ(read, file.Store().Content(BLOCK + 8, 4 * BLOCK + 20));
  EXPECT_EQ(m_Journal.Take(), CALLS({ReadOf(0, BLOCK), ReadOf(0, 2 * BLOCK, 3 * BLOCK), ReadOf(0, 5 * BLOCK, 77)}));
}

TEST_F(FileBlkCache, RequestBrokenByCachedBlock_MakesTheTwoPiecesAndCountsTheLastOneTwice) {
  MakePool(8);
  CFakeFile file(0, 8 * BLOCK, m_Journal);
  file.MustWrite(2 * BLOCK, Pattern(BLOCK, 5));
  m_Journal.Take();
  BYTES buffer(0x140010 - 0x40100);
  unsigned int done;
  EXPECT_EQ(file.Read(0x40100, 0x140010 - 0x40100, buffer.data(), &done), 0);
  EXPECT_EQ(done, 0x40000u + 2 * 0x80010u);

  const auto* pieces = *Reveal(PIECES_TAG());
  EXPECT_EQ(pieces[0].nFstBlk, 1u);
  EXPECT_EQ(pieces[0].nEndBlk, 2u);
  EXPECT_EQ(pieces[0].nHeadOff, 0x100u);
  EXPECT_EQ(pieces[0].nLen, 0x3FF00u);
  EXPECT_EQ(pieces[0].nTailLen, 0u);
  EXPECT_EQ(pieces[1].nFstBlk, 3u);
  EXPECT_EQ(pieces[1].nEndBlk, 6u);
  EXPECT_EQ(pieces[1].nHeadOff, 0u);
  EXPECT_EQ(pieces[1].nLen, 0x80010u);
  EXPECT_EQ(pieces[1].nTailLen, 0x10u);

  BYTES expected = file.Store().Content(0x40100, 0x140010 - 0x40100);
  const BYTES written = Pattern(BLOCK, 5);
  std::copy(written.begin(), written.end(), expected.begin() + 0x3FF00);
  EXPECT_EQ(buffer, expected);
  for (unsigned int blk = 0; blk < 8; ++blk) EXPECT_EQ(file.Cached(blk), blk >= 1 && blk <= 5) << blk;
  EXPECT_EQ(m_Journal.Take(), CALLS({ReadOf(0, BLOCK), ReadOf(0, 3 * BLOCK, 2 * BLOCK), ReadOf(0, 5 * BLOCK)}));
}

TEST_F(FileBlkCache, EveryOtherBlockOfFullPoolCached_UsesOnePieceMoreThanThePoolHasBlocks) {
  MakePool(4);
  CFakeFile file(0, 9 * BLOCK, m_Journal);
  for (const unsigned int blk : {1u, 3u, 5u, 7u}) file.Load(blk);
  BYTES buffer(9 * BLOCK);
  unsigned int done;
  EXPECT_EQ(file.Read(0, 9 * BLOCK, buffer.data(), &done), 0);
  EXPECT_EQ(done, 4 * BLOCK + 5 * BLOCK);  // five pieces, each counted as the last one, which is a block long
  EXPECT_EQ(buffer, file.Store().Content(0, 9 * BLOCK));
}

// ---------------------------------------------------------------- every pattern of cached blocks

/// What a request over blocks 0 to 4 must do, said without walking it: `cached` has a bit for each block that is
/// cached.
struct EXPECTED {
  unsigned int Done = 0;
  CALLS Calls;
};

EXPECTED Expect(unsigned int cached, unsigned int begin, unsigned int end, long long limit, bool write) {
  EXPECTED expected;
  const unsigned int last = (end - 1) / BLOCK;
  unsigned int pieces = 0;
  unsigned int counted = 0;  // length of the aligned piece that ends the request
  for (unsigned int blk = 0; blk <= last; ++blk) {
    const unsigned int from = std::max(begin, blk * BLOCK);
    const unsigned int to = std::min(end, (blk + 1) * BLOCK);
    if ((cached >> blk & 1) != 0) {
      expected.Done += to - from;
      continue;
    }
    const bool starts = blk == 0 || (cached >> (blk - 1) & 1) != 0;
    if (starts) ++pieces;
    const bool whole = to - from == BLOCK;
    const unsigned int load = static_cast<unsigned int>(std::min<long long>(BLOCK, limit - blk * BLOCK));
    if (whole && !write) {
      const bool joins = !starts && !expected.Calls.empty() && !(blk == 1 && begin != 0);
      if (joins) {
        expected.Calls.back().Len += BLOCK;
      } else {
        expected.Calls.push_back(ReadOf(0, blk * BLOCK));
      }
    } else if (!whole) {
      expected.Calls.push_back(ReadOf(0, blk * BLOCK, load));
    }
  }
  if ((cached >> last & 1) == 0) {
    unsigned int first = last;
    while (first > 0 && (cached >> (first - 1) & 1) == 0) --first;
    const bool aligned = first > 0 || begin == 0;
    if (aligned) counted = end - first * BLOCK;
  }
  expected.Done += pieces * counted;
  return expected;
}

class FileBlkCachePatterns : public FileBlkCache, public ::testing::WithParamInterface<bool> {};

TEST_P(FileBlkCachePatterns, CountAndTransfers_AreAsStatedForEverySetOfCachedBlocks) {
  const bool write = GetParam();
  const long long limit = 5 * BLOCK - 100;
  MakePool(8);
  for (unsigned int cached = 0; cached < 32; ++cached) {
    for (const unsigned int begin : {0u, 0x100u, BLOCK - 1}) {
      for (unsigned int last = 0; last < 5; ++last) {
        for (const unsigned int tail : {BLOCK, 0x10u, BLOCK - 100}) {
          const unsigned int end = last * BLOCK + tail;
          if (end <= begin || end > limit) continue;
          SCOPED_TRACE(::testing::Message() << "cached " << cached << ", request " << begin << " to " << end);
          CFakeFile file(0, limit, m_Journal);
          for (unsigned int blk = 0; blk < 5; ++blk) {
            if ((cached >> blk & 1) != 0) file.Load(blk);
          }
          m_Journal.Take();
          const EXPECTED expected = Expect(cached, begin, end, limit, write);
          BYTES buffer = Pattern(16, end);
          buffer.resize(end - begin);
          unsigned int done = 7;
          const int status = write ? file.Write(begin, end - begin, buffer.data(), &done)
                                   : file.Read(begin, end - begin, buffer.data(), &done);
          ASSERT_EQ(status, 0);
          ASSERT_EQ(done, expected.Done);
          ASSERT_EQ(m_Journal.Take(), expected.Calls);
          if (!write) {
            ASSERT_EQ(buffer, file.Store().Content(begin, end - begin));
          }
          for (unsigned int blk = 0; blk < 5; ++blk) {
            const bool touched = blk <= last;
            ASSERT_EQ(file.Cached(blk), touched || (cached >> blk & 1) != 0) << blk;
          }
          ASSERT_EQ(file.MustRead(begin, end - begin), buffer);
          m_Journal.Take();
        }
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(ReadAndWrite, FileBlkCachePatterns, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& write) { return write.param ? "Write" : "Read"; });

// ---------------------------------------------------------------- writes

TEST_F(FileBlkCache, WriteOfWholeBlock_MakesItDirtyWithoutTransfer) {
  MakePool(4);
  {
    CFakeFile file(0, 4 * BLOCK, m_Journal);
    BYTES data = Pattern(BLOCK, 1);
    unsigned int done;
    EXPECT_EQ(file.Write(BLOCK, BLOCK, data.data(), &done), 0);
    EXPECT_EQ(done, BLOCK);
    EXPECT_TRUE(m_Journal.Calls.empty());
    EXPECT_EQ(Recency(), std::vector<SEEN>({{&file, 1, true}}));
    EXPECT_EQ(file.MustRead(BLOCK, BLOCK), data);

    file.BlkCache().Destory();
    EXPECT_EQ(Shape(m_Journal.Calls), CALLS({WriteOf(0, 1)}));
    EXPECT_EQ(file.Store().Content(BLOCK, BLOCK), data);
  }
  EXPECT_EQ(m_Journal.Calls.size(), 1u);
}

TEST_F(FileBlkCache, WriteIntoUncachedBlock_ReadsItFirst) {
  MakePool(4);
  CFakeFile file(0, 2 * BLOCK - 10, m_Journal);
  const BYTES old = file.Store().Content(BLOCK, BLOCK - 10);
  BYTES data = Pattern(10, 1);
  unsigned int done;
  EXPECT_EQ(file.Write(BLOCK + 20, 10, data.data(), &done), 0);
  EXPECT_EQ(done, 0u);
  EXPECT_EQ(m_Journal.Take(), CALLS({ReadOf(0, BLOCK, BLOCK - 10)}));

  EXPECT_EQ(file.Write(0, 10, data.data(), &done), 0);
  EXPECT_EQ(done, 10u);
  EXPECT_EQ(m_Journal.Take(), CALLS({ReadOf(0, 0)}));

  file.BlkCache().Destory();
  EXPECT_EQ(Shape(m_Journal.Take()), CALLS({WriteOf(0, 0), WriteOf(0, 1)}));
  BYTES expected = old;
  std::copy(data.begin(), data.end(), expected.begin() + 20);
  EXPECT_EQ(file.Store().Content(BLOCK, BLOCK - 10), expected);
}

TEST_F(FileBlkCache, BlockThatIsOnlyRead_IsNeverWritten) {
  MakePool(2);
  CFakeFile file(0, 8 * BLOCK, m_Journal);
  file.MustRead(5, 7 * BLOCK);
  file.BlkCache().Destory();
  for (const CALL& call : m_Journal.Calls) EXPECT_EQ(call.Kind, 'R');
}

TEST_F(FileBlkCache, DirtyBlockWithBytesBeyondTheLimit_IsWrittenUpToTheLimit) {
  MakePool(2);
  CFakeFile file(0, 1000, m_Journal);
  const BYTES beyond = file.Store().Content(1000, 100);
  file.MustWrite(0, Pattern(1000, 3));
  file.BlkCache().Destory();
  EXPECT_EQ(file.Store().Content(0, 1000), Pattern(1000, 3));
  EXPECT_EQ(file.Store().Content(1000, 100), beyond);
}

TEST_F(FileBlkCache, RequestLargerThanThePool_EvictsItsOwnBlocksAndLosesNoByte) {
  MakePool(4);
  CFakeFile file(0, 11 * BLOCK, m_Journal);
  const BYTES data = Pattern(10 * BLOCK, 9);
  file.MustWrite(100, data);
  EXPECT_EQ(file.MustRead(100, 10 * BLOCK), data);
  file.BlkCache().Destory();
  EXPECT_EQ(file.Store().Content(100, 10 * BLOCK), data);
}

// ---------------------------------------------------------------- zero-length requests

TEST_F(FileBlkCache, EmptyRequestAtBlockStart_DoesNothing) {
  MakePool(2);
  CFakeFile file(0, 4 * BLOCK, m_Journal);
  unsigned int done = 7;
  EXPECT_EQ(file.Read(BLOCK, 0, nullptr, &done), 0);
  EXPECT_EQ(done, 0u);
  done = 7;
  EXPECT_EQ(file.Write(BLOCK, 0, nullptr, &done), 0);
  EXPECT_EQ(done, 0u);
  EXPECT_TRUE(m_Journal.Calls.empty());
  EXPECT_EQ(CACHE::BlocksInUse(), 0u);
}

TEST_F(FileBlkCache, EmptyRequestInsideUncachedBlock_LoadsIt) {
  MakePool(2);
  CFakeFile file(0, 4 * BLOCK, m_Journal);
  unsigned int done = 7;
  EXPECT_EQ(file.Read(BLOCK + 1, 0, nullptr, &done), 0);
  EXPECT_EQ(done, 0u);
  EXPECT_EQ(Recency(), std::vector<SEEN>({{&file, 1, false}}));
  done = 7;
  EXPECT_EQ(file.Write(2 * BLOCK + 1, 0, nullptr, &done), 0);
  EXPECT_EQ(done, 0u);
  EXPECT_EQ(Recency(), std::vector<SEEN>({{&file, 1, false}, {&file, 2, true}}));
  EXPECT_EQ(m_Journal.Take(), CALLS({ReadOf(0, BLOCK), ReadOf(0, 2 * BLOCK)}));
}

// ---------------------------------------------------------------- odd buffers

TEST_F(FileBlkCache, OddBuffer_GetsWholeBlocksThroughATemporaryOne) {
  MakePool(8);
  CFakeFile file(0, 8 * BLOCK, m_Journal);
  file.Load(7);  // so that the tables of the file stand
  m_Memory.ResetCount();
  m_Memory.ResetLargest();
  BYTES buffer(3 * BLOCK + 2);
  const std::size_t odd = (reinterpret_cast<std::uintptr_t>(buffer.data()) & 1) != 0 ? 0 : 1;
  unsigned int done;
  EXPECT_EQ(file.Read(0, 3 * BLOCK, buffer.data() + odd, &done), 0);
  EXPECT_EQ(done, 3 * BLOCK);
  EXPECT_EQ(m_Memory.LargestRequest(), 3u * BLOCK);
  EXPECT_EQ(Part(buffer, odd, 3 * BLOCK), file.Store().Content(0, 3 * BLOCK));
  EXPECT_FALSE(file.Store().SawOddBuffer());
  EXPECT_EQ(m_Journal.Calls.back(), ReadOf(0, 0, 3 * BLOCK));

  m_Memory.ResetLargest();
  EXPECT_EQ(file.Read(3 * BLOCK, 3 * BLOCK, buffer.data() + 1 - odd, &done), 0);
  EXPECT_LT(m_Memory.LargestRequest(), BLOCK) << "an even buffer needs no other";
  EXPECT_EQ(file.Write(0, 3 * BLOCK, buffer.data() + odd, &done), 0);
  EXPECT_LT(m_Memory.LargestRequest(), BLOCK) << "writing needs none either";
}

TEST_F(FileBlkCache, OddBufferForPartsOfBlocks_NeedsNoTemporaryOne) {
  MakePool(4);
  CFakeFile file(0, 4 * BLOCK, m_Journal);
  file.Load(3);
  m_Memory.ResetLargest();
  BYTES buffer(200);
  for (const std::size_t shift : {0u, 1u}) {
    unsigned int done;
    EXPECT_EQ(file.Read(static_cast<long long>(shift) * BLOCK + 9, 100, buffer.data() + shift, &done), 0);
    EXPECT_EQ(Part(buffer, shift, 100), file.Store().Content(static_cast<long long>(shift) * BLOCK + 9, 100));
  }
  EXPECT_LT(m_Memory.LargestRequest(), 4096u);
  EXPECT_FALSE(file.Store().SawOddBuffer());
}

TEST_F(FileBlkCache, NoMemoryForTheTemporaryBuffer_FailsWithoutTransfer) {
  MakePool(4);
  CFakeFile file(0, 4 * BLOCK, m_Journal);
  BYTES buffer(2 * BLOCK + 2, 0x11);
  const std::size_t odd = (reinterpret_cast<std::uintptr_t>(buffer.data()) & 1) != 0 ? 0 : 1;
  m_Memory.FailAbove(2 * BLOCK);
  unsigned int done = 7;
  EXPECT_EQ(file.Read(0, 2 * BLOCK, buffer.data() + odd, &done), NO_MEMORY);
  EXPECT_EQ(done, 0u);
  EXPECT_TRUE(m_Journal.Calls.empty());
  EXPECT_EQ(CACHE::BlocksInUse(), 0u);
  EXPECT_EQ(buffer, BYTES(2 * BLOCK + 2, 0x11));

  m_Memory.Heal();
  EXPECT_EQ(file.Read(0, 2 * BLOCK, buffer.data() + odd, &done), 0);
  EXPECT_EQ(done, 2 * BLOCK);
}

TEST_F(FileBlkCache, ReadIntoOddBufferFails_TemporaryOneIsFreedAndTheBufferStays) {
  MakePool(4);
  CFakeFile file(0, 4 * BLOCK, m_Journal);
  file.Load(3);
  BYTES buffer(2 * BLOCK + 2, 0x11);
  const std::size_t odd = (reinterpret_cast<std::uintptr_t>(buffer.data()) & 1) != 0 ? 0 : 1;
  const std::size_t outstanding = m_Memory.Outstanding();
  m_Journal.FailAt(1);
  unsigned int done;
  EXPECT_EQ(file.Read(0, 2 * BLOCK, buffer.data() + odd, &done), IO_ERROR);
  EXPECT_EQ(m_Memory.Outstanding(), outstanding);
  EXPECT_EQ(buffer, BYTES(2 * BLOCK + 2, 0x11));
}

// ---------------------------------------------------------------- bytes that were never loaded

TEST_F(FileBlkCache, LimitGrowsOverCachedBlock_BytesNeverLoadedReadAsZero) {
  MakePool(1);
  CFakeFile other(1, BLOCK, m_Journal);
  other.MustWrite(0, BYTES(BLOCK, 0xAA));  // what the pool's only block holds before
  CFakeFile file(0, 10, m_Journal);
  file.Load(0);
  file.Store().SetLimit(1000);
  BYTES expected = file.Store().Content(0, 10);
  expected.resize(1000);
  EXPECT_EQ(file.MustRead(0, 1000), expected);
}

TEST_F(FileBlkCache, DirtyBlockOfGrownFile_WritesZerosWhereNothingWasLoaded) {
  MakePool(1);
  CFakeFile other(1, BLOCK, m_Journal);
  other.MustWrite(0, BYTES(BLOCK, 0xAA));
  CFakeFile file(0, 10, m_Journal);
  file.MustWrite(0, {1, 2, 3});
  file.Store().SetLimit(5000);
  file.MustWrite(100, {4});
  file.BlkCache().Destory();
  BYTES expected = {1, 2, 3};
  const BYTES old = CStore(0, 10, m_Journal).Content(3, 7);
  expected.insert(expected.end(), old.begin(), old.end());
  expected.resize(5000);
  expected[100] = 4;
  EXPECT_EQ(file.Store().Content(0, 5000), expected);
}

TEST_F(FileBlkCache, NewDirectoryAndShortFile_NeverShowBytesOfTheFileThatHadTheBlockBefore) {
  MakePool(1);
  CFakeFile other(1, BLOCK, m_Journal);
  CFakeFile directory(0, BLOCK, m_Journal);
  other.MustWrite(0, BYTES(BLOCK, 0xAA));
  EXPECT_EQ(directory.BlkCache().WriteFstClustOfDir("entries", 7), 0);
  BYTES expected(BLOCK);
  std::memcpy(expected.data(), "entries", 7);
  EXPECT_EQ(directory.MustRead(0, BLOCK), expected);

  other.MustWrite(0, BYTES(BLOCK, 0xAA));  // takes the block back: the directory is written
  EXPECT_EQ(directory.Store().Content(0, BLOCK), expected);
}

// ---------------------------------------------------------------- a new directory's first block

TEST_F(FileBlkCache, FirstClusterOfDirectory_IsDirtyZerosWithTheGivenBytes) {
  MakePool(4);
  CFakeFile file(0, 2048, m_Journal);
  const BYTES entries = Pattern(64, 2);
  EXPECT_EQ(file.BlkCache().WriteFstClustOfDir(entries.data(), 64), 0);
  EXPECT_TRUE(m_Journal.Calls.empty());
  EXPECT_EQ(Recency(), std::vector<SEEN>({{&file, 0, true}}));
  BYTES expected = entries;
  expected.resize(2048);
  EXPECT_EQ(file.MustRead(0, 2048), expected);
  file.BlkCache().Destory();
  EXPECT_EQ(file.Store().Content(0, 2048), expected);
}

TEST_F(FileBlkCache, FirstClusterOfDirectory_FailsWithTheVictimsWrite) {
  MakePool(1);
  CFakeFile other(1, BLOCK, m_Journal);
  CFakeFile file(0, 2048, m_Journal);
  other.Dirty(0);
  m_Journal.FailAt(1, CJournal::Writes);
  EXPECT_EQ(file.BlkCache().WriteFstClustOfDir("x", 1), IO_ERROR);
  EXPECT_FALSE(file.Cached(0));
  EXPECT_FALSE(other.Cached(0));
  ExpectLost(1);
}

// ---------------------------------------------------------------- eviction

TEST_F(FileBlkCache, FullPoolOf256Blocks_EvictsTheLeastRecentlyUsedBlockOfAnyFile) {
  MakePool(256);
  CFakeFile first(0, 300LL * BLOCK, m_Journal);
  CFakeFile second(1, 300LL * BLOCK, m_Journal);
  second.Dirty(7);
  for (unsigned int blk = 0; blk < 255; ++blk) first.Load(blk);
  EXPECT_EQ(CACHE::BlocksInUse(), 256u);
  m_Journal.Take();

  first.Load(255);  // takes the block of the other file, which is written first
  EXPECT_EQ(Shape(m_Journal.Take()), CALLS({WriteOf(1, 7), ReadOf(0, 255LL * BLOCK)}));
  EXPECT_FALSE(second.Cached(7));
  EXPECT_EQ(second.Store().Content(7LL * BLOCK, 1), BYTES({0xDD}));

  first.Load(0);  // a hit makes it the newest one: block 1 goes
  second.Load(0);
  EXPECT_EQ(m_Journal.Take(), CALLS({ReadOf(1, 0)}));
  EXPECT_TRUE(first.Cached(0));
  EXPECT_FALSE(first.Cached(1));
  EXPECT_EQ(CACHE::BlocksInUse(), 256u);
}

TEST_F(FileBlkCache, HitOfAnyKind_MakesTheBlockTheNewest) {
  MakePool(4);
  CFakeFile file(0, 16 * BLOCK, m_Journal);
  for (unsigned int blk = 0; blk < 4; ++blk) file.Load(blk);
  file.MustRead(5, 5);                        // inside block 0
  file.MustWrite(2 * BLOCK, BYTES(1, 0x22));  // start of block 2
  const unsigned char* data;
  unsigned int bytes;
  EXPECT_EQ(file.BlkCache().PeekBlock(1, data, bytes, file.Limit()), 0);
  EXPECT_EQ(Recency(), std::vector<SEEN>({{&file, 3, false}, {&file, 0, false}, {&file, 2, true}, {&file, 1, false}}));
}

TEST_F(FileBlkCache, LookAheadBehindAnUncachedHead_RefreshesTheBlockThatEndsThePiece) {
  MakePool(4);
  CFakeFile file(0, 16 * BLOCK, m_Journal);
  file.Load(2);
  file.Load(8);
  file.Load(9);
  file.MustRead(BLOCK + 1, BLOCK);  // block 1 from its second byte, one byte of block 2
  EXPECT_EQ(Recency(), std::vector<SEEN>({{&file, 8, false}, {&file, 9, false}, {&file, 2, false}, {&file, 1, false}}));
}

TEST_F(FileBlkCache, VictimIsChosenBeforeTheReadOfAPartAndAfterTheReadOfWholeBlocks) {
  MakePool(1);
  CFakeFile other(1, BLOCK, m_Journal);
  CFakeFile file(0, 4 * BLOCK, m_Journal);
  other.Dirty(0);
  m_Journal.Take();
  file.MustRead(3, 3);
  EXPECT_EQ(Shape(m_Journal.Take()), CALLS({WriteOf(1, 0), ReadOf(0, 0)}));

  other.Dirty(0);
  m_Journal.Take();
  file.MustRead(BLOCK, BLOCK);
  EXPECT_EQ(Shape(m_Journal.Take()), CALLS({ReadOf(0, BLOCK), WriteOf(1, 0)}));
}

TEST_F(FileBlkCache, RecycledBlocks_LeaveTheOrderOfTheOthersAlone) {
  MakePool(4);
  CFakeFile first(0, 16 * BLOCK, m_Journal);
  CFakeFile second(1, 16 * BLOCK, m_Journal);
  CFakeFile third(2, 16 * BLOCK, m_Journal);
  first.Load(0);
  second.Load(0);
  third.Load(0);
  second.BlkCache().Destory();
  first.Load(1);
  first.Load(2);
  EXPECT_EQ(Recency(),
            std::vector<SEEN>({{&first, 0, false}, {&third, 0, false}, {&first, 1, false}, {&first, 2, false}}));
  for (unsigned int blk = 3; blk < 7; ++blk) first.Load(blk);
  EXPECT_EQ(Recency(),
            std::vector<SEEN>({{&first, 3, false}, {&first, 4, false}, {&first, 5, false}, {&first, 6, false}}));
  ExpectPoolHoldsTogether();
}

TEST_F(FileBlkCache, FailedEviction_FailsTheRequestAndLosesTheBlock) {
  MakePool(2);
  CFakeFile other(1, 4 * BLOCK, m_Journal);
  CFakeFile file(0, 4 * BLOCK, m_Journal);
  other.Dirty(0);
  other.Load(1);
  m_Journal.FailAt(1, CJournal::Writes);
  unsigned int done = 7;
  BYTES buffer(10, 0x11);
  EXPECT_EQ(file.Read(0, 10, buffer.data(), &done), IO_ERROR);
  EXPECT_EQ(done, 0u);
  EXPECT_EQ(buffer, BYTES(10, 0x11));
  EXPECT_FALSE(other.Cached(0)) << "the victim has left its file";
  EXPECT_TRUE(other.Cached(1));
  EXPECT_EQ(CACHE::BlocksInUse(), 2u) << "lost, not free";
  ExpectPoolHoldsTogether();
  EXPECT_EQ((*Reveal(POOL_TAG()))->m_pBlocks[0].pOwner, nullptr) << "the lost block names nobody";

  file.Load(0);  // takes the only block left, whose file is not written again
  EXPECT_FALSE(other.Cached(1));
  m_Journal.Take();
  other.BlkCache().Destory();
  EXPECT_TRUE(m_Journal.Calls.empty()) << "the changes of the lost block are dropped";
  EXPECT_NE(other.Store().Content(0, 1), BYTES({0xDD}));
  ExpectLost(1);
}

TEST_F(FileBlkCache, FailedEvictionInTheMiddle_KeepsWhatWasDoneAndTheCount) {
  MakePool(3);
  CFakeFile other(1, 4 * BLOCK, m_Journal);
  CFakeFile file(0, 8 * BLOCK, m_Journal);
  file.Load(1);
  other.Dirty(0);
  BYTES buffer(3 * BLOCK + 1);
  m_Journal.FailAt(1, CJournal::Writes);
  unsigned int done;
  // Block 0 takes the free block, block 1 is cached, and for block 2 the other file's block must go.
  EXPECT_EQ(file.Read(0, 3 * BLOCK, buffer.data(), &done), IO_ERROR);
  EXPECT_EQ(done, BLOCK + BLOCK) << "the cached block, and the first piece by the length of the last one";
  EXPECT_EQ(Part(buffer, 0, 2 * BLOCK), file.Store().Content(0, 2 * BLOCK));
  EXPECT_TRUE(file.Cached(0));
  EXPECT_TRUE(file.Cached(1));
  EXPECT_FALSE(file.Cached(2));
  ExpectLost(1);
}

TEST_F(FileBlkCache, AllBlocksLost_RequestsFailForWantOfMemory) {
  MakePool(3);
  CFakeFile other(1, 4 * BLOCK, m_Journal);
  CFakeFile file(0, 4 * BLOCK, m_Journal);
  for (unsigned int blk = 0; blk < 3; ++blk) other.Dirty(blk);
  m_Journal.FailAt(1, CJournal::Writes, true);
  unsigned int done;
  BYTES buffer(BLOCK);
  for (unsigned int i = 0; i < 3; ++i) EXPECT_EQ(file.Read(0, 10, buffer.data(), &done), IO_ERROR);
  m_Journal.Heal();
  EXPECT_EQ(file.Read(0, 10, buffer.data(), &done), NO_MEMORY);
  EXPECT_EQ(file.Write(0, BLOCK, buffer.data(), &done), NO_MEMORY);
  EXPECT_EQ(file.BlkCache().WriteFstClustOfDir("x", 1), NO_MEMORY);
  const unsigned char* data;
  EXPECT_EQ(file.BlkCache().PeekBlock(0, data, done, file.Limit()), NO_MEMORY);
  EXPECT_EQ(CACHE::BlocksInUse(), 3u);
  EXPECT_TRUE(Recency().empty());
  ExpectLost(3);
}

TEST_F(FileBlkCache, FailedLoads_GiveTheBlockBackEveryTime) {
  MakePool(2);
  CFakeFile file(0, 8 * BLOCK, m_Journal);
  file.Load(7);
  m_Journal.FailAt(1, CJournal::Reads, true);
  BYTES buffer(2 * BLOCK);
  const unsigned char* data;
  for (unsigned int i = 0; i < 10; ++i) {
    unsigned int done;
    EXPECT_EQ(file.Read(5, 10, buffer.data(), &done), IO_ERROR);         // from inside a block
    EXPECT_EQ(file.Read(0, 10, buffer.data(), &done), IO_ERROR);         // to inside a block
    EXPECT_EQ(file.Read(0, 2 * BLOCK, buffer.data(), &done), IO_ERROR);  // whole blocks
    EXPECT_EQ(file.Write(BLOCK + 5, 10, buffer.data(), &done), IO_ERROR);
    EXPECT_EQ(file.Write(BLOCK, 10, buffer.data(), &done), IO_ERROR);
    EXPECT_EQ(file.BlkCache().PeekBlock(0, data, done, file.Limit()), IO_ERROR);
    EXPECT_EQ(CACHE::BlocksInUse(), 1u);
  }
  EXPECT_TRUE(file.Cached(7));
  EXPECT_EQ(Recency().size(), 1u);
  ExpectPoolHoldsTogether();
  m_Journal.Heal();
  EXPECT_EQ(file.MustRead(5, 10), file.Store().Content(5, 10));
}

// ---------------------------------------------------------------- buckets

TEST_F(FileBlkCache, NinthBlockOfABucket_StartsAnotherNode) {
  MakePool(32);
  CFakeFile file(0, 20LL * BUCKETS * BLOCK, m_Journal);
  const std::size_t before = m_Memory.Outstanding();
  for (unsigned int k = 0; k < 17; ++k) file.Load(3 + k * BUCKETS);
  std::vector<unsigned int> expected;
  for (unsigned int k = 0; k < 17; ++k) expected.push_back(3 + k * BUCKETS);
  EXPECT_EQ(Chains(file), std::vector<std::vector<unsigned int>>({expected}));
  // The table of buckets and three nodes of 8 + 8 + 1 blocks, of which two were in stock.
  EXPECT_EQ(m_Memory.Outstanding(), before + 1 + 2);
  for (const unsigned int blk : expected) EXPECT_TRUE(file.Cached(blk));
  EXPECT_FALSE(file.Cached(3 + 17 * BUCKETS));
}

TEST_F(FileBlkCache, BlockOfFirstNodeEvicted_LastSlotOfLastNodeTakesItsPlace) {
  MakePool(10);
  CFakeFile file(0, 20LL * BUCKETS * BLOCK, m_Journal);
  CFakeFile other(1, BLOCK, m_Journal);
  for (unsigned int k = 0; k < 10; ++k) file.Dirty(k * BUCKETS);
  file.Dirty(0);
  file.Dirty(BUCKETS);  // 2 x 269 is the oldest now
  other.Load(0);
  std::vector<unsigned int> order = {0, 1, 9, 3, 4, 5, 6, 7, 8};
  for (unsigned int& k : order) k *= BUCKETS;
  EXPECT_EQ(Chains(file), std::vector<std::vector<unsigned int>>({order}));

  m_Journal.Take();
  file.BlkCache().Destory();
  CALLS expected;
  for (const unsigned int blk : order) expected.push_back(WriteOf(0, blk));
  EXPECT_EQ(Shape(m_Journal.Take()), expected);
}

TEST_F(FileBlkCache, LastBlockOfABucketEvicted_BucketIsEmptyAndUsableAgain) {
  MakePool(2);
  CFakeFile file(0, 20LL * BUCKETS * BLOCK, m_Journal);
  file.Load(5);
  file.Load(6);
  file.Load(7);
  EXPECT_EQ(Chains(file), std::vector<std::vector<unsigned int>>({{6}, {7}}));
  file.Load(5);
  EXPECT_EQ(Chains(file), std::vector<std::vector<unsigned int>>({{5}, {7}}));
}

// ---------------------------------------------------------------- destruction

TEST_F(FileBlkCache, Destruction_WritesByBucketThenBySlot) {
  MakePool(288);
  CFakeFile file(0, 300LL * BLOCK, m_Journal);
  for (unsigned int blk = 280; blk-- > 0;) file.Dirty(blk);  // the higher block of a bucket comes first
  m_Journal.Take();
  file.BlkCache().Destory();
  CALLS expected;
  for (unsigned int bucket = 0; bucket < BUCKETS; ++bucket) {
    if (bucket + BUCKETS < 280) expected.push_back(WriteOf(0, bucket + BUCKETS));
    expected.push_back(WriteOf(0, bucket));
  }
  EXPECT_EQ(Shape(m_Journal.Take()), expected);
  EXPECT_EQ(CACHE::BlocksInUse(), 0u);
}

TEST_F(FileBlkCache, FailedWriteAtDestruction_DropsTheRestOfThatBucketOnly) {
  MakePool(32);
  CFakeFile file(0, 20LL * BUCKETS * BLOCK, m_Journal);
  for (unsigned int k = 0; k < 10; ++k) file.Dirty(k * BUCKETS);
  file.Dirty(1);
  file.Dirty(1 + BUCKETS);
  m_Journal.Take();
  m_Journal.FailAt(3, CJournal::Writes);
  file.BlkCache().Destory();
  CALLS expected = {WriteOf(0, 0), WriteOf(0, BUCKETS), WriteOf(0, 2 * BUCKETS), WriteOf(0, 1),
                    WriteOf(0, 1 + BUCKETS)};
  expected[2].Failed = true;
  EXPECT_EQ(Shape(m_Journal.Take()), expected);
  EXPECT_EQ(CACHE::BlocksInUse(), 0u) << "every block came back, written or not";
  EXPECT_TRUE(Recency().empty());
  ExpectPoolHoldsTogether();

  file.Load(4);  // the cache may be used again
  EXPECT_TRUE(file.Cached(4));
}

TEST_F(FileBlkCache, DestructionOfOneFile_LeavesTheBlocksOfOthers) {
  MakePool(8);
  CFakeFile first(0, 8 * BLOCK, m_Journal);
  CFakeFile second(1, 8 * BLOCK, m_Journal);
  first.Dirty(0);
  second.Dirty(0);
  second.Load(1);
  m_Journal.Take();
  first.BlkCache().Destory();
  EXPECT_EQ(Shape(m_Journal.Take()), CALLS({WriteOf(0, 0)}));
  EXPECT_EQ(Recency(), std::vector<SEEN>({{&second, 0, true}, {&second, 1, false}}));
  first.BlkCache().Destory();
  EXPECT_TRUE(m_Journal.Calls.empty()) << "a second time there is nothing left";
}

TEST_F(FileBlkCache, DirtyBlockBeyondAShrunkLimit_IsOfferedToTheFileAndReleased) {
  MakePool(4);
  CFakeFile file(0, 4 * BLOCK, m_Journal);
  const BYTES old = file.Store().Content(2 * BLOCK, 10);
  file.Dirty(2);
  file.Store().SetLimit(10);
  m_Journal.Take();
  file.BlkCache().Destory();
  EXPECT_EQ(Shape(m_Journal.Take()), CALLS({WriteOf(0, 2)}));
  EXPECT_EQ(file.Store().Content(2 * BLOCK, 10), old);
  EXPECT_EQ(CACHE::BlocksInUse(), 0u);
}

TEST_F(FileBlkCache, Abandon_GivesAllBlocksBackAndWritesNothing) {
  MakePool(8);
  CFakeFile file(0, 8 * BLOCK, m_Journal);
  for (unsigned int blk = 0; blk < 5; ++blk) file.Dirty(blk);
  m_Journal.Take();
  file.BlkCache().Abandon();
  EXPECT_TRUE(m_Journal.Calls.empty());
  EXPECT_EQ(CACHE::BlocksInUse(), 0u);
  EXPECT_FALSE(file.Cached(0));
  EXPECT_TRUE(Recency().empty());
}

// ---------------------------------------------------------------- blocks in place

TEST_F(FileBlkCache, Peek_LoadsABlockAsAReadFromItsStartWould) {
  MakePool(4);
  CFakeFile file(0, 2 * BLOCK + 100, m_Journal);
  const unsigned char* data = nullptr;
  unsigned int bytes = 0;
  EXPECT_EQ(file.BlkCache().PeekBlock(1, data, bytes, file.Limit()), 0);
  EXPECT_EQ(bytes, BLOCK);
  EXPECT_EQ(BYTES(data, data + BLOCK), file.Store().Content(BLOCK, BLOCK));
  EXPECT_EQ(m_Journal.Take(), CALLS({ReadOf(0, BLOCK)}));
  EXPECT_EQ(Recency(), std::vector<SEEN>({{&file, 1, false}}));
  EXPECT_EQ(file.BlkCache().PeekBlock(1, data, bytes, file.Limit()), 0);
  EXPECT_TRUE(m_Journal.Calls.empty());
}

TEST_F(FileBlkCache, PeekAtTheLastBlock_EndsAtTheLimitWithZerosToTheNextSlot) {
  MakePool(1);
  CFakeFile other(1, BLOCK, m_Journal);
  other.MustWrite(0, BYTES(BLOCK, 0xAA));
  CFakeFile file(0, 2 * BLOCK + 100, m_Journal);
  const unsigned char* data = nullptr;
  unsigned int bytes = 0;
  EXPECT_EQ(file.BlkCache().PeekBlock(2, data, bytes, file.Limit()), 0);
  EXPECT_EQ(bytes, 100u);
  BYTES expected = file.Store().Content(2 * BLOCK, 100);
  expected.resize(128);
  EXPECT_EQ(BYTES(data, data + 128), expected);
}

TEST_F(FileBlkCache, PeekAtOrBeyondTheLimit_IsTheEndOfTheFile) {
  MakePool(4);
  CFakeFile file(0, 2 * BLOCK, m_Journal);
  const unsigned char* data = nullptr;
  unsigned int bytes = 7;
  EXPECT_EQ(file.BlkCache().PeekBlock(2, data, bytes, file.Limit()), END_OF_FILE);
  EXPECT_EQ(file.BlkCache().PeekBlock(0xFFFFFFFF, data, bytes, file.Limit()), END_OF_FILE);
  EXPECT_EQ(file.BlkCache().PeekBlock(0, data, bytes, 0), END_OF_FILE);
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(bytes, 7u);
  EXPECT_EQ(CACHE::BlocksInUse(), 0u);
}

// ---------------------------------------------------------------- memory

TEST_F(FileBlkCache, PoolOf256Blocks_TakesMemoryForThemInOneZeroedPiece) {
  m_Memory.ResetLargest();
  MakePool(256);
  EXPECT_GE(m_Memory.LargestRequest(), 256u * BLOCK);
  EXPECT_LE(m_Memory.OutstandingBytes(), 256u * BLOCK + 0x400000u);
  const auto* pool = *Reveal(POOL_TAG());
  EXPECT_EQ(pool->m_nTotal, 256u);
  for (unsigned int i = 0; i < 256; ++i) {
    EXPECT_EQ(pool->m_ppFreeBlocks[i], &pool->m_pBlocks[i]);
    EXPECT_EQ(pool->m_pBlocks[i].Data[BLOCK - 1], 0);
  }
}

TEST_F(FileBlkCache, SecondInitialisation_KeepsThePool) {
  MakePool(4);
  CFakeFile file(0, BLOCK, m_Journal);
  file.Load(0);
  EXPECT_TRUE(CACHE::GlobalInitialize(8));
  EXPECT_EQ((*Reveal(POOL_TAG()))->m_nTotal, 4u);
  EXPECT_TRUE(file.Cached(0));
}

TEST_F(FileBlkCache, TerminationWithoutInitialisation_DoesNothing) {
  EXPECT_FALSE(CACHE::IsInitialized());
  CACHE::GlobalTerminate();
  EXPECT_FALSE(CACHE::IsInitialized());
  EXPECT_EQ(CACHE::BlocksInUse(), 0u);
}

TEST_F(FileBlkCache, Termination_WritesNothing) {
  MakePool(4);
  CFakeFile file(0, BLOCK, m_Journal);
  file.Dirty(0);
  m_Journal.Take();
  file.BlkCache().Abandon();
  CACHE::GlobalTerminate();
  EXPECT_TRUE(m_Journal.Calls.empty());
  EXPECT_EQ(m_Memory.Outstanding(), 0u);
}

TEST_F(FileBlkCache, AnyAllocationOfInitialisationFails_NothingIsHeld) {
  for (unsigned int nth = 1;; ++nth) {
    m_Memory.FailAt(nth, CMemHooks::ONCE);
    const bool initialized = CACHE::GlobalInitialize(64);
    if (!m_Memory.Fired()) {
      EXPECT_TRUE(initialized);
      break;
    }
    EXPECT_FALSE(initialized) << nth;
    EXPECT_FALSE(CACHE::IsInitialized());
    EXPECT_EQ(m_Memory.Outstanding(), 0u) << nth;
  }
}

TEST_F(FileBlkCache, NoMemoryForTheTableOrANode_FailsAndGivesTheBlockBack) {
  MakePool(8);
  CFakeFile file(0, 64LL * BLOCK, m_Journal);
  BYTES buffer(2 * BLOCK);
  const unsigned char* data;
  for (unsigned int kind = 0; kind < 6; ++kind) {
    m_Memory.FailAt(1, CMemHooks::FOR_GOOD);
    unsigned int done = 7;
    int status = 0;
    if (kind == 0) status = file.Read(0, 10, buffer.data(), &done);
    if (kind == 1) status = file.Read(3, 10, buffer.data(), &done);
    if (kind == 2) status = file.Read(0, 2 * BLOCK, buffer.data(), &done);
    if (kind == 3) status = file.Write(0, 2 * BLOCK, buffer.data(), &done);
    if (kind == 4) status = file.BlkCache().WriteFstClustOfDir("x", 1);
    if (kind == 5) status = file.BlkCache().PeekBlock(0, data, done, file.Limit());
    EXPECT_EQ(status, NO_MEMORY) << kind;
    EXPECT_EQ(CACHE::BlocksInUse(), 0u) << kind;
    EXPECT_FALSE(file.Cached(0)) << kind;
    m_Memory.Heal();
  }
  // The table stands, and the nodes in stock are used up: the next bucket needs another one.
  unsigned int blocks = 0;
  for (; blocks < 8; ++blocks) {
    m_Memory.FailAt(blocks == 0 ? 0 : 1, CMemHooks::FOR_GOOD);
    unsigned int done;
    const int status = file.Read(static_cast<long long>(blocks) * BLOCK, 10, buffer.data(), &done);
    m_Memory.Heal();
    if (status < 0) {
      EXPECT_EQ(status, NO_MEMORY);
      break;
    }
  }
  EXPECT_LT(blocks, 8u) << "no node was ever missing";
  EXPECT_EQ(CACHE::BlocksInUse(), blocks);
  ExpectPoolHoldsTogether();
  EXPECT_EQ(file.MustRead(0, 10), file.Store().Content(0, 10));
}

TEST_F(FileBlkCache, NoMemoryInTheMiddleOfWholeBlocks_KeepsThoseBefore) {
  MakePool(16);
  CFakeFile file(0, 64LL * BLOCK, m_Journal);
  file.Load(63);  // the table, and the node in stock
  m_Memory.FailAt(3, CMemHooks::ONCE);
  BYTES data = Pattern(8 * BLOCK, 4);
  unsigned int done = 7;
  EXPECT_EQ(file.Write(0, 8 * BLOCK, data.data(), &done), NO_MEMORY);
  EXPECT_EQ(done, 0u);
  unsigned int cached = 0;
  while (file.Cached(cached)) ++cached;
  EXPECT_GT(cached, 0u);
  EXPECT_LT(cached, 8u);
  EXPECT_EQ(CACHE::BlocksInUse(), cached + 1);
  EXPECT_EQ(file.MustRead(0, cached * BLOCK), Part(data, 0, cached * BLOCK));
  file.BlkCache().Destory();
  EXPECT_EQ(file.Store().Content(0, cached * BLOCK), Part(data, 0, cached * BLOCK));
}

// ---------------------------------------------------------------- the twin

/// Two journals, two sets of stores: one side is the cache, the other its twin.
class CPair {
 public:
  CPair(unsigned int seed, unsigned int blocks, unsigned int nFiles)
      : m_Random(seed), m_nFiles(nFiles), m_Buffers{BYTES(6 * BLOCK + 2), BYTES(6 * BLOCK + 2)} {
    std::vector<CStore*> stores;
    for (unsigned int i = 0; i < nFiles; ++i) {
      const long long limit = RandomLimit();
      m_Files.push_back(std::make_unique<CFakeFile>(static_cast<int>(i), limit, m_Journals[0]));
      m_Stores.push_back(std::make_unique<CStore>(static_cast<int>(i), limit, m_Journals[1]));
      stores.push_back(m_Stores.back().get());
      m_Owners.push_back(m_Files.back().get());
    }
    m_pTwin = std::make_unique<CTwin>(blocks, stores);
  }

  void Step() {
    const unsigned int file = Below(m_nFiles);
    if (Below(6) == 0) {
      const unsigned int nth = 1 + Below(4);
      const auto filter = static_cast<CJournal::FILTER>(Below(3));
      for (CJournal& journal : m_Journals) journal.FailAt(nth, filter);
    }
    switch (Below(24)) {
      case 0:
        SetLimit(file, RandomLimit());
        break;
      case 1:
        Release(file, Below(4) != 0);
        break;
      case 2:
        Peek(file);
        break;
      case 3:
        MakeDirectory(file);
        break;
      default:
        Access(file, Below(2) == 0);
        break;
    }
    for (CJournal& journal : m_Journals) journal.Heal();
    Compare();
  }

  void End() {
    for (unsigned int i = 0; i < m_nFiles; ++i) Release(i, true);
    Compare();
    for (unsigned int i = 0; i < m_nFiles; ++i) {
      EXPECT_TRUE(m_Files[i]->Store().SameBytes(*m_Stores[i]));
      EXPECT_FALSE(m_Files[i]->Store().SawOddBuffer());
    }
  }
  unsigned int Lost() const { return m_pTwin->Used(); }

 private:
  unsigned int Below(unsigned int n) { return static_cast<unsigned int>(m_Random() % n); }

  // Most of the time a few blocks; else far enough for numbers that meet in one bucket.
  long long RandomLimit() {
    const long long bytes = 1 + static_cast<long long>(Below(8)) * BLOCK + (Below(2) == 0 ? 0 : Below(BLOCK));
    return Below(3) == 0 ? bytes : bytes + 10LL * BUCKETS * BLOCK;
  }
  long long RandomPos(unsigned int file) {
    const unsigned int offsets[] = {0, 0, 0, 1, 0x100, BLOCK - 1, Below(BLOCK)};
    const long long base = Below(2) == 0 ? 0 : static_cast<long long>(Below(10)) * BUCKETS * BLOCK;
    const long long pos = base + static_cast<long long>(Below(7)) * BLOCK + offsets[Below(7)];
    return pos % m_Files[file]->Limit();
  }

  void SetLimit(unsigned int file, long long limit) {
    m_Files[file]->Store().SetLimit(limit);
    m_Stores[file]->SetLimit(limit);
  }

  void Release(unsigned int file, bool write) {
    if (write) {
      m_Files[file]->BlkCache().Destory();
    } else {
      m_Files[file]->BlkCache().Abandon();
    }
    m_pTwin->Release(file, write);
  }

  void Peek(unsigned int file) {
    const unsigned int blk = static_cast<unsigned int>(RandomPos(file) / BLOCK) + (Below(8) == 0 ? 1 : 0);
    const unsigned char* data = nullptr;
    unsigned int bytes = 0;
    BYTES expected;
    const int status = m_Files[file]->BlkCache().PeekBlock(blk, data, bytes, m_Files[file]->Limit());
    ASSERT_EQ(status, m_pTwin->Peek(file, blk, expected));
    if (status < 0) return;
    ASSERT_EQ(bytes, expected.size());
    ASSERT_EQ(std::memcmp(data, expected.data(), bytes), 0);
  }

  void MakeDirectory(unsigned int file) {
    if (m_pTwin->Cached(file, 0)) return;
    const BYTES entries = Pattern(64, Below(1000));
    ASSERT_EQ(m_Files[file]->BlkCache().WriteFstClustOfDir(entries.data(), 64),
              m_pTwin->WriteFstClustOfDir(file, entries));
  }

  void Access(unsigned int file, bool write) {
    const long long pos = RandomPos(file);
    const unsigned int lengths[] = {
        0, 1, 100, Below(BLOCK), BLOCK, BLOCK + Below(BLOCK), Below(5 * BLOCK), 3 * BLOCK, 6 * BLOCK};
    const unsigned int len =
        static_cast<unsigned int>(std::min<long long>(lengths[Below(9)], m_Files[file]->Limit() - pos));
    const unsigned int shift = Below(2);
    for (BYTES& buffer : m_Buffers) {
      if (write && len != 0) {
        const BYTES data = Pattern(std::min(len, 4096u), m_nWrites);
        for (unsigned int i = 0; i < len; i += 4096) {
          std::memcpy(buffer.data() + shift + i, data.data(), std::min<std::size_t>(data.size(), len - i));
        }
      } else {
        std::memset(buffer.data(), 0x77, len + 2);
      }
    }
    if (write) ++m_nWrites;
    unsigned int done[2] = {7, 8};
    int status[2];
    unsigned char* real = m_Buffers[0].data() + shift;
    unsigned char* twin = m_Buffers[1].data() + shift;
    if (write) {
      status[0] = m_Files[file]->Write(pos, len, real, &done[0]);
      status[1] = m_pTwin->Write(file, pos, len, twin, &done[1]);
    } else {
      status[0] = m_Files[file]->Read(pos, len, real, &done[0]);
      status[1] = m_pTwin->Read(file, pos, len, twin, &done[1]);
    }
    ASSERT_EQ(status[0], status[1]);
    ASSERT_EQ(done[0], done[1]);
    ASSERT_EQ(std::memcmp(m_Buffers[0].data(), m_Buffers[1].data(), len + 2), 0) << "bytes delivered";
  }

  void Compare() {
    ASSERT_EQ(m_Journals[0].Take(), m_Journals[1].Take());
    ASSERT_EQ(Recency(), m_pTwin->Recency(m_Owners));
    for (unsigned int i = 0; i < m_nFiles; ++i) ASSERT_EQ(Chains(*m_Files[i]), m_pTwin->Chains(i));
    ASSERT_EQ(CACHE::BlocksInUse(), m_pTwin->Used());
    ExpectPoolHoldsTogether();
  }

  std::mt19937 m_Random;
  unsigned int m_nFiles;
  std::array<CJournal, 2> m_Journals;
  std::vector<std::unique_ptr<CFakeFile>> m_Files;
  std::vector<std::unique_ptr<CStore>> m_Stores;
  std::vector<const void*> m_Owners;
  std::unique_ptr<CTwin> m_pTwin;
  std::array<BYTES, 2> m_Buffers;
  unsigned int m_nWrites = 0;
};

/// @param pools  sizes to choose from
void RunSeeds(unsigned int first, unsigned int count, const std::vector<unsigned int>& pools, unsigned int steps) {
  for (unsigned int seed = first; seed < first + count; ++seed) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    const unsigned int blocks = pools[seed % pools.size()];
    ASSERT_TRUE(CACHE::GlobalInitialize(blocks));
    {
      CPair pair(seed, blocks, 1 + seed / 7 % 3);
      for (unsigned int step = 0; step < steps && !::testing::Test::HasFatalFailure(); ++step) {
        SCOPED_TRACE(::testing::Message() << "step " << step);
        pair.Step();
      }
      if (!::testing::Test::HasFatalFailure()) pair.End();
    }
    CACHE::GlobalTerminate();
    if (::testing::Test::HasFatalFailure()) return;
  }
}

TEST_F(FileBlkCache, RandomRequestsOnSmallPools_DoWhatThePlainTwinDoes) {
  RunSeeds(1000, 320, {4, 5, 6, 7, 8, 1, 2, 3}, 24);
}

TEST_F(FileBlkCache, RandomRequestsOnLargerPools_DoWhatThePlainTwinDoes) { RunSeeds(5000, 20, {40, 64}, 120); }

}  // namespace
