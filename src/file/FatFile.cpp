/// @file FatFile.cpp

#include "file/FatFile.h"

#include "directory/DirEntCache.h"
#include "directory/FatDirectory.h"
#include "filesystem/FatFileSystem.h"
#include "names/XUtils.h"

// ---------------------------------------------------------------------------------------------- life of an object

CFatFile::CFatFile()
    : m_pDirEntCache(nullptr),
      m_pVolume(nullptr),
      m_DirEnt(),
      m_nNameChars(0),
      m_nOffset(0),
      m_nFstClust(0),
      m_nAllocBytes(0),
      m_VolumeLink() {
  m_VolumeLink.pFile = this;
}

CFatFile::~CFatFile() = default;

int CFatFile::Build(CFatVolume* volume, DENTCTX* context) {
  m_pVolume = volume;
  InsertTailList(volume->Objects(), &m_VolumeLink);
  m_DirEnt = context->ShortEntry;
  if (context->nLongCount != 0) {
    m_nNameChars = context->NameChars() < MAX_LONG_NAME ? context->NameChars() : MAX_LONG_NAME;
    osCopyUnits(m_szName, context->NamePtr(), m_nNameChars);
  }
  m_nFstClust = m_DirEnt.GetStartClustNo();
  m_BlkCache.Create(this);
  if (!m_Runs.Initialize()) return STATUS_NO_MEMORY;
  if (m_nFstClust == NO_CLUSTER) {
    m_nAllocBytes = m_DirEnt.FileSize.Load();
    m_DirEnt.FileSize.Store(0);
    return STATUS_SUCCESS;
  }
  return LoadTotalAllocation();
}

// Follows the chain of the FAT into the map of clusters. The chain may be damaged in any way: it ends in a value that
// is no cluster, leads out of the volume, or comes back to itself.
int CFatFile::LoadTotalAllocation() {
  if (m_nFstClust == 0) {
    m_nAllocBytes = 0;
    return STATUS_SUCCESS;
  }
  const unsigned int maxClustNo = m_pVolume->GetMaxClustNo();
  unsigned int cluster = m_nFstClust;
  // A chain that returns to a cluster it has passed never ends. The mark is set anew after 1, 2, 4, 8 ... steps; once
  // it lies on the loop, the loop leads back to it before the mark moves on. Without this a loop would only be noticed
  // when more clusters were counted than the volume has.
  unsigned int mark = 0;
  unsigned int stepsToMark = 1;
  unsigned int steps = 0;
  for (unsigned int count = 1;; ++count) {
    if (count > m_pVolume->MaxFileClusters() || cluster == mark || !m_pVolume->IsCluster(cluster) ||
        !m_Runs.AppendEntry(cluster, 1)) {
      return STATUS_DISK_CORRUPT;
    }
    if (++steps == stepsToMark) {
      mark = cluster;
      steps = 0;
      stepsToMark *= 2;
    }
    unsigned int next = 0;
    const int status = m_pVolume->FAT()->ReadNextClusterNo(cluster, next);
    if (status < 0) return status;
    if (next > maxClustNo) {
      m_nAllocBytes = m_pVolume->Bytes64BitFromClusters(m_Runs.Length());
      return STATUS_SUCCESS;
    }
    cluster = next;
  }
}

void CFatFile::Shutdown(bool writeBack) {
  if (IsDead()) return;
  delete m_pDirEntCache;
  m_pDirEntCache = nullptr;
  if (writeBack) {
    m_BlkCache.Destory();
  } else {
    m_BlkCache.Abandon();
  }
  m_Runs.Uninitialize();
  (void)RemoveEntryList(&m_VolumeLink);
  m_pVolume = nullptr;
}

void CFatFile::Destroy() {
  Shutdown(true);
  delete this;
}

bool CFatFile::IsRoot() const { return m_pVolume->Root() == this; }

bool CFatFile::Close() {
  m_nOffset = 0;
  if (!IsDead() && IsRoot() && m_nRefCount <= 1) return false;
  return Release();
}

