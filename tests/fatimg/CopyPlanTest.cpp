/// @file CopyPlanTest.cpp

#include <fatlib/Error.h>
#include <fatlib/Text.h>
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "CopyPlan.h"

namespace fatimg {
namespace {

/// A destination that takes what a test says, in units of 100 bytes; each directory takes one.
class FakeTarget : public CopyTarget {
 public:
  std::map<std::string, Existing> there;
  std::set<std::string> full;  // directories
  std::uint64_t free = 1000;

  void BeginPlan(Count) override {}
  std::string Shown(const fatlib::Path& relative) const override { return "img:" + relative.ToUtf8(); }
  std::u16string Key(const std::u16string& name) const override { return fatlib::UpCase(name); }
  std::error_code CheckPath(const fatlib::Path& relative) const override { return relative.Check(); }
  std::uint64_t MaxFileBytes() const override { return 5000; }
  std::error_code Look(const fatlib::Path& relative, bool* exists, Existing* existing) override {
    const auto found = there.find(relative.ToUtf8());
    *exists = found != there.end();
    if (*exists) *existing = found->second;
    return {};
  }
  std::uint32_t UnitBytes() const override { return 100; }
  std::error_code FreeUnits(std::uint64_t* units) override {
    *units = free;
    return {};
  }
  std::error_code PlanEntry(const fatlib::Path& relative, bool directory, std::uint64_t* units) override {
    if (full.count(relative.Parent().ToUtf8()) != 0) return fatlib::Status::DiskFull;
    *units = directory ? 1 : 0;
    return {};
  }
  std::error_code MakeDirectory(const fatlib::Path&, std::uint8_t) override { return fatlib::Status::Refused; }
  std::error_code WriteFile(const WriteOrder&, ByteSource*, const Advance&, std::uint64_t*) override {
    return fatlib::Status::Refused;
  }
  std::error_code SetTime(const fatlib::Path&, const std::timespec&) override { return fatlib::Status::Refused; }
};

class PlanOfACopy : public testing::Test {
 protected:
  void Directory(const std::string& relative) { Item(relative).directory = true; }
  void File(const std::string& relative, std::uint64_t size = 1) { Item(relative).size = size; }
  void Plan(Clobber clobber = Clobber::Refuse) { ASSERT_FALSE(PlanCopy(m_Items, clobber, &m_Target, &m_Plan)); }

  /// One letter for each step.
  std::string Steps() const {
    std::string text;
    for (const CopyStep& step : m_Plan.steps) text += "MEWRS"[step.kind];
    return text;
  }
  std::string Problems() const {
    std::string text;
    for (const CopyProblem& problem : m_Plan.problems) {
      text += std::to_string(static_cast<int>(problem.exit)) + " " + problem.place + ": " + problem.reason + "\n";
    }
    return text;
  }

  FakeTarget m_Target;
  CopyPlan m_Plan;

