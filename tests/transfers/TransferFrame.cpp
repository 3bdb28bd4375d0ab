/// @file TransferFrame.cpp
/// Lists of transfers, and the volume whose transfers are looked at.

#include "transfers/TransferFrame.h"

#include <algorithm>
#include <sstream>

namespace transfertest {

namespace {

IO_RECORD Transfer(IO_KIND kind, std::uint64_t offset, std::uint64_t bytes) {
  return {kind, static_cast<long long>(offset), bytes, 0};
}

std::string Line(const TRANSFERS& list, std::size_t i) {
  std::ostringstream text;
  if (i < list.size()) {
    text << list[i];
  } else {
    text << "-";
  }
  return text.str();
}

}  // namespace

// ---------------------------------------------------------------------------------------------- one transfer

IO_RECORD Read(std::uint64_t offset, std::uint64_t bytes) { return Transfer(IO_KIND::ReadBytes, offset, bytes); }
IO_RECORD Write(std::uint64_t offset, std::uint64_t bytes) { return Transfer(IO_KIND::WriteBytes, offset, bytes); }
IO_RECORD ReadRun(std::uint64_t offset, std::uint64_t bytes) {
  return Transfer(IO_KIND::ReadBytesAligned, offset, bytes);
}
IO_RECORD WriteRun(std::uint64_t offset, std::uint64_t bytes) {
  return Transfer(IO_KIND::WriteBytesAligned, offset, bytes);
}
IO_RECORD ReadSectors(std::uint64_t offset, std::uint64_t bytes) {
  return Transfer(IO_KIND::ReadSectors, offset, bytes);
}
IO_RECORD WriteSectors(std::uint64_t offset, std::uint64_t bytes) {
  return Transfer(IO_KIND::WriteSectors, offset, bytes);
}

TRANSFERS Join(const std::vector<TRANSFERS>& lists) {
  TRANSFERS joined;
  for (const TRANSFERS& list : lists) joined.insert(joined.end(), list.begin(), list.end());
  return joined;
}

TRANSFERS AsWrites(TRANSFERS reads) {
  for (IO_RECORD& record : reads) {
    if (record.Kind == IO_KIND::ReadBytes) {
      record.Kind = IO_KIND::WriteBytes;
    } else if (record.Kind == IO_KIND::ReadBytesAligned) {
      record.Kind = IO_KIND::WriteBytesAligned;
    } else if (record.Kind == IO_KIND::ReadSectors) {
      record.Kind = IO_KIND::WriteSectors;
    }
  }
  return reads;
}

::testing::AssertionResult Same(const TRANSFERS& made, const TRANSFERS& expected) {
  if (made == expected) return ::testing::AssertionSuccess();
  ::testing::AssertionResult failure = ::testing::AssertionFailure();
  failure << "made | expected\n";
  const std::size_t count = std::max(made.size(), expected.size());
  for (std::size_t i = 0; i < count && i < 60; ++i) {
    const bool same = i < made.size() && i < expected.size() && made[i] == expected[i];
    failure << (same ? "  " : "! ") << Line(made, i) << " | " << Line(expected, i) << "\n";
  }
  return failure;
}

// ---------------------------------------------------------------------------------------------- volumes

FAT_GEOMETRY Geometry(unsigned int bits, unsigned int clusterBytes) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = bits;
  // At most 128 sectors make a cluster.
  geometry.BytesPerSector = clusterBytes > 128 * 512 ? 4096 : 512;
  geometry.SectorsPerCluster = clusterBytes / geometry.BytesPerSector;
  return geometry;
}

std::vector<std::uint32_t> Clusters(std::uint32_t first, unsigned int count) {
  std::vector<std::uint32_t> clusters(count);
  for (unsigned int i = 0; i < count; ++i) clusters[i] = first + i;
  return clusters;
}

void AddHoles(CImageBuilder& volume, CImageBuilder::DIRECTORY parent, const std::string& name, std::uint32_t size,
              const std::vector<std::uint32_t>& clusters) {
  ENTRY_OPTIONS options;
  options.SetSize = true;
  options.Size = size;
  volume.AddFile(parent, name, {}, clusters, options);
}

std::vector<unsigned char> EndsAtOnce(std::size_t count) {
  std::vector<unsigned char> bytes = CImageBuilder::Pattern(count, 1);
  bytes.at(0) = 0;
  return bytes;
}

std::vector<unsigned char> Dense(std::size_t count) { return std::vector<unsigned char>(count, 0xE5); }

