/// @file DurabilityTest.cpp
/// When bytes reach the medium, call by call: what no call writes, what writes before the unmount, what the unmount
/// writes and in which order, and that afterwards everything is there.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "durability/PowerCut.h"
#include "support/VolumeReader.h"

namespace {

unsigned int s_nFlushes = 0;  // calls that ask the operating system to bring a file to its device

}  // namespace

// The test program's own ones stand in for those of the C library.
extern "C" int fsync(int descriptor);
extern "C" int fsync(int descriptor) {
  ++s_nFlushes;
  return static_cast<int>(syscall(SYS_fsync, descriptor));
}
extern "C" int fdatasync(int descriptor);
extern "C" int fdatasync(int descriptor) {
  ++s_nFlushes;
  return static_cast<int>(syscall(SYS_fdatasync, descriptor));
}

namespace {

class Durability : public CPowerCutFixture {
 protected:
  std::vector<MEDIUM_WRITE> WrittenBy(const START_VOLUME& start, const std::function<void()>& change) {
    return RecordWithoutUnmount(start.Image, change);
  }
  /// What lies where a write went.
  static std::string PartOf(const START_VOLUME& start, const MEDIUM_WRITE& write) {
    CDiskImage image = start.Image;
    const CImageBuilder builder(image);
    const std::uint64_t at = write.Offset;
    if (start.Geometry.FatBits == 32 && at == builder.FsInfoOffset()) return "FSInfo";
    if (at == builder.FatOffset(0)) return "FAT";
    if (at == builder.FatOffset(1)) return "second FAT";
    if (at == builder.RootOffset()) return "root";
    return "cluster " + std::to_string((at - builder.DataOffset()) / builder.ClusterBytes() + 2);
  }
};

struct CALL {
  const char* Name;
  std::function<void()> Make;
};

// ---------------------------------------------------------------- what returns before anything is written

TEST_F(Durability, NoCallOnASmallVolumeWritesBeforeTheUnmount) {
  const std::vector<CALL> calls = {
      {"create", [] { MakeFile("DIR\\NEW.TXT", 0); }},
      {"create with a size, write, close", [] { MakeFile("NEW.TXT", 3000); }},
      {"create a directory", [] { MakeDir("TARGET\\MADE\\DEEPER"); }},
      {"overwrite", [] { Overwrite("OLD.TXT", 5); }},
      {"grow", [] { Resize("OLD.TXT", 9000); }},
      {"shrink", [] { Resize("OLD.TXT", 10); }},
      {"rename", [] { Rename("DIR\\OLD1.TXT", "Other.txt"); }},
      {"rename a directory", [] { Rename("DIR", "Other"); }},
      {"move a file", [] { Move("DIR\\OLD1.TXT", "TARGET"); }},
      {"move a directory that was opened before",
       [] {
         EXPECT_TRUE(Exists("DIR\\SUBDIR"));
         Move("DIR\\SUBDIR", "TARGET");
       }},
      {"delete", [] { Delete("OLD.TXT"); }},
      {"delete a file with changes",
       [] {
         Resize("OLD.TXT", 0);
         Delete("OLD.TXT");
       }},
      {"delete a directory", [] { Delete("EMPTY"); }},
      {"grow a directory", [] { MakeFile("FULL\\NEW.TXT", 0); }},
      {"attributes",
       [] {
         const int handle = Fat_OpenFile(CPath("OLD.TXT"));
         WIN_FIND_DATA data{};
         EXPECT_EQ(Fat_GetFileAttribute(handle, &data), 1u);
         data.dwFileAttributes = 0x01;
         EXPECT_EQ(Fat_SetFileAttribute(handle, &data), 1u);
         EXPECT_EQ(Fat_CloseFile(handle), 1u);
       }},
      {"read and list",
       [] {
         EXPECT_EQ(ReadPath("OLD.TXT").size(), 1200u);
         EXPECT_FALSE(List("DIR").empty());
       }},
  };
  for (const CUT_VOLUME& volume : AllVolumes()) {
    for (const CALL& call : calls) {
      EXPECT_EQ(WrittenBy(StartVolume(volume), call.Make).size(), 0u) << volume << ": " << call.Name;
    }
  }
}

TEST_F(Durability, MountWritesNothing) {
  for (const CUT_VOLUME& volume : AllVolumes()) {
    EXPECT_EQ(WrittenBy(StartVolume(volume), [] {}).size(), 0u) << volume;
  }
}

// ---------------------------------------------------------------- what writes before the unmount

TEST_F(Durability, MoveOfADirectoryNotOpenedBefore_WritesItsTwoDotEntriesAtOnce) {
  for (const CUT_VOLUME& volume : AllVolumes()) {
    SCOPED_TRACE(::testing::Message() << volume);
    const START_VOLUME& start = StartVolume(volume);
    const CVolumeReader reader(start.Image);
    const std::uint32_t cluster = reader.Find("DIR\\SUBDIR")->FirstCluster;
    const std::vector<MEDIUM_WRITE> writes = WrittenBy(start, [] { Move("DIR\\SUBDIR", "TARGET"); });
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(writes[0].Offset, reader.ClusterOffset(cluster));
    ASSERT_EQ(writes[0].Bytes.size(), 64u);
    EXPECT_EQ(writes[0].Bytes[26], cluster);
    EXPECT_EQ(writes[0].Bytes[32 + 26], reader.Find("TARGET")->FirstCluster);
  }
}

TEST_F(Durability, DeleteOfAFileWithUnsavedData_WritesThemOverItsOldBytesAtOnce) {
  for (const CUT_VOLUME& volume : AllVolumes()) {
    SCOPED_TRACE(::testing::Message() << volume);
    const START_VOLUME& start = StartVolume(volume);
    const std::vector<std::uint32_t> clusters = CVolumeReader(start.Image).Find("OLD.TXT")->Clusters;
    const std::vector<MEDIUM_WRITE> writes = WrittenBy(start, [] {
      Overwrite("OLD.TXT", 5);
      Delete("OLD.TXT");
    });
    ASSERT_FALSE(writes.empty());
    CDiskImage image = start.Image;
    for (const MEDIUM_WRITE& write : writes) Replay(image, write);
    EXPECT_EQ(MissingForReader(image, {{"OLD.TXT", CImageBuilder::Pattern(1200, 5)}}), std::set<std::string>{});
    for (const MEDIUM_WRITE& write : writes) {
      const std::uint32_t cluster = static_cast<std::uint32_t>(std::stoul(PartOf(start, write).substr(8)));
      EXPECT_NE(std::find(clusters.begin(), clusters.end(), cluster), clusters.end());
    }
  }
}

TEST_F(Durability, ObjectPushedOutByOthers_IsWritten) {
  for (const CUT_VOLUME& volume : AllVolumes()) {
    SCOPED_TRACE(::testing::Message() << volume);
    const START_VOLUME& start = StartVolume(volume, true);
    const std::vector<MEDIUM_WRITE> writes = WrittenBy(start, [] {
      MakeFile("DIR\\NEW.TXT", 500);
      ForgetObjects();
    });
    CDiskImage image = start.Image;
    for (const MEDIUM_WRITE& write : writes) Replay(image, write);
    const CVolumeReader reader(image);
    const VOLUME_NODE* const node = reader.Find("DIR\\NEW.TXT");
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(image.ReadBytes(reader.ClusterOffset(node->FirstCluster), 500), CImageBuilder::Pattern(500, 77));
    // Neither the FAT nor the root directory is among them.
    for (const MEDIUM_WRITE& write : writes) {
      EXPECT_EQ(PartOf(start, write).compare(0, 8, "cluster "), 0) << PartOf(start, write);
      EXPECT_NE(PartOf(start, write), "root");
    }
    EXPECT_EQ(DamageOf(image).count(DAMAGE::FreeCluster), 1u);
  }
}

TEST_F(Durability, LastCloseOfAnObjectPushedOut_WritesIt) {
  for (const CUT_VOLUME& volume : AllVolumes()) {
    SCOPED_TRACE(::testing::Message() << volume);
    const START_VOLUME& start = StartVolume(volume, true);
    CMedium medium(start.Image);
    CFaultStorage* const storage = new CFaultStorage(medium);
    CFatFileSystem* const fileSystem = Fat_Mount(storage, nullptr);
    ASSERT_NE(fileSystem, nullptr);
    const int handle = Fat_OpenFile(CPath("KEEP.TXT"));
    BYTES bytes = CImageBuilder::Pattern(700, 3);
    unsigned int reported = 0;
    EXPECT_EQ(Fat_WriteFileEx(handle, 0, 700, bytes.data(), &reported), 1u);
    ForgetObjects();
    EXPECT_EQ(medium.Writes(), 0u);
    EXPECT_EQ(Fat_CloseFile(handle), 1u);
    const CVolumeReader reader(medium.Image());
    EXPECT_EQ(reader.Content(*reader.Find("KEEP.TXT")), bytes);
    EXPECT_EQ(Fat_Unmount(fileSystem), 1u);
    delete storage;
  }
}

TEST_F(Durability, CloseOfARememberedObject_WritesNothing) {
  EXPECT_EQ(WrittenBy(StartVolume({16, 2}), [] { Overwrite("OLD.TXT", 5); }).size(), 0u);
}

TEST_F(Durability, MoreThan64MiBInUse_WritesTheOldestDataFirst) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = 16;
  geometry.SectorsPerCluster = 64;
  geometry.Clusters = 4200;
  CImageBuilder builder(geometry);
  constexpr unsigned int BLOCK = 0x40000;
  const std::vector<std::uint32_t> clusters = builder.Allocate(257 * (BLOCK / builder.ClusterBytes()));
  ENTRY_OPTIONS options;
  options.SetSize = options.SetFirstCluster = true;
  options.Size = 257 * BLOCK;
  options.FirstCluster = clusters[0];
  builder.AddFile(CImageBuilder::Root(), "BIG.BIN", {}, {}, options);
  CMedium medium(builder.Image());
  medium.RecordWrites();
  CFaultStorage* const storage = new CFaultStorage(medium);
  CFatFileSystem* const fileSystem = Fat_Mount(storage, nullptr);
  ASSERT_NE(fileSystem, nullptr);
  const int handle = Fat_OpenFile(CPath("BIG.BIN"));
  ASSERT_GE(handle, 0);
  BYTES bytes(BLOCK, 0x5A);
  unsigned int reported = 0;
  unsigned int blocks = 0;
  for (; blocks < 257 && medium.Writes() == 0; ++blocks) {
    EXPECT_EQ(Fat_WriteFileEx(handle, static_cast<long long>(blocks) * BLOCK, BLOCK, bytes.data(), &reported), 1u);
  }
  // The root directory holds one of the 256 blocks, unchanged. It was the oldest and made room for the 256th of the
  // file; the 257th displaces the first.
  EXPECT_EQ(blocks, 257u);
  ASSERT_EQ(medium.Writes(), 1u);
  EXPECT_EQ(medium.RecordedWrites()[0].Offset, builder.ClusterOffset(clusters[0]));
  EXPECT_EQ(medium.RecordedWrites()[0].Bytes, bytes);
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
  EXPECT_EQ(Fat_Unmount(fileSystem), 1u);
  delete storage;
}

