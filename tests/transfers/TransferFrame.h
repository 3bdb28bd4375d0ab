/// @file TransferFrame.h
/// What the tests of the sequence of transfers share. A host that puts its own storage under the library sees every
/// transfer, so which ones are made, with which form, offset and length, and in which order is behaviour.
///
/// A test says what it expects as a list, from the places that its image was built with:
///
///     const int file = Open("F");
///     EXPECT_TRUE(Made({ReadRun(At(10), 512), Read(At(11), 188)}));   // and nothing else since the last look
///
/// Made() forgets what it has compared, so the next look starts behind it.

#ifndef FATLIB_TESTS_TRANSFERFRAME_H
#define FATLIB_TESTS_TRANSFERFRAME_H

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "interface/FatLibIntf.h"
#include "support/FaultStorage.h"
#include "support/ImageBuilder.h"
#include "support/LibFixture.h"

namespace transfertest {

using TRANSFERS = std::vector<IO_RECORD>;

/// File data and FAT are kept in blocks of this size.
constexpr unsigned int BLOCK = 0x40000;
/// The boot sector is read before the sector size is known.
constexpr unsigned int BOOT_BYTES = 2048;
/// Blocks of file data that the library keeps, and objects.
constexpr unsigned int POOL_BLOCKS = 256;
constexpr unsigned int CACHED_OBJECTS = 160;

// ---------------------------------------------------------------------------------------------- one transfer

// The form is part of what a storage sees. Byte form: the boot sector, FSInfo, the fixed root, what does not start at a
// cluster's beginning, and the last piece of at most one cluster. Aligned form: whole clusters of one run. Sector form:
// the FAT. Offsets and lengths are in bytes for all three.
IO_RECORD Read(std::uint64_t offset, std::uint64_t bytes);
IO_RECORD Write(std::uint64_t offset, std::uint64_t bytes);
IO_RECORD ReadRun(std::uint64_t offset, std::uint64_t bytes);
IO_RECORD WriteRun(std::uint64_t offset, std::uint64_t bytes);
IO_RECORD ReadSectors(std::uint64_t offset, std::uint64_t bytes);
IO_RECORD WriteSectors(std::uint64_t offset, std::uint64_t bytes);

/// One list after another.
TRANSFERS Join(const std::vector<TRANSFERS>& lists);
/// A run list with the reads turned into writes: what loads a block is what stores it.
TRANSFERS AsWrites(TRANSFERS reads);

/// Whether a trace is exactly this list; if not, both are printed side by side.
::testing::AssertionResult Same(const TRANSFERS& made, const TRANSFERS& expected);

// ---------------------------------------------------------------------------------------------- volumes

/// The smallest usual volume of a width: 1,000, 5,000 or 70,000 clusters, the last with a FAT of two blocks.
FAT_GEOMETRY Geometry(unsigned int bits, unsigned int clusterBytes = 512);
/// `count` clusters from `first` on.
std::vector<std::uint32_t> Clusters(std::uint32_t first, unsigned int count);
/// A file of zeros: its clusters stay holes of the image.
void AddHoles(CImageBuilder& volume, CImageBuilder::DIRECTORY parent, const std::string& name, std::uint32_t size,
              const std::vector<std::uint32_t>& clusters);
/// Bytes of a file whose load as directory entries ends at once: the first byte is 0.
std::vector<unsigned char> EndsAtOnce(std::size_t count);
/// Bytes of a file that reads as entries up to its end: no byte is 0.
std::vector<unsigned char> Dense(std::size_t count);
/// A long-name piece that belongs to nothing: its slot is used, and it takes no memory.
RAW_ENTRY StrayEntry();

// ---------------------------------------------------------------------------------------------- fixture

/// One volume on a medium that traces.
class TransferTest : public CLibFixture {
 protected:
  /// A volume to fill. The one before it is given up.
  CImageBuilder& Build(const FAT_GEOMETRY& geometry);
  CImageBuilder& Volume() { return *m_pVolume; }
  CMedium& Medium() { return *m_pMedium; }

  /// Mounts what was built, and leaves the transfers of that in the trace.
  CFatFileSystem* MountTraced();
  /// Mounts what was built, and forgets the transfers of that.
  void MountQuietly();
  /// Unmounts, and leaves the transfers of that in the trace.
  bool UnmountTraced();

  /// True when exactly these transfers were made since the last look. Forgets them.
  ::testing::AssertionResult Made(const TRANSFERS& expected);
  /// True when none was.
  ::testing::AssertionResult MadeNone() { return Made({}); }

