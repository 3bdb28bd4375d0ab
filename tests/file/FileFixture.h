/// @file FileFixture.h
/// The frame of the tests of file objects: a volume on a medium that traces, objects opened by path and closed by
/// themselves, and a way to empty the block cache.

#ifndef FATLIB_TESTS_FILEFIXTURE_H
#define FATLIB_TESTS_FILEFIXTURE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "filesystem/FatFileSystem.h"
#include "support/LibFixture.h"

namespace filetest {

using BYTES = std::vector<unsigned char>;
using CLUSTERS = std::vector<std::uint32_t>;
using TRACE = std::vector<IO_RECORD>;

constexpr unsigned int BLOCK = 0x40000;
constexpr int INVALID_PARAMETER = static_cast<int>(0xC000000Du);
constexpr int END_OF_FILE = static_cast<int>(0xC0000011u);
constexpr int NO_MEMORY = static_cast<int>(0xC0000017u);
constexpr int DISK_CORRUPT = static_cast<int>(0xC0000032u);
constexpr int DISK_FULL = static_cast<int>(0xC000007Fu);
constexpr int FILE_CORRUPT = static_cast<int>(0xC0000102u);
constexpr int IO_ERROR = static_cast<int>(0xC0000185u);
constexpr int NOT_FOUND = static_cast<int>(0xC0000225u);

/// An object opened by path, closed when this one goes. It may outlive the mount: then only its shell is left.
class COpened {
 public:
  COpened(CFatFileSystem& fs, const std::string& path) { Status = fs.OpenFile(CPath(path), &m_pFile); }
  ~COpened() { Close(); }
  COpened(const COpened&) = delete;
  COpened& operator=(const COpened&) = delete;

  void Close() {
    if (m_pFile != nullptr) (void)m_pFile->Close();
    m_pFile = nullptr;
  }
  CFatFile* operator->() const { return m_pFile; }
  CFatFile& operator*() const { return *m_pFile; }
  CFatFile* Get() const { return m_pFile; }
  CFatDir* Dir() const { return static_cast<CFatDir*>(m_pFile); }

  int Status;

 private:
  CFatFile* m_pFile = nullptr;
};

class CFileFixture : public CLibFixture {
 protected:
  void TearDown() override {
    m_pFillerFile.reset();
    CLibFixture::TearDown();
  }

  /// Mounts the builder's volume and forgets the transfers of mounting.
  CFatFileSystem& MountBuilt(CImageBuilder& builder) {
    m_pMedium = std::make_unique<CMedium>(builder.Image());
    m_pFs = MountMedium(*m_pMedium);
    if (m_pFs == nullptr) throw std::runtime_error("the volume does not mount");
    m_pMedium->ClearTrace();
    return *m_pFs;
  }
  /// @return the image, as it is without the library
  CDiskImage& UnmountBuilt() {
    EXPECT_TRUE(Unmount(m_pFs));
    m_pFs = nullptr;
    return m_pMedium->Image();
  }
  CFatFileSystem& Fs() { return *m_pFs; }
  CMedium& Medium() { return *m_pMedium; }

  /// Fills the whole pool with blocks of another volume: everything cached is written where it is dirty, and gone.
  void EvictAllBlocks() {
    constexpr unsigned int POOL_BLOCKS = 256;
    if (m_pFillerFile == nullptr) {
      FAT_GEOMETRY geometry;
      geometry.FatBits = 32;
      geometry.SectorsPerCluster = 128;
      geometry.Clusters = 2000;
      CImageBuilder builder(geometry);
      ENTRY_OPTIONS options;
      options.SetSize = options.SetFirstCluster = true;
      options.Size = POOL_BLOCKS * BLOCK;
      options.FirstCluster = 10;
      builder.AddFile(CImageBuilder::Root(), "FILLER", {}, {}, options);
      CLUSTERS clusters;
      for (std::uint32_t c = 0; c < options.Size / builder.ClusterBytes(); ++c) clusters.push_back(10 + c);
      builder.SetChain(clusters);
      m_pFillerMedium = std::make_unique<CMedium>(builder.Image());
      m_pFillerMedium->KeepTrace(false);
      CFatFileSystem* fs = MountMedium(*m_pFillerMedium);
      m_pFillerFile = std::make_unique<COpened>(*fs, "FILLER");
    }
    ASSERT_GE(m_pFillerFile->Status, 0);
    for (unsigned int blk = 0; blk < POOL_BLOCKS; ++blk) {
      unsigned char byte;
      unsigned int done;
      // A victim whose write-back fails is another volume's matter: the next block is tried again.
      (void)(*m_pFillerFile)->Read(static_cast<long long>(blk) * BLOCK, 1, &byte, &done);
    }
  }

  /// Bytes of an object in steps that are aligned with its blocks.
  static BYTES ReadObject(CFatFile& file, unsigned int size) {
    BYTES bytes(size);
    for (unsigned int pos = 0; pos < size; pos += BLOCK) {
      unsigned int done;
      EXPECT_GE(file.Read(pos, std::min(BLOCK, size - pos), bytes.data() + pos, &done), 0) << "at " << pos;
    }
    return bytes;
  }
  static int WriteAt(CFatFile& file, long long pos, BYTES bytes) {
    unsigned int done;
    return file.Write(pos, static_cast<unsigned int>(bytes.size()), bytes.data(), &done);
  }

  /// Cluster numbers of an object by its map.
  static CLUSTERS Mapped(CFatFile& file) {
    CLUSTERS clusters;
    for (unsigned int run = 1; run <= file.Runs()->NumberOfRuns(); ++run) {
      for (unsigned int i = 0; i < file.Runs()->LengthOfRun(run); ++i)
        clusters.push_back(file.Runs()->StartingLbn(run) + i);
    }
    return clusters;
  }

 private:
  std::unique_ptr<CMedium> m_pMedium;
  CFatFileSystem* m_pFs = nullptr;
  std::unique_ptr<CMedium> m_pFillerMedium;
  std::unique_ptr<COpened> m_pFillerFile;
};

/// A volume of each FAT width with 512-byte clusters, as small as the width allows.
inline FAT_GEOMETRY SmallVolume(unsigned int fatBits) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = fatBits;
  geometry.Clusters = fatBits == 16 ? 4200 : 600;
  return geometry;
}

/// The chain's clusters `first`, `first` + 1, ...
inline CLUSTERS Range(std::uint32_t first, std::uint32_t count) {
  CLUSTERS clusters;
  for (std::uint32_t i = 0; i < count; ++i) clusters.push_back(first + i);
  return clusters;
}
inline CLUSTERS operator+(CLUSTERS a, const CLUSTERS& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

/// Element `n` as an iterator.
template <class CONTAINER>
auto At(CONTAINER& container, std::size_t n) {
  return container.begin() + static_cast<std::ptrdiff_t>(n);
}

/// Content that is no directory: its first byte is 0, so that opening reads block 0 only.
inline BYTES Content(std::size_t count, std::uint32_t seed) {
  BYTES bytes = CImageBuilder::Pattern(count, seed);
  if (count != 0) bytes[0] = 0;
  return bytes;
}

}  // namespace filetest

#endif  // FATLIB_TESTS_FILEFIXTURE_H
