/// @file FatVolume.h
/// A volume's geometry, derived from the boot sector, and what is done to the volume as a whole: mounting, the FAT32
/// FSInfo sector and the second FAT at unmount. The volume is its own FAT table, and the first part of its file system:
/// one object seen as three classes.

#ifndef FATLIB_FATVOLUME_H
#define FATLIB_FATVOLUME_H

#include "allocation/FatTable.h"
#include "platform/ListEntry.h"
#include "storage/XStorage.h"

class CFatDir;
class CFatFileSystem;

/// The FAT32 FSInfo sector: its first 512 bytes, whatever the sector size.
struct FSINFO_SECTOR {
  le32 LeadSignature;           // 0x000  0x41615252
  std::uint8_t Reserved1[480];  // 0x004  kept as read
  le32 StructSignature;         // 0x1E4  0x61417272
  le32 FreeClusters;            // 0x1E8  0xFFFFFFFF: not known
  le32 NextFree;                // 0x1EC  0xFFFFFFFF: not known
  std::uint8_t Reserved2[12];   // 0x1F0  kept as read
  le32 TrailSignature;          // 0x1FC  0xAA550000
};
static_assert(sizeof(FSINFO_SECTOR) == 512 && alignof(FSINFO_SECTOR) == 1, "exactly 512 bytes");
static_assert(offsetof(FSINFO_SECTOR, StructSignature) == 484 && offsetof(FSINFO_SECTOR, FreeClusters) == 488 &&
                  offsetof(FSINFO_SECTOR, NextFree) == 492 && offsetof(FSINFO_SECTOR, TrailSignature) == 508,
              "the layout is fixed by the medium");

class CFatVolume : public CFatTable {
 public:
  /// Reads the geometry, the whole FAT and the root directory. The storage must have been opened, and not been used
  /// since.
  /// @return negative: STATUS_UNRECOGNIZED_VOLUME for a geometry that no FAT can have, STATUS_NO_MEMORY,
  ///         STATUS_DISK_CORRUPT without a root directory, or the status of a failed read. Everything is released then.
  [[nodiscard]] int Mount(CVolumeStorage* storage);
  /// Releases the root directory (its unsaved data is written), writes the FAT and frees it, but for memory that
  /// BackupFirstFat uses and frees.
  /// @return the status of the last FAT flush; whatever it is, the volume is no longer usable
  [[nodiscard]] int Unmount();
  /// The same without a single transfer: unsaved changes are lost.
  void Abandon();

  /// Copies the first FAT over the second one, in one read and one write. Failures are swallowed, and the number of
  /// FATs is not looked at: on a volume with one FAT this overwrites what lies behind it.
  void BackupFirstFat();
  /// FAT32: declares the free count and the next-free hint unknown; the library never maintains them.
  /// @return 0 on FAT12 and FAT16; negative: a failed transfer, or STATUS_DISK_CORRUPT for a wrong signature (nothing
  ///         is written then)
  int ResetFat32FsInfo();

  /// @return clusters of the data area: (total - overhead) / sectors per cluster, all unsigned 32-bit and truncating,
  ///         the root area counted without the sector that it ends in
  static unsigned int NumberOfClusters(const FAT_MPB& mpb);
  /// Fills in the geometry.
  /// @param rootCluster  out, FAT32 only: first cluster of the root directory
  /// @param rootBytes    out: bytes of the fixed root area, whole sectors; 0 on FAT32
  void SetupMpb(const FAT_MPB& mpb, unsigned int& rootCluster, unsigned int& rootBytes);

