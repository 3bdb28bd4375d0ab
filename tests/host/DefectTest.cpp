/// @file DefectTest.cpp
/// What defects are called.

#include <fatlib/Check.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

using fatlib::Defect;

Defect Some(Defect::Kind kind) { return {kind, "/DIR/A", 1234, 5678, "/OTHER"}; }

TEST(Defect, EachKindHasANameOfItsOwnForScripts) {
  std::set<std::string> names;
  for (int kind = 0; kind < Defect::KINDS; ++kind) {
    const std::string name = fatlib::DefectName(static_cast<Defect::Kind>(kind));
    EXPECT_EQ(std::string::npos, name.find_first_not_of("abcdefghijklmnopqrstuvwxyz-")) << name;
    EXPECT_TRUE(names.insert(name).second) << name;
  }
  EXPECT_STREQ("cross-linked", fatlib::DefectName(Defect::CrossLinked));
  EXPECT_STREQ("unreadable", fatlib::DefectName(Defect::Unreadable));
}

TEST(Defect, EachKindHasASentenceOfItsOwnThatBeginsWithThePath) {
  std::set<std::string> texts;
  for (int kind = 0; kind < Defect::KINDS; ++kind) {
    const std::string text = fatlib::DefectText(Some(static_cast<Defect::Kind>(kind)));
    EXPECT_EQ(0u, text.find("/DIR/A: ")) << text;
    EXPECT_EQ(std::string::npos, text.find('%')) << text;
    EXPECT_TRUE(texts.insert(text).second) << text;
  }
}

TEST(Defect, SentencesTellTheNumbers) {
  EXPECT_EQ("/DIR/A: cluster 1234 also belongs to /OTHER", fatlib::DefectText(Some(Defect::CrossLinked)));
  EXPECT_EQ("/DIR/A: the chain breaks off at cluster 1234, whose entry is 5678",
            fatlib::DefectText(Some(Defect::ChainBroken)));
  Defect ofVolume = Some(Defect::FsInfoWrongCount);
  ofVolume.path.clear();
  EXPECT_EQ("FSInfo says that 1234 clusters are free, but there are 5678", fatlib::DefectText(ofVolume));
}

}  // namespace
