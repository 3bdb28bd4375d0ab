/// @file FatFile.h
/// An open file or directory: its directory entry, the map of its clusters, its size, its offset and its cached blocks.
///
/// Objects are counted. Whoever works with one holds a reference; the open-file cache holds one on every object in it.
/// With the last reference an object writes its unsaved data and deletes itself.
///
///   LIVE --Shutdown--> DEAD --last Release--> deleted
///   LIVE  belongs to a mounted volume, and is in the volume's list of objects.
///   DEAD  the volume is gone, or the object is being deleted: no block, no cluster map, no volume. Only its handle is
///         left, which can be closed.

#ifndef FATLIB_FATFILE_H
#define FATLIB_FATFILE_H

#include "allocation/XRuns.h"
#include "directory/DirEnt.h"
#include "file/FileBlkCache.h"
#include "names/TriHash.h"
#include "platform/ListEntry.h"
#include "storage/FatVolume.h"

class CDirEntCache;
class CFatDir;
struct DENTCTX;

class CFileBase;
class CFatFile;

/// A key that knows its object, so that a hit in a table of keys leads to it.
struct FILE_KEY : TriHashIdx {
  CFileBase* pFile;
};

/// A place in a list that knows its object.
struct FILE_LINK : _LST_ENTRY {
  CFileBase* pFile;
};

/// The counted part: what the open-file cache needs to know.
class CFileBase : public OS_ALLOCATED {
 public:
  CFileBase() : m_HashIdx(), m_Link(), m_nRefCount(0) {
    m_HashIdx.pFile = this;
    m_Link.pFile = this;
  }
  CFileBase(const CFileBase&) = delete;
  CFileBase& operator=(const CFileBase&) = delete;

  void AddRef() { ++m_nRefCount; }
  /// @return true when this was the last reference: the object is gone then
  bool Release() {
    if (--m_nRefCount != 0) return false;
    Destroy();
    return true;
  }
  unsigned int RefCount() const { return m_nRefCount; }

  TriHashIdx& HashIdx() { return m_HashIdx; }
  static CFileBase* FromHashIdx(TriHashIdx* idx) { return static_cast<FILE_KEY*>(idx)->pFile; }
  _LST_ENTRY* Link() { return &m_Link; }
  static CFileBase* FromLink(_LST_ENTRY* link) { return static_cast<FILE_LINK*>(link)->pFile; }

  /// Takes over a key with its text; the text held before is freed. The object must not be in the open-file cache.
  void CloneHashIdx(const TriHashIdx& idx) {
    m_HashIdx.Clean();
    static_cast<TriHashIdx&>(m_HashIdx) = idx;
  }
  /// The upper-cased full path that the object was opened with; it may have been renamed since. Null for the root.
  const unsigned short* PathIndexName() const { return m_HashIdx.NamePtr(); }

 protected:
  virtual ~CFileBase() { m_HashIdx.Clean(); }
  virtual void Destroy() = 0;

  FILE_KEY m_HashIdx;  // key in the open-file cache; the text is the object's own
  FILE_LINK m_Link;    // place in that cache's recency list
  unsigned int m_nRefCount;
};

class CFatFile : public CFileBase {
 public:
  // The last one is not called SEEK_END because the C library has a macro of that name.
  enum SEEK_METHOD : unsigned int { SEEK_BEGIN = 0, SEEK_CURRENT = 1, SEEK_FROM_END = 2 };
  using BLOCK_CACHE = CFileBlkCache<CFatFile>;
  static constexpr unsigned int BLOCK_BYTES = BLOCK_CACHE::BLOCK_BYTES;
  static constexpr unsigned int MAX_LONG_NAME = 260;

  /// Sets the object up from a directory record and loads its cluster chain.
  /// @return negative: STATUS_DISK_CORRUPT for a broken chain, STATUS_NO_MEMORY, or the status of a failed FAT read
  [[nodiscard]] int Build(CFatVolume* volume, DENTCTX* context);
  /// Makes the object dead: writes its dirty blocks if asked to, and frees all it has.
  void Shutdown(bool writeBack);
  bool IsDead() const { return m_pVolume == nullptr; }

