/// @file SameTransfersTest.cpp
/// The sequence of transfers depends on the volume and the calls alone: not on the run, not on what a back-end is or
/// returns, not on other volumes.

#include "support/Process.h"
#include "transfers/TransferFrame.h"

namespace transfertest {
namespace {

/// A back-end of the library that notes what it is asked for.
template <class BACK_END>
class CTraced final : public BACK_END {
 public:
  explicit CTraced(TRANSFERS& trace) : m_pTrace(&trace) {}

  void HookIoFunctions() override {
    BACK_END::HookIoFunctions();
    this->m_pfnReadBytes = &Note<IO_KIND::ReadBytes, &CTraced::_ReadBytes>;
    this->m_pfnWriteBytes = &Note<IO_KIND::WriteBytes, &CTraced::_WriteBytes>;
    this->m_pfnReadBytesAligned = &Note<IO_KIND::ReadBytesAligned, &CTraced::_ReadBytesAligned>;
    this->m_pfnWriteBytesAligned = &Note<IO_KIND::WriteBytesAligned, &CTraced::_WriteBytesAligned>;
    this->m_pfnReadSectors = &Note<IO_KIND::ReadSectors, &CTraced::_ReadSectors>;
    this->m_pfnWriteSectors = &Note<IO_KIND::WriteSectors, &CTraced::_WriteSectors>;
  }

 private:
  using IO = int (*)(CVolumeStorage*, unsigned char*, long long, unsigned int);

  template <IO_KIND KIND, IO PERFORM>
  static int Note(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
    CTraced* self = static_cast<CTraced*>(storage);
    const bool sectors = KIND == IO_KIND::ReadSectors || KIND == IO_KIND::WriteSectors;
    const unsigned int unit = sectors ? self->m_nBytesPerSector : 1;
    self->m_pTrace->push_back({KIND, position * unit, static_cast<unsigned long long>(count) * unit, 0});
    return PERFORM(storage, buffer, position, count);
  }

  TRANSFERS* m_pTrace;  // owned by the test
};

class TransfersAreTheSame : public TransferWidths {
 protected:
  void SetUp() override {
    TransferWidths::SetUp();
    CImageBuilder& volume = Build(Geometry(Bits()));
    const CImageBuilder::DIRECTORY d = volume.AddDir(volume.Root(), "D", {100, 120});
    volume.AddFile(volume.Root(), "F", CImageBuilder::Pattern(3000, 3), {10, 11, 13, 20, 21, 22});
    volume.AddFile(d, "G", CImageBuilder::Pattern(20000, 4));
    for (unsigned int i = 0; i < CACHED_OBJECTS + 10; ++i) volume.AddFile(volume.Root(), "E" + std::to_string(i));
  }

  /// A bit of everything.
  void Work() {
    const int f = Open("F");
    Get(f, 100, 2000);
    Put(f, 50, 700);
    Resize(f, 9000);
    Put(f, 2900, 6100);
    EXPECT_EQ(List("D").size(), 1u);
    Close(Create("D\\S\\NEW", 5000));
    for (unsigned int i = 0; i < 40; ++i) Close(Create("D\\S\\N" + std::to_string(i), i * 100));
    EXPECT_EQ(Fat_RenameFile(CPath("D\\G"), CPath("H")), 1u);
    EXPECT_EQ(Fat_MoveFile(CPath("D\\H"), CPath("D\\S")), 1u);
    EXPECT_EQ(Fat_MoveFile(CPath("D\\S"), nullptr), 1u);
    EXPECT_EQ(Fat_DeleteFile(CPath("D\\S\\N7")), 1u);  // the old path names the objects in memory
    for (unsigned int i = 0; i < CACHED_OBJECTS + 10; ++i) OpenAndClose("E" + std::to_string(i));
    const int h = Open("S\\H");
    Get(h, 0, 20000);
    Resize(h, 10);
    Close(h);
    EXPECT_EQ(Fat_OpenFile(CPath("S\\MISSING")), -1);
    EXPECT_EQ(Fat_DeleteFile(CPath("D")), 1u);
    Close(f);
  }

