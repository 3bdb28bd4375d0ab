/// @file VolumeFaultTest.cpp
/// Every transfer of every kind of call fails, once or for good: nothing crashes, somebody is told, and files that the
/// call was not about are intact. What a call leaves of its own file is not looked at: docs/durability.md says it.

#include <functional>

#include "VolumeFixture.h"

using fatlib::Access;
using fatlib::File;
using fatlib::Path;
using fatlib::Volume;

namespace {

struct CALL {
  const char* name;
  std::function<std::error_code(Volume*)> run;
};

const std::string TEXT(20000, 'n');

const CALL CALLS[] = {
    {"CreateFile",
     [](Volume* volume) {
       return volume->CreateFile("/D/new name of a file.txt", 9000, File::Fill::Zeros, 0, nullptr);
     }},
    {"CreateDirectory", [](Volume* volume) { return volume->CreateDirectory("/D/new directory"); }},
    {"WriteAll", [](Volume* volume) { return volume->WriteAll("/D/OWN", TEXT.data(), TEXT.size()); }},
    {"Resize",
     [](Volume* volume) {
       File file;
       const std::error_code error = volume->OpenFile("/D/OWN", Access::ReadWrite, &file);
       return error ? error : file.Resize(30000);
     }},
    {"ReadAll",
     [](Volume* volume) {
       std::vector<unsigned char> bytes;
       return volume->ReadAll("/D/OWN", &bytes);
     }},
    {"List",
     [](Volume* volume) {
       fatlib::Directory directory;
       return volume->List("/D/SUB", &directory);
     }},
    {"Remove", [](Volume* volume) { return volume->Remove("/D/OWN"); }},
    {"RemoveAll", [](Volume* volume) { return volume->RemoveAll("/D/SUB"); }},
    {"Rename", [](Volume* volume) { return volume->Rename("/D/OWN", "/D/another name for it"); }},
    {"RenameOfCaseOnly", [](Volume* volume) { return volume->Rename("/D/own long name", "/D/OWN LONG NAME"); }},
    {"MoveOfADirectoryIntoTheRoot", [](Volume* volume) { return volume->Rename("/D/SUB", "/sub, moved"); }},
    {"Replace", [](Volume* volume) { return volume->Rename("/D/OWN", "/D/SUB/OTHER", true); }},
    {"SetAttributes", [](Volume* volume) { return volume->SetAttributes("/D/OWN", fatlib::HIDDEN); }},
    {"SetTimes", [](Volume* volume) { return volume->SetTimes("/D/OWN", {}); }},
    {"SetLabel", [](Volume* volume) { return volume->SetLabel(u"NEW"); }},
    {"GrowthOfADirectoryWithGaps",
     [](Volume* volume) { return volume->WriteAll("/D/a name of quite some slots, more than the gaps have", "x", 1); }},
    {"Clusters",
     [](Volume* volume) {
       std::vector<fatlib::Extent> extents;
       return volume->Clusters("/D/OWN", &extents);
     }},
    {"FreeClusters",
     [](Volume* volume) {
       std::uint32_t clusters;
       return volume->FreeClusters(&clusters);
     }},
};

struct FAULT_CASE {
  int bits;
  std::size_t call;
};

std::vector<FAULT_CASE> AllCases() {
  std::vector<FAULT_CASE> cases;
  for (const int bits : {12, 32}) {
    for (std::size_t call = 0; call < std::size(CALLS); ++call) {
      if (bits == 12 || call % 5 == 0) cases.push_back({bits, call});
    }
  }
  return cases;
}

std::vector<unsigned char> Prepared(int bits) {
  CTestVolume test({bits, std::uint64_t{bits == 32 ? 34u : 1u} << 20, 512, 0});
  EXPECT_FALSE(test.volume.CreateDirectories("/D/SUB"));
  EXPECT_FALSE(test.volume.CreateDirectories("/ELSE/WHERE"));
  EXPECT_FALSE(test.Write("/ELSE/WHERE/untouched", "untouched"));
  EXPECT_FALSE(test.Write("/untouched too", "too"));
  EXPECT_FALSE(test.Write("/D/OWN", std::string(5000, 'o')));
  EXPECT_FALSE(test.Write("/D/own long name", "own"));
  EXPECT_FALSE(test.Write("/D/SUB/OTHER", "other"));
  for (unsigned int i = 0; i < 20; ++i) EXPECT_FALSE(test.Write("/D/GAP" + std::to_string(i), ""));
  for (unsigned int i = 0; i < 20; i += 2) EXPECT_FALSE(test.volume.Remove("/D/GAP" + std::to_string(i)));
  test.CloseAndCheck();
  return test.medium->bytes;
}

void ExpectOthersUntouched(Volume* volume, const std::string& text) {
  std::vector<unsigned char> bytes;
  EXPECT_FALSE(volume->ReadAll("/ELSE/WHERE/untouched", &bytes)) << text;
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "untouched") << text;
  EXPECT_FALSE(volume->ReadAll("/untouched too", &bytes)) << text;
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "too") << text;
}

class VolumeFault : public testing::TestWithParam<FAULT_CASE> {};

}  // namespace

TEST_P(VolumeFault, EveryTransfer_IsReportedAndHarmsNoOtherFile) {
  auto medium = std::make_shared<TEST_MEDIUM>();
  medium->bytes = Prepared(GetParam().bits);
  medium->keepOld = true;
  const CALL& call = CALLS[GetParam().call];
  const CTestVolume keepsTheLibraryUp({12, std::uint64_t{1} << 20, 512, 0});
  for (const bool forGood : {false, true}) {
    bool fired = true;
    for (std::uint64_t transfer = 1; fired; ++transfer) {
      const std::string text = std::string(call.name) + ", transfer " + std::to_string(transfer);
      Volume volume;
      ASSERT_FALSE(volume.Open(std::make_unique<CTestDevice>(medium)));
      medium->FailAfter(transfer, forGood);
      const std::error_code called = call.run(&volume);
      const std::error_code synced = volume.Sync();
      fired = medium->fired;
      medium->Heal();
      if (!called && !synced && fired) {
        // A read that was made again: everything is as if nothing had been.
        EXPECT_FALSE(medium->firedOnWrite || forGood) << text;
        EXPECT_FALSE(volume.Close()) << text;
        EXPECT_EQ(FsckFindings(medium->bytes), "") << text;
        ASSERT_FALSE(volume.Open(std::make_unique<CTestDevice>(medium)));
      }
      EXPECT_FALSE(!fired && (called || synced)) << text << ": " << called.message() << ", " << synced.message();
      ExpectOthersUntouched(&volume, text);
      (void)volume.Close();
      ASSERT_FALSE(volume.Open(std::make_unique<CTestDevice>(medium)));
      ExpectOthersUntouched(&volume, text);
      (void)volume.Close();
      medium->PutBack();
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Calls, VolumeFault, testing::ValuesIn(AllCases()),
                         [](const testing::TestParamInfo<FAULT_CASE>& one) {
                           return CALLS[one.param.call].name + ("Fat" + std::to_string(one.param.bits));
                         });
