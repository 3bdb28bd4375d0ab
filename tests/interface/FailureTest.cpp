/// @file FailureTest.cpp
/// Every allocation and every transfer failing in turn.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "InterfaceFrame.h"

namespace {

using namespace interfacetest;

const auto WIDTHS = ::testing::Values(12u, 16u, 32u);

// ---------------------------------------------------------------------------------------------- out of memory

TEST(LibraryWithoutMemory, InitialiseAtEveryAllocation_MountFailsAndNothingLeaks) {
  CMemHooks memory;
  for (const auto duration : {CMemHooks::ONCE, CMemHooks::FOR_GOOD}) {
    bool fired = true;
    for (unsigned int nth = 1; fired; ++nth) {
      memory.FailAt(nth, duration);
      Fat_LibInitialize();
      fired = memory.Fired();
      memory.Heal();
      EXPECT_EQ(NotRefused(0, 0), "");
      CMedium medium(MakeVolume(12));
      CFaultStorage* storage = new CFaultStorage(medium);
      const CFreeWatch watch(storage);
      CFatFileSystem* fileSystem = Fat_Mount(storage, nullptr);
      EXPECT_EQ(fileSystem == nullptr, fired) << nth;
      EXPECT_EQ(watch.Freed(), fired) << nth;
      if (fileSystem != nullptr) {
        EXPECT_EQ(Fat_Unmount(fileSystem), 1u);
        delete storage;
      }
      EXPECT_EQ(Fat_LibTerminate(), 1u);
      EXPECT_EQ(memory.Outstanding(), 0u) << nth;
      EXPECT_EQ(memory.UnknownFrees(), 0u);
      SetCurrentFileSystem(nullptr);
    }
  }
}

TEST_F(Interface, InitialiseFailedOnceAndCalledAgain_LibraryWorks) {
  EXPECT_EQ(Fat_LibTerminate(), 1u);
  Memory().FailAt(1, CMemHooks::FOR_GOOD);
  Fat_LibInitialize();
  Memory().Heal();
  Fat_LibInitialize();
  ASSERT_NE(Mount(BACKEND::Memory, MakeVolume(16)), nullptr);
  EXPECT_EQ(ReadPath(DEEP), ContentOf(DEEP));
}

class InterfaceWithoutMemory : public Interface, public ::testing::WithParamInterface<unsigned int> {
 protected:
  /// Runs an operation on a fresh volume again and again, each time with another allocation failing, until none fails.
  /// Where it failed it must have changed nothing that stands in its way: tried again, it succeeds.
  /// @param but     the files that the operation changes
  /// @param before  what is done before, with memory enough
  void FailEveryAllocation(
      const std::function<bool()>& operation, const std::vector<std::string>& but = {},
      const std::function<void()>& before = [] {}) {
    for (const auto duration : {CMemHooks::ONCE, CMemHooks::FOR_GOOD}) {
      bool fired = true;
      for (unsigned int nth = 1; fired; ++nth) {
        SCOPED_TRACE("allocation " + std::to_string(nth) + (duration == CMemHooks::ONCE ? ", once" : ", for good"));
        CMedium medium(MakeVolume(GetParam()));
        CFatFileSystem* fileSystem = MountMedium(medium);
        ASSERT_NE(fileSystem, nullptr);
        before();
        Memory().FailAt(nth, duration);
        const bool succeeded = operation();
        fired = Memory().Fired();
        Memory().Heal();
        if (!succeeded) {
          EXPECT_TRUE(fired);
          EXPECT_TRUE(operation()) << "when tried again";
        }
        for (const FILE_ON_VOLUME& file : FILES_ON_VOLUME) {
          if (std::find(but.begin(), but.end(), file.Path) != but.end()) continue;
          EXPECT_EQ(ReadPath(file.Path), file.Content()) << file.Path;
        }
        EXPECT_TRUE(Unmount(fileSystem));
        const CVolumeReader reader(medium.Image());
        EXPECT_EQ(reader.ProblemText(), "");
        EXPECT_EQ(reader.LostClusters().size(), 0u);
        EXPECT_EQ(Harmed(medium.Image(), but), "");
        ASSERT_LT(nth, 500u);
      }
    }
  }
};

TEST_P(InterfaceWithoutMemory, Mount_FailsAndReleasesEverything) {
  for (const auto duration : {CMemHooks::ONCE, CMemHooks::FOR_GOOD}) {
    bool fired = true;
    for (unsigned int nth = 1; fired; ++nth) {
      CMedium medium(MakeVolume(GetParam()));
      const std::size_t before = Memory().Outstanding();
      CFaultStorage* storage = new CFaultStorage(medium);
      const CFreeWatch watch(storage);
      Memory().FailAt(nth, duration);
      CFatFileSystem* fileSystem = Fat_Mount(storage, nullptr);
      fired = Memory().Fired();
      Memory().Heal();
      EXPECT_EQ(medium.Writes(), 0u);
      EXPECT_EQ(watch.Freed(), fileSystem == nullptr) << nth;
      if (fileSystem == nullptr) {
        EXPECT_TRUE(fired);
        EXPECT_EQ(Memory().Outstanding(), before) << nth;
        continue;
      }
      // A table that could not grow only makes its chains longer: that is not a failure.
      EXPECT_EQ(ReadPath(DEEP), ContentOf(DEEP)) << nth;
      EXPECT_EQ(Fat_Unmount(fileSystem), 1u);
      delete storage;
    }
  }
}

TEST_P(InterfaceWithoutMemory, Open_FailsAndCanBeTriedAgain) {
  FailEveryAllocation([] { return Exists(DEEP); });
}

TEST_P(InterfaceWithoutMemory, Search_FailsAndCanBeTriedAgain) {
  FailEveryAllocation([] { return List("DIR\\Sub directory", true).size() == 3; });
}

TEST_P(InterfaceWithoutMemory, Read_FailsAndCanBeTriedAgain) {
  FailEveryAllocation([] {
    const int handle = Fat_OpenFile(CPath("Long name.bin"));
    if (handle == NO_HANDLE) return false;
    BYTES bytes(1301);
    unsigned int done = 0;
    const bool read = Fat_ReadFileEx(handle, 0, 1300, bytes.data() + 1, &done) == 1;
    EXPECT_EQ(Fat_CloseFile(handle), 1u);
    return read;
  });
}

/// Creates a file and closes it.
bool Create(const std::string& path, unsigned int size) {
  const int handle = Fat_CreateFile(CPath(path), size, 0);
  return handle != NO_HANDLE && Fat_CloseFile(handle) == 1;
}

TEST_P(InterfaceWithoutMemory, CreateFileWithParents_LeavesAWholeVolume) {
  FailEveryAllocation([] { return Create("DIR\\New parent\\Another\\A new file.bin", 3000); });
}

TEST_P(InterfaceWithoutMemory, CreateInADirectoryThatMustGrow_LeavesAWholeVolume) {
  const auto fill = [] {
    for (int i = 0; i < 4; ++i) ASSERT_TRUE(Create("DIR\\Sub directory\\Fill " + std::to_string(i), 0));
  };
  FailEveryAllocation([] { return Create("DIR\\Sub directory\\One more long name.bin", 100); }, {}, fill);
}

TEST_P(InterfaceWithoutMemory, CreateDir_LeavesAWholeVolume) {
  FailEveryAllocation([] { return Fat_CreateDir(CPath("DIR\\Sub directory\\New directory"), 0) == 1; });
}

const char* const IN_DIR = "DIR\\IN.TXT";
void CacheIt() {
  const int handle = Fat_OpenFile(CPath(IN_DIR));
  ASSERT_EQ(handle, 0);
  ASSERT_EQ(Fat_CloseFile(handle), 1u);
}

TEST_P(InterfaceWithoutMemory, DeleteCachedOrNot_LeavesAWholeVolume) {
  const auto remove = [] { return Fat_DeleteFile(CPath(IN_DIR)) == 1; };
  FailEveryAllocation(remove, {IN_DIR});
  FailEveryAllocation(remove, {IN_DIR}, CacheIt);
}

TEST_P(InterfaceWithoutMemory, RenameCachedOrNot_LeavesAWholeVolume) {
  const auto rename = [] { return Fat_RenameFile(CPath(IN_DIR), CPath("A longer name.txt")) == 1; };
  FailEveryAllocation(rename, {IN_DIR});
  FailEveryAllocation(rename, {IN_DIR}, CacheIt);
}

TEST_P(InterfaceWithoutMemory, MoveCachedOrNot_LeavesAWholeVolume) {
  const auto move = [] { return Fat_MoveFile(CPath(IN_DIR), CPath("DIR\\Sub directory")) == 1; };
  FailEveryAllocation(move, {IN_DIR});
  FailEveryAllocation(move, {IN_DIR}, CacheIt);
}

TEST_P(InterfaceWithoutMemory, GrowAndShrink_LeavesAWholeVolume) {
  const auto size = [] {
    const int handle = Fat_OpenFile(CPath("README.TXT"));
    if (handle == NO_HANDLE) return false;
    bool done = Fat_SetFileSize(handle, 40000) == 1;
    done = Fat_SetFileSize(handle, 100) == 1 && done;
    return Fat_CloseFile(handle) == 1 && done;
  };
  FailEveryAllocation(size, {"README.TXT"});
}

INSTANTIATE_TEST_SUITE_P(Widths, InterfaceWithoutMemory, WIDTHS, WidthName);

// ---------------------------------------------------------------------------------------------- failing transfers

class InterfaceWithFailingTransfers : public Interface, public ::testing::WithParamInterface<unsigned int> {
 protected:
  using OPERATION = std::function<bool()>;

