/// @file TextTest.cpp
/// What the command writes: JSON, names on a terminal, tables, exits.

#include <fatlib/Error.h>
#include <gtest/gtest.h>

#include "EntryText.h"
#include "Exit.h"
#include "Json.h"
#include "Shown.h"

namespace fatimg {
namespace {

TEST(JsonOfTheCommand, PlainValues_AreAsUsual) {
  Json json;
  json["b"] = true;
  json["a"] = {1, "x", nullptr};
  EXPECT_EQ(R"({"b":true,"a":[1,"x",null]})", JsonText(json));
}

TEST(JsonOfTheCommand, LoneSurrogate_IsEscaped) {
  EXPECT_EQ("\"a\\ud800b\"", JsonText("a\xED\xA0\x80"
                                      "b"));
  EXPECT_EQ("\"\\udfff\"", JsonText("\xED\xBF\xBF"));
}

TEST(JsonOfTheCommand, OtherCharacters_AreWrittenAsUtf8) {
  EXPECT_EQ("\"Grüße \U0001F600\"", JsonText("Grüße \U0001F600"));
  EXPECT_EQ(R"("\"\\\u000a\u007f")", JsonText("\"\\\n\x7F"));
}

TEST(JsonOfTheCommand, BytesThatAreNoUtf8_AreReplaced) { EXPECT_EQ("\"a\xEF\xBF\xBD\"", JsonText("a\xFF")); }

TEST(NameOnATerminal, ControlCharacters_AreEscaped) {
  EXPECT_EQ("a\\x1B[31m", Escaped("a\x1B[31m"));
  EXPECT_EQ("\\x7F\\x9B", Escaped("\x7F\xC2\x9B"));
  EXPECT_EQ("\\uD800", Escaped("\xED\xA0\x80"));
  EXPECT_EQ("a\\xFF", Escaped("a\xFF"));
}

TEST(NameOnATerminal, OtherCharacters_StayAsTheyAre) { EXPECT_EQ("Grüße \U0001F600", Escaped("Grüße \U0001F600")); }

TEST(TableOnATerminal, Columns_AreAsWideAsTheirWidestCell) {
  EXPECT_EQ("ü    12  x\nabc   1  yz\n", TableText({{"ü", "12", "x"}, {"abc", "1", "yz"}}, {false, true, false}));
}

TEST(ExitOfAnError, EachKind_HasItsOwn) {
  using fatlib::Status;
  EXPECT_EQ(Exit::Usage, ExitOf(Status::InvalidParameter));
  EXPECT_EQ(Exit::NotFound, ExitOf(Status::NotFound));
  EXPECT_EQ(Exit::Refused, ExitOf(Status::NameExists));
  EXPECT_EQ(Exit::Refused, ExitOf(Status::Locked));
  EXPECT_EQ(Exit::Refused, ExitOf(Status::UnsafeVolume));
  EXPECT_EQ(Exit::NoSpace, ExitOf(Status::DiskFull));
  EXPECT_EQ(Exit::NoSpace, ExitOf(Status::FileTooLarge));
  EXPECT_EQ(Exit::Corrupt, ExitOf(Status::NotAVolume));
  EXPECT_EQ(Exit::Corrupt, ExitOf(Status::DiskCorrupt));
  EXPECT_EQ(Exit::Io, ExitOf(Status::IoError));
}

TEST(ExitOfAnError, SystemCalls_AreMappedLikewise) {
  EXPECT_EQ(Exit::NotFound, ExitOf(std::make_error_code(std::errc::no_such_file_or_directory)));
  EXPECT_EQ(Exit::Refused, ExitOf(std::make_error_code(std::errc::permission_denied)));
  EXPECT_EQ(Exit::NoSpace, ExitOf(std::make_error_code(std::errc::no_space_on_device)));
  EXPECT_EQ(Exit::Io, ExitOf(std::make_error_code(std::errc::io_error)));
}

TEST(ExitOfAReport, Failures_AreSummedUp) {
  CommonOptions options;
  Report same(options, "test");
  EXPECT_EQ(Exit::Done, same.Status());
  same.Fail("a", fatlib::Status::NotFound);
  same.Fail("b", fatlib::Status::NotFound);
  EXPECT_EQ(Exit::NotFound, same.Status());
  same.Done();
  EXPECT_EQ(Exit::SomeFailed, same.Status());

  Report mixed(options, "test");
  mixed.Fail("a", fatlib::Status::NotFound);
  mixed.Fail("b", fatlib::Status::DiskFull);
  EXPECT_EQ(Exit::SomeFailed, mixed.Status());
}

}  // namespace
}  // namespace fatimg
