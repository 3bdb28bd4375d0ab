/// @file HostTreeTest.cpp

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "HostTree.h"
#include "support/Process.h"

namespace fatimg {
namespace {

class HostTree : public testing::Test {
 protected:
  void Scan(const std::string& name = "top") { ScanHost(m_Dir / name, "/new", m_Options, &m_Items, &m_Failures); }
  void File(const std::string& name, std::size_t size = 3) {
    WriteHostFile(m_Dir / name, std::vector<unsigned char>(size, 'x'));
  }
  std::vector<std::string> Relative() const {
    std::vector<std::string> paths;
    for (const CopyItem& item : m_Items) paths.push_back(item.relative.ToUtf8() + (item.directory ? "/" : ""));
    return paths;
  }
  /// The names of the failed items and why, one after the other.
  std::string Failed() const {
    std::string text;
    for (const FailedItem& failure : m_Failures) {
      text += failure.place.substr(m_Dir.Path().size() + 1) + ": " +
              (failure.reason.empty() ? failure.error.message() : failure.reason) + "\n";
    }
    return text;
  }

  CTempDir m_Dir;
  HostTreeOptions m_Options = Recursive();
  std::vector<CopyItem> m_Items;
  std::vector<FailedItem> m_Failures;

 private:
  static HostTreeOptions Recursive() {
    HostTreeOptions options;
    options.recursive = true;
    return options;
  }
};

using Strings = std::vector<std::string>;

TEST_F(HostTree, Tree_IsSortedByBytesWithParentsFirst) {
  for (const char* name : {"top/b", "top/B", "top/a/z", "top/a/y", "top/\xC3\xA4"}) File(name);
  Scan();
  EXPECT_EQ((Strings{"/new/", "/new/B", "/new/a/", "/new/a/y", "/new/a/z", "/new/b", "/new/\xC3\xA4"}), Relative());
  EXPECT_EQ("", Failed());
}

TEST_F(HostTree, File_HasPlaceSizeAndTime) {
  File("top", 12345);
  ScanHost(m_Dir / "top", "/new", {}, &m_Items, &m_Failures);
  ASSERT_EQ(1u, m_Items.size());
  EXPECT_EQ(m_Dir / "top", m_Items[0].place);
  EXPECT_EQ(12345u, m_Items[0].size);
  struct stat status {};
  ASSERT_EQ(0, stat((m_Dir / "top").c_str(), &status));
  EXPECT_EQ(status.st_mtim.tv_sec, m_Items[0].modified.tv_sec);
  EXPECT_EQ(status.st_mtim.tv_nsec, m_Items[0].modified.tv_nsec);
}

TEST_F(HostTree, DirectoryWithoutRecursion_Fails) {
  File("top/a");
  m_Options.recursive = false;
  Scan();
  EXPECT_TRUE(m_Items.empty());
  ASSERT_EQ(1u, m_Failures.size());
  EXPECT_EQ(make_error_code(fatlib::Status::IsADirectory), m_Failures[0].error);
}

TEST_F(HostTree, MissingTop_Fails) {
  Scan("nothing");
  ASSERT_EQ(1u, m_Failures.size());
  EXPECT_EQ(std::errc::no_such_file_or_directory, m_Failures[0].error);
}

TEST_F(HostTree, PipesAndDanglingLinks_FailAndTheOthersStay) {
  File("top/a");
  ASSERT_EQ(0, mkfifo((m_Dir / "top/pipe").c_str(), 0600));
  ASSERT_EQ(0, symlink("nowhere", (m_Dir / "top/link").c_str()));
  Scan();
  EXPECT_EQ((Strings{"/new/", "/new/a"}), Relative());
  EXPECT_EQ("top/link: No such file or directory\ntop/pipe: is neither a file nor a directory\n", Failed());
}

TEST_F(HostTree, Links_AreWhatTheyLeadTo) {
  File("top/a");
  File("else/b", 7);
  ASSERT_EQ(0, symlink("../else", (m_Dir / "top/dir").c_str()));
  ASSERT_EQ(0, symlink("../else/b", (m_Dir / "top/file").c_str()));
  Scan();
  EXPECT_EQ((Strings{"/new/", "/new/a", "/new/dir/", "/new/dir/b", "/new/file"}), Relative());
  EXPECT_EQ(7u, m_Items.back().size);
}

TEST_F(HostTree, LinksNotFollowed_Fail) {
  File("top/a");
  ASSERT_EQ(0, symlink("a", (m_Dir / "top/b").c_str()));
  m_Options.followLinks = false;
  Scan();
  EXPECT_EQ((Strings{"/new/", "/new/a"}), Relative());
  EXPECT_EQ("top/b: is a symbolic link\n", Failed());
}

TEST_F(HostTree, LinkToAParent_FailsInsteadOfGoingRound) {
  File("top/sub/a");
  ASSERT_EQ(0, symlink("..", (m_Dir / "top/sub/up").c_str()));
  Scan();
  EXPECT_EQ((Strings{"/new/", "/new/sub/", "/new/sub/a"}), Relative());
  EXPECT_EQ("top/sub/up: is a link to a directory that it lies in\n", Failed());
}

TEST_F(HostTree, NameThatIsNotUtf8_Fails) {
  File("top/\xFF");
  Scan();
  EXPECT_EQ((Strings{"/new/"}), Relative());
  EXPECT_EQ("top/\xFF: the name is not UTF-8\n", Failed());
}

TEST_F(HostTree, ExcludedDirectory_IsNotEntered) {
  for (const char* name : {"top/a", "top/skip/b", "top/sub/skip"}) File(name);
  std::vector<std::string> asked;
  m_Options.excluded = [&](const std::string& relative) {
    asked.push_back(relative);
    return relative == "skip";
  };
  Scan();
  EXPECT_EQ((Strings{"/new/", "/new/a", "/new/sub/", "/new/sub/skip"}), Relative());
  EXPECT_EQ((Strings{"a", "skip", "sub", "sub/skip"}), asked);
}

TEST_F(HostTree, ImageInTheTree_IsNotCopiedIntoItself) {
  File("top/disk.img");
  File("top/z");
  m_Options.image = m_Dir / "top/disk.img";
  Scan();
  EXPECT_EQ((Strings{"/new/", "/new/z"}), Relative());
  EXPECT_EQ("top/disk.img: is the image itself\n", Failed());
}

TEST_F(HostTree, VeryDeepTree_FailsWhereNoVolumeCanFollow) {
  std::string path = m_Dir / "top";
  ASSERT_EQ(0, mkdir(path.c_str(), 0700));
  for (int i = 0; i < 200; ++i) ASSERT_EQ(0, mkdir((path += "/d").c_str(), 0700));
  Scan();
  ASSERT_EQ(1u, m_Failures.size());
  EXPECT_EQ(make_error_code(fatlib::Status::NameTooLong), m_Failures[0].error);
  EXPECT_EQ(130u, m_Items.size());
}

TEST_F(HostTree, FileThatBecameAPipe_IsNotWaitedFor) {
  ASSERT_EQ(0, mkfifo((m_Dir / "pipe").c_str(), 0600));
  CopyItem item;
  item.place = m_Dir / "pipe";
  std::unique_ptr<ByteSource> bytes;
  EXPECT_EQ(make_error_code(fatlib::Status::Refused), HostSource().Open(item, &bytes));
}

TEST_F(HostTree, File_IsReadInPieces) {
  WriteHostFile(m_Dir / "f", {'a', 'b', 'c', 'd', 'e'});
  CopyItem item;
  item.place = m_Dir / "f";
  std::unique_ptr<ByteSource> bytes;
  ASSERT_FALSE(HostSource().Open(item, &bytes));
  std::string piece(4, 0);
  std::size_t done = 0;
  ASSERT_FALSE(bytes->Read(piece.data(), 4, &done));
  EXPECT_EQ("abcd", piece.substr(0, done));
  ASSERT_FALSE(bytes->Read(piece.data(), 4, &done));
  EXPECT_EQ("e", piece.substr(0, done));
}

}  // namespace
}  // namespace fatimg