// 64 Ki clusters of a FAT32 are counted in a block of its FAT.
TEST_F(Durability, FourthChangedFatBlock_WritesAllFourLastFirst) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = 32;
  geometry.Clusters = 4 * 65536 - 2;
  CImageBuilder builder(geometry);
  builder.AddFile(CImageBuilder::Root(), "KEEP.TXT", CImageBuilder::Pattern(3000, 1));
  START_VOLUME start;
  start.Image = builder.Image();
  start.Geometry = builder.Geometry();
  start.Files["KEEP.TXT"] = CImageBuilder::Pattern(3000, 1);
  const auto grow = [](unsigned int blocks) {
    return [blocks] {
      const int handle = Fat_CreateFile(CPath("BIG.BIN"), (blocks * 65536 - 2000) * 512, 0);
      ASSERT_GE(handle, 0);
      EXPECT_EQ(Fat_CloseFile(handle), 1u);
    };
  };
  EXPECT_EQ(WrittenBy(start, grow(3)).size(), 0u);
  const std::vector<MEDIUM_WRITE> writes = WrittenBy(start, grow(4));
  ASSERT_EQ(writes.size(), 4u);
  CDiskImage image = start.Image;
  for (unsigned int i = 0; i < 4; ++i) {
    EXPECT_EQ(writes[i].Offset, start.FatOffset() + (3 - i) * 0x40000u);
    Replay(image, writes[i]);
    // Not even the entry is there yet: the clusters are lost, and nothing else.
    const CVolumeReader reader(image);
    EXPECT_GT(reader.LostClusters().size(), i * 60000u);
    EXPECT_EQ(reader.Find("BIG.BIN"), nullptr);
    EXPECT_EQ(Missing(ViewOf(image), start.Files), std::set<std::string>{});
  }
}