 private:
  CopyItem& Item(const std::string& relative) {
    CopyItem& item = m_Items.emplace_back();
    item.place = "host" + relative;
    item.relative = relative;
    return item;
  }
  std::vector<CopyItem> m_Items;
};

TEST_F(PlanOfACopy, NewTree_IsMadeInItsOrderAndCounted) {
  Directory("/");
  File("/a", 250);
  Directory("/d");
  File("/d/b", 100);
  Plan();
  EXPECT_EQ("MWMW", Steps());
  EXPECT_EQ("", Problems());
  EXPECT_EQ(350u, m_Plan.bytes);
  EXPECT_EQ(2u, m_Plan.files);
  EXPECT_EQ(2u, m_Plan.directories);
  EXPECT_EQ(6u, m_Plan.unitsNeeded);  // 2 directories, 3 and 1 for the files
}

TEST_F(PlanOfACopy, ExistingDirectory_IsAddedTo) {
  m_Target.there["/"] = m_Target.there["/d"] = {true, 0};
  Directory("/");
  Directory("/d");
  File("/d/b");
  Plan();
  EXPECT_EQ("EEW", Steps());
}

TEST_F(PlanOfACopy, ExistingFile_IsRefusedSkippedOrReplaced) {
  m_Target.there["/a"] = {false, 1};
  File("/a");
  Plan();
  EXPECT_EQ("4 img:/a: exists; --force replaces it, --no-clobber leaves it\n", Problems());
  Plan(Clobber::Skip);
  EXPECT_EQ("S", Steps());
  EXPECT_EQ(1u, m_Plan.skipped);
  EXPECT_EQ(0u, m_Plan.files);
  Plan(Clobber::Replace);
  EXPECT_EQ("R", Steps());
  EXPECT_EQ("", Problems());
}

TEST_F(PlanOfACopy, FileAndDirectoryInEachOthersWay_AreRefusedAlsoWhenReplacing) {
  m_Target.there["/a"] = {true, 0};
  m_Target.there["/b"] = {false, 5};
  File("/a");
  Directory("/b");
  File("/b/c");
  Plan(Clobber::Replace);
  EXPECT_EQ("4 img:/a: is a directory\n4 img:/b: is in the way of a directory\n", Problems());
}

TEST_F(PlanOfACopy, NamesThatDifferInCaseOnly_AreOneName) {
  Directory("/");
  File("/Readme");
  File("/README");
  Plan();
  EXPECT_EQ("4 host/README: has the same name there as host/Readme\n", Problems());
}

TEST_F(PlanOfACopy, ContentsOfTwoDirectories_GoIntoOne) {
  m_Target.there["/"] = {true, 0};
  Directory("/");
  File("/a");
  Directory("/");
  File("/b");
  Plan();
  EXPECT_EQ("EWW", Steps());
  EXPECT_EQ("", Problems());
}

TEST_F(PlanOfACopy, NameThatTheVolumeCannotHold_IsRefusedWithAllBelow) {
  Directory("/what?");
  File("/what?/a");
  File("/" + std::string(256, 'x'));
  Plan();
  ASSERT_EQ(2u, m_Plan.problems.size());
  EXPECT_EQ(Exit::Refused, m_Plan.problems[0].exit);
  EXPECT_EQ("host/what?", m_Plan.problems[0].place);
  EXPECT_EQ(Exit::Refused, m_Plan.problems[1].exit);
}

TEST_F(PlanOfACopy, FileOverTheLimit_IsRefused) {
  File("/a", 5000);
  File("/b", 5001);
  Plan();
  ASSERT_EQ(1u, m_Plan.problems.size());
  EXPECT_EQ("host/b", m_Plan.problems[0].place);
  EXPECT_EQ(Exit::NoSpace, m_Plan.problems[0].exit);
}

TEST_F(PlanOfACopy, ExactlyEnoughRoom_IsEnough) {
  File("/a", 250);
  Directory("/d");
  m_Target.free = 4;
  Plan();
  EXPECT_EQ("", Problems());
  m_Target.free = 3;
  Plan();
  EXPECT_EQ("5 img:/: the copy needs 400 B and 300 B are free\n", Problems());
  EXPECT_TRUE(m_Plan.LacksSpace());
}

TEST_F(PlanOfACopy, ReplacedFile_GivesItsRoomBackWhenItsTurnComes) {
  m_Target.there["/b"] = {false, 300};
  m_Target.free = 2;
  File("/a", 200);
  File("/b", 100);
  Plan(Clobber::Replace);
  EXPECT_EQ("", Problems());
  EXPECT_EQ(2u, m_Plan.unitsNeeded);
}

TEST_F(PlanOfACopy, RoomThatIsFreedTooLate_DoesNotCount) {
  m_Target.there["/b"] = {false, 300};
  m_Target.free = 2;
  File("/a", 201);
  File("/b", 100);
  Plan(Clobber::Replace);
  EXPECT_TRUE(m_Plan.LacksSpace());
}

TEST_F(PlanOfACopy, FullDirectory_IsNamed) {
  m_Target.full.insert("/");
  File("/a");
  Plan();
  EXPECT_EQ("5 img:/a: its directory cannot hold more names\n", Problems());
}

}  // namespace
}  // namespace fatimg