// ---------------------------------------------------------------------------------------------- reading and writing

template <bool WRITE>
int CFatFile::Access(long long pos, unsigned int len, unsigned char* buf, unsigned int* done) {
  const long long limit = Limit();
  if (pos < 0 || pos >= limit) {
    *done = 0;
    return STATUS_END_OF_FILE;
  }
  if (len > limit - pos) len = static_cast<unsigned int>(limit - pos);
  return WRITE ? m_BlkCache.Write(pos, len, buf, done, limit) : m_BlkCache.Read(pos, len, buf, done, limit);
}

template <bool WRITE>
int CFatFile::AccessAtOffset(unsigned int len, unsigned char* buf, unsigned int* done) {
  *done = 0;
  if (m_nOffset >= Limit()) return STATUS_SUCCESS;
  const int status = Access<WRITE>(m_nOffset, len, buf, done);
  if (status >= 0) m_nOffset += *done;
  return status;
}

int CFatFile::Read(long long pos, unsigned int len, unsigned char* buf, unsigned int* done) {
  return Access<false>(pos, len, buf, done);
}

int CFatFile::Write(long long pos, unsigned int len, unsigned char* buf, unsigned int* done) {
  return Access<true>(pos, len, buf, done);
}

int CFatFile::Read(unsigned int len, unsigned char* buf, unsigned int* done) {
  return AccessAtOffset<false>(len, buf, done);
}

int CFatFile::Write(unsigned int len, unsigned char* buf, unsigned int* done) {
  return AccessAtOffset<true>(len, buf, done);
}

void CFatFile::Seek(unsigned int distance, unsigned int method) {
  const unsigned int size = Size();
  switch (method) {
    case SEEK_BEGIN:
      m_nOffset = distance;
      break;
    case SEEK_CURRENT:
      m_nOffset = distance < UINT32_MAX - m_nOffset ? m_nOffset + distance : UINT32_MAX;
      break;
    case SEEK_FROM_END:
      m_nOffset = distance < size ? size - distance : 0;
      break;
    default:
      break;
  }
  if (m_nOffset > size) m_nOffset = size;
}

// ---------------------------------------------------------------------------------------------- storage transfers

/// @param mediumPos      out: where the byte at `pos` lies on the medium
/// @param bytesToRunEnd  out: bytes from there that lie together
int CFatFile::MapPosition(unsigned int pos, long long& mediumPos, unsigned long long& bytesToRunEnd) const {
  unsigned int cluster;
  unsigned int clusters;
  if (!m_Runs.LookupEntry(m_pVolume->ClustersFromBytesTruncate(pos), &cluster, &clusters)) return STATUS_FILE_CORRUPT;
  const unsigned int offset = m_pVolume->ClusterOffset(pos);
  mediumPos = m_pVolume->GetByteOffFromFatIndex(cluster) + offset;
  bytesToRunEnd = m_pVolume->Bytes64BitFromClusters(clusters) - offset;
  return STATUS_SUCCESS;
}