  /// Runs an operation that only reads, each time with another transfer failing, until none fails. A failure must be
  /// reported, nothing may be written, and a second try must succeed.
  void FailEveryTransfer(
      const OPERATION& operation, const OPERATION& before = [] { return true; }) {
    for (const FAULT_DURATION duration : {FAULT_ONCE, FAULT_FOR_GOOD}) {
      bool fired = true;
      unsigned int nth = 1;
      for (; fired; ++nth) {
        SCOPED_TRACE("transfer " + std::to_string(nth) + (duration == FAULT_ONCE ? ", once" : ", for good"));
        CMedium medium(MakeVolume(GetParam()));
        CFatFileSystem* fileSystem = MountMedium(medium);
        ASSERT_NE(fileSystem, nullptr);
        ASSERT_TRUE(before());
        const unsigned int blocks = CFatFile::BLOCK_CACHE::BlocksInUse();
        medium.FailAt(nth, duration);
        const bool succeeded = operation();
        fired = medium.Fired();
        EXPECT_EQ(succeeded, !fired);
        medium.Heal();
        EXPECT_GE(CFatFile::BLOCK_CACHE::BlocksInUse(), blocks);
        EXPECT_TRUE(operation());
        EXPECT_EQ(medium.Writes(), 0u) << medium.TraceText();
        EXPECT_TRUE(Unmount(fileSystem));
        EXPECT_EQ(CFatFile::BLOCK_CACHE::BlocksInUse(), 0u);
        EXPECT_EQ(CDiskImage::Differences(medium.Image(), MakeVolume(GetParam())), std::vector<std::uint64_t>{});
        ASSERT_LT(nth, 100u);
      }
      EXPECT_GT(nth, 2u);  // the operation made transfers
    }
  }
};

TEST_P(InterfaceWithFailingTransfers, Mount_IsRefusedAndEverythingReleased) {
  for (const FAULT_DURATION duration : {FAULT_ONCE, FAULT_FOR_GOOD}) {
    bool fired = true;
    for (unsigned int nth = 1; fired; ++nth) {
      CMedium medium(MakeVolume(GetParam()));
      medium.FailAt(nth, duration);
      const std::size_t before = Memory().Outstanding();
      CFaultStorage* storage = new CFaultStorage(medium);
      const CFreeWatch watch(storage);
      CFatFileSystem* fileSystem = Fat_Mount(storage, nullptr);
      fired = medium.Fired();
      EXPECT_EQ(fileSystem == nullptr, fired) << nth;
      EXPECT_EQ(watch.Freed(), fired) << nth;
      EXPECT_EQ(medium.Writes(), 0u);
      if (fired) {
        EXPECT_EQ(Memory().Outstanding(), before) << nth;
        EXPECT_EQ(medium.CloseCalls(), nth == 1 ? 0u : 1u) << nth;
        EXPECT_EQ(medium.TransfersWhileClosed(), 0u);
        continue;
      }
      EXPECT_EQ(nth, GetParam() == 32 ? 5u : 4u);  // boot sector, the blocks of the FAT, the root
      EXPECT_EQ(Fat_Unmount(fileSystem), 1u);
      delete storage;
    }
  }
}

TEST_P(InterfaceWithFailingTransfers, Open_FailsAndSucceedsWhenTriedAgain) {
  FailEveryTransfer([] { return Exists(DEEP); });
}

TEST_P(InterfaceWithFailingTransfers, OpenWithTheDirectoryOpen_FailsAndSucceedsWhenTriedAgain) {
  FailEveryTransfer([] { return Exists("DIR\\IN.TXT"); }, [] { return Exists("DIR"); });
}

TEST_P(InterfaceWithFailingTransfers, Read_FailsAndSucceedsWhenTriedAgain) {
  FailEveryTransfer([] {
    const int handle = Fat_OpenFile(CPath("Long name.bin"));
    if (handle == NO_HANDLE) return false;
    BYTES bytes(1300);
    unsigned int done = 0;
    const bool read = Fat_ReadFileEx(handle, 0, 1300, bytes.data(), &done) == 1;
    if (read) {
      EXPECT_EQ(bytes, ContentOf("Long name.bin"));
    }
    EXPECT_EQ(Fat_CloseFile(handle), 1u);
    return read;
  });
}

TEST_P(InterfaceWithFailingTransfers, List_FailsAndSucceedsWhenTriedAgain) {
  FailEveryTransfer([] { return List("DIR\\Sub directory", true).size() == 3; });
}

TEST_P(InterfaceWithFailingTransfers, ReadFailingAgainAndAgain_CostsNoBlockOfThePool) {
  CImageBuilder builder(Geometry(GetParam()));
  BYTES content = CImageBuilder::Pattern(600 * 512, 9);
  content[0] = 0;  // opening reads no further than the first block
  builder.AddFile(CImageBuilder::Root(), "LARGE", content);
  CMedium& medium = NewMedium(builder.Image());
  ASSERT_NE(MountMedium(medium), nullptr);
  const int handle = Fat_OpenFile(CPath("LARGE"));
  const unsigned int blocks = CFatFile::BLOCK_CACHE::BlocksInUse();
  medium.FailAt(1, FAULT_FOR_GOOD);
  for (int i = 0; i < 300; ++i) {
    unsigned char byte;
    unsigned int done;
    ASSERT_EQ(Fat_ReadFileEx(handle, 0x40000 + i, 1, &byte, &done), 0u);
  }
  EXPECT_EQ(CFatFile::BLOCK_CACHE::BlocksInUse(), blocks);
  medium.Heal();
  EXPECT_EQ(ReadAll(handle), content);
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
}

TEST_P(InterfaceWithFailingTransfers, Unmount_FailsOnlyWhereTheFatIsNotWritten) {
  const auto prepare = [](CMedium&) {
    ASSERT_TRUE(WritePath("DIR\\NEW.BIN", CImageBuilder::Pattern(600, 6)));
    ASSERT_TRUE(WritePath("New in the root.bin", CImageBuilder::Pattern(600, 7)));
  };
  // What is transferred when nothing fails.
  std::vector<IO_RECORD> trace;
  CDiskImage result;
  {
    CMedium medium(MakeVolume(GetParam()));
    CFatFileSystem* fileSystem = MountMedium(medium);
    ASSERT_NE(fileSystem, nullptr);
    prepare(medium);
    medium.ClearTrace();
    EXPECT_TRUE(Unmount(fileSystem));
    trace = medium.Trace();
    result = medium.Image();
    EXPECT_EQ(CVolumeReader(result).ProblemText(), "");
  }
  const auto isFatWrite = [&](const IO_RECORD& transfer) { return PartOf(transfer, result) == "write FAT1"; };
  ASSERT_GE(std::count_if(trace.begin(), trace.end(), isFatWrite), 1);
  for (const FAULT_DURATION duration : {FAULT_ONCE, FAULT_FOR_GOOD}) {
    for (unsigned int nth = 1; nth <= trace.size(); ++nth) {
      SCOPED_TRACE("transfer " + std::to_string(nth) + (duration == FAULT_ONCE ? ", once" : ", for good"));
      CMedium medium(MakeVolume(GetParam()));
      CFatFileSystem* fileSystem = MountMedium(medium);
      ASSERT_NE(fileSystem, nullptr);
      prepare(medium);
      medium.ClearTrace();
      medium.FailAt(nth, duration);
      const auto from = trace.begin() + static_cast<std::ptrdiff_t>(nth - 1);
      const auto to = duration == FAULT_ONCE ? from + 1 : trace.end();
      const bool expected = std::none_of(from, to, isFatWrite);
      // The fixture closes the storage after a failure.
      EXPECT_EQ(Unmount(fileSystem), expected);
      EXPECT_TRUE(medium.Fired());
      EXPECT_EQ(medium.CloseCalls(), 1u);
      EXPECT_EQ(medium.TransfersWhileClosed(), 0u);
      EXPECT_EQ(Harmed(medium.Image()), "");
      EXPECT_EQ(CFatFile::BLOCK_CACHE::BlocksInUse(), 0u);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Widths, InterfaceWithFailingTransfers, WIDTHS, WidthName);

}  // namespace
