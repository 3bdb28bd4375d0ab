/// @file ChangeWalkTest.cpp
/// Every operation that changes the volume, through every fault. What an operation changes stays in the caches until
/// the unmount: that writes the root directory, then the FAT, then the files and directories. So the FAT of a directory
/// that could not be written is new, while that of the root directory is old.

#include "faults/FaultWalk.h"

namespace {

using namespace faultwalk;

class FaultWalkOfChanges : public FaultWalk {
 protected:
  static CONTENT Kept(const std::string& path, const SHAPE& shape) {
    return CONTENT::File(SizeOf(path, shape), ContentOf(path, shape));
  }
  /// Opens other files until no block of DIR is in a pool of four.
  static void PushOutOfThePool() {
    for (const char* path : {KEEP, KEEP_LONG, OTHER}) Cache(path);
  }
  static bool SetSize(const SESSION& session, unsigned int size) {
    return Fat_SetFileSize(session.Handles[0], size) == 1;
  }
};

// ---------------------------------------------------------------------------------------------- creating

TEST_P(FaultWalkOfChanges, CreateFile_IsThereOrNot) {
  Walk([](const SHAPE&) {
    OPERATION op;
    const std::string path = "DIR\\A new file with a long name.bin";
    op.Run = [=](SESSION&) { return Create(path, 0); };
    op.New = {{path, CONTENT::File(0)}};
    op.Transfers = 1;
    op.Allocations = 5;
    return op;
  });
}

TEST_P(FaultWalkOfChanges, CreateFileWithSize_CostsItsClustersAtMost) {
  Walk([](const SHAPE& shape) {
    OPERATION op;
    const std::string path = "DIR\\A new file.bin";
    const unsigned int size = 3 * shape.ClusterBytes() + 7;
    op.Run = [=](SESSION&) { return Create(path, size); };
    op.New = {{path, CONTENT::File(size)}};
    op.HarmAfterCut = LOST_CLUSTERS;  // the FAT is written before the directory
    op.HarmAfterShort = BROKEN_CHAIN;
    op.Transfers = 1;
    op.Allocations = 5;
    return op;
  });
}

TEST_P(FaultWalkOfChanges, CreateFileInTheRoot_MayNameClustersThatAreStillFree) {
  Walk([](const SHAPE& shape) {
    OPERATION op;
    const std::string path = "New in the root.bin";
    const unsigned int size = shape.ClusterBytes() + 7;
    op.Run = [=](SESSION&) { return Create(path, size); };
    op.New = {{path, CONTENT::File(size)}};
    op.HarmAfterCut = LOST_CLUSTERS | BROKEN_CHAIN;  // the root is written before the FAT
    op.Allocations = 3;  // the new record may fit in beside those of the root
    return op;
  });
}

TEST_P(FaultWalkOfChanges, CreateFileWithParents_MayLeaveParentsBehind) {
  Walk([](const SHAPE& shape) {
    OPERATION op;
    const std::string first = "DIR\\New parent";
    const std::string second = first + "\\Another one";
    const std::string path = second + "\\A new file.bin";
    const unsigned int size = shape.ClusterBytes() + 7;
    op.Run = [=](SESSION&) { return Create(path, size); };
    op.New = {{first, CONTENT::Directory()}, {second, CONTENT::Directory()}, {path, CONTENT::File(size)}};
    op.AfterFailure = {{{first, CONTENT::Directory()}},
                       {{first, CONTENT::Directory()}, {second, CONTENT::Directory()}}};
    op.Written = {"DIR", first, second};
    op.HarmAfterCut = LOST_CLUSTERS | RAW_DIRECTORY;  // each directory is written on its own
    op.HarmAfterShort = TORN_DIRECTORY | BROKEN_CHAIN;
    op.Transfers = 1;
    op.Allocations = 10;
    return op;
  });
}

TEST_P(FaultWalkOfChanges, CreateDirectory_MayBeLeftUnwritten) {
  Walk([](const SHAPE&) {
    OPERATION op;
    const std::string path = "DIR\\A new directory";
    op.Run = [=](SESSION&) { return Fat_CreateDir(CPath(path), 0) == 1; };
    op.New = {{path, CONTENT::Directory()}};
    op.HarmAfterCut = LOST_CLUSTERS | RAW_DIRECTORY;
    op.HarmAfterShort = BROKEN_CHAIN;
    op.Transfers = 1;
    op.Allocations = 5;
    return op;
  });
}

TEST_P(FaultWalkOfChanges, CreateInAFullDirectory_GrowsItOrNot) {
  Walk([](const SHAPE&) {
    OPERATION op;
    const std::string path = "FULL\\One more with a long name.bin";
    op.Build = [](CImageBuilder& builder) { FillDirectory(builder, builder.AddDir(CImageBuilder::Root(), "FULL")); };
    op.Run = [=](SESSION&) { return Create(path, 0); };
    op.New = {{path, CONTENT::File(0)}, {"FULL", CONTENT::Directory()}};
    op.Written = {"FULL"};
    // The new cluster is in the chain before it is cleared on the medium.
    op.HarmAfterCut = RAW_DIRECTORY | TORN_DIRECTORY;
    op.Transfers = 1;
    op.Allocations = 5;
    return op;
  });
}

TEST_P(FaultWalkOfChanges, CreateWhereSlotsMustSlide_LosesNoEntry) {
  Walk([](const SHAPE&) {
    OPERATION op;
    const std::string path = "HOLES\\Needs four slots in a row one.bin";
    op.Build = [](CImageBuilder& builder) {
      const CImageBuilder::DIRECTORY holes = builder.AddDir(CImageBuilder::Root(), "HOLES");
      const BYTES content = CImageBuilder::Pattern(20, 3);
      for (const char* name : {"FIRST", "X1", "B", "X2", "C", "X3", "D", "X4", "E"})
        builder.AddFile(holes, name, content);
      FillDirectory(builder, holes);
      for (const unsigned int slot : {3u, 5u, 7u, 9u}) {
        RAW_ENTRY entry = builder.Entry(holes, slot);
        builder.SetFatEntry(static_cast<std::uint32_t>(entry[26] | entry[27] << 8), 0);
        entry[0] = 0xE5;
        builder.SetEntry(holes, slot, entry);
      }
    };
    op.Run = [=](SESSION&) { return Create(path, 0); };
    op.New = {{path, CONTENT::File(0)}};
    for (const char* slid : {"HOLES\\B", "HOLES\\C", "HOLES\\D"}) {
      op.New[slid] = CONTENT::File(20, CImageBuilder::Pattern(20, 3));
    }
    op.Written = {"HOLES"};
    op.HarmAfterShort = TORN_DIRECTORY | TWO_COPIES;
    op.Transfers = 1;
    op.Allocations = 5;
    return op;
  });
}

// ---------------------------------------------------------------------------------------------- writing

TEST_P(FaultWalkOfChanges, WriteWhatIsCached_LeavesOldOrNewBytes) {
  Walk([](const SHAPE& shape) {
    OPERATION op;
    BYTES content = ContentOf(FILE_IN_DIR, shape);
    const BYTES bytes = CImageBuilder::Pattern(2 * shape.ClusterBytes(), 99);
    std::copy(bytes.begin(), bytes.end(), content.begin() + 100);
    op.Prepare = [](SESSION& session) { (void)Open(session, FILE_IN_DIR); };
    op.Run = [=](SESSION& session) { return Write(session.Handles[0], 100, bytes); };
    op.New = {{FILE_IN_DIR, CONTENT::File(SizeOf(FILE_IN_DIR, shape), content)}};
    op.HarmAfterCut = MIXED_CONTENT;  // it has two fragments
    op.UnmountTransfers = 4;
    return op;
  });
}

constexpr unsigned int BLOCK = CFatFile::BLOCK_BYTES;

// Writes bytes that are not cached, of a file in two fragments that ends shortly behind them.
OPERATION WriteUncached(const SHAPE& shape, unsigned int offset, unsigned int count) {
  OPERATION op;
  const unsigned int size = offset + count + 100;
  const BYTES old = CImageBuilder::Pattern(size, 8);
  op.Build = [=](CImageBuilder& builder) {
    const unsigned int clusters = (size + shape.ClusterBytes() - 1) / shape.ClusterBytes();
    std::vector<std::uint32_t> chain = builder.Allocate(clusters - 1, 140);
    chain.push_back(shape.Clusters - 20);
    builder.AddFile(CImageBuilder::Root(), "LARGE.BIN", old, chain);
  };
  BYTES content = old;
  const BYTES bytes = CImageBuilder::Pattern(count, 99);
  std::copy(bytes.begin(), bytes.end(), content.begin() + static_cast<std::ptrdiff_t>(offset));
  op.Prepare = [](SESSION& session) {
    const int handle = Fat_OpenFile(CPath("LARGE.BIN"));
    session.Handles.push_back(handle);
  };
  op.Run = [=](SESSION& session) {
    unsigned int done;
    BYTES copy = bytes;
    return Fat_WriteFileEx(session.Handles[0], offset, count, copy.data(), &done) == 1;
  };
  op.New = {{"LARGE.BIN", CONTENT::File(size, content)}};
  op.HarmAfterFailure = MIXED_CONTENT;  // blocks before the failure are written
  op.HarmAfterCut = MIXED_CONTENT;
  return op;
}

TEST_P(FaultWalkOfChanges, WriteUncachedPartOfABlock_LeavesOldOrNewBytes) {
  Walk(
      [](const SHAPE& shape) {
        OPERATION op = WriteUncached(shape, BLOCK + 100, 5000);
        op.Transfers = 1;
        return op;
      },
      3 * BLOCK);
}

TEST_P(FaultWalkOfChanges, WriteUncachedWholeBlockAndMore_LeavesOldOrNewBytes) {
  Walk(
      [](const SHAPE& shape) {
        if (shape.SectorsPerCluster == 1) return OPERATION();  // a thousand clusters take long to judge
        OPERATION op = WriteUncached(shape, BLOCK, BLOCK + 900);
        op.Transfers = 1;
        return op;
      },
      3 * BLOCK);
}

// ---------------------------------------------------------------------------------------------- sizes

OPERATION Resize(const std::string& path, unsigned int size, const CONTENT& after) {
  OPERATION op;
  op.Prepare = [=](SESSION& session) { session.Handles.push_back(Fat_OpenFile(CPath(path))); };
  op.Run = [=](SESSION& session) { return Fat_SetFileSize(session.Handles[0], size) == 1; };
  op.New = {{path, after}};
  op.HarmAfterCut = BROKEN_CHAIN;  // the FAT and the entry are written one after the other
  op.HarmAfterShort = LOST_CLUSTERS;
  return op;
}

TEST_P(FaultWalkOfChanges, GrowFile_KeepsItsBytes) {
  Walk([](const SHAPE& shape) {
    const unsigned int size = 6 * shape.ClusterBytes() - 1;
    return Resize(FILE_IN_DIR, size, CONTENT::File(size, ContentOf(FILE_IN_DIR, shape)));
  });
}

TEST_P(FaultWalkOfChanges, GrowFileInTheRoot_KeepsItsBytes) {
  Walk([](const SHAPE& shape) {
    const unsigned int size = 6 * shape.ClusterBytes() - 1;
    OPERATION op = Resize(ROOT_FILE, size, CONTENT::File(size, ContentOf(ROOT_FILE, shape)));
    op.HarmAfterShort = NO_HARM;
    return op;
  });
}

TEST_P(FaultWalkOfChanges, GrowEmptyFile_CostsItsClustersAtMost) {
  Walk([](const SHAPE& shape) {
    const unsigned int size = 2 * shape.ClusterBytes() + 1;
    OPERATION op = Resize("NIL", size, CONTENT::File(size));
    op.Build = [](CImageBuilder& builder) { builder.AddFile(CImageBuilder::Root(), "NIL"); };
    op.HarmAfterCut |= LOST_CLUSTERS;
    return op;
  });
}

TEST_P(FaultWalkOfChanges, ShrinkFile_MayLeaveTheOldSizeInItsEntry) {
  Walk([](const SHAPE& shape) {
    const BYTES content = ContentOf(FILE_IN_DIR, shape);
    return Resize(FILE_IN_DIR, 100, CONTENT::File(100, BYTES(content.begin(), content.begin() + 100)));
  });
}

TEST_P(FaultWalkOfChanges, ShrinkFileToNothing_MayLeaveItsEntryNamingAFreeCluster) {
  Walk([](const SHAPE&) { return Resize(FILE_IN_DIR, 0, CONTENT::File(0)); });
}

TEST_P(FaultWalkOfChanges, ShrinkFileInTheRoot_MayLoseItsClusters) {
  Walk([](const SHAPE&) {
    OPERATION op = Resize(ROOT_FILE, 0, CONTENT::File(0));
    op.HarmAfterCut |= LOST_CLUSTERS;
    return op;
  });
}

TEST_P(FaultWalkOfChanges, SizeInTheSameCluster_IsOldOrNew) {
  Walk([](const SHAPE& shape) {
    const unsigned int size = SizeOf(FILE_IN_DIR, shape) + 1;
    OPERATION op = Resize(FILE_IN_DIR, size, CONTENT::File(size, ContentOf(FILE_IN_DIR, shape)));
    op.HarmAfterCut = NO_HARM;
    op.HarmAfterShort = NO_HARM;
    return op;
  });
}

// The clusters change before the entry is looked for, and stay changed when it cannot be read.
TEST_P(FaultWalkOfChanges, GrowFileWhoseDirectoryCannotBeRead_HasMoreClustersThanBytes) {
  Walk([](const SHAPE& shape) {
    const unsigned int size = 5 * shape.ClusterBytes();
    OPERATION op = Resize(FILE_IN_DIR, size, CONTENT::File(size, ContentOf(FILE_IN_DIR, shape)));
    op.PoolBlocks = 4;
    const auto open = op.Prepare;
    op.Prepare = [=](SESSION& session) {
      open(session);
      for (const char* path : {KEEP, KEEP_LONG, OTHER}) Cache(path);
    };
    op.HarmAfterFailure = BROKEN_CHAIN;
    op.Transfers = 1;
    return op;
  });
}

TEST_P(FaultWalkOfChanges, ShrinkFileWhoseDirectoryCannotBeRead_HasFewerClustersThanBytes) {
  Walk([](const SHAPE& shape) {
    const BYTES content = ContentOf(FILE_IN_DIR, shape);
    OPERATION op = Resize(FILE_IN_DIR, 100, CONTENT::File(100, BYTES(content.begin(), content.begin() + 100)));
    op.PoolBlocks = 4;
    const auto open = op.Prepare;
    op.Prepare = [=](SESSION& session) {
      open(session);
      for (const char* path : {KEEP, KEEP_LONG, OTHER}) Cache(path);
    };
    op.HarmAfterFailure = BROKEN_CHAIN;
    op.Transfers = 1;
    return op;
  });
}

TEST_P(FaultWalkOfChanges, SetAttributesOfFileWhoseDirectoryMustBeRead_ChangesNothingElse) {
  Walk([](const SHAPE& shape) {
    OPERATION op;
    op.PoolBlocks = 4;
    op.Prepare = [](SESSION& session) {
      (void)Open(session, FILE_IN_DIR);
      PushOutOfThePool();
    };
    op.Run = [](SESSION& session) {
      WIN_FIND_DATA data;
      if (Fat_GetFileAttribute(session.Handles[0], &data) != 1) return false;
      data.dwFileAttributes = 0x21;
      return Fat_SetFileAttribute(session.Handles[0], &data) == 1;
    };
    op.New = {{FILE_IN_DIR, Kept(FILE_IN_DIR, shape)}};
    op.Transfers = 1;
    return op;
  });
}

// ---------------------------------------------------------------------------------------------- names

OPERATION Change(const std::string& from, const std::string& to, const CONTENT& content) {
  OPERATION op;
  op.New = {{to, content}};
  op.Paths = {from};
  op.From = from;
  op.To = to;
  return op;
}

OPERATION Rename(const std::string& from, const std::string& to, const CONTENT& content) {
  OPERATION op = Change(from, to, content);
  op.Run = [=](SESSION&) { return Fat_RenameFile(CPath(from), CPath(to)) == 1; };
  const std::size_t slash = from.rfind('\\');
  op.Written = {slash == std::string::npos ? "" : from.substr(0, slash)};
  // Both names are in one directory, which is written with one transfer. Half of it may hold one of them, or both.
  op.Allocations = 1;
  return op;
}

TEST_P(FaultWalkOfChanges, RenameFile_HasOneOfTheNames) {
  Walk([](const SHAPE& shape) {
    OPERATION op = Rename(FILE_IN_DIR, "DIR\\A longer name.txt", Kept(FILE_IN_DIR, shape));
    op.HarmAfterShort = NO_COPY | LOST_CLUSTERS;
    op.Transfers = 1;
    return op;
  });
}

TEST_P(FaultWalkOfChanges, RenameCachedFile_HasOneOfTheNames) {
  Walk([](const SHAPE& shape) {
    OPERATION op = Rename(FILE_IN_DIR, "DIR\\A longer name.txt", Kept(FILE_IN_DIR, shape));
    op.PoolBlocks = 4;
    op.Prepare = [](SESSION&) {
      Cache(FILE_IN_DIR);
      PushOutOfThePool();
    };
    op.HarmAfterShort = NO_COPY | LOST_CLUSTERS;
    op.Transfers = 1;
    op.Allocations = 0;  // the new record fits in beside those of the directory
    return op;
  });
}

TEST_P(FaultWalkOfChanges, RenameFileInTheRoot_HasOneOfTheNames) {
  Walk([](const SHAPE& shape) {
    OPERATION op = Rename(ROOT_FILE, "SHORT.DAT", Kept(ROOT_FILE, shape));
    if (shape.FatBits == 32) op.HarmAfterShort = TORN_DIRECTORY | TWO_COPIES;  // a fixed root is larger
    return op;
  });
}

TEST_P(FaultWalkOfChanges, RenameDirectory_HasOneOfTheNames) {
  Walk([](const SHAPE&) {
    OPERATION op = Rename(EMPTY_DIR, "DIR\\Another name", CONTENT::Directory());
    op.Transfers = 1;
    return op;
  });
}

TEST_P(FaultWalkOfChanges, RenameInAFullDirectory_HasOneOfTheNames) {
  Walk([](const SHAPE&) {
    OPERATION op = Rename("FULL\\OLD", "FULL\\A name that needs a longer run of slots",
                          CONTENT::File(20, CImageBuilder::Pattern(20, 3)));
    op.Build = [](CImageBuilder& builder) {
      const CImageBuilder::DIRECTORY full = builder.AddDir(CImageBuilder::Root(), "FULL");
      builder.AddFile(full, "OLD", CImageBuilder::Pattern(20, 3));
      FillDirectory(builder, full);
    };
    op.Paths.push_back("FULL");
    op.New["FULL"] = CONTENT::Directory();
    op.HarmAfterCut = RAW_DIRECTORY | TORN_DIRECTORY | TWO_COPIES | NO_COPY | LOST_CLUSTERS;  // in two transfers now
    op.HarmAfterShort = BROKEN_CHAIN;
    op.Transfers = 1;
    return op;
  });
}

OPERATION Move(const std::string& from, const char* directory, const CONTENT& content) {
  const std::string name = from.substr(from.rfind('\\') + 1);
  OPERATION op = Change(from, directory == nullptr ? name : std::string(directory) + "\\" + name, content);
  op.Run = [=](SESSION&) {
    if (directory == nullptr) return Fat_MoveFile(CPath(from), nullptr) == 1;
    return Fat_MoveFile(CPath(from), CPath(directory)) == 1;
  };
  const std::size_t slash = from.rfind('\\');
  op.Written = {slash == std::string::npos ? "" : from.substr(0, slash), directory == nullptr ? "" : directory};
  // Each directory is written on its own: both names may be there, or none.
  op.HarmAfterCut = TWO_COPIES | NO_COPY | LOST_CLUSTERS;
  return op;
}

TEST_P(FaultWalkOfChanges, MoveFile_IsInOneDirectoryOrBothOrNone) {
  Walk([](const SHAPE& shape) {
    OPERATION op = Move(FILE_IN_DIR, TARGET, Kept(FILE_IN_DIR, shape));
    op.Transfers = 2;
    op.Allocations = 10;
    return op;
  });
}

TEST_P(FaultWalkOfChanges, MoveCachedFile_IsInOneDirectoryOrBothOrNone) {
  Walk([](const SHAPE& shape) {
    OPERATION op = Move(FILE_IN_DIR, TARGET, Kept(FILE_IN_DIR, shape));
    op.Prepare = [](SESSION&) {
      Cache(FILE_IN_DIR);
      Cache(IN_TARGET);
      Cache(TARGET);
      PushOutOfThePool();
    };
    op.PoolBlocks = 4;
    op.Transfers = 2;
    return op;
  });
}

TEST_P(FaultWalkOfChanges, MoveFileIntoTheRoot_IsInOneDirectoryOrBothOrNone) {
  Walk([](const SHAPE& shape) {
    OPERATION op = Move(NEIGHBOUR, nullptr, Kept(NEIGHBOUR, shape));
    op.Transfers = 1;
    return op;
  });
}

TEST_P(FaultWalkOfChanges, MoveFileOutOfTheRoot_IsInOneDirectoryOrBothOrNone) {
  Walk([](const SHAPE& shape) {
    OPERATION op = Move(ROOT_FILE, TARGET, Kept(ROOT_FILE, shape));
    if (shape.FatBits == 32) op.HarmAfterShort = TORN_DIRECTORY;  // a fixed root is larger
    op.Transfers = 1;
    return op;
  });
}

OPERATION MoveSub(const SHAPE& shape) {
  OPERATION op = Move("DIR\\Sub", TARGET, CONTENT::Directory());
  const CONTENT deep = CONTENT::File(SizeOf(DEEP, shape), ContentOf(DEEP, shape));
  op.New["TARGET\\Sub\\deep.txt"] = deep;
  op.Paths.push_back(DEEP);
  op.AfterFailure = {op.New};  // the entries move first
  op.HarmAfterFailure = OLD_DOTDOT;
  op.HarmAfterCut |= OLD_DOTDOT;
  op.HarmAfterShort = TORN_DIRECTORY;
  return op;
}

TEST_P(FaultWalkOfChanges, MoveDirectory_MayKeepItsOldDotDot) {
  Walk([](const SHAPE& shape) {
    OPERATION op = MoveSub(shape);
    op.Transfers = 4;
    return op;
  });
}

TEST_P(FaultWalkOfChanges, MoveCachedDirectory_MayKeepItsOldDotDot) {
  Walk([](const SHAPE& shape) {
    OPERATION op = MoveSub(shape);
    op.Prepare = [](SESSION&) {
      Cache("DIR\\Sub");
      Cache(TARGET);
      PushOutOfThePool();
    };
    op.PoolBlocks = 5;
    op.Transfers = 1;
    return op;
  });
}

OPERATION Delete(const std::string& path) {
  OPERATION op;
  op.Run = [=](SESSION&) { return Fat_DeleteFile(CPath(path)) == 1; };
  op.Paths = {path};
  const std::size_t slash = path.rfind('\\');
  op.Written = {slash == std::string::npos ? "" : path.substr(0, slash)};
  op.HarmAfterCut = BROKEN_CHAIN;  // the FAT is written before the directory
  op.HarmAfterShort = LOST_CLUSTERS;
  return op;
}

TEST_P(FaultWalkOfChanges, DeleteFile_MayLeaveItsEntryNamingFreeClusters) {
  Walk([](const SHAPE&) {
    OPERATION op = Delete(FILE_IN_DIR);
    op.Transfers = 2;
    op.Allocations = 5;
    return op;
  });
}

TEST_P(FaultWalkOfChanges, DeleteCachedFile_MayLeaveItsEntryNamingFreeClusters) {
  Walk([](const SHAPE&) {
    OPERATION op = Delete(FILE_IN_DIR);
    op.Prepare = [](SESSION&) {
      Cache(FILE_IN_DIR);
      PushOutOfThePool();
    };
    op.PoolBlocks = 4;
    op.Transfers = 1;
    return op;
  });
}

TEST_P(FaultWalkOfChanges, DeleteFileInTheRoot_MayLoseItsClusters) {
  Walk([](const SHAPE& shape) {
    OPERATION op = Delete(ROOT_FILE);
    op.HarmAfterCut |= LOST_CLUSTERS;                             // the root is written before the FAT
    if (shape.FatBits == 32) op.HarmAfterShort = TORN_DIRECTORY;  // a fixed root is larger
    op.Transfers = 1;
    return op;
  });
}

TEST_P(FaultWalkOfChanges, DeleteDirectory_MayLeaveItsEntryNamingAFreeCluster) {
  Walk([](const SHAPE&) {
    OPERATION op = Delete(EMPTY_DIR);
    op.Transfers = 2;
    op.Allocations = 5;
    return op;
  });
}

INSTANTIATE_TEST_SUITE_P(Widths, FaultWalkOfChanges, ::testing::Values(12u, 16u, 32u), WidthName);

}  // namespace
