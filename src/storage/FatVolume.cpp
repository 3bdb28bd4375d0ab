/// @file FatVolume.cpp

#include "storage/FatVolume.h"

#include "directory/DirEntCache.h"
#include "directory/FatDirectory.h"
#include "filesystem/FatFileSystem.h"

namespace {

constexpr unsigned int MAX_FAT12_CLUSTERS = 4086;    // on purpose two more than the customary bound
constexpr unsigned int MAX_FAT16_CLUSTERS = 0xFFF6;  // cluster numbers beyond would read as end of chain
constexpr unsigned int MAX_FAT32_CLUSTERS = 0x0FFFFFF6;
constexpr unsigned int FS_INFO_BYTES = 512;
constexpr unsigned int FS_INFO_UNKNOWN = 0xFFFFFFFF;

}  // namespace

CFatVolume::CFatVolume()
    : m_pStorage(nullptr),
      m_pRoot(nullptr),
      m_nFatStartSector(0),
      m_nSectorsPerFat(0),
      m_nClusters(0),
      m_nBytesPerSector(0),
      m_nBytesPerCluster(0),
      m_nClusterShift(0),
      m_nClusterMask(0),
      m_nRootDirByteOff(0),
      m_nDataByteOff(0),
      m_nFsInfoSector(0),
      m_nFatBits(FAT_BITS_12),
      m_bFat32(false) {
  InitListHead(&m_Objects);
}

CFatFileSystem* CFatVolume::FileSystem() { return static_cast<CFatFileSystem*>(this); }

// ---------------------------------------------------------------------------------------------- geometry

unsigned int CFatVolume::NumberOfClusters(const FAT_MPB& mpb) {
  unsigned int overhead = mpb.ReservedSectors + mpb.NumberOfFats * mpb.SectorsPerFat();
  // Not rounded up, on purpose: a root area that ends inside a sector counts one sector less than it takes.
  if (mpb.SectorsPerFat16 != 0) overhead += mpb.RootEntries * DIRENT_SIZE / mpb.BytesPerSector;
  return (mpb.TotalSectors() - overhead) / mpb.SectorsPerCluster;
}

void CFatVolume::SetupMpb(const FAT_MPB& mpb, unsigned int& rootCluster, unsigned int& rootBytes) {
  m_bFat32 = mpb.SectorsPerFat16 == 0;
  m_nFatStartSector = mpb.ReservedSectors;
  m_nSectorsPerFat = mpb.NumberOfFats != 0 ? mpb.SectorsPerFat() : 0;
  m_nBytesPerSector = mpb.BytesPerSector;
  m_nClusters = NumberOfClusters(mpb);
  m_nFatBits = m_bFat32 ? FAT_BITS_32 : m_nClusters <= MAX_FAT12_CLUSTERS ? FAT_BITS_12 : FAT_BITS_16;
  m_nBytesPerCluster = static_cast<unsigned int>(mpb.SectorsPerCluster) * mpb.BytesPerSector;
  m_nClusterMask = m_nBytesPerCluster - 1;
  m_nClusterShift = gGetLog2Of(m_nBytesPerCluster);
  rootBytes = m_bFat32 ? 0 : (mpb.RootEntries * DIRENT_SIZE + mpb.BytesPerSector - 1u) & ~(mpb.BytesPerSector - 1u);
  m_nRootDirByteOff = static_cast<long long>(mpb.NumberOfFats) * mpb.BytesPerSector * mpb.SectorsPerFat() +
                      static_cast<long long>(m_nFatStartSector) * mpb.BytesPerSector;
  m_nDataByteOff = m_nRootDirByteOff + rootBytes;
  if (m_bFat32) {
    rootCluster = mpb.RootDirCluster;
    m_nRootDirByteOff = GetByteOffFromFatIndex(mpb.RootDirCluster);
    m_nFsInfoSector = mpb.FsInfoSector;
  }
}