  /// Sets the offset to 0 and drops a reference. The volume's own reference on its root stays whatever happens.
  /// @return whether the object is gone
  bool Close();

  /// Positioned transfers through the block cache. A write never extends a file.
  /// @param done  out: bytes as the block cache counts them (see CFileBlkCache::Read)
  /// @return negative: STATUS_END_OF_FILE at or beyond the limit, or below 0; else the status of the block cache
  [[nodiscard]] int Read(long long pos, unsigned int len, unsigned char* buf, unsigned int* done);
  [[nodiscard]] int Write(long long pos, unsigned int len, unsigned char* buf, unsigned int* done);
  /// The same at the object's offset, which advances by `done`. At the limit: success with 0 bytes.
  [[nodiscard]] int Read(unsigned int len, unsigned char* buf, unsigned int* done);
  [[nodiscard]] int Write(unsigned int len, unsigned char* buf, unsigned int* done);
  /// Moves the offset: to the distance, forward by it, or to the size less it (0 at least); then cuts it to the size.
  /// Another method leaves it. A directory's size counts as 0.
  void Seek(unsigned int distance, unsigned int method);

  /// Gives block `block` of the object in place (see CFileBlkCache::PeekBlock).
  [[nodiscard]] int PeekBlock(unsigned int block, const unsigned char*& data, unsigned int& bytes,
                              BLOCK_LOAN** loan = nullptr) {
    return m_BlkCache.PeekBlock(block, data, bytes, Limit(), loan);
  }

  // Storage transfers for the block cache: the only place where file positions become positions on the medium.
  // Positions are 32 bits; one that no cluster is mapped to gives STATUS_FILE_CORRUPT, with earlier parts of the
  // transfer done.

  [[nodiscard]] int ReadFromStorage(long long pos, unsigned int len, unsigned char* buf);
  /// Cut at the limit; with nothing left it succeeds without a transfer.
  [[nodiscard]] int WriteToStorage(long long pos, unsigned int len, unsigned char* buf);

  /// Changes the allocation in whole clusters, and a file's size. New clusters of a file keep what the medium holds;
  /// those of a directory are cleared.
  /// @param parent, context  where the object's directory entry is; both null: found by the object's path
  /// @return negative: STATUS_INVALID_PARAMETER for more than 2^32 - cluster size bytes (nothing changed),
  ///         STATUS_DISK_FULL, STATUS_FILE_CORRUPT, or that of a failed transfer
  [[nodiscard]] int SetSize(unsigned int size, CFatDir* parent, DENTCTX* context);
  /// Writes zeros through the block cache, in pieces of 512 bytes; a remainder of less is left out.
  [[nodiscard]] int ZeroDataAligned(long long pos, unsigned int len);

  /// Finds the directory that the object's path names as its parent, and the object's record in it.
  /// @param dir  out: referenced for the caller unless it is the volume's root; unchanged on failure
  /// @return negative: STATUS_FILE_CORRUPT when the entry is not there (any more), or the status of opening the parent
  [[nodiscard]] int OpenParentDir(CFatDir** dir, DENTCTX*& context);
  /// Writes the object's directory entry, as the object holds it, through its parent's block cache. The root has none.
  /// @param parent, context  as for SetSize
  [[nodiscard]] int UpdateShortDirEnt(CFatDir* parent, DENTCTX* context);
  /// Points the ".." entry of this moved directory at its new parent.
  [[nodiscard]] int UpdateDotDotDirEnt(CFatDir* newParent);