  bool IsFat32() const { return m_bFat32; }
  FAT_IDX_BITS FatBits() const { return m_nFatBits; }
  /// A next-cluster value above this one ends a chain.
  unsigned int GetMaxClustNo() const {
    return m_nFatBits == FAT_BITS_32 ? 0x0FFFFFF7u : m_nFatBits == FAT_BITS_16 ? 0xFFF7u : 0xFF7u;
  }
  unsigned int MaxFileClusters() const { return m_nClusters; }
  /// Whether the volume has a cluster of that number: 2 .. count + 1.
  bool IsCluster(unsigned int n) const { return n >= FIRST_CLUSTER && n - FIRST_CLUSTER < m_nClusters; }
  unsigned int FatStartSector() const { return m_nFatStartSector; }
  unsigned int BytesPerCluster() const { return m_nBytesPerCluster; }
  long long RootDirByteOff() const { return m_nRootDirByteOff; }
  long long DataByteOff() const { return m_nDataByteOff; }
  unsigned int BytesFromClusters(unsigned int n) const { return n << m_nClusterShift; }
  unsigned long long Bytes64BitFromClusters(unsigned int n) const {
    return static_cast<unsigned long long>(n) << m_nClusterShift;
  }
  unsigned int ClustersFromBytesTruncate(unsigned int bytes) const { return bytes >> m_nClusterShift; }
  /// Rounds up to whole clusters; wraps to 0 above 2^32 - cluster size.
  unsigned int ClusterAlign(unsigned int bytes) const { return (bytes + m_nClusterMask) & ~m_nClusterMask; }
  unsigned int ClusterAlignTruncate(unsigned int bytes) const { return bytes & ~m_nClusterMask; }
  unsigned int ClusterOffset(unsigned int bytes) const { return bytes & m_nClusterMask; }
  /// @return byte offset on the medium of a cluster of the volume
  long long GetByteOffFromFatIndex(unsigned int cluster) const {
    return m_nDataByteOff + static_cast<long long>(Bytes64BitFromClusters(cluster - FIRST_CLUSTER));
  }
  CFatTable* FAT() { return this; }
  CFatFileSystem* FileSystem();
  CFatDir* Root() const { return m_pRoot; }
  CVolumeStorage* Storage() const { return m_pStorage; }

  // The storage's transfers, unchanged.
  [[nodiscard]] int ReadBytes(unsigned char* buffer, long long position, unsigned int count) {
    return m_pStorage->ReadBytes(buffer, position, count);
  }
  [[nodiscard]] int WriteBytes(unsigned char* buffer, long long position, unsigned int count) {
    return m_pStorage->WriteBytes(buffer, position, count);
  }
  [[nodiscard]] int ReadBytesAligned(unsigned char* buffer, long long position, unsigned int count) {
    return m_pStorage->ReadBytesAligned(buffer, position, count);
  }
  [[nodiscard]] int WriteBytesAligned(unsigned char* buffer, long long position, unsigned int count) {
    return m_pStorage->WriteBytesAligned(buffer, position, count);
  }
  [[nodiscard]] int ReadSectors(unsigned char* buffer, long long position, unsigned int count) {
    return m_pStorage->ReadSectors(buffer, position, count);
  }
  [[nodiscard]] int WriteSectors(unsigned char* buffer, long long position, unsigned int count) {
    return m_pStorage->WriteSectors(buffer, position, count);
  }

  /// Every file and directory object of this volume whose resources are live, oldest first; kept by the objects.
  _LST_ENTRY* Objects() { return &m_Objects; }

 protected:
  CFatVolume();

 private:
  int CheckGeometry(const FAT_MPB& mpb) const;
  int OpenRootDir(unsigned int rootCluster, unsigned int rootBytes);
  void ReleaseRoot(bool writeBack);
  void CopyFirstFat();

  CVolumeStorage* m_pStorage;  // not owned
  CFatDir* m_pRoot;            // a counted reference from mount to unmount
  unsigned int m_nFatStartSector;
  unsigned int m_nSectorsPerFat;  // 0 when the boot sector states no FAT
  unsigned int m_nClusters;       // valid cluster numbers are 2 .. m_nClusters + 1
  unsigned int m_nBytesPerSector;
  unsigned int m_nBytesPerCluster;
  unsigned int m_nClusterShift;
  unsigned int m_nClusterMask;
  long long m_nRootDirByteOff;   // FAT12/16: the fixed root area; FAT32: cluster RootDirCluster
  long long m_nDataByteOff;      // cluster 2
  unsigned int m_nFsInfoSector;  // FAT32 only
  FAT_IDX_BITS m_nFatBits;
  bool m_bFat32;
  _LST_ENTRY m_Objects;
};

#endif  // FATLIB_FATVOLUME_H