/// At most one unaligned transfer at each end, and one aligned transfer for each run of clusters in between.
template <bool WRITE>
int CFatFile::TransferStorage(long long pos64, unsigned int len, unsigned char* buf) {
  if (len == 0) return STATUS_SUCCESS;
  if (pos64 < 0 || pos64 > UINT32_MAX) return STATUS_FILE_CORRUPT;
  CFatVolume& volume = *m_pVolume;
  if (!volume.IsFat32() && IsRoot()) {
    const long long mediumPos = volume.RootDirByteOff() + pos64;
    return WRITE ? volume.WriteBytes(buf, mediumPos, len) : volume.ReadBytes(buf, mediumPos, len);
  }
  unsigned long long at = static_cast<unsigned long long>(pos64);
  long long mediumPos;
  unsigned long long runBytes;
  bool atClusterStart = volume.ClusterOffset(static_cast<unsigned int>(at)) == 0;
  for (;;) {
    // Positions behind 4 GiB do not exist; a chain longer than that ends there.
    if (at > UINT32_MAX) return STATUS_FILE_CORRUPT;
    const int mapped = MapPosition(static_cast<unsigned int>(at), mediumPos, runBytes);
    if (mapped < 0) return mapped;
    const bool aligned = atClusterStart && len > volume.BytesPerCluster();
    unsigned int n;
    if (len > runBytes) {
      n = static_cast<unsigned int>(runBytes);
    } else {
      n = aligned ? volume.ClusterAlignTruncate(len) : len;
    }
    int status;
    if (aligned) {
      status = WRITE ? volume.WriteBytesAligned(buf, mediumPos, n) : volume.ReadBytesAligned(buf, mediumPos, n);
    } else {
      status = WRITE ? volume.WriteBytes(buf, mediumPos, n) : volume.ReadBytes(buf, mediumPos, n);
    }
    if (status < 0) return status;
    if (n == len) return STATUS_SUCCESS;
    at += n;
    buf += n;
    len -= n;
    atClusterStart = true;
  }
}

int CFatFile::ReadFromStorage(long long pos, unsigned int len, unsigned char* buf) {
  return TransferStorage<false>(pos, len, buf);
}

int CFatFile::WriteToStorage(long long pos, unsigned int len, unsigned char* buf) {
  const long long limit = Limit();
  if (pos >= limit) return STATUS_SUCCESS;
  if (len > limit - pos) len = static_cast<unsigned int>(limit - pos);
  return TransferStorage<true>(pos, len, buf);
}

// ---------------------------------------------------------------------------------------------- the directory entry

int CFatFile::OpenParentDir(CFatDir** dir, DENTCTX*& context) {
  CFatDir* parent = m_pVolume->Root();
  const unsigned short* path = FullPathFileNameUpcase();
  if (path == nullptr) return STATUS_FILE_CORRUPT;
  PATH_BUFFER buffer;
  const unsigned short* parentPath;
  const unsigned short* name;
  gGetParentPath(path, buffer, parentPath, name);
  if (parentPath != nullptr) {
    CFatFile* opened;
    const int status = m_pVolume->FileSystem()->OpenFile(parentPath, &opened);
    if (status < 0) return status;
    parent = static_cast<CFatDir*>(opened);
  }
  const int prepared = parent->PrepareEntries();
  DENTCTX* found = prepared < 0 ? nullptr : parent->LookupFile(name);
  if (found == nullptr) {
    // The root was not opened here; its count is not touched, but its offset is reset as if it had been.
    if (parentPath == nullptr) {
      parent->Seek(0, SEEK_BEGIN);
    } else {
      (void)parent->Close();
    }
    return prepared < 0 ? prepared : STATUS_FILE_CORRUPT;
  }
  *dir = parent;
  context = found;
  return STATUS_SUCCESS;
}

int CFatFile::UpdateShortDirEnt(CFatDir* parent, DENTCTX* context) {
  if (IsRoot()) return STATUS_SUCCESS;
  const bool opened = parent == nullptr;
  if (opened) {
    const int status = OpenParentDir(&parent, context);
    if (status < 0) return status;
  }
  context->ShortEntry = m_DirEnt;
  unsigned char bytes[DIRENT_SIZE];
  osMemCpy(bytes, &m_DirEnt, DIRENT_SIZE);
  unsigned int done;
  const int status = parent->Write(static_cast<long long>(context->nShortIdx) * DIRENT_SIZE, DIRENT_SIZE, bytes, &done);
  if (opened && !parent->IsRoot()) (void)parent->Close();
  return status;
}

int CFatFile::UpdateDotDotDirEnt(CFatDir* newParent) {
  CDirEnt dots[2] = {};
  unsigned char* bytes = reinterpret_cast<unsigned char*>(dots);
  unsigned int done;
  const int status = Read(0, sizeof(dots), bytes, &done);
  if (status < 0) return status;
  dots[1].SetStartClustNo(newParent->FirstCluster());
  return Write(0, sizeof(dots), bytes, &done);
}