// Refuses what no formatter makes and what would run every later computation out of its range.
int CFatVolume::CheckGeometry(const FAT_MPB& mpb) const {
  std::uint64_t overhead = static_cast<std::uint64_t>(mpb.NumberOfFats) * mpb.SectorsPerFat() + mpb.ReservedSectors;
  if (mpb.SectorsPerFat16 != 0) overhead += mpb.RootEntries * DIRENT_SIZE / mpb.BytesPerSector;
  if (overhead > mpb.TotalSectors()) return STATUS_UNRECOGNIZED_VOLUME;
  if (m_nFatBits == FAT_BITS_32 && m_nClusters > MAX_FAT32_CLUSTERS) return STATUS_UNRECOGNIZED_VOLUME;
  if (m_nFatBits == FAT_BITS_16 && m_nClusters > MAX_FAT16_CLUSTERS) return STATUS_UNRECOGNIZED_VOLUME;
  return STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------------------------- mount and unmount

int CFatVolume::Mount(CVolumeStorage* storage) {
  m_pStorage = storage;
  FAT_MPB mpb = FAT_MPB();
  storage->GetMpb(&mpb);
  // A derived back-end may be less strict with its boot sector than CFatStorage is, and need not agree with itself.
  if (!IsPowerOfTwo(mpb.SectorsPerCluster) || mpb.BytesPerSector != storage->BytesPerSector()) {
    return STATUS_UNRECOGNIZED_VOLUME;
  }
  unsigned int rootCluster = NO_CLUSTER;
  unsigned int rootBytes = 0;
  SetupMpb(mpb, rootCluster, rootBytes);
  int status = CheckGeometry(mpb);
  if (status < 0) return status;
  status = Create(m_nFatBits, gGetLog2Of(m_nBytesPerSector), m_nClusters);
  if (status >= 0) status = OpenRootDir(rootCluster, rootBytes);
  if (status < 0) CFatTable::Abandon();
  return status;
}

int CFatVolume::OpenRootDir(unsigned int rootCluster, unsigned int rootBytes) {
  DENTCTX context{};
  context.ShortEntry.SetDir();
  context.ShortEntry.SetStartClustNo(m_bFat32 ? rootCluster : NO_CLUSTER);
  context.ShortEntry.FileSize.Store(m_bFat32 ? 0 : rootBytes);
  m_pRoot = static_cast<CFatDir*>(CFatFileSystem::CreateDirObj(this, &context, false));
  if (m_pRoot == nullptr) return STATUS_DISK_CORRUPT;
  const int status = m_pRoot->LoadAllDirEnts();
  if (status < 0) ReleaseRoot(false);
  return status;
}

// While its data is written the root must still be known as the root: the fixed root area is reached that way.
void CFatVolume::ReleaseRoot(bool writeBack) {
  if (m_pRoot == nullptr) return;
  m_pRoot->Shutdown(writeBack);
  CFatDir* root = m_pRoot;
  m_pRoot = nullptr;
  (void)root->Release();
}

int CFatVolume::Unmount() {
  ReleaseRoot(true);
  const int status = Retire();
  if (status < 0) FreeRetiredMemory();
  return status;
}

void CFatVolume::Abandon() {
  ReleaseRoot(false);
  CFatTable::Abandon();
}

void CFatVolume::BackupFirstFat() {
  // No volume has use for a FAT of more than 1 GiB and a sector. Where a boot sector claims one, most of it is not
  // there.
  if (m_nSectorsPerFat != 0 && m_nSectorsPerFat <= (1u << 30) / m_nBytesPerSector + 1) CopyFirstFat();
  FreeRetiredMemory();
}

void CFatVolume::CopyFirstFat() {
  unsigned char* fat = RetiredMemory(static_cast<std::size_t>(m_nSectorsPerFat) * m_nBytesPerSector);
  if (fat == nullptr || ReadSectors(fat, m_nFatStartSector, m_nSectorsPerFat) < 0) return;
  const long long second = static_cast<long long>(m_nFatStartSector) + m_nSectorsPerFat;
  (void)WriteSectors(fat, second, m_nSectorsPerFat);  // the first FAT is right all the same
}

int CFatVolume::ResetFat32FsInfo() {
  if (!m_bFat32) return STATUS_SUCCESS;
  FSINFO_SECTOR info;
  unsigned char* bytes = reinterpret_cast<unsigned char*>(&info);
  const long long position = static_cast<long long>(m_nFsInfoSector) * m_nBytesPerSector;
  const int status = ReadBytes(bytes, position, FS_INFO_BYTES);
  if (status < 0) return status;
  if (info.LeadSignature.Load() != 0x41615252 || info.StructSignature.Load() != 0x61417272 ||
      info.TrailSignature.Load() != 0xAA550000) {
    return STATUS_DISK_CORRUPT;
  }
  info.FreeClusters.Store(FS_INFO_UNKNOWN);
  info.NextFree.Store(FS_INFO_UNKNOWN);
  return WriteBytes(bytes, position, FS_INFO_BYTES);
}
