/// @file FormatTest.cpp
/// Volumes that Format has made, seen by other tools and by the library, and what failures leave.

#include <fatlib/Error.h>
#include <fatlib/FatLibIntf.h>
#include <fatlib/Format.h>
#include <fatlib/XStorage.h>
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "ImageDevice.h"
#include "support/Process.h"

namespace {

using fatlib::FormatOptions;
using fatlib::Geometry;
using fatlib::Status;
using BYTES = std::vector<unsigned char>;

constexpr std::uint64_t KIB = 1024;
constexpr std::uint64_t MIB = 1024 * KIB;
constexpr std::uint64_t GIB = 1024 * MIB;

struct VOLUME {
  const char* Name;
  std::uint64_t Bytes;
  int Bits;
  std::uint32_t BytesPerSector = 512;
  std::uint32_t BytesPerCluster = 0;
  std::uint32_t RootEntries = 0;
  std::uint32_t Alignment = 0;
};

std::ostream& operator<<(std::ostream& out, const VOLUME& volume) { return out << volume.Name; }

FormatOptions OptionsOf(const VOLUME& volume) {
  FormatOptions options;
  options.bits = volume.Bits;
  options.bytesPerSector = volume.BytesPerSector;
  options.bytesPerCluster = volume.BytesPerCluster;
  options.rootEntries = volume.RootEntries;
  options.alignment = volume.Alignment;
  options.volumeId = 0x1234ABCD;
  options.label = u"A Label";
  options.created.date = 0x5A21;  // 2025-01-01 12:00:00
  options.created.time = 0x6000;
  return options;
}

Geometry PlanOf(const VOLUME& volume) {
  Geometry geometry;
  EXPECT_FALSE(PlanFormat(volume.Bytes, OptionsOf(volume), &geometry));
  return geometry;
}

CDiskImage Formatted(std::uint64_t bytes, const FormatOptions& options) {
  CImageDevice device(bytes);
  const std::error_code error = Format(&device, options);
  EXPECT_FALSE(error) << error.message();
  return device.Image();
}

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// ---------------------------------------------------------------------------------------------- other programs

class FormattedVolume : public ::testing::TestWithParam<VOLUME> {
 protected:
  void SetUp() override { Formatted(GetParam().Bytes, OptionsOf(GetParam())).ToFile(Path()); }
  std::string Path() const { return m_Directory / "image"; }
  std::string TypeName() const { return "FAT" + std::to_string(static_cast<int>(PlanOf(GetParam()).type)); }

