/// @file ReadWalkTest.cpp
/// Mounting, opening, reading and listing through every fault. None of it may change a byte of the medium but those
/// that every unmount writes, and what failed succeeds when tried again.

#include "faults/FaultWalk.h"

namespace {

using namespace faultwalk;

constexpr unsigned int BLOCK = CFatFile::BLOCK_BYTES;

class FaultWalkOfReads : public FaultWalk {};

TEST_P(FaultWalkOfReads, Mount_ReleasesEverythingAndCanBeTriedAgain) {
  for (const SHAPE& shape : Shapes(GetParam())) WalkMount(shape);
}

OPERATION Reading(unsigned int transfers, const std::function<bool(SESSION&)>& run) {
  OPERATION op;
  op.ReadsOnly = true;
  op.Run = run;
  op.Transfers = transfers;
  op.UnmountTransfers = 2;  // the copy of the FAT
  return op;
}

TEST_P(FaultWalkOfReads, OpenFile_ChangesNothing) {
  Walk([](const SHAPE&) {
    OPERATION op = Reading(3, [](SESSION&) { return Exists(DEEP); });
    op.Allocations = 10;
    return op;
  });
}

TEST_P(FaultWalkOfReads, OpenDirectory_ChangesNothing) {
  Walk([](const SHAPE&) {
    return Reading(2, [](SESSION&) {
      const int handle = Fat_OpenFile(CPath("DIR\\Sub"));
      if (handle < 0) return false;
      EXPECT_EQ(Fat_IsDir(handle), 1u);
      EXPECT_EQ(Fat_CloseFile(handle), 1u);
      return true;
    });
  });
}

TEST_P(FaultWalkOfReads, OpenInACachedDirectory_ChangesNothing) {
  Walk([](const SHAPE&) {
    OPERATION op = Reading(1, [](SESSION&) { return Exists(NEIGHBOUR); });
    op.Prepare = [](SESSION&) { Cache("DIR"); };
    return op;
  });
}

TEST_P(FaultWalkOfReads, OpenMissingFile_FailsAndChangesNothing) {
  Walk([](const SHAPE&) {
    return Reading(1, [](SESSION&) {
      const bool readable = Exists("DIR");  // whether the directory can be read decides
      EXPECT_FALSE(Exists("DIR\\There is none"));
      return readable;
    });
  });
}

TEST_P(FaultWalkOfReads, ReadWhatIsCached_MakesNoTransfer) {
  Walk([](const SHAPE& shape) {
    OPERATION op = Reading(0, [shape](SESSION& session) {
      const bool read = Read(session, ContentOf(FILE_IN_DIR, shape), 3, 2 * shape.ClusterBytes());
      EXPECT_TRUE(read);
      EXPECT_EQ(session.Medium.Transfers(), 0u);
      return read;
    });
    op.Prepare = [](SESSION& session) { (void)Open(session, FILE_IN_DIR); };
    return op;
  });
}

TEST_P(FaultWalkOfReads, AskForSizeAttributesAndOffset_MakesNoTransfer) {
  Walk([](const SHAPE& shape) {
    OPERATION op = Reading(0, [shape](SESSION& session) {
      const int handle = session.Handles[0];
      unsigned int value = 0;
      WIN_FIND_DATA data;
      EXPECT_EQ(Fat_GetFileSize(handle, &value), 1u);
      EXPECT_EQ(value, SizeOf(FILE_IN_DIR, shape));
      EXPECT_EQ(Fat_SetFileOffset(handle, 5, 0), 1u);
      EXPECT_EQ(Fat_GetFileOffset(handle, &value), 1u);
      EXPECT_EQ(value, 5u);
      EXPECT_EQ(Fat_GetFileAttribute(handle, &data), 1u);
      EXPECT_EQ(data.dwFileAttributes, 0x20u);
      EXPECT_EQ(Fat_IsDir(handle), 0u);
      EXPECT_EQ(session.Medium.Transfers(), 0u);
      return true;
    });
    op.Prepare = [](SESSION& session) { (void)Open(session, FILE_IN_DIR); };
    return op;
  });
}

// Reads from a file of two blocks and a bit, of which only the first is cached.
OPERATION ReadLarge(const SHAPE& shape, const std::function<bool(SESSION&, const BYTES&)>& read) {
  const BYTES content = CImageBuilder::Pattern(2 * BLOCK + 1000, 8);
  OPERATION op = Reading(1, [=](SESSION& session) { return read(session, content); });
  op.Build = [=](CImageBuilder& builder) {
    const unsigned int clusters =
        (static_cast<unsigned int>(content.size()) + shape.ClusterBytes() - 1) / shape.ClusterBytes();
    std::vector<std::uint32_t> chain = builder.Allocate(clusters - 1, 140);
    chain.push_back(shape.Clusters - 20);
    builder.AddFile(CImageBuilder::Root(), "LARGE.BIN", content, chain);
  };
  op.Prepare = [](SESSION& session) {
    // Opening caches blocks as long as no slot starts with a zero byte; these patterns have one in the first block.
    session.Handles.push_back(Fat_OpenFile(CPath("LARGE.BIN")));
  };
  return op;
}

TEST_P(FaultWalkOfReads, ReadUncachedPartOfABlock_FailsOrDeliversTheBytes) {
  Walk(
      [](const SHAPE& shape) {
        return ReadLarge(
            shape, [](SESSION& session, const BYTES& content) { return Read(session, content, BLOCK + 77, 3000); });
      },
      3 * BLOCK);
}

TEST_P(FaultWalkOfReads, ReadUncachedBlocks_FailsOrDeliversTheBytes) {
  Walk(
      [](const SHAPE& shape) {
        return ReadLarge(
            shape, [](SESSION& session, const BYTES& content) { return Read(session, content, BLOCK, BLOCK + 1000); });
      },
      3 * BLOCK);
}

TEST_P(FaultWalkOfReads, ReadUncachedBlocksToAnOddAddress_FailsOrDeliversTheBytes) {
  Walk(
      [](const SHAPE& shape) {
        OPERATION op = ReadLarge(shape, [](SESSION& session, const BYTES& content) {
          return Read(session, content, BLOCK, BLOCK + 1000, 1);
        });
        op.Allocations = 1;
        return op;
      },
      3 * BLOCK);
}

TEST_P(FaultWalkOfReads, ListDirectory_FailsOrNamesEveryEntry) {
  Walk([](const SHAPE&) {
    OPERATION op = Reading(1, [](SESSION& session) {
      WIN_FIND_DATA data;
      const int search = Fat_FindFirstFile(CPath("DIR"), &data);
      if (search < 0) return false;
      unsigned int entries = 1;
      while (Fat_FindNextFile(search, &data) == 1) ++entries;
      if (session.Exact) {
        EXPECT_EQ(entries, 6u);  // with "." and ".."
      }
      EXPECT_EQ(Fat_CloseFindHandle(search), 1u);
      return true;
    });
    op.Allocations = 5;
    return op;
  });
}

TEST_P(FaultWalkOfReads, ListDirectoryOfTwoFragments_FailsOrNamesEveryEntry) {
  Walk([](const SHAPE&) {
    OPERATION op = Reading(2, [](SESSION& session) {
      const std::vector<LISTED> entries = List("MANY");
      if (session.Exact && !entries.empty()) {
        EXPECT_EQ(entries.back().Name(), "LAST.TXT");
      }
      return !entries.empty();
    });
    op.Build = [](CImageBuilder& builder) {
      const CImageBuilder::DIRECTORY many = builder.AddDir(CImageBuilder::Root(), "MANY", {150, 170});
      builder.SetNextSlot(many, 2);
      builder.AddFile(many, "FIRST.TXT");
      while (builder.NextSlot(many) < builder.SlotCount(many) / 2 + 1) {
        builder.AddFile(many, "N" + std::to_string(builder.NextSlot(many)) + std::string(240, 'x'));
      }
      builder.AddFile(many, "LAST.TXT");
    };
    return op;
  });
}

INSTANTIATE_TEST_SUITE_P(Widths, FaultWalkOfReads, ::testing::Values(12u, 16u, 32u), WidthName);

}  // namespace
