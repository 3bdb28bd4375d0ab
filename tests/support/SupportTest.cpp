/// @file SupportTest.cpp
/// The tests' own tools, held against fsck.fat and mtools, and against defects planted on purpose.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "platform/Platform.h"
#include "support/DiskImage.h"
#include "support/FaultStorage.h"
#include "support/ImageBuilder.h"
#include "support/MemHooks.h"
#include "support/Process.h"
#include "support/Utf16.h"
#include "support/VolumeReader.h"

namespace {

using BYTES = std::vector<unsigned char>;

// ---------------------------------------------------------------- images

TEST(DiskImage, WriteAcrossPages_ReadsBackAndLeavesTheRestZero) {
  CDiskImage image(20000);
  const BYTES bytes = CImageBuilder::Pattern(9000, 1);
  image.WriteBytes(4000, bytes);
  EXPECT_EQ(image.ReadBytes(4000, bytes.size()), bytes);
  EXPECT_EQ(image.ReadBytes(0, 4000), BYTES(4000));
  EXPECT_EQ(image.ReadBytes(13000, 9000), BYTES(9000));
}

TEST(DiskImage, CopyIsWritten_OriginalStays) {
  CDiskImage image(8192);
  image.Set32(100, 0x11223344);
  CDiskImage copy = image;
  EXPECT_EQ(image, copy);
  copy.Set8(101, 0);
  EXPECT_EQ(image.Get32(100), 0x11223344u);
  EXPECT_EQ(CDiskImage::Differences(image, copy), std::vector<std::uint64_t>{101});
}

TEST(DiskImage, CutAndGrownAgain_ReadsZeroBehindTheCut) {
  CDiskImage image(BYTES(10000, 0xEE));
  image.Resize(5000);
  image.Resize(10000);
  EXPECT_EQ(image.Get8(4999), 0xEE);
  EXPECT_EQ(image.ReadBytes(5000, 5000), BYTES(5000));
}

TEST(DiskImage, FileAndBack_KeepsBytesBeyondFourGiB) {
  const CTempDir directory;
  CDiskImage image(6ull << 30);
  image.Set32((5ull << 30) + 7, 0xCAFEF00D);
  image.Set16(510, 0xAA55);
  image.ToFile(directory / "sparse");
  EXPECT_EQ(CDiskImage::FromFile(directory / "sparse"), image);
  CFileImage file(directory / "sparse");
  EXPECT_EQ(file.Size(), 6ull << 30);
  EXPECT_EQ(file.Get32((5ull << 30) + 7), 0xCAFEF00Du);
  file.Set8((5ull << 30) + 7, 1);
  EXPECT_EQ(CDiskImage::FromFile(directory / "sparse").Get32((5ull << 30) + 7), 0xCAFEF001u);
}

TEST(Utf16, EveryKindOfUnit_SurvivesTheWayThereAndBack) {
  const UTF16 units = {0x41, 0x7FF, 0x800, 0xFFFD, 0xD83D, 0xDE00, 0xD800, 0x42, 0xDC00};
  EXPECT_EQ(ToUtf16(ToUtf8(units)), units);
  EXPECT_EQ(ToUtf16("\xF0\x9F\x98\x80"), (UTF16{0xD83D, 0xDE00}));
  EXPECT_EQ(ToUtf8(UTF16{0x440, 0x6F22}), "\xD1\x80\xE6\xBC\xA2");
}

// ---------------------------------------------------------------- builder and reader

struct SHAPE {
  const char* Name;
  FAT_GEOMETRY Geometry;
};
void PrintTo(const SHAPE& shape, std::ostream* out) { *out << shape.Name; }

FAT_GEOMETRY Shape(unsigned int bits, unsigned int sector, unsigned int perCluster, unsigned int clusters,
                   unsigned int fats = 2) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = bits;
  geometry.BytesPerSector = sector;
  geometry.SectorsPerCluster = perCluster;
  geometry.Clusters = clusters;
  geometry.NumberOfFats = fats;
  return geometry;
}

