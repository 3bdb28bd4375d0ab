/// @file NamesTest.cpp
/// Names: kept as written, found in any letter case; listing, renaming and removing.

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "Mounted.h"

namespace fatmount_test {

using Names = std::vector<std::string>;

class NamesOf : public Volume {
 protected:
  int Rename(const std::string& from, const std::string& to) {
    return ErrnoOf(rename((*this / from).c_str(), (*this / to).c_str()));
  }
  int Mkdir(const std::string& name) { return ErrnoOf(mkdir((*this / name).c_str(), 0777)); }
  int Unlink(const std::string& name) { return ErrnoOf(unlink((*this / name).c_str())); }
  int Rmdir(const std::string& name) { return ErrnoOf(rmdir((*this / name).c_str())); }
};
FOR_ALL_TYPES(NamesOf);

TEST_P(NamesOf, AreListedAsTheyWereWritten) {
  for (const char* name : {"lower.txt", "UPPER.TXT", "Mixed.Txt", "a long name with spaces", "Grüße", "日本語"}) {
    WriteFile(*this / name, name);
  }
  EXPECT_EQ((Names{".", "..", "Grüße", "Mixed.Txt", "UPPER.TXT", "a long name with spaces", "lower.txt", "日本語"}),
            ListOf(m_Folder));
}

TEST_P(NamesOf, AreTheSameAfterMountingAgain) {
  WriteFile(*this / "lower.txt", "");
  WriteFile(*this / "Mixed.Txt", "");
  (void)Unmounted();
  m_pMount = std::make_unique<Mount>(m_Image, m_Folder);
  EXPECT_EQ((Names{".", "..", "Mixed.Txt", "lower.txt"}), ListOf(m_Folder));
}

TEST_P(NamesOf, InOtherSpelling_LeadToTheSameFile) {
  ASSERT_EQ(0, Mkdir("Folder"));
  WriteFile(*this / "Folder/File.txt", "bytes");
  EXPECT_EQ("bytes", ReadFile(*this / "FOLDER/FILE.TXT"));
  EXPECT_EQ(StatOf(*this / "Folder/File.txt").st_ino, StatOf(*this / "folder/file.txt").st_ino);
  WriteFile(*this / "folder/FILE.txt", "others");
  EXPECT_EQ("others", ReadFile(*this / "Folder/File.txt"));
  EXPECT_EQ((Names{".", "..", "File.txt"}), ListOf(*this / "fOLDER"));
}

TEST_P(NamesOf, InOtherSpelling_AreInTheWay) {
  WriteFile(*this / "file", "");
  ASSERT_EQ(0, Mkdir("folder"));
  EXPECT_EQ(EEXIST, ErrnoOf(open((*this / "FILE").c_str(), O_CREAT | O_EXCL | O_RDWR, 0666)));
  EXPECT_EQ(EEXIST, Mkdir("FILE"));
  EXPECT_EQ(EEXIST, Mkdir("FOLDER"));
}

TEST_P(NamesOf, FileRemovedByAnotherSpelling_IsGone) {
  WriteFile(*this / "file", "");
  ASSERT_TRUE(Exists(*this / "file"));
  ASSERT_EQ(0, Unlink("FILE"));
  EXPECT_FALSE(Exists(*this / "file"));
  EXPECT_FALSE(Exists(*this / "FILE"));
  EXPECT_EQ(ENOENT, ErrnoOf(open((*this / "file").c_str(), O_RDONLY)));
}

TEST_P(NamesOf, FileMadeAgainByAnotherSpelling_IsTheNewOne) {
  WriteFile(*this / "file", "old");
  ASSERT_EQ(0, Unlink("FILE"));
  WriteFile(*this / "File", "new");
  EXPECT_EQ("new", ReadFile(*this / "file"));
  EXPECT_EQ((Names{".", "..", "File"}), ListOf(m_Folder));
}

TEST_P(NamesOf, NameLookedForInVain_IsFoundOnceItIsThere) {
  EXPECT_FALSE(Exists(*this / "FILE"));
  WriteFile(*this / "file", "");
  EXPECT_TRUE(Exists(*this / "FILE"));
}

TEST_P(NamesOf, DirectoryHasItsDotEntries) {
  ASSERT_EQ(0, Mkdir("folder"));
  EXPECT_EQ((Names{".", ".."}), ListOf(*this / "folder"));
  EXPECT_EQ(StatOf(*this / "folder").st_ino, StatOf(*this / "folder/.").st_ino);
  EXPECT_EQ(StatOf(m_Folder).st_ino, StatOf(*this / "folder/..").st_ino);
}

TEST_P(NamesOf, ListedEntries_HaveTheNumbersOfTheirFiles) {
  const std::string folder = *this / "folder";
  ASSERT_EQ(0, Mkdir("folder"));
  for (int i = 0; i < 300; ++i) WriteFile(folder + "/a file " + std::to_string(i), "");
  (void)Unmounted();
  m_pMount = std::make_unique<Mount>(m_Image, m_Folder);
  DIR* const directory = opendir(folder.c_str());
  ASSERT_NE(nullptr, directory);
  while (const dirent* entry = readdir(directory)) {
    EXPECT_EQ(StatOf(folder + "/" + entry->d_name).st_ino, entry->d_ino) << entry->d_name;
  }
  closedir(directory);
}

TEST_P(NamesOf, RewoundDirectory_ShowsWhatIsNew) {
  WriteFile(*this / "one", "");
  DIR* const directory = opendir(m_Folder.c_str());
  ASSERT_NE(nullptr, directory);
  while (readdir(directory) != nullptr) {
  }
  WriteFile(*this / "two", "");
  rewinddir(directory);
  int entries = 0;
  while (readdir(directory) != nullptr) ++entries;
  closedir(directory);
  EXPECT_EQ(4, entries);
}

TEST_P(NamesOf, FilesRemovedWhileTheyAreListed_AreAllSeen) {
  for (int i = 0; i < 100; ++i) WriteFile(*this / ("a long name for file " + std::to_string(i)), "");
  DIR* const directory = opendir(m_Folder.c_str());
  ASSERT_NE(nullptr, directory);
  int removed = 0;
  while (const dirent* entry = readdir(directory)) removed += Unlink(entry->d_name) == 0 ? 1 : 0;
  closedir(directory);
  EXPECT_EQ(100, removed);
  EXPECT_EQ((Names{".", ".."}), ListOf(m_Folder));
}

// ---------------------------------------------------------------------------------------------- renaming

TEST_P(NamesOf, FileRenamed_HasTheNewNameOnly) {
  WriteFile(*this / "before", "bytes");
  ASSERT_EQ(0, Rename("before", "after"));
  EXPECT_FALSE(Exists(*this / "before"));
  EXPECT_EQ("bytes", ReadFile(*this / "after"));
}

TEST_P(NamesOf, FileRenamedOverAnother_ReplacesIt) {
  WriteFile(*this / "from", "new");
  WriteFile(*this / "to", "old");
  ASSERT_EQ(0, Rename("from", "to"));
  EXPECT_EQ("new", ReadFile(*this / "to"));
  EXPECT_EQ((Names{".", "..", "to"}), ListOf(m_Folder));
}

TEST_P(NamesOf, FileRenamedIntoAnotherDirectory_IsThere) {
  WriteFile(*this / "file", "bytes");
  ASSERT_EQ(0, Mkdir("folder"));
  ASSERT_EQ(0, Rename("file", "folder/other"));
  EXPECT_EQ("bytes", ReadFile(*this / "folder/other"));
  EXPECT_EQ((Names{".", "..", "folder"}), ListOf(m_Folder));
}

TEST_P(NamesOf, CaseOfAFileChanged_IsListedSo) {
  WriteFile(*this / "file name.txt", "bytes");
  ASSERT_EQ(0, Rename("file name.txt", "File NAME.txt"));
  EXPECT_EQ((Names{".", "..", "File NAME.txt"}), ListOf(m_Folder));
  EXPECT_EQ("bytes", ReadFile(*this / "file name.txt"));
}

TEST_P(NamesOf, CaseOfAShortNameChanged_IsListedSo) {
  WriteFile(*this / "file.txt", "bytes");
  ASSERT_EQ(0, Rename("file.txt", "FILE.TXT"));
  EXPECT_EQ((Names{".", "..", "FILE.TXT"}), ListOf(m_Folder));
}

TEST_P(NamesOf, CaseChangedToHowADirectoryAboveIsSpelled_IsListedSo) {
  ASSERT_EQ(0, Mkdir("Name"));
  WriteFile(*this / "Name/NAME", "bytes");
  ASSERT_EQ(0, Rename("Name/NAME", "name/name"));
  EXPECT_EQ((Names{".", "..", "name"}), ListOf(*this / "Name"));
  ASSERT_EQ(0, Unlink("Name/name"));
  ASSERT_EQ(0, Mkdir("Name/NAME"));
  ASSERT_EQ(0, Rename("Name/NAME", "name/name"));
  EXPECT_EQ((Names{".", "..", "name"}), ListOf(*this / "Name"));
}

// There fatmount has the request before the thread that sent it has gone to sleep.
TEST_P(NamesOf, CaseChangedFromAnotherProcessor_IsListedSo) {
  cpu_set_t before;
  ASSERT_EQ(0, sched_getaffinity(0, sizeof before, &before));
  const int processors = get_nprocs();
  for (const auto& [process, processor] : {std::pair{m_pMount->Process(), 0}, std::pair{pid_t{0}, processors - 1}}) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<std::size_t>(processor), &one);
    (void)sched_setaffinity(process, sizeof one, &one);  // where it cannot be chosen, it is as it comes
  }
  std::string name = "a name longer than eight";
  WriteFile(*this / name, "");
  for (int i = 0; i < 2000; ++i) {
    const std::string other = i % 2 == 0 ? "A NAME longer than EIGHT" : "a name longer than eight";
    ASSERT_EQ(0, Rename(name, other));
    ASSERT_EQ((Names{".", "..", other}), ListOf(m_Folder)) << i;
    name = other;
  }
  (void)sched_setaffinity(0, sizeof before, &before);
}

