/// @file CacheWalkTest.cpp
/// What the caches write when they must make room, when an object goes and at unmount, through every fault. A block is
/// not written twice: when its write fails, the changes in it are gone, and whoever needed the room is told.

#include "faults/FaultWalk.h"

namespace {

using namespace faultwalk;

class FaultWalkOfCaches : public FaultWalk {
 protected:
  // Changes the file in DIR from its first byte to its last. Its two fragments are written with two transfers or three.
  static OPERATION Dirty(const SHAPE& shape) {
    OPERATION op;
    const BYTES bytes = CImageBuilder::Pattern(SizeOf(FILE_IN_DIR, shape), 77);
    op.Prepare = [=](SESSION&) {
      const int handle = Fat_OpenFile(CPath(FILE_IN_DIR));
      EXPECT_TRUE(Write(handle, 0, bytes));
      EXPECT_EQ(Fat_CloseFile(handle), 1u);
    };
    op.New = {{FILE_IN_DIR, CONTENT::File(SizeOf(FILE_IN_DIR, shape), bytes)}};
    op.HarmAfterFailure = MIXED_CONTENT;
    op.HarmAfterCut = MIXED_CONTENT;
    op.UnmountTransfers = 2;
    return op;
  }
};

TEST_P(FaultWalkOfCaches, ReadThatMakesRoom_FailsForTheFileThatWasWritten) {
  Walk([](const SHAPE& shape) {
    OPERATION op = Dirty(shape);
    op.PoolBlocks = 5;
    op.LosesBlocks = true;
    op.Run = [](SESSION&) {
      // The root, DIR and the file are in the pool. One of these puts the file out.
      bool read = true;
      for (const char* path : {KEEP, KEEP_LONG, IN_TARGET}) read = Exists(path) && read;
      return read;
    };
    op.Transfers = 5;
    return op;
  });
}

// 160 objects are kept; the one used longest ago goes.
OPERATION ManyObjects(OPERATION op) {
  constexpr unsigned int MANY = 160;
  const auto path = [](unsigned int i) { return "MANY\\M" + std::to_string(i); };
  op.Build = [](CImageBuilder& builder) {
    const CImageBuilder::DIRECTORY many = builder.AddDir(CImageBuilder::Root(), "MANY");
    for (unsigned int i = 0; i < MANY; ++i) builder.AddFile(many, "M" + std::to_string(i));
  };
  const auto prepare = op.Prepare;
  op.Prepare = [=](SESSION& session) {
    prepare(session);
    for (unsigned int i = 0; i < MANY - 3; ++i) EXPECT_EQ(Fat_CloseFile(Fat_OpenFile(CPath(path(i)))), 1u);
  };
  // DIR goes first, then the file in it.
  op.Run = [=](SESSION& session) {
    for (const unsigned int i : {MANY - 3, MANY - 2}) {
      const int handle = Fat_OpenFile(CPath(path(i)));
      if (handle < 0) return false;
      EXPECT_EQ(Fat_CloseFile(handle), 1u);
    }
    EXPECT_GE(session.Medium.Writes(), 1u);
    return true;
  };
  op.Swallowed = [](const IO_RECORD& transfer, PART) { return !transfer.Read(); };
  op.Transfers = 2;
  return op;
}

TEST_P(FaultWalkOfCaches, OpenThatDropsAnObject_SucceedsWhateverBecomesOfIt) {
  Walk([](const SHAPE& shape) { return ManyObjects(Dirty(shape)); });
}

TEST_P(FaultWalkOfCaches, CloseOfADroppedObject_SucceedsWhateverBecomesOfIt) {
  Walk([](const SHAPE& shape) {
    OPERATION op = Dirty(shape);
    const BYTES bytes = op.New[FILE_IN_DIR].Known;
    op.Prepare = [=](SESSION& session) {
      const int handle = Fat_OpenFile(CPath(FILE_IN_DIR));
      EXPECT_TRUE(Write(handle, 0, bytes));
      session.Searches.push_back(handle);  // a place to keep it: the operation closes it
    };
    op = ManyObjects(op);
    const auto prepare = op.Prepare;
    op.Prepare = [=](SESSION& session) {
      prepare(session);
      for (const char* path : {"MANY\\M157", "MANY\\M158", "MANY\\M159"}) Cache(path);
    };
    op.Run = [](SESSION& session) {
      const int handle = session.Searches.front();
      session.Searches.clear();
      const bool closed = Fat_CloseFile(handle) == 1;
      EXPECT_GE(session.Medium.Writes(), 1u);
      return closed;
    };
    return op;
  });
}

// The order is: FSInfo, the root directory, the FAT, its copy, then files and directories, the longest unused one
// first.
TEST_P(FaultWalkOfCaches, UnmountOfEverythingChanged_WritesWhatItCan) {
  Walk([](const SHAPE& shape) {
    OPERATION op = Dirty(shape);
    const BYTES content = CImageBuilder::Pattern(shape.ClusterBytes() + 5, 31);
    const auto prepare = op.Prepare;
    const std::string inRoot = "A new file in the root.bin";
    const std::string inTarget = "TARGET\\A new file in a directory.bin";
    const std::string directory = "DIR\\A new directory";
    op.Prepare = [=](SESSION& session) {
      prepare(session);
      EXPECT_TRUE(WritePath(inRoot, content));
      EXPECT_TRUE(WritePath(inTarget, content));
      EXPECT_EQ(Fat_CreateDir(CPath(directory), 0), 1u);
      EXPECT_EQ(Fat_DeleteFile(CPath(ROOT_FILE)), 1u);
    };
    op.Run = [](SESSION&) { return true; };
    const CONTENT file = CONTENT::File(shape.ClusterBytes() + 5, content);
    op.New[inRoot] = file;
    op.New[inTarget] = file;
    op.New[directory] = CONTENT::Directory();
    op.Paths = {ROOT_FILE};
    // Clusters of a new file that could not be written hold what the medium held.
    const CONTENT unwritten = CONTENT::File(shape.ClusterBytes() + 5);
    op.AfterFailure = {{{inRoot, unwritten}, {inTarget, unwritten}}};
    op.Written = {"", "TARGET", "DIR"};
    op.HarmAfterCut |= LOST_CLUSTERS | BROKEN_CHAIN | RAW_DIRECTORY;
    if (shape.FatBits == 32) op.HarmAfterShort = TORN_DIRECTORY;  // a fixed root is larger
    op.MemoryGoneAtUnmount = true;
    op.UnmountTransfers = 10;
    return op;
  });
}

INSTANTIATE_TEST_SUITE_P(Widths, FaultWalkOfCaches, ::testing::Values(12u, 16u, 32u), WidthName);

// ---------------------------------------------------------------------------------------------- a FAT of many blocks

// Changes of the FAT wait until they lie in four of its blocks of 256 KiB; then they are written, in the middle of an
// operation. What could not be written is tried again.
class FaultWalkOfALargeFat : public FaultWalk {
 protected:
  static constexpr SHAPE LARGE = {32, 2, 512, 1, 330000};
  static constexpr std::uint32_t SPREAD[] = {70000, 140000, 200000, 270000};  // each in a block of its own