// ---------------------------------------------------------------- the unmount

TEST_F(Durability, UnmountWritesFsInfoRootFatSecondFatThenTheOthersOldestFirst) {
  for (const CUT_VOLUME& volume : AllVolumes()) {
    SCOPED_TRACE(::testing::Message() << volume);
    const START_VOLUME& start = StartVolume(volume);
    const CVolumeReader reader(start.Image);
    std::vector<std::string> parts;
    for (const MEDIUM_WRITE& write : Record(start.Image, [] {
           Overwrite("TARGET\\KEEP4.TXT", 4);
           Overwrite("DIR\\SUBDIR\\KEEP2.TXT", 4);
           Overwrite("TARGET\\KEEP4.TXT", 5);  // newest again
           MakeFile("NEW.TXT", 0);
           Delete("OLD.TXT");
         })) {
      parts.push_back(PartOf(start, write));
    }
    std::vector<std::string> expected = {"root", "FAT", "second FAT"};
    if (volume.FatBits == 32) expected.insert(expected.begin(), "FSInfo");
    const auto file = [&](const char* path) {
      for (const std::uint32_t cluster : reader.Find(path)->Clusters) {
        expected.push_back("cluster " + std::to_string(cluster));
      }
    };
    file("DIR\\SUBDIR\\KEEP2.TXT");
    file("TARGET\\KEEP4.TXT");
    // With one FAT the second one's place is where the root directory begins.
    if (volume.Fats == 1) {
      for (std::string& part : expected) part = part == "root" ? "second FAT" : part;
    }
    EXPECT_EQ(parts, expected);
  }
}

