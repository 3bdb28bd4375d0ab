/// @file VolumeBench.h
/// A volume mounted below the interface, on a medium that traces and fails transfers: a test sees the statuses of the
/// volume and of its FAT table as they are. Needs the library to be initialised (CLibFixture), and leaves nothing
/// behind.

#ifndef FATLIB_TESTS_VOLUMEBENCH_H
#define FATLIB_TESTS_VOLUMEBENCH_H

#include <cstdint>
#include <utility>
#include <vector>

#include "filesystem/FatFileSystem.h"
#include "storage/FatVolume.h"
#include "support/DiskImage.h"
#include "support/FaultStorage.h"

class CVolumeBench {
 public:
  explicit CVolumeBench(CDiskImage image) : m_Medium(std::move(image)), m_Storage(m_Medium) {}
  ~CVolumeBench() {
    m_FileSystem.Abandon();
    if (m_bOpen) m_Storage.Close();
  }
  CVolumeBench(const CVolumeBench&) = delete;
  CVolumeBench& operator=(const CVolumeBench&) = delete;

  /// Opens the storage. Afterwards the trace is empty and no fault has been met.
  int Open() {
    const int status = m_Storage.Open(nullptr);
    m_bOpen = status >= 0;
    m_Medium.ClearTrace();
    return status;
  }
  /// Mounts the volume on the opened storage. @return the status of CFatVolume::Mount
  int MountOpened() { return Volume().Mount(&m_Storage); }
  /// Opens and mounts, and then clears the trace.
  int Mount() {
    int status = Open();
    if (status >= 0) status = MountOpened();
    m_Medium.ClearTrace();
    return status;
  }
  /// @return the status of CFatVolume::Unmount
  int Unmount() { return Volume().Unmount(); }

  /// Mounts a volume and then puts another FAT table in the place of its own: one of any width and size, whose FAT
  /// starts where the volume's does. The trace holds the transfers of Create alone.
  int MountWithTable(FAT_IDX_BITS bits, unsigned int sectorShift, unsigned int clusters) {
    int status = Mount();
    if (status >= 0) status = Table().Destory();
    m_Medium.ClearTrace();
    return status < 0 ? status : Table().Create(bits, sectorShift, clusters);
  }

  CMedium& Medium() { return m_Medium; }
  CDiskImage& Image() { return m_Medium.Image(); }
  CFatFileSystem& FileSystem() { return m_FileSystem; }
  CFatVolume& Volume() { return m_FileSystem; }
  CFatTable& Table() { return m_FileSystem; }
  CFaultStorage& Storage() { return m_Storage; }

  /// The entry of a cluster. A failing read gives all ones.
  unsigned int Next(unsigned int cluster) {
    unsigned int next = 0;
    return Table().ReadNextClusterNo(cluster, next) >= 0 ? next : 0xFFFFFFFFu;
  }
  int SetNext(unsigned int cluster, unsigned int value) { return Table().WriteNextClusterNo(cluster, value); }

 private:
  CMedium m_Medium;
  CFaultStorage m_Storage;
  CFatFileSystem m_FileSystem;
  bool m_bOpen = false;
};

/// A FAT as one long row of bits: entry n of a FAT of width w is made of the bits from n x w on, lowest first, and bit
/// b is bit b mod 8 of byte b / 8. This holds for all three widths.
class CFatBits {
 public:
  CFatBits(std::vector<unsigned char> fat, unsigned int width) : m_Fat(std::move(fat)), m_nWidth(width) {}

  std::uint32_t Get(std::uint64_t n) const {
    std::uint32_t value = 0;
    for (unsigned int i = m_nWidth; i-- > 0;) {
      const std::uint64_t bit = n * m_nWidth + i;
      value = value << 1 | (static_cast<std::uint32_t>(m_Fat.at(ToSize(bit / 8))) >> bit % 8 & 1u);
    }
    return value;
  }
  void Set(std::uint64_t n, std::uint32_t value) {
    for (unsigned int i = 0; i < m_nWidth; ++i) {
      const std::uint64_t bit = n * m_nWidth + i;
      unsigned char& byte = m_Fat.at(ToSize(bit / 8));
      const unsigned int mask = 1u << bit % 8;
      byte = static_cast<unsigned char>((value >> i & 1) != 0 ? byte | mask : byte & ~mask);
    }
  }
  const std::vector<unsigned char>& Bytes() const { return m_Fat; }
  /// Bytes that hold so many entries.
  static std::uint64_t BytesFor(std::uint64_t entries, unsigned int width) { return (entries * width + 7) / 8; }

 private:
  std::vector<unsigned char> m_Fat;
  unsigned int m_nWidth;
};

#endif  // FATLIB_TESTS_VOLUMEBENCH_H