// A fragmented file, an empty one, long names, nested directories, a directory of two clusters that are not neighbours.
void Populate(CImageBuilder& builder) {
  const unsigned int cluster = builder.ClusterBytes();
  builder.AddLabel(CImageBuilder::Root(), "A LABEL");
  builder.AddFile(CImageBuilder::Root(), "PLAIN.TXT", CImageBuilder::Bytes("plain text\n"));
  builder.AddFile(CImageBuilder::Root(), "EMPTY");
  builder.AddFile(CImageBuilder::Root(), "Fragmented file.bin", CImageBuilder::Pattern(3 * cluster - 1, 1),
                  {30, 20, 25});
  const CImageBuilder::DIRECTORY top = builder.AddDir(CImageBuilder::Root(), "Top directory", {40, 35});
  const CImageBuilder::DIRECTORY inner = builder.AddDir(top, "INNER");
  builder.AddFile(inner, "\xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82.txt", CImageBuilder::Pattern(100, 2));
  builder.AddFile(inner, "exactly13char", CImageBuilder::Pattern(cluster, 3));
  builder.AddFile(inner, "and fourteen c", CImageBuilder::Pattern(cluster + 1, 4));
}

class BuiltVolume : public ::testing::TestWithParam<SHAPE> {};

TEST_P(BuiltVolume, ReaderFindsTheTreeAndNoProblem) {
  CImageBuilder builder(GetParam().Geometry);
  Populate(builder);
  const CVolumeReader reader(builder.Image());
  EXPECT_EQ(reader.ProblemText(), "");
  EXPECT_EQ(reader.LostClusters(), std::vector<std::uint32_t>{});
  EXPECT_EQ(reader.FatBits(), GetParam().Geometry.FatBits);
  EXPECT_EQ(reader.Clusters(), GetParam().Geometry.Clusters);
  EXPECT_EQ(reader.FreeClusters(), builder.CountFree());
  EXPECT_EQ(reader.Label(), "A LABEL    ");
  ASSERT_EQ(reader.Tree().size(), 8u);
  const unsigned int cluster = builder.ClusterBytes();
  const VOLUME_NODE* fragmented = reader.Find("Fragmented file.bin");
  ASSERT_NE(fragmented, nullptr);
  EXPECT_EQ(fragmented->Clusters, (std::vector<std::uint32_t>{30, 20, 25}));
  EXPECT_EQ(reader.Content(*fragmented), CImageBuilder::Pattern(3 * cluster - 1, 1));
  EXPECT_EQ(fragmented->Hash, CVolumeReader::HashOf(CImageBuilder::Pattern(3 * cluster - 1, 1)));
  const VOLUME_NODE* fourteen = reader.Find("Top directory\\INNER\\and fourteen c");
  ASSERT_NE(fourteen, nullptr);
  EXPECT_EQ(reader.Content(*fourteen), CImageBuilder::Pattern(cluster + 1, 4));
  EXPECT_EQ(reader.Find("Top directory")->Clusters, (std::vector<std::uint32_t>{40, 35}));
}

TEST_P(BuiltVolume, TakenUpAgain_GrowsFromWhereItWas) {
  CImageBuilder first(GetParam().Geometry);
  Populate(first);
  CDiskImage image = first.Image();
  CImageBuilder second(image);
  EXPECT_EQ(second.Geometry().Clusters, GetParam().Geometry.Clusters);
  EXPECT_EQ(second.DataOffset(), first.DataOffset());
  second.AddFile(CImageBuilder::Root(), "One more file", CImageBuilder::Pattern(700, 9));
  const CImageBuilder::DIRECTORY top = second.AdoptDir(40);
  second.AddFile(top, "BELOW.TXT", CImageBuilder::Pattern(10, 10));
  const CVolumeReader reader(image);
  EXPECT_EQ(reader.ProblemText(), "");
  EXPECT_EQ(reader.Tree().size(), 10u);
  ASSERT_NE(reader.Find("One more file"), nullptr);
  EXPECT_EQ(reader.Content(*reader.Find("One more file")), CImageBuilder::Pattern(700, 9));
  EXPECT_NE(reader.Find("Top directory\\BELOW.TXT"), nullptr);
}

// fsck.fat knows neither sectors below 512 bytes nor a third FAT.
class BuiltVolumeForTools : public BuiltVolume {};

TEST_P(BuiltVolumeForTools, FsckAndMtoolsAgree) {
  CImageBuilder builder(GetParam().Geometry);
  Populate(builder);
  const CTempDir directory;
  builder.Image().ToFile(directory / "image");
  const PROCESS_RESULT fsck = RunProcess({"fsck.fat", "-n", directory / "image"});
  EXPECT_TRUE(fsck.Ok()) << fsck.Output;
  RunOrThrow(
      {"mcopy", "-s", "-n", "-i", directory / "image", "::Top directory", "::Fragmented file.bin", directory.Path()});
  const unsigned int cluster = builder.ClusterBytes();
  EXPECT_EQ(ReadHostFile(directory / "Fragmented file.bin"), CImageBuilder::Pattern(3 * cluster - 1, 1));
  EXPECT_EQ(ReadHostFile(directory / "Top directory/INNER/and fourteen c"), CImageBuilder::Pattern(cluster + 1, 4));
  EXPECT_EQ(ReadHostFile(directory / "Top directory/INNER/exactly13char"), CImageBuilder::Pattern(cluster, 3));
  EXPECT_EQ(ReadHostFile(directory / "Top directory/INNER/\xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82.txt"),
            CImageBuilder::Pattern(100, 2));
}