TEST_P(NamesOf, CaseOfANewFileChangedManyTimes_IsListedSo) {
  WriteFile(*this / "abc", "");
  std::string name = "abc";
  for (const char* const other : {"ABC", "abc", "ABC", "Abc", "ABC", "abc"}) {
    ASSERT_EQ(0, Rename(name, other)) << name << " to " << other;
    EXPECT_EQ((Names{".", "..", other}), ListOf(m_Folder));
    name = other;
  }
}

TEST_P(NamesOf, CaseOfADirectoryChanged_IsListedSo) {
  ASSERT_EQ(0, Mkdir("folder"));
  WriteFile(*this / "folder/file", "bytes");
  ASSERT_EQ(0, Rename("folder", "Folder"));
  EXPECT_EQ((Names{".", "..", "Folder"}), ListOf(m_Folder));
  EXPECT_EQ("bytes", ReadFile(*this / "Folder/file"));
}

TEST_P(NamesOf, CaseChangedByMv_IsListedSo) {
  WriteFile(*this / "file.txt", "bytes");
  ASSERT_EQ("", RunOrThrow({"mv", *this / "file.txt", *this / "File.txt"}));
  EXPECT_EQ((Names{".", "..", "File.txt"}), ListOf(m_Folder));
}

TEST_P(NamesOf, FileRenamedByAnotherSpelling_HasTheNewNameOnly) {
  WriteFile(*this / "before", "bytes");
  ASSERT_TRUE(Exists(*this / "before"));
  ASSERT_EQ(0, Rename("BEFORE", "after"));
  EXPECT_EQ((Names{".", "..", "after"}), ListOf(m_Folder));
  EXPECT_EQ("bytes", ReadFile(*this / "after"));
}