  // ---- places
  std::uint64_t At(std::uint32_t cluster) const { return m_pVolume->ClusterOffset(cluster); }
  std::uint64_t RootAt() const { return m_pVolume->RootOffset(); }
  bool Fat32() const { return m_pVolume->Geometry().FatBits == 32; }
  /// The lowest cluster that is free on an empty volume: the root of FAT32 has cluster 2.
  std::uint32_t FirstFree() const { return Fat32() ? 3 : 2; }
  /// Block `block` of the FAT: where it begins in the first copy, and how much of it is ever transferred, which is
  /// whole sectors up to the last one that holds an entry.
  std::uint64_t FatBlockAt(unsigned int block) const;
  std::uint64_t FatBlockBytes(unsigned int block) const;
  unsigned int FatBlocks() const;

  // ---- parts of lists
  /// The root directory's block 0, when the root is shorter than a block and, on FAT32, has one cluster.
  TRANSFERS RootRead() const;
  TRANSFERS RootWrite() const { return AsWrites(RootRead()); }
  TRANSFERS FatRead(unsigned int block) const { return {ReadSectors(FatBlockAt(block), FatBlockBytes(block))}; }
  TRANSFERS FatWrite(unsigned int block) const { return {WriteSectors(FatBlockAt(block), FatBlockBytes(block))}; }
  /// FSInfo's counters are set to "unknown"; only FAT32 has them.
  TRANSFERS FsInfoReset() const;
  /// The whole first FAT goes over the second: one read, one write.
  TRANSFERS FatCopied() const;
  /// Unmounting: FSInfo, the root, the FAT, the copy of the FAT, the objects.
  TRANSFERS Unmounting(const TRANSFERS& root, const TRANSFERS& fat, const TRANSFERS& objects) const;

  // ---- calls that must succeed
  int Open(const std::string& path);
  int Create(const std::string& path, unsigned int size = 0);
  void OpenAndClose(const std::string& path);
  void Close(int handle) { EXPECT_EQ(Fat_CloseFile(handle), 1u); }
  void Resize(int handle, unsigned int size) { EXPECT_EQ(Fat_SetFileSize(handle, size), 1u) << size; }
  /// Reads or writes `count` bytes at `offset`.
  void Get(int handle, long long offset, unsigned int count);
  void Put(int handle, long long offset, unsigned int count);
  void GetBlock(int handle, unsigned int block) { Get(handle, static_cast<long long>(block) * BLOCK, BLOCK); }
  void PutBlock(int handle, unsigned int block) { Put(handle, static_cast<long long>(block) * BLOCK, BLOCK); }

 private:
  std::unique_ptr<CImageBuilder> m_pVolume;
  std::unique_ptr<CMedium> m_pMedium;
  CFatFileSystem* m_pFileSystem = nullptr;
  std::vector<unsigned char> m_Buffer;   // what Get has read
  std::vector<unsigned char> m_Written;  // what Put writes
};

/// The same for each width of the FAT.
class TransferWidths : public TransferTest, public ::testing::WithParamInterface<unsigned int> {
 protected:
  static unsigned int Bits() { return GetParam(); }
};

/// A file F of 12 blocks and 100 bytes, contiguous and open: its block 0 is in memory.
class TransfersOfAFile : public TransferWidths {
 protected:
  static constexpr unsigned int CLUSTER = 4096;
  static constexpr unsigned int PER_BLOCK = BLOCK / CLUSTER;
  static constexpr unsigned int SIZE = 12 * BLOCK + 100;

  void SetUp() override {
    TransferWidths::SetUp();
    CImageBuilder& volume = Build(Geometry(Bits(), CLUSTER));
    AddHoles(volume, volume.Root(), "F", SIZE, Clusters(10, 12 * PER_BLOCK + 1));
    MountQuietly();
    m_hFile = Open("F");
    EXPECT_TRUE(Made({ReadRun(Pos(0), BLOCK)}));
  }
  /// Where a byte of the file lies.
  std::uint64_t Pos(std::uint64_t offset) const { return At(10) + offset; }

  int m_hFile = -1;
};

inline std::string WidthName(const ::testing::TestParamInfo<unsigned int>& bits) {
  return "Fat" + std::to_string(bits.param);
}

/// A suite of its own name over the three widths.
#define TRANSFER_WIDTHS(suite)            \
  class suite : public TransferWidths {}; \
  INSTANTIATE_TEST_SUITE_P(Widths, suite, ::testing::Values(12u, 16u, 32u), ::transfertest::WidthName)

}  // namespace transfertest

#endif  // FATLIB_TESTS_TRANSFERFRAME_H
