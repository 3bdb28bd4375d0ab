/// @file HostTargetTest.cpp

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "HostTarget.h"
#include "support/Process.h"

namespace fatimg {
namespace {

using Bytes = std::vector<unsigned char>;

/// Gives bytes, then its end or a failure.
class PieceSource : public ByteSource {
 public:
  PieceSource(std::string text, std::error_code end) : m_Text(std::move(text)), m_End(end) {}
  std::error_code Read(void* buffer, std::size_t size, std::size_t* done) override {
    *done = std::min(size, m_Text.size());
    std::memcpy(buffer, m_Text.data(), *done);
    m_Text.erase(0, *done);
    return *done == 0 ? m_End : std::error_code();
  }

 private:
  std::string m_Text;
  std::error_code m_End;
};

class HostAsTarget : public testing::Test {
 protected:
  std::error_code Write(const std::string& name, const std::string& text, bool replace = false,
                        std::error_code end = {}) {
    PieceSource source(text, end);
    WriteOrder order;
    order.relative = name;
    order.size = 100;
    order.replace = replace;
    std::uint64_t written = 0;
    return m_Target.WriteFile(
        order, &source, [](std::size_t) { return true; }, &written);
  }
  std::string Content(const std::string& name) const {
    const Bytes bytes = ReadHostFile(m_Dir / name);
    return std::string(bytes.begin(), bytes.end());
  }
  std::size_t Names() const {
    const std::filesystem::directory_iterator all(m_Dir.Path());
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
  }

  CTempDir m_Dir;
  HostTarget m_Target{m_Dir.Path()};
};

TEST_F(HostAsTarget, NewFile_IsWritten) {
  EXPECT_FALSE(Write("a", "text"));
  EXPECT_EQ("text", Content("a"));
}

TEST_F(HostAsTarget, NewFileThatFails_IsTakenBack) {
  EXPECT_EQ(std::errc::io_error, Write("a", "text", false, make_error_code(std::errc::io_error)));
  EXPECT_EQ(0u, Names());
}

TEST_F(HostAsTarget, FileThatAppearedMeanwhile_IsNotTouched) {
  WriteHostFile(m_Dir / "a", {'x'});
  EXPECT_EQ(std::errc::file_exists, Write("a", "text"));
  EXPECT_EQ("x", Content("a"));
}

TEST_F(HostAsTarget, ReplacedFile_KeepsItsPermissions) {
  WriteHostFile(m_Dir / "a", {'x'});
  ASSERT_EQ(0, chmod((m_Dir / "a").c_str(), 0640));
  EXPECT_FALSE(Write("a", "text", true));
  EXPECT_EQ("text", Content("a"));
  struct stat status {};
  ASSERT_EQ(0, stat((m_Dir / "a").c_str(), &status));
  EXPECT_EQ(0640u, status.st_mode & 07777u);
  EXPECT_EQ(1u, Names());
}

TEST_F(HostAsTarget, ReplacedFileThatFails_KeepsItsBytes) {
  WriteHostFile(m_Dir / "a", {'x'});
  EXPECT_TRUE(Write("a", "text", true, make_error_code(std::errc::io_error)));
  EXPECT_EQ("x", Content("a"));
  EXPECT_EQ(1u, Names());
}

TEST_F(HostAsTarget, LinkToAFile_StaysALink) {
  WriteHostFile(m_Dir / "a", {'x'});
  ASSERT_EQ(0, symlink("a", (m_Dir / "link").c_str()));
  EXPECT_FALSE(Write("link", "text", true));
  EXPECT_EQ("text", Content("a"));
  EXPECT_TRUE(std::filesystem::is_symlink(m_Dir / "link"));
}

TEST_F(HostAsTarget, NamesThatLeadAway_AreRefused) {
  for (const char16_t* name : {u"..", u".", u"a/b"}) EXPECT_TRUE(m_Target.CheckPath(fatlib::Path() / name));
  EXPECT_TRUE(m_Target.CheckPath(fatlib::Path() / std::u16string(1, u'\0')));
  EXPECT_FALSE(m_Target.CheckPath(fatlib::Path() / u"..."));
}

TEST_F(HostAsTarget, NameOverTheHostsBytes_IsRefused) {
  EXPECT_FALSE(m_Target.CheckPath(fatlib::Path() / std::u16string(85, u'\u4E00')));
  EXPECT_EQ(make_error_code(fatlib::Status::NameTooLong),
            m_Target.CheckPath(fatlib::Path() / std::u16string(86, u'\u4E00')));
}

TEST_F(HostAsTarget, Looking_TellsFilesDirectoriesAndNothing) {
  WriteHostFile(m_Dir / "d/a", {'x', 'y'});
  bool exists = false;
  Existing existing;
  ASSERT_FALSE(m_Target.Look("/d/a", &exists, &existing));
  EXPECT_TRUE(exists && !existing.directory && existing.size == 2);
  ASSERT_FALSE(m_Target.Look("/d", &exists, &existing));
  EXPECT_TRUE(exists && existing.directory);
  ASSERT_FALSE(m_Target.Look("/e", &exists, &existing));
  EXPECT_FALSE(exists);
}

TEST_F(HostAsTarget, Device_IsWrittenTo) {
  HostTarget null("/dev/null");
  bool exists = true;
  Existing existing;
  ASSERT_FALSE(null.Look({}, &exists, &existing));
  EXPECT_FALSE(exists);
  PieceSource source("text", {});
  WriteOrder order;
  order.size = 4;
  std::uint64_t written = 0;
  EXPECT_FALSE(null.WriteFile(
      order, &source, [](std::size_t) { return true; }, &written));
  EXPECT_EQ(4u, written);
  EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
}

TEST_F(HostAsTarget, Time_IsSetWithoutTheTimeOfAccess) {
  WriteHostFile(m_Dir / "a", {});
  ASSERT_FALSE(m_Target.SetTime("/a", {1000000000, 500}));
  struct stat status {};
  ASSERT_EQ(0, stat((m_Dir / "a").c_str(), &status));
  EXPECT_EQ(1000000000, status.st_mtim.tv_sec);
  EXPECT_EQ(500, status.st_mtim.tv_nsec);
}

}  // namespace
}  // namespace fatimg
