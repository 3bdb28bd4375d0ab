/// @file FileSize.cpp
/// CFatFile::SetSize, the only operation that changes how many clusters an object owns. Order of the writes: growing
/// writes the FAT, then the cleared data of a directory, then the directory entry; shrinking frees the entries of the
/// cut clusters, ends the chain, gives the clusters back, then writes the directory entry.

#include "directory/DirEntCache.h"
#include "file/FatFile.h"

namespace {

constexpr unsigned int MIN_SECTOR_SHIFT = 9;
constexpr unsigned int MIN_SECTOR_BYTES = 1u << MIN_SECTOR_SHIFT;

/// A cluster map on the stack.
class CTemporaryRuns : public CRuns {
 public:
  CTemporaryRuns() : m_bUsable(Initialize()) {}
  ~CTemporaryRuns() { Uninitialize(); }
  CTemporaryRuns(const CTemporaryRuns&) = delete;
  CTemporaryRuns& operator=(const CTemporaryRuns&) = delete;
  bool IsUsable() const { return m_bUsable; }

 private:
  bool m_bUsable;
};

}  // namespace

int CFatFile::SetSize(unsigned int size, CFatDir* parent, DENTCTX* context) {
  // The largest size is the largest multiple of the cluster size that fits 32 bits.
  if (size > 0u - m_pVolume->BytesPerCluster()) return STATUS_INVALID_PARAMETER;
  const unsigned int newAlloc = m_pVolume->ClusterAlign(size);
  const unsigned int oldAlloc = static_cast<unsigned int>(m_nAllocBytes);
  if (newAlloc == oldAlloc) {
    if (IsDir() || Size() == size) return STATUS_SUCCESS;
    m_DirEnt.FileSize.Store(size);
    return UpdateShortDirEnt(parent, context);
  }
  const unsigned long long allocBefore = m_nAllocBytes;
  m_nAllocBytes = newAlloc;
  const int status = newAlloc > oldAlloc ? GrowAllocation(allocBefore, newAlloc) : ShrinkAllocation(oldAlloc, newAlloc);
  // What the object may touch must never be more than its map holds.
  const unsigned long long mapped = m_pVolume->Bytes64BitFromClusters(m_Runs.Length());
  if (status < 0) {
    m_nAllocBytes = m_nFstClust == NO_CLUSTER ? allocBefore : mapped;
    return status;
  }
  if (m_nAllocBytes > mapped) m_nAllocBytes = mapped;
  if (!IsDir()) m_DirEnt.FileSize.Store(size);
  return UpdateShortDirEnt(parent, context);
}

void CFatFile::SetFirstCluster(unsigned int cluster) {
  m_nFstClust = cluster;
  m_DirEnt.SetStartClustNo(cluster);
}

int CFatFile::GrowAllocation(unsigned long long oldAlloc64, unsigned int newAlloc) {
  const unsigned int oldAlloc = static_cast<unsigned int>(oldAlloc64);
  CTemporaryRuns added;
  if (!added.IsUsable()) return STATUS_NO_MEMORY;
  unsigned int vbn;
  unsigned int last = NO_CLUSTER;
  const bool hadClusters = m_Runs.GetLastEntry(&vbn, &last);
  int status =
      m_pVolume->FAT()->AllocateClusters(m_pVolume->ClustersFromBytesTruncate(newAlloc - oldAlloc), &added, last);
  if (status < 0) return status;
  if (!hadClusters) SetFirstCluster(last);
  const unsigned int clustersBefore = m_Runs.Length();
  if (!m_Runs.AppendRuns(&added)) {
    (void)ReleaseTail(&added);  // the first failure is the one to report
    return STATUS_FILE_CORRUPT;
  }
  if (!IsDir()) return STATUS_SUCCESS;
  if (m_pDirEntCache != nullptr) status = m_pDirEntCache->Grow(newAlloc / DIRENT_SIZE);
  if (status >= 0) status = ZeroNewClusters(oldAlloc, newAlloc - oldAlloc);
  if (status == STATUS_NO_MEMORY) {
    // Clusters that were not cleared must not stay in a directory: what they hold would read as entries.
    m_Runs.Truncate(clustersBefore);
    (void)ReleaseTail(&added);
    if (m_pDirEntCache != nullptr) (void)m_pDirEntCache->Grow(oldAlloc / DIRENT_SIZE);
  }
  return status;
}

int CFatFile::ShrinkAllocation(unsigned int oldAlloc, unsigned int newAlloc) {
  CTemporaryRuns tail;
  if (!tail.IsUsable()) return STATUS_NO_MEMORY;
  const unsigned int count =
      m_pVolume->ClustersFromBytesTruncate(oldAlloc - newAlloc + m_pVolume->BytesPerCluster() - 1);
  if (!m_Runs.MoveTailTo(&tail, count)) return STATUS_NO_MEMORY;
  return ReleaseTail(&tail);
}

// Frees clusters that were cut off the end of the map. The bitmap comes last: a failure leaves them marked used there,
// so that nobody gets a cluster whose entry may still be linked.
int CFatFile::ReleaseTail(CRuns* tail) {
  CFatTable* fat = m_pVolume->FAT();
  for (unsigned int run = 1; run <= tail->NumberOfRuns(); ++run) {
    const int status = fat->FreeEntries(tail->StartingLbn(run), tail->LengthOfRun(run));
    if (status < 0) return status;
  }
  unsigned int vbn;
  unsigned int last;
  if (m_Runs.GetLastEntry(&vbn, &last)) {
    const int status = fat->WriteNextClusterNo(last, FAT_END_OF_CHAIN);
    if (status < 0) return status;
  } else {
    SetFirstCluster(0);
  }
  fat->RecycleClusters(tail);
  return STATUS_SUCCESS;
}

// Clusters of less than 512 bytes leave a remainder that ZeroDataAligned does not write.
int CFatFile::ZeroNewClusters(unsigned int pos, unsigned int len) {
  int status = ZeroDataAligned(pos, len);
  const unsigned int rest = len & (MIN_SECTOR_BYTES - 1);
  if (status < 0 || rest == 0) return status;
  unsigned char zeros[MIN_SECTOR_BYTES];
  osMemZero(zeros, sizeof(zeros));
  unsigned int done;
  return Write(static_cast<long long>(pos) + (len - rest), rest, zeros, &done);
}

int CFatFile::ZeroDataAligned(long long pos, unsigned int len) {
  unsigned char zeros[MIN_SECTOR_BYTES];
  osMemZero(zeros, sizeof(zeros));
  for (unsigned int k = 0; k < len >> MIN_SECTOR_SHIFT; ++k) {
    unsigned int done;
    const int status = Write(pos + static_cast<long long>(k) * MIN_SECTOR_BYTES, MIN_SECTOR_BYTES, zeros, &done);
    if (status < 0) return status;
  }
  return STATUS_SUCCESS;
}