TEST_P(NamesOf, RenameThatMustNotReplace_IsRefusedWhereSomethingIs) {
  WriteFile(*this / "from", "");
  WriteFile(*this / "to", "");
  const std::string from = *this / "from", to = *this / "TO";
  EXPECT_EQ(EEXIST, ErrnoOf(renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE)));
  EXPECT_EQ(EINVAL, ErrnoOf(renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_EXCHANGE)));
}

TEST_P(NamesOf, DirectoryRenamedOverAnEmptyOne_ReplacesIt) {
  ASSERT_EQ(0, Mkdir("from"));
  WriteFile(*this / "from/file", "bytes");
  ASSERT_EQ(0, Mkdir("to"));
  ASSERT_EQ(0, Rename("from", "to"));
  EXPECT_EQ("bytes", ReadFile(*this / "to/file"));
}

TEST_P(NamesOf, DirectoryMovedIntoAnother_IsThereWithAllThatIsInIt) {
  ASSERT_EQ(0, Mkdir("from"));
  ASSERT_EQ(0, Mkdir("to"));
  WriteFile(*this / "from/file", "bytes");
  ASSERT_EQ(0, Rename("from", "to/deeper"));
  EXPECT_EQ("bytes", ReadFile(*this / "to/deeper/file"));
  EXPECT_EQ(StatOf(*this / "to").st_ino, StatOf(*this / "to/deeper/..").st_ino);
}