RAW_ENTRY StrayEntry() {
  RAW_ENTRY entry{};
  entry[0] = 0x01;  // not the last piece of a name, with which a run would begin
  entry[11] = 0x0F;
  return entry;
}

// ---------------------------------------------------------------------------------------------- fixture

CImageBuilder& TransferTest::Build(const FAT_GEOMETRY& geometry) {
  m_pVolume = std::make_unique<CImageBuilder>(geometry);
  return *m_pVolume;
}

CFatFileSystem* TransferTest::MountTraced() {
  m_pMedium = std::make_unique<CMedium>(m_pVolume->Image());
  m_pFileSystem = MountMedium(*m_pMedium);
  return m_pFileSystem;
}

void TransferTest::MountQuietly() {
  ASSERT_NE(MountTraced(), nullptr);
  m_pMedium->ClearTrace();
}

bool TransferTest::UnmountTraced() { return Unmount(m_pFileSystem); }

::testing::AssertionResult TransferTest::Made(const TRANSFERS& expected) {
  ::testing::AssertionResult result = Same(m_pMedium->Trace(), expected);
  m_pMedium->ClearTrace();
  return result;
}

std::uint64_t TransferTest::FatBlockAt(unsigned int block) const {
  return m_pVolume->FatOffset(0) + static_cast<std::uint64_t>(block) * BLOCK;
}

unsigned int TransferTest::FatBlocks() const {
  // A FAT12 has at most 4,088 entries and a FAT16 at most 65,528, so that both fit one block.
  const std::uint64_t bytes = (static_cast<std::uint64_t>(m_pVolume->Geometry().Clusters) + 2) * 4;
  return Fat32() ? static_cast<unsigned int>((bytes + BLOCK - 1) / BLOCK) : 1;
}

std::uint64_t TransferTest::FatBlockBytes(unsigned int block) const {
  const FAT_GEOMETRY& geometry = m_pVolume->Geometry();
  const std::uint64_t bits = (static_cast<std::uint64_t>(geometry.Clusters) + 2) * geometry.FatBits;
  const std::uint64_t sectors = ((bits + 7) / 8 + geometry.BytesPerSector - 1) / geometry.BytesPerSector;
  const std::uint64_t rest = sectors * geometry.BytesPerSector - static_cast<std::uint64_t>(block) * BLOCK;
  return std::min<std::uint64_t>(rest, BLOCK);
}

TRANSFERS TransferTest::RootRead() const {
  if (Fat32()) return {Read(RootAt(), m_pVolume->ClusterBytes())};
  return {Read(RootAt(), std::uint64_t{m_pVolume->Geometry().RootEntries} * 32)};
}

TRANSFERS TransferTest::FsInfoReset() const {
  if (!Fat32()) return {};
  return {Read(m_pVolume->FsInfoOffset(), 512), Write(m_pVolume->FsInfoOffset(), 512)};
}

TRANSFERS TransferTest::FatCopied() const {
  const std::uint64_t bytes = m_pVolume->FatBytes();
  return {ReadSectors(m_pVolume->FatOffset(0), bytes), WriteSectors(m_pVolume->FatOffset(0) + bytes, bytes)};
}

TRANSFERS TransferTest::Unmounting(const TRANSFERS& root, const TRANSFERS& fat, const TRANSFERS& objects) const {
  return Join({FsInfoReset(), root, fat, FatCopied(), objects});
}

int TransferTest::Open(const std::string& path) {
  const int handle = Fat_OpenFile(CPath(path));
  EXPECT_GE(handle, 0) << path;
  return handle;
}

int TransferTest::Create(const std::string& path, unsigned int size) {
  const int handle = Fat_CreateFile(CPath(path), size, 0);
  EXPECT_GE(handle, 0) << path;
  return handle;
}

void TransferTest::OpenAndClose(const std::string& path) { Close(Open(path)); }

void TransferTest::Get(int handle, long long offset, unsigned int count) {
  if (m_Buffer.size() < count) m_Buffer.resize(count);
  unsigned int reported = 0;
  EXPECT_EQ(Fat_ReadFileEx(handle, offset, count, m_Buffer.data(), &reported), 1u) << offset << " " << count;
}

void TransferTest::Put(int handle, long long offset, unsigned int count) {
  if (m_Written.size() < count) m_Written.resize(count, 0x5A);
  unsigned int reported = 0;
  EXPECT_EQ(Fat_WriteFileEx(handle, offset, count, m_Written.data(), &reported), 1u) << offset << " " << count;
}

}  // namespace transfertest