  // A file with a cluster in each of the first five blocks.
  static OPERATION OnSpreadFile() {
    OPERATION op;
    op.Build = [](CImageBuilder& builder) {
      const CImageBuilder::DIRECTORY directory = builder.AddDir(CImageBuilder::Root(), "SPREAD");
      builder.AddFile(directory, "A spread file.bin", CImageBuilder::Pattern(5 * 512, 4),
                      {150, SPREAD[0], SPREAD[1], SPREAD[2], SPREAD[3]});
    };
    op.Paths = {"SPREAD\\A spread file.bin"};
    op.Written = {"SPREAD"};
    op.HarmAfterCut = LOST_CLUSTERS | BROKEN_CHAIN;
    op.HarmAfterShort = TORN_DIRECTORY;
    return op;
  }
};

TEST_P(FaultWalkOfALargeFat, DeleteSpreadFile_SucceedsWhateverBecomesOfItsClusters) {
  OPERATION op = OnSpreadFile();
  op.Run = [](SESSION&) { return Fat_DeleteFile(CPath("SPREAD\\A spread file.bin")) == 1; };
  op.Swallowed = [](const IO_RECORD& transfer, PART part) { return !transfer.Read() && part == PART::FirstFat; };
  op.Transfers = 10;
  WalkShape(LARGE, op);
}

TEST_P(FaultWalkOfALargeFat, ShrinkSpreadFile_FailsWithSomeClustersFreed) {
  OPERATION op = OnSpreadFile();
  op.Prepare = [](SESSION& session) { (void)Open(session, "SPREAD\\A spread file.bin"); };
  op.Run = [](SESSION& session) { return Fat_SetFileSize(session.Handles[0], 0) == 1; };
  op.New = {{"SPREAD\\A spread file.bin", CONTENT::File(0)}};
  op.HarmAfterFailure = BROKEN_CHAIN | LOST_CLUSTERS;
  op.Transfers = 4;
  WalkShape(LARGE, op);
}

TEST_P(FaultWalkOfALargeFat, GrowFileOverManyBlocks_FailsWithTheChainHalfLinked) {
  OPERATION op;
  op.Build = [](CImageBuilder& builder) {
    // No other cluster is free.
    for (std::uint32_t cluster = 2; cluster < LARGE.Clusters + 2; ++cluster) {
      if (builder.FatEntry(cluster) == 0) builder.SetFatEntry(cluster, 0x0FFFFFF7);
    }
    for (const std::uint32_t cluster : SPREAD) builder.SetFatEntry(cluster, 0);
  };
  const unsigned int size = SizeOf(FILE_IN_DIR, LARGE) + 4 * 512;
  op.Prepare = [](SESSION& session) { (void)Open(session, FILE_IN_DIR); };
  op.Run = [=](SESSION& session) { return Fat_SetFileSize(session.Handles[0], size) == 1; };
  op.New = {{FILE_IN_DIR, CONTENT::File(size, ContentOf(FILE_IN_DIR, LARGE))}};
  op.HarmAfterFailure = BROKEN_CHAIN | LOST_CLUSTERS;
  op.HarmAfterCut = BROKEN_CHAIN | LOST_CLUSTERS;
  op.Transfers = 4;
  WalkShape(LARGE, op);
}

INSTANTIATE_TEST_SUITE_P(Widths, FaultWalkOfALargeFat, ::testing::Values(32u), WidthName);

}  // namespace