// ---------------------------------------------------------------------------------------------- refusals

TEST_P(NamesOf, RemovalOfADirectoryWithEntries_IsNotEmpty) {
  ASSERT_EQ(0, Mkdir("folder"));
  WriteFile(*this / "folder/file", "");
  EXPECT_EQ(ENOTEMPTY, Rmdir("folder"));
  EXPECT_EQ(0, Unlink("folder/file"));
  EXPECT_EQ(0, Rmdir("folder"));
}

TEST_P(NamesOf, RenameOverADirectoryWithEntries_IsNotEmpty) {
  ASSERT_EQ(0, Mkdir("from"));
  ASSERT_EQ(0, Mkdir("to"));
  WriteFile(*this / "to/file", "");
  EXPECT_EQ(ENOTEMPTY, Rename("from", "to"));
}

TEST_P(NamesOf, WhatExists_IsNotMadeAgain) {
  ASSERT_EQ(0, Mkdir("folder"));
  EXPECT_EQ(EEXIST, Mkdir("folder"));
  EXPECT_EQ(EEXIST, ErrnoOf(mknod((*this / "folder").c_str(), S_IFREG | 0666, 0)));
}

TEST_P(NamesOf, ThatFatCannotHold_AreInvalid) {
  for (const char* name : {"a:b", "what?", "a*b", "pipe|", "back\\slash", "quote\"", "a<b", "end ", "dot."}) {
    EXPECT_EQ(EINVAL, Mkdir(name)) << name;
    EXPECT_EQ(EINVAL, ErrnoOf(open((*this / name).c_str(), O_CREAT | O_RDWR, 0666))) << name;
  }
}

TEST_P(NamesOf, ThatAreNoText_AreInvalid) {
  EXPECT_EQ(EINVAL, Mkdir("\xFF\xFE"));
  EXPECT_FALSE(Exists(*this / "\xFF\xFE"));
}

TEST_P(NamesOf, Of255Units_ArePossibleAndOfMoreTooLong) {
  WriteFile(*this / std::string(255, 'x'), "bytes");
  EXPECT_EQ("bytes", ReadFile(*this / std::string(255, 'x')));
  EXPECT_EQ(ENAMETOOLONG, Mkdir(std::string(256, 'x')));
  EXPECT_EQ(ENAMETOOLONG, ErrnoOf(access((*this / std::string(256, 'x')).c_str(), F_OK)));
}

TEST_P(NamesOf, PathThroughAFile_IsNoDirectory) {
  WriteFile(*this / "file", "");
  EXPECT_EQ(ENOTDIR, Mkdir("file/folder"));
  EXPECT_EQ(ENOTDIR, Rmdir("file"));
}

TEST_P(NamesOf, DirectoryAsAFile_IsADirectory) {
  ASSERT_EQ(0, Mkdir("folder"));
  WriteFile(*this / "file", "");
  EXPECT_EQ(EISDIR, ErrnoOf(open((*this / "folder").c_str(), O_WRONLY)));
  EXPECT_EQ(EISDIR, Unlink("folder"));
  EXPECT_EQ(EISDIR, Rename("file", "folder"));
  EXPECT_EQ(ENOTDIR, Rename("folder", "file"));
}

TEST_P(NamesOf, DirectoryIntoItself_IsInvalid) {
  ASSERT_EQ(0, Mkdir("folder"));
  EXPECT_EQ(EINVAL, Rename("folder", "folder/deeper"));
  EXPECT_EQ(EINVAL, Rename("folder", "FOLDER/deeper"));
}

TEST_P(NamesOf, Root_CannotBeRemoved) { EXPECT_EQ(EBUSY, Rmdir("")); }

TEST_P(NamesOf, LinksAndSpecialFiles_AreNotPermitted) {
  WriteFile(*this / "file", "");
  EXPECT_EQ(EPERM, ErrnoOf(symlink("file", (*this / "link").c_str())));
  EXPECT_EQ(EPERM, ErrnoOf(link((*this / "file").c_str(), (*this / "link").c_str())));
  EXPECT_EQ(EPERM, ErrnoOf(mknod((*this / "pipe").c_str(), S_IFIFO | 0666, 0)));
}

}  // namespace fatmount_test
