/// @file OperandTest.cpp
/// IMAGE[@WHERE]:/PATH.

#include <gtest/gtest.h>

#include "Exit.h"
#include "Operand.h"

namespace fatimg {
namespace {

TEST(OperandOfTheCommandLine, ImageAndPath_AreSplitAtTheLastColonSlash) {
  const Operand operand = ParseOperand("/a:/b/disk.img:/DIR/File.txt");
  EXPECT_EQ("/a:/b/disk.img", operand.image);
  EXPECT_EQ("/DIR/File.txt", operand.path);
  EXPECT_TRUE(operand.hasPath);
  EXPECT_EQ(Where::Whole, operand.where.kind);
}

TEST(OperandOfTheCommandLine, ImageAlone_IsItsRoot) {
  const Operand operand = ParseOperand("disk.img");
  EXPECT_EQ("disk.img", operand.image);
  EXPECT_EQ("/", operand.path);
  EXPECT_FALSE(operand.hasPath);
}

TEST(OperandOfTheCommandLine, ColonAtTheEnd_IsTheRoot) {
  const Operand operand = ParseOperand("disk.img:");
  EXPECT_EQ("disk.img", operand.image);
  EXPECT_TRUE(operand.hasPath);
  EXPECT_EQ("/", operand.path);
}

TEST(OperandOfTheCommandLine, ColonAlone_IsTheRootOfTheImageInForce) {
  const Operand operand = ParseOperand(":");
  EXPECT_TRUE(operand.image.empty());
  EXPECT_TRUE(operand.hasPath);
  EXPECT_EQ("/", operand.path);
  EXPECT_TRUE(IsImageOperand(":"));
}

TEST(OperandOfTheCommandLine, WithoutAnImage_NeedsAPath) {
  EXPECT_EQ("", ParseOperand(":/X").image);
  EXPECT_EQ("/X", ParseOperand(":/X").path);
  EXPECT_THROW(ParseOperand(""), Failure);
  EXPECT_THROW(ParseOperand("@2:/X"), Failure);
}

TEST(OperandOfTheCommandLine, PlainNumberUpTo128_IsAPartition) {
  EXPECT_EQ(Where::Number, ParseOperand("d@1:/").where.kind);
  const Where last = ParseOperand("d@128:/").where;
  EXPECT_EQ(Where::Number, last.kind);
  EXPECT_EQ(128u, last.number);
  const Where beyond = ParseOperand("d@129:/").where;
  EXPECT_EQ(Where::Offset, beyond.kind);
  EXPECT_EQ(129u, beyond.offset);
  EXPECT_EQ(Where::Offset, ParseOperand("d@0:/").where.kind);
}

TEST(OperandOfTheCommandLine, NumberWithAUnit_IsAnOffset) {
  EXPECT_EQ(1048576u, ParseOperand("d@1M:/").where.offset);
  EXPECT_EQ(1048576u, ParseOperand("d@1048576:/").where.offset);
  EXPECT_EQ(63u * 512u, ParseOperand("d@63s:/").where.offset);
  EXPECT_EQ(0x200u, ParseOperand("d@0x200:/").where.offset);
  EXPECT_EQ(3ull << 30, ParseOperand("d@3GiB:/").where.offset);
  EXPECT_EQ(2u, ParseOperand("d@2B:/").where.offset);
}

TEST(OperandOfTheCommandLine, AnythingElse_IsAName) {
  EXPECT_EQ("esp", ParseOperand("d@esp:/X").where.name);
  EXPECT_EQ("1Q", ParseOperand("d@1Q").where.name);
  EXPECT_EQ("EFI System", ParseOperand("d@EFI System:/").where.name);
}

TEST(OperandOfTheCommandLine, AtSignOfADirectory_IsPartOfTheImage) {
  const Operand operand = ParseOperand("/home/me@host/disk.img:/X");
  EXPECT_EQ("/home/me@host/disk.img", operand.image);
  EXPECT_EQ(Where::Whole, operand.where.kind);
}

TEST(OperandOfTheCommandLine, EmptyWhere_MakesAnImageWithAnAtSignPossible) {
  const Operand operand = ParseOperand("a@b.img@:/X");
  EXPECT_EQ("a@b.img", operand.image);
  EXPECT_EQ(Where::Whole, operand.where.kind);
  EXPECT_EQ("a@b.img", ParseOperand("a@b.img@2:/X").image);
}

TEST(OperandOfTheCommandLine, NumberThatDoesNotFit_IsRefused) {
  EXPECT_THROW(ParseOperand("d@99999999999999999999:/"), Failure);
}

TEST(OperandOfTheCommandLine, Text_IsWhatWasWritten) {
  EXPECT_EQ("d@1M:/A/B", ParseOperand("d@1M:/A/B").Text());
  EXPECT_EQ("d@1M", ParseOperand("d@1M:/A/B").ImageText());
  EXPECT_EQ("d@1M:/C", ParseOperand("d@1M:/A/B").Text("/C"));
}

TEST(NumberOfBytes, SizesOverAllBits_AreRefused) {
  std::uint64_t bytes = 0;
  EXPECT_TRUE(ParseBytes("18446744073709551615", &bytes));
  EXPECT_EQ(18446744073709551615ull, bytes);
  EXPECT_FALSE(ParseBytes("18446744073709551616", &bytes));
  EXPECT_FALSE(ParseBytes("16777216T", &bytes));
  EXPECT_TRUE(ParseBytes("16777215T", &bytes));
  EXPECT_FALSE(ParseBytes("0x10000000000000000", &bytes));
}

TEST(NumberOfBytes, OtherText_IsNone) {
  std::uint64_t bytes = 7;
  for (const char* text : {"", "K", "1KB", "1 K", "-1", "0x", "0xG", "1S", "1b"}) {
    EXPECT_FALSE(ParseBytes(text, &bytes)) << text;
  }
  EXPECT_EQ(7u, bytes);
  EXPECT_TRUE(ParseBytes("2k", &bytes));
  EXPECT_EQ(2048u, bytes);
}

}  // namespace
}  // namespace fatimg