TEST_F(Durability, AfterTheUnmount_EverythingIsOnTheMedium) {
  for (const CUT_VOLUME& volume : TwoFatVolumes()) {
    for (const bool forget : {false, true}) {
      SCOPED_TRACE(::testing::Message() << volume << " " << forget);
      const START_VOLUME& start = StartVolume(volume, forget);
      std::map<std::string, BYTES> expected = start.Files;
      CDiskImage image = start.Image;
      for (const MEDIUM_WRITE& write : Record(start.Image, [&] {
             MakeFile("NEW.TXT", 3000);
             MakeFile("TARGET\\A new directory\\And a new file.txt", 5000);
             Overwrite("OLD.TXT", 8);
             Resize("DIR\\OLD1.TXT", 600);
             Rename("DIR\\KEEP3.TXT", "Renamed to this.txt");
             Move("TARGET\\OLD2.TXT", "DIR");
             Move("DIR\\SUBDIR", "TARGET");
             Delete("FULL\\FILLER10.TXT");
             MakeFile("FULL\\One more than fits.txt", 70);
             Delete("EMPTY");
             if (forget) ForgetObjects();
           })) {
        Replay(image, write);
      }
      expected["NEW.TXT"] = CImageBuilder::Pattern(3000, 77);
      expected["TARGET\\A new directory\\And a new file.txt"] = CImageBuilder::Pattern(5000, 77);
      expected["OLD.TXT"] = CImageBuilder::Pattern(1200, 8);
      expected["DIR\\OLD1.TXT"].resize(600);
      expected["FULL\\One more than fits.txt"] = CImageBuilder::Pattern(70, 77);
      const auto renamed = [&expected](const std::string& from, const std::string& to) {
        expected[to] = expected.at(from);
        expected.erase(from);
      };
      renamed("DIR\\KEEP3.TXT", "DIR\\Renamed to this.txt");
      renamed("TARGET\\OLD2.TXT", "DIR\\OLD2.TXT");
      renamed("DIR\\SUBDIR\\KEEP2.TXT", "TARGET\\SUBDIR\\KEEP2.TXT");
      expected.erase("FULL\\FILLER10.TXT");
      EXPECT_EQ(ViewOf(image).Files, expected);
      EXPECT_EQ(MissingForReader(image, expected), std::set<std::string>{});
      const CVolumeReader reader(image);
      EXPECT_EQ(reader.ProblemText(), "");
      EXPECT_TRUE(reader.FatCopiesEqual());
      EXPECT_TRUE(reader.LostClusters().empty());
      EXPECT_EQ(reader.Find("EMPTY"), nullptr);
    }
  }
}

TEST_F(Durability, UnmountThatCannotWriteData_SaysNothing) {
  const START_VOLUME& start = StartVolume({16, 2});
  const CVolumeReader reader(start.Image);
  CMedium medium(start.Image);
  CFatFileSystem* const fileSystem = MountMedium(medium);
  ASSERT_NE(fileSystem, nullptr);
  Overwrite("OLD.TXT", 9);
  medium.FailRange(static_cast<long long>(reader.ClusterOffset(reader.Find("OLD.TXT")->FirstCluster)), 1,
                   IO_FILTER::Writes);
  EXPECT_TRUE(Unmount(fileSystem));
  EXPECT_TRUE(medium.Fired());
  EXPECT_EQ(MissingForReader(medium.Image(), start.Files), std::set<std::string>{});  // the old bytes
}