const std::vector<SHAPE> s_ToolShapes = {{"Fat12", Shape(12, 512, 1, 2000)},
                                         {"Fat16", Shape(16, 512, 2, 6000)},
                                         {"Fat16Sectors4096", Shape(16, 4096, 1, 5000)},
                                         {"Fat16Sectors1024", Shape(16, 1024, 1, 5000)},
                                         {"Fat32", Shape(32, 512, 1, 70000)},
                                         {"Fat32Clusters64K", Shape(32, 512, 128, 66000)}};
std::string NameOf(const ::testing::TestParamInfo<SHAPE>& shape) { return shape.param.Name; }

INSTANTIATE_TEST_SUITE_P(Shapes, BuiltVolume, ::testing::ValuesIn(s_ToolShapes), NameOf);
INSTANTIATE_TEST_SUITE_P(OddShapes, BuiltVolume,
                         ::testing::Values(SHAPE{"Fat12Sectors128", Shape(12, 128, 4, 3000)},
                                           SHAPE{"Fat16ThreeFats", Shape(16, 1024, 1, 5000, 3)}),
                         NameOf);
INSTANTIATE_TEST_SUITE_P(Shapes, BuiltVolumeForTools, ::testing::ValuesIn(s_ToolShapes), NameOf);

struct DEFECT {
  const char* Name;
  std::function<void(CImageBuilder&)> Plant;
  const char* Words;  // what the reader must say
};
void PrintTo(const DEFECT& defect, std::ostream* out) { *out << defect.Name; }

class PlantedDefect : public ::testing::TestWithParam<DEFECT> {};

TEST_P(PlantedDefect, ReaderNamesIt) {
  CImageBuilder builder(Shape(16, 512, 1, 5000));
  Populate(builder);
  GetParam().Plant(builder);
  const CVolumeReader reader(builder.Image());
  EXPECT_NE(reader.ProblemText().find(GetParam().Words), std::string::npos) << reader.ProblemText();
}

INSTANTIATE_TEST_SUITE_P(
    Defects, PlantedDefect,
    ::testing::Values(
        DEFECT{"Loop", [](CImageBuilder& b) { b.SetFatEntry(25, 30); }, "cluster 30 is used twice"},
        DEFECT{"CrossLink", [](CImageBuilder& b) { b.SetFatEntry(35, 20); }, "cluster 20 is used twice"},
        DEFECT{"PastTheEnd", [](CImageBuilder& b) { b.SetFatEntry(20, 5002); }, "leaves the volume at 5002"},
        DEFECT{"IntoFree", [](CImageBuilder& b) { b.SetFatEntry(20, 4000); }, "runs into a free or bad cluster"},
        DEFECT{"ChainTooShort", [](CImageBuilder& b) { b.SetFatEntry(20, 0xFFFF); }, "2 clusters for 1535 bytes"},
        DEFECT{"FatsDiffer", [](CImageBuilder& b) { b.SetFatEntryIn(1, 4000, 1); }, "FAT copy 2 differs"},
        DEFECT{
            "StrayLongEntry",
            [](CImageBuilder& b) { b.Append(CImageBuilder::Root(), CImageBuilder::LongEntries(ToUtf16("alone"), 1)); },
            "long-name run at the end"},
        DEFECT{"WrongChecksum",
               [](CImageBuilder& b) {
                 b.Append(CImageBuilder::Root(), CImageBuilder::LongEntries(ToUtf16("wrong"), 1));
                 b.AddFile(CImageBuilder::Root(), "SHORT");
               },
               "long-name run without its short entry"},
        DEFECT{"DotDotElsewhere",
               [](CImageBuilder& b) {
                 const CImageBuilder::DIRECTORY top = b.AdoptDir(40);
                 b.SetEntry(top, 1, CImageBuilder::ShortEntry(CImageBuilder::ShortName11("..         "), 0x10, 9, 0));
               },
               "wrong \"..\""},
        DEFECT{"SameNameTwice", [](CImageBuilder& b) { b.AddFile(CImageBuilder::Root(), "plain.txt"); },
               "name \"plain.txt\" twice"},
        DEFECT{"FatTooSmall", [](CImageBuilder& b) { b.Store().Set16(22, 3); }, "FAT too small"}),
    [](const ::testing::TestParamInfo<DEFECT>& defect) { return defect.param.Name; });