  /// Mounts a storage, works, unmounts, and frees the storage.
  template <class STORAGE>
  void Run(STORAGE* storage, void* parameter) {
    CFatFileSystem* fileSystem = Fat_Mount(storage, parameter);
    ASSERT_NE(fileSystem, nullptr);
    Work();
    EXPECT_EQ(Fat_Unmount(fileSystem), 1u);
    delete storage;
  }
  TRANSFERS RunOnMedium(CMedium& medium) {
    Run(new CFaultStorage(medium), nullptr);
    return medium.Trace();
  }

  CFixedClock m_Clock{1700000000};
};
INSTANTIATE_TEST_SUITE_P(Widths, TransfersAreTheSame, ::testing::Values(12u, 16u, 32u), WidthName);

TEST_P(TransfersAreTheSame, OnEveryRun) {
  CMedium first(Volume().Image());
  const TRANSFERS expected = RunOnMedium(first);
  EXPECT_GT(expected.size(), 20u);
  for (unsigned int run = 0; run < 3; ++run) {
    CMedium medium(Volume().Image());
    EXPECT_TRUE(Same(RunOnMedium(medium), expected)) << run;
    EXPECT_TRUE(medium.Image() == first.Image()) << run;
  }
}

TEST_P(TransfersAreTheSame, AfterTheLibraryWasStoppedAndStarted) {
  CMedium first(Volume().Image());
  const TRANSFERS expected = RunOnMedium(first);
  EXPECT_EQ(Fat_LibTerminate(), 1u);
  Fat_LibInitialize();
  CMedium second(Volume().Image());
  EXPECT_TRUE(Same(RunOnMedium(second), expected));
}

TEST_P(TransfersAreTheSame, WhetherTheBackEndReturnsCountsOrZero) {
  CMedium counting(Volume().Image());
  const TRANSFERS expected = RunOnMedium(counting);
  CMedium silent(Volume().Image());
  silent.ReturnCounts(false);
  EXPECT_TRUE(Same(RunOnMedium(silent), expected));
  EXPECT_TRUE(silent.Image() == counting.Image());
}

TEST_P(TransfersAreTheSame, OnAnImageInMemory) {
  CMedium medium(Volume().Image());
  const TRANSFERS expected = RunOnMedium(medium);
  TRANSFERS made;
  std::vector<unsigned char> image = Volume().Image().ToVector();
  Run(new CTraced<CFatMemory>(made), image.data());
  EXPECT_TRUE(Same(made, expected));
  EXPECT_TRUE(CDiskImage(image) == medium.Image());
}

TEST_P(TransfersAreTheSame, OnAnImageFile) {
  CMedium medium(Volume().Image());
  const TRANSFERS expected = RunOnMedium(medium);
  TRANSFERS made;
  std::string path = TempDir() / "image";
  Volume().Image().ToFile(path);
  Run(new CTraced<CFatPartition>(made), path.data());
  EXPECT_TRUE(Same(made, expected));
  EXPECT_TRUE(CDiskImage::FromFile(path) == medium.Image());
}

TEST_P(TransfersAreTheSame, WhileAnotherVolumeIsMounted) {
  CMedium alone(Volume().Image());
  const TRANSFERS expected = RunOnMedium(alone);
  CMedium other(Volume().Image());
  CFatFileSystem* idle = MountMedium(other);
  ASSERT_NE(idle, nullptr);
  OpenAndClose("F");
  other.ClearTrace();
  CMedium medium(Volume().Image());
  EXPECT_TRUE(Same(RunOnMedium(medium), expected));
  EXPECT_TRUE(Same(other.Trace(), {}));
  EXPECT_TRUE(Unmount(idle));
}

}  // namespace
}  // namespace transfertest