 private:
  CTempDir m_Directory;
};

TEST_P(FormattedVolume, FsckFindsNothing) {
  const PROCESS_RESULT fsck = RunProcess({"fsck.fat", "-n", Path()});
  EXPECT_EQ(0, fsck.ExitCode);
  const Geometry plan = PlanOf(GetParam());
  const unsigned int used = plan.type == fatlib::FatType::Fat32 ? 1 : 0;
  const std::string counts = std::to_string(used) + "/" + std::to_string(plan.clusters) + " clusters\n";
  const std::string last = fsck.Output.substr(fsck.Output.find('\n') + 1);  // behind the program's name
  EXPECT_EQ(last, Path() + ": 1 files, " + counts);                         // the label counts as one
}

TEST_P(FormattedVolume, MtoolsSeeTypeLayoutAndLabel) {
  const Geometry plan = PlanOf(GetParam());
  const std::string info = RunOrThrow({"minfo", "-i", Path(), "::"});
  EXPECT_TRUE(Contains(info, "disk type=\"" + TypeName() + "   \"")) << info;
  EXPECT_TRUE(Contains(info, "cluster size: " + std::to_string(plan.sectorsPerCluster) + " sectors")) << info;
  EXPECT_TRUE(Contains(info, "reserved (boot) sectors: " + std::to_string(plan.reservedSectors))) << info;
  const std::string list = RunOrThrow({"mdir", "-i", Path(), "::"});
  EXPECT_TRUE(Contains(list, "Volume in drive : is A LABEL")) << list;
  EXPECT_TRUE(Contains(list, "Volume Serial Number is 1234-ABCD")) << list;
  EXPECT_TRUE(Contains(list, "No files")) << list;
}

TEST_P(FormattedVolume, SevenZipSeesTypeAndFreeBytes) {
  const Geometry plan = PlanOf(GetParam());
  const std::string list = RunOrThrow({"7z", "l", "-slt", "-tFAT", Path()});
  EXPECT_TRUE(Contains(list, "File System = " + TypeName() + "\n")) << list;
  EXPECT_TRUE(Contains(list, "Cluster Size = " + std::to_string(plan.bytesPerCluster) + "\n")) << list;
  const std::uint64_t free = plan.clusters - (plan.type == fatlib::FatType::Fat32 ? 1u : 0u);
  EXPECT_TRUE(Contains(list, "Free Space = " + std::to_string(free * plan.bytesPerCluster) + "\n")) << list;
}

std::vector<unsigned short> LibraryPath(const std::string& path) {
  std::vector<unsigned short> units(path.begin(), path.end());
  units.push_back(0);
  return units;
}

// Mounts the file, makes a directory with a file in it, and unmounts.
bool FillThroughLibrary(std::string image, BYTES content) {
  Fat_LibInitialize();
  CFatPartition* storage = new CFatPartition;
  CFatFileSystem* volume = Fat_Mount(storage, image.data());
  if (volume == nullptr) return false;
  const unsigned int size = static_cast<unsigned int>(content.size());
  bool ok = Fat_CreateDir(LibraryPath("DIR").data(), 0) != 0;
  const int file = Fat_CreateFile(LibraryPath("DIR\\FILE.BIN").data(), size, 0x20);
  unsigned int done = 0;
  ok = ok && file != -1 && Fat_WriteFileEx(file, 0, size, content.data(), &done) != 0;
  if (file != -1) Fat_CloseFile(file);
  ok = Fat_Unmount(volume) != 0 && ok;
  ::operator delete(storage);
  Fat_LibTerminate();
  return ok;
}

TEST_P(FormattedVolume, LibraryWritesAndOthersRead) {
  const BYTES content(10000, 0x5A);
  ASSERT_TRUE(FillThroughLibrary(Path(), content));
  const CTempDir out;
  RunOrThrow({"mcopy", "-i", Path(), "::/DIR/FILE.BIN", out / "file"});
  EXPECT_EQ(content, ReadHostFile(out / "file"));
  EXPECT_EQ(0, RunProcess({"fsck.fat", "-n", Path()}).ExitCode);
}

const VOLUME VOLUMES[] = {
    {"Floppy360K", 360 * KIB, 0},
    {"Floppy720K", 720 * KIB, 0},
    {"Floppy1200K", 1200 * KIB, 0},
    {"Floppy1440K", 1440 * KIB, 0},
    {"Floppy2880K", 2880 * KIB, 0},
    {"Small", 64 * KIB, 0},
    {"OddSectors", 5003 * 512, 0},
    {"Largest12", 16 * MIB - 512, 0},
    {"Least16", 16 * MIB, 0},
    {"Common16", 100 * MIB, 16},
    {"Largest16", 512 * MIB - 512, 0},
    {"Least32", 512 * MIB, 0},
    {"Large32", 64 * GIB, 0},
    {"TwoTebibytes", 0xFFFFFF00ull * 512, 32, 512, 65536},
    {"Fat12With4069Clusters", (57 + 4085) * 512, 12, 512, 512},
    {"Fat16With4101Clusters", (67 + 4101) * 512, 16, 512, 512},
    {"Fat16With65509Clusters", (545 + 65525) * 512, 16, 512, 512},
    {"Fat32With65541Clusters", (1058 + 65541) * 512, 32, 512, 512},
    {"Fat12Clusters64K", 200 * MIB, 12, 512, 65536},
    {"Fat16Clusters64K", 3 * GIB, 16, 512, 65536},
    {"Fat32Clusters64K", 8 * GIB, 32, 512, 65536},
    {"Sectors1024", 20 * MIB, 16, 1024},
    {"Sectors2048", 300 * MIB, 32, 2048},
    {"Sectors4096Fat12", 8 * MIB, 12, 4096},
    {"Sectors4096Fat16", 64 * MIB, 16, 4096},
    {"Sectors4096Fat32", 2 * GIB, 32, 4096, 8192},
    {"Clusters256K", 64 * GIB, 32, 4096, 256 * KIB},
    {"RootOf16", 4 * MIB, 12, 512, 0, 16},
    {"RootOf4096", 64 * MIB, 16, 512, 0, 4096},
    {"Aligned12", 4 * MIB, 12, 512, 0, 0, 65536},
    {"Aligned16", 100 * MIB, 16, 512, 0, 0, MIB},
    {"Aligned32", 600 * MIB, 32, 512, 0, 0, 4 * MIB},
};

std::string TestName(const ::testing::TestParamInfo<VOLUME>& info) { return info.param.Name; }

INSTANTIATE_TEST_SUITE_P(Format, FormattedVolume, ::testing::ValuesIn(VOLUMES), TestName);

// ---------------------------------------------------------------------------------------------- bytes

TEST(Format, FloppyHasTheseBytes) {
  FormatOptions options;
  options.label = u"BOOT";
  options.volumeId = 0x89ABCDEF;
  options.created.date = 0x5A21;
  options.created.time = 0x6000;
  options.created.tenMilliseconds = 150;
  const CDiskImage image = Formatted(1440 * KIB, options);
  const BYTES boot = {0xEB, 0x3C, 0x90, 'F',  'A',  'T',  'L',  'I',  'B',  ' ',  ' ',  0x00, 0x02, 0x01,
                      0x01, 0x00, 0x02, 0xE0, 0x00, 0x40, 0x0B, 0xF0, 0x09, 0x00, 0x12, 0,    2,    0,
                      0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0x29, 0xEF, 0xCD, 0xAB,
                      0x89, 'B',  'O',  'O',  'T',  ' ',  ' ',  ' ',  ' ',  ' ',  ' ',  ' ',  'F',  'A',
                      'T',  '1',  '2',  ' ',  ' ',  ' ',  0xCD, 0x18, 0xF4, 0xEB, 0xFD};
  EXPECT_EQ(boot, image.ReadBytes(0, boot.size()));
  EXPECT_EQ(0xAA55, image.Get16(510));
  EXPECT_EQ((BYTES{0xF0, 0xFF, 0xFF, 0, 0}), image.ReadBytes(512, 5));
  EXPECT_EQ((BYTES{0xF0, 0xFF, 0xFF, 0, 0}), image.ReadBytes(512 * 10, 5));
  const BYTES label = {'B',  'O',  'O',  'T',  ' ', ' ', ' ', ' ',  ' ',  ' ',  ' ', 8, 0, 150, 0, 0x60,
                       0x21, 0x5A, 0x21, 0x5A, 0,   0,   0,   0x60, 0x21, 0x5A, 0,   0, 0, 0,   0, 0};
  EXPECT_EQ(label, image.ReadBytes(512 * 19, 32));
  EXPECT_EQ(BYTES(32), image.ReadBytes(512 * 19 + 32, 32));
}

TEST(Format, Fat32HasBackupsAndTrueCounts) {
  FormatOptions options;
  options.bits = 32;
  options.bytesPerSector = 2048;
  options.hiddenSectors = 63;
  const CDiskImage image = Formatted(300 * MIB, options);
  Geometry plan;
  ASSERT_FALSE(PlanFormat(300 * MIB, options, &plan));
  EXPECT_EQ(63u, image.Get32(28));
  EXPECT_EQ(2u, image.Get32(44));
  EXPECT_EQ(image.ReadBytes(0, 4096), image.ReadBytes(6 * 2048, 4096));
  EXPECT_EQ(0x41615252u, image.Get32(2048));
  EXPECT_EQ(0x61417272u, image.Get32(2048 + 484));
  EXPECT_EQ(plan.clusters - 1, image.Get32(2048 + 488));
  EXPECT_EQ(3u, image.Get32(2048 + 492));
  EXPECT_EQ(0xAA550000u, image.Get32(2048 + 508));
  for (const std::uint32_t copy : {0u, 1u}) {
    EXPECT_EQ(0x0FFFFFF8u, image.Get32(plan.FatPosition(copy)));
    EXPECT_EQ(0x0FFFFFFFu, image.Get32(plan.FatPosition(copy) + 4));
    EXPECT_EQ(0x0FFFFFFFu, image.Get32(plan.FatPosition(copy) + 8));
    EXPECT_EQ(0u, image.Get32(plan.FatPosition(copy) + 12));
  }
  EXPECT_EQ("NO NAME    FAT32   ", [&image] {
    const BYTES bytes = image.ReadBytes(71, 19);
    return std::string(bytes.begin(), bytes.end());
  }());
}

TEST(Format, OldBytesGoInFrontOfTheFirstFileAndStayBehind) {
  for (const int bits : {12, 16, 32}) {
    FormatOptions options;
    options.bits = bits;
    options.bytesPerCluster = 512;
    const std::uint64_t size = bits == 12 ? MIB : bits == 16 ? 8 * MIB : 40 * MIB;
    Geometry plan;
    ASSERT_FALSE(PlanFormat(size, options, &plan));
    const std::uint64_t end = plan.firstDataSector * 512 + (bits == 32 ? 512u : 0u);
    CImageDevice used(CDiskImage(BYTES(ToSize(size), 0xCC)));
    ASSERT_FALSE(Format(&used, options));
    EXPECT_EQ(Formatted(size, options).ReadBytes(0, ToSize(end)), used.Image().ReadBytes(0, ToSize(end)));
    EXPECT_EQ(BYTES(ToSize(size - end), 0xCC), used.Image().ReadBytes(end, ToSize(size - end)));
  }
}

TEST(Format, SmallerVolumeLeavesTheRestOfTheDevice) {
  CImageDevice device(CDiskImage(BYTES(2 * MIB, 0xCC)));
  FormatOptions options;
  options.bytes = MIB;
  ASSERT_FALSE(Format(&device, options));
  EXPECT_EQ(2048u, device.Image().Get16(19));
  EXPECT_EQ(BYTES(MIB, 0xCC), device.Image().ReadBytes(MIB, MIB));
}

TEST(Format, ZerosAreNotWrittenAnew) {
  CImageDevice device(64 * GIB);
  ASSERT_FALSE(Format(&device, FormatOptions()));
  EXPECT_LE(device.BytesWritten(), 6 * 512u);
}

// ---------------------------------------------------------------------------------------------- refusals and failures

TEST(Format, OptionsThatCannotBeLeaveTheDeviceAlone) {
  CImageDevice device(MIB);
  FormatOptions options;
  options.bits = 32;
  EXPECT_EQ(Status::InvalidParameter, Format(&device, options));
  EXPECT_EQ(0u, device.Calls());
}

TEST(Format, EachFailureOfTheDeviceIsReportedAndLeavesNoVolume) {
  FormatOptions options;
  options.bits = 32;
  options.label = u"LABEL";
  const CDiskImage old = Formatted(40 * MIB, options);
  CImageDevice good(old);
  ASSERT_FALSE(Format(&good, options));
  for (unsigned int call = 1; call <= good.Calls(); ++call) {
    CImageDevice device(old);
    device.FailAt(call);
    EXPECT_EQ(Status::IoError, Format(&device, options)) << call;
    const bool started = device.Writes() != 0;
    const bool written = call == good.Calls();  // the last flush
    EXPECT_EQ(started && !written ? 0 : 0xAA55, device.Image().Get16(510)) << call;
  }
  EXPECT_GT(good.Writes(), 8u);
}

}  // namespace