  _DIRENT* Info() { return &m_DirEnt; }
  unsigned int Size() const { return m_DirEnt.FileSize.Load(); }
  unsigned int Offset() const { return m_nOffset; }
  CFatVolume* Volume() const { return m_pVolume; }
  bool IsDir() const { return m_DirEnt.IsDir(); }
  bool IsRoot() const;
  const unsigned short* FullPathFileNameUpcase() const { return PathIndexName(); }
  unsigned int FirstCluster() const { return m_nFstClust; }
  unsigned long long AllocBytes() const { return m_nAllocBytes; }
  /// Where reading and writing ends: a directory's allocation, a file's size.
  long long Limit() const { return IsDir() ? static_cast<long long>(m_nAllocBytes) : static_cast<long long>(Size()); }
  CRuns* Runs() { return &m_Runs; }
  BLOCK_CACHE& BlkCache() { return m_BlkCache; }
  CDirEntCache* DirEntCache() const { return m_pDirEntCache; }
  unsigned int NameChars() const { return m_nNameChars; }
  const unsigned short* Name() const { return m_szName; }

  /// The object whose place in the volume's list of live objects this is.
  static CFatFile* FromVolumeLink(_LST_ENTRY* link) {
    return static_cast<CFatFile*>(static_cast<FILE_LINK*>(link)->pFile);
  }

 protected:
  CFatFile();
  ~CFatFile() override;
  void Destroy() override;

  CDirEntCache* m_pDirEntCache;  // the entries; null until they are loaded

 private:
  template <bool WRITE>
  int Access(long long pos, unsigned int len, unsigned char* buf, unsigned int* done);
  template <bool WRITE>
  int AccessAtOffset(unsigned int len, unsigned char* buf, unsigned int* done);
  template <bool WRITE>
  int TransferStorage(long long pos, unsigned int len, unsigned char* buf);
  int MapPosition(unsigned int pos, long long& mediumPos, unsigned long long& bytesToRunEnd) const;
  int LoadTotalAllocation();
  int GrowAllocation(unsigned long long oldAlloc, unsigned int newAlloc);
  int ShrinkAllocation(unsigned int oldAlloc, unsigned int newAlloc);
  int ReleaseTail(CRuns* tail);
  int ZeroNewClusters(unsigned int pos, unsigned int len);
  void SetFirstCluster(unsigned int cluster);

  CFatVolume* m_pVolume;                   // null: dead
  _DIRENT m_DirEnt;                        // copy of the short directory entry; its size field is the file's size
  unsigned int m_nNameChars;               // units of m_szName; 0 without a long name
  unsigned short m_szName[MAX_LONG_NAME];  // not terminated
  unsigned int m_nOffset;                  // file pointer
  unsigned int m_nFstClust;                // 0: no clusters; NO_CLUSTER: the fixed root directory
  unsigned long long m_nAllocBytes;  // clusters in the map x cluster size; of the fixed root, the root area's size
  CRuns m_Runs;
  BLOCK_CACHE m_BlkCache;
  FILE_LINK m_VolumeLink;  // in the volume's list of live objects
};

extern template class CFileBlkCache<CFatFile>;

/// Holds a reference for as long as it lives, so that nothing called meanwhile can destroy the object. Take it only
/// after the test whether the object is open: it counts as a holder.
template <class OBJECT>
class CObjectRef {
 public:
  CObjectRef() : m_pObject(nullptr) {}
  explicit CObjectRef(OBJECT* object) : m_pObject(object) {
    if (object != nullptr) object->AddRef();
  }
  ~CObjectRef() { Set(nullptr); }
  CObjectRef(const CObjectRef&) = delete;
  CObjectRef& operator=(const CObjectRef&) = delete;

  void Set(OBJECT* object) {
    if (object != nullptr) object->AddRef();
    if (m_pObject != nullptr) (void)m_pObject->Release();
    m_pObject = object;
  }
  OBJECT* Get() const { return m_pObject; }
  OBJECT* operator->() const { return m_pObject; }

 private:
  OBJECT* m_pObject;
};

#endif  // FATLIB_FATFILE_H