TEST_F(Durability, UnmountThatCannotWriteTheFat_FailsAndDropsTheRest) {
  const START_VOLUME& start = StartVolume({16, 2});
  CMedium medium(start.Image);
  CFatFileSystem* const fileSystem = MountMedium(medium);
  ASSERT_NE(fileSystem, nullptr);
  MakeFile("DIR\\NEW.TXT", 100);
  Overwrite("OLD.TXT", 9);
  medium.FailRange(static_cast<long long>(start.FatOffset()), 1, IO_FILTER::Writes);
  EXPECT_FALSE(Unmount(fileSystem));
  EXPECT_EQ(MissingForReader(medium.Image(), start.Files), std::set<std::string>{});
  EXPECT_EQ(CVolumeReader(medium.Image()).Find("DIR\\NEW.TXT"), nullptr);
}

TEST_F(Durability, HandlesLeftOpen_AreWrittenByTheUnmountToo) {
  const START_VOLUME& start = StartVolume({16, 2});
  const BYTES bytes = CImageBuilder::Pattern(1200, 9);
  int handle = -1;
  CDiskImage image = start.Image;
  for (const MEDIUM_WRITE& write : Record(start.Image, [&] {
         handle = Fat_OpenFile(CPath("OLD.TXT"));
         BYTES copy = bytes;
         unsigned int reported = 0;
         EXPECT_EQ(Fat_WriteFileEx(handle, 0, 1200, copy.data(), &reported), 1u);
       })) {
    Replay(image, write);
  }
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
  EXPECT_EQ(MissingForReader(image, {{"OLD.TXT", bytes}}), std::set<std::string>{});
}

TEST_F(Durability, TerminationWithoutUnmount_WritesNothing) {
  CMedium medium(StartVolume({32, 2}).Image);
  CFaultStorage* const storage = new CFaultStorage(medium);
  ASSERT_NE(Fat_Mount(storage, nullptr), nullptr);
  MakeFile("NEW.TXT", 3000);
  Overwrite("OLD.TXT", 3);
  EXPECT_EQ(Fat_LibTerminate(), 1u);
  Terminated();
  EXPECT_EQ(medium.Writes(), 0u);
  static_cast<void>(storage->Close());
  delete storage;
}

// ---------------------------------------------------------------- the operating system

TEST_F(Durability, HostThatDies_LeavesTheImageFileAsItWas) {
  const START_VOLUME& start = StartVolume({16, 2});
  const std::string path = TempDir() / "image";
  start.Image.ToFile(path);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    CFatPartition storage;
    std::string device = path;
    const bool mounted = Fat_Mount(&storage, device.data()) != nullptr;
    MakeFile("NEW.TXT", 3000);
    _exit(mounted && !HasFailure() ? 42 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 42);
  EXPECT_EQ(CDiskImage::Differences(CDiskImage::FromFile(path), start.Image), std::vector<std::uint64_t>{});
}

// A device back-end that tells how its file was opened.
class CWatchedPartition final : public CFatPartition {
 public:
  int Flags() const { return fcntl(static_cast<int>(m_hDevice), F_GETFL); }
};

TEST_F(Durability, Unmount_DoesNotAskTheOperatingSystemToFlush) {
  const std::string path = TempDir() / "image";
  StartVolume({16, 2}).Image.ToFile(path);
  s_nFlushes = 0;
  CWatchedPartition* const storage = new CWatchedPartition;
  std::string device = path;
  CFatFileSystem* const fileSystem = Fat_Mount(storage, device.data());
  ASSERT_NE(fileSystem, nullptr);
  EXPECT_EQ(storage->Flags() & (O_SYNC | O_DSYNC | O_DIRECT), 0);
  MakeFile("NEW.TXT", 3000);
  EXPECT_EQ(Fat_Unmount(fileSystem), 1u);
  delete storage;
  EXPECT_EQ(s_nFlushes, 0u);
  // What a host does about it, through a descriptor of its own.
  const int descriptor = open(path.c_str(), O_RDWR);
  ASSERT_GE(descriptor, 0);
  EXPECT_EQ(fsync(descriptor), 0);
  close(descriptor);
  EXPECT_EQ(s_nFlushes, 1u);
}

}  // namespace