TEST(VolumeReader, ClustersThatNothingReaches_AreLost) {
  CImageBuilder builder(Shape(16, 512, 1, 5000));
  Populate(builder);
  builder.SetChain({4000, 4001});
  const CVolumeReader reader(builder.Image());
  EXPECT_EQ(reader.ProblemText(), "");
  EXPECT_EQ(reader.LostClusters(), (std::vector<std::uint32_t>{4000, 4001}));
}

// ---------------------------------------------------------------- the fault storage

class FaultStorage : public ::testing::Test {
 protected:
  FaultStorage() : m_Medium(MakeImage()), m_Storage(m_Medium) { EXPECT_EQ(m_Storage.Open(nullptr), 0); }
  ~FaultStorage() override { EXPECT_EQ(m_Storage.Close(), 1); }

  static CDiskImage MakeImage() {
    CImageBuilder builder(Shape(16, 512, 1, 5000));
    return builder.Image();
  }
  int ReadSector(unsigned int sector) { return m_Storage.ReadSectors(m_Buffer, sector, 1); }
  int WriteSector(unsigned int sector) { return m_Storage.WriteSectors(m_Buffer, sector, 1); }

  CMedium m_Medium;
  CFaultStorage m_Storage;
  unsigned char m_Buffer[4096] = {};
};

TEST_F(FaultStorage, EveryTransferForm_IsTracedInBytes) {
  m_Medium.ClearTrace();
  EXPECT_EQ(m_Storage.ReadBytes(m_Buffer, 100, 1000), 0);
  EXPECT_EQ(m_Storage.WriteBytesAligned(m_Buffer, 1024, 512), 512);
  EXPECT_EQ(m_Storage.ReadSectors(m_Buffer, 7, 2), 1024);
  const std::vector<IO_RECORD> expected = {{IO_KIND::ReadBytes, 100, 1000, 0},
                                           {IO_KIND::WriteBytesAligned, 1024, 512, 512},
                                           {IO_KIND::ReadSectors, 3584, 1024, 1024}};
  EXPECT_EQ(m_Medium.Trace(), expected) << m_Medium.TraceText();
  EXPECT_EQ(m_Medium.Reads(), 2u);
  EXPECT_EQ(m_Medium.Writes(), 1u);
  EXPECT_EQ(m_Medium.BytesRead(), 2024u);
  EXPECT_EQ(m_Medium.BytesWritten(), 512u);
  EXPECT_EQ(m_Medium.TransfersWhileClosed(), 0u);
}

TEST_F(FaultStorage, NthTransferFailsOnce_OthersSucceed) {
  m_Medium.FailAt(2, FAULT_ONCE);
  EXPECT_GE(ReadSector(1), 0);
  EXPECT_FALSE(m_Medium.Fired());
  EXPECT_EQ(ReadSector(1), CMedium::IO_ERROR);
  EXPECT_TRUE(m_Medium.Fired());
  EXPECT_GE(ReadSector(1), 0);
}

TEST_F(FaultStorage, FailingForGood_LastsUntilHealed) {
  m_Medium.FailAt(2, FAULT_FOR_GOOD, IO_FILTER::Writes, -1);
  EXPECT_GE(WriteSector(3000), 0);
  EXPECT_GE(ReadSector(1), 0);
  EXPECT_EQ(WriteSector(3000), -1);
  EXPECT_EQ(WriteSector(3001), -1);
  EXPECT_GE(ReadSector(1), 0);
  m_Medium.Heal();
  EXPECT_GE(WriteSector(3000), 0);
}

TEST_F(FaultStorage, FailedWrite_StoresNothing) {
  m_Buffer[0] = 0x77;
  m_Medium.FailAt(1, FAULT_ONCE);
  EXPECT_LT(WriteSector(3000), 0);
  EXPECT_EQ(m_Medium.Image().Get8(3000 * 512), 0);
}

TEST_F(FaultStorage, RangeFails_OnlyForTransfersThatTouchIt) {
  m_Medium.FailRange(2048, 1, IO_FILTER::Reads);
  EXPECT_GE(ReadSector(3), 0);
  EXPECT_LT(ReadSector(4), 0);
  EXPECT_LT(m_Storage.ReadSectors(m_Buffer, 0, 8), 0);
  EXPECT_GE(ReadSector(5), 0);
  EXPECT_GE(WriteSector(4), 0);
}

TEST_F(FaultStorage, ShortRead_DeliversTheStartAndZeros) {
  m_Medium.Image().Fill(3000 * 512, 512, 0x55);
  std::fill(std::begin(m_Buffer), std::end(m_Buffer), static_cast<unsigned char>(0xCC));
  m_Medium.ShortenReadAt(1, 100);
  EXPECT_EQ(ReadSector(3000), 100);
  EXPECT_EQ(m_Buffer[99], 0x55);
  EXPECT_EQ(m_Buffer[100], 0);
  EXPECT_EQ(m_Buffer[511], 0);
  EXPECT_EQ(m_Buffer[512], 0xCC);
}

TEST_F(FaultStorage, ShortWrite_StoresTheStartAndSucceeds) {
  std::fill(std::begin(m_Buffer), std::end(m_Buffer), static_cast<unsigned char>(0x66));
  m_Medium.ShortenWriteAt(1, 10);
  EXPECT_EQ(WriteSector(3000), 10);
  EXPECT_EQ(m_Medium.Image().Get8(3000 * 512 + 9), 0x66);
  EXPECT_EQ(m_Medium.Image().Get8(3000 * 512 + 10), 0);
}

TEST_F(FaultStorage, PastTheEnd_IsCountedAndRefusedOnDemand) {
  const unsigned int end = static_cast<unsigned int>(m_Medium.Image().Size() / 512);
  EXPECT_EQ(ReadSector(end), 0);
  EXPECT_EQ(m_Medium.OutOfRange(), 1u);
  m_Medium.RefuseOutOfRange(true);
  EXPECT_EQ(WriteSector(end), CMedium::IO_ERROR);
  EXPECT_EQ(m_Medium.Image().Size(), end * 512ull);
  m_Medium.RefuseOutOfRange(false);
  EXPECT_EQ(WriteSector(end), 512);
  EXPECT_EQ(m_Medium.Image().Size(), (end + 1) * 512ull);
}

// ---------------------------------------------------------------- memory and clock

TEST(MemHooks, BlocksOutAndTheirBytes_AreCounted) {
  CMemHooks hooks;
  void* first = osMemAlloc(100);
  void* second = osMemAllocZeroed(50);
  second = osMemRealloc(second, 70);
  EXPECT_EQ(hooks.Outstanding(), 2u);
  EXPECT_EQ(hooks.OutstandingBytes(), 170u);
  EXPECT_EQ(hooks.Allocations(), 3u);
  osMemFree(first);
  osMemFree(second);
  osMemFree(nullptr);
  EXPECT_EQ(hooks.Outstanding(), 0u);
  EXPECT_EQ(hooks.PeakBytes(), 170u);
  EXPECT_EQ(hooks.UnknownFrees(), 0u);
}

TEST(MemHooks, NthAllocationFails_OnceOrForGood) {
  CMemHooks hooks;
  hooks.FailAt(2, CMemHooks::ONCE);
  void* first = osMemAlloc(1);
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(osMemAlloc(1), nullptr);
  EXPECT_TRUE(hooks.Fired());
  first = osMemRealloc(first, 2);
  EXPECT_NE(first, nullptr);
  hooks.FailAt(1, CMemHooks::FOR_GOOD);
  EXPECT_EQ(osMemRealloc(first, 3), nullptr);
  EXPECT_EQ(osMemAllocZeroed(1), nullptr);
  hooks.FailAbove(1000);
  EXPECT_EQ(osMemAlloc(1000), nullptr);
  void* small = osMemAlloc(999);
  EXPECT_NE(small, nullptr);
  osMemFree(small);
  osMemFree(first);
  EXPECT_EQ(hooks.Outstanding(), 0u);
}

TEST(MemHooks, BlockFromBefore_CountsAsUnknown) {
  void* before = std::malloc(1);
  CMemHooks hooks;
  osMemFree(before);
  EXPECT_EQ(hooks.UnknownFrees(), 1u);
}

TEST(FixedClock, ClockStandsStill_UntilTheObjectGoes) {
  {
    const CFixedClock clock(86400);
    EXPECT_EQ(osTime(nullptr), 86400);
  }
  EXPECT_GT(osTime(nullptr), 86400);
}

TEST(Process, ExitCodeAndOutput_ComeBack) {
  const PROCESS_RESULT result = RunProcess({"sh", "-c", "echo out; echo err >&2; exit 3"});
  EXPECT_EQ(result.ExitCode, 3);
  EXPECT_EQ(result.Output, "out\nerr\n");
  EXPECT_EQ(RunProcess({"/nonexistent"}).ExitCode, 127);
}

}  // namespace
