/// @file AttributesTest.cpp
/// Times, permissions, sizes and figures of the volume, as programs see them.

#include <fcntl.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "Mounted.h"

namespace fatmount_test {

class AttributesOf : public Volume {
 protected:
  AttributesOf() : Volume({"-o", "umask=022"}) {}
};
FOR_ALL_TYPES(AttributesOf);

class OwnedByAnother : public Volume {
 protected:
  OwnedByAnother() : Volume({"-o", "uid=1234,gid=567,umask=0"}) {}
};
FOR_ALL_TYPES(OwnedByAnother);

TEST_P(AttributesOf, ModificationTime_IsKeptToTwoSeconds) {
  WriteFile(*this / "file", "");
  const timespec times[2] = {{0, UTIME_OMIT}, {1234567891, 500000000}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, (*this / "file").c_str(), times, 0));
  EXPECT_EQ(1234567890, StatOf(*this / "file").st_mtim.tv_sec);
  EXPECT_EQ(0, StatOf(*this / "file").st_mtim.tv_nsec);
}

TEST_P(AttributesOf, ModificationTime_IsTheSameAfterMountingAgain) {
  WriteFile(*this / "file", "bytes");
  ASSERT_EQ("", RunOrThrow({"touch", "-d", "2026-03-14T15:09:26Z", *this / "file"}));
  (void)Unmounted();
  m_pMount = std::make_unique<Mount>(m_Image, m_Folder);
  EXPECT_EQ(1773500966, StatOf(*this / "file").st_mtim.tv_sec);
}

TEST_P(AttributesOf, ModificationTime_IsStoredAsLocalTime) {
  WriteFile(*this / "file", "bytes");
  ASSERT_EQ("", RunOrThrow({"touch", "-d", "2026-03-14T15:09:26Z", *this / "file"}));
  const CVolumeReader reader = Unmounted();
  const VOLUME_NODE* const node = reader.Find("file");
  ASSERT_NE(nullptr, node);
  EXPECT_EQ(46u << 9 | 3u << 5 | 14u, node->WriteDate);
  EXPECT_EQ(16u << 11 | 9u << 5 | 13u, node->WriteTime);  // an hour later in Berlin
}

TEST_P(AttributesOf, AccessTime_IsADate) {
  WriteFile(*this / "file", "");
  const timespec times[2] = {{1773500966, 0}, {0, UTIME_OMIT}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, (*this / "file").c_str(), times, 0));
  EXPECT_EQ(1773442800, StatOf(*this / "file").st_atim.tv_sec);  // 2026-03-14 in Berlin
}

TEST_P(AttributesOf, TimeThatIsLeftOut_StaysAsItWas) {
  WriteFile(*this / "file", "");
  const timespec both[2] = {{1773500966, 0}, {1234567890, 0}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, (*this / "file").c_str(), both, 0));
  const timespec access[2] = {{0, UTIME_NOW}, {0, UTIME_OMIT}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, (*this / "file").c_str(), access, 0));
  EXPECT_EQ(1234567890, StatOf(*this / "file").st_mtim.tv_sec);
  EXPECT_GT(StatOf(*this / "file").st_atim.tv_sec, 1773442800);
}

TEST_P(AttributesOf, WrittenFile_HasTheTimeOfNow) {
  WriteFile(*this / "file", "");
  const timespec times[2] = {{0, UTIME_OMIT}, {1234567890, 0}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, (*this / "file").c_str(), times, 0));
  WriteFile(*this / "file", "bytes");
  EXPECT_LE(std::time(nullptr) - StatOf(*this / "file").st_mtim.tv_sec, 10);
}

TEST_P(AttributesOf, DirectoryWhoseEntriesChange_HasTheTimeOfNow) {
  const std::string folder = *this / "folder";
  const timespec times[2] = {{0, UTIME_OMIT}, {1234567890, 0}};
  ASSERT_EQ(0, mkdir(folder.c_str(), 0777));
  ASSERT_EQ(0, utimensat(AT_FDCWD, folder.c_str(), times, 0));
  EXPECT_EQ(1234567890, StatOf(folder).st_mtim.tv_sec);
  WriteFile(folder + "/file", "");
  EXPECT_LE(std::time(nullptr) - StatOf(folder).st_mtim.tv_sec, 10);
  ASSERT_EQ(0, utimensat(AT_FDCWD, folder.c_str(), times, 0));
  ASSERT_EQ(0, unlink((folder + "/file").c_str()));
  EXPECT_LE(std::time(nullptr) - StatOf(folder).st_mtim.tv_sec, 10);
}

TEST_P(AttributesOf, FileWithoutWritePermission_IsReadOnlyOnTheVolume) {
  WriteFile(*this / "file", "bytes");
  ASSERT_EQ(0, chmod((*this / "file").c_str(), 0444));
  EXPECT_EQ(0u, StatOf(*this / "file").st_mode & 0222u);
  const CVolumeReader reader = Unmounted();
  ASSERT_NE(nullptr, reader.Find("file"));
  EXPECT_EQ(0x21u, reader.Find("file")->Attributes);
}

TEST_P(AttributesOf, FileThatIsReadOnlyOnTheVolume_LacksWritePermission) {
  WriteFile(*this / "file", "bytes");
  (void)Unmounted();
  (void)RunOrThrow({"mattrib", "-i", m_Image, "+r", "::/file"});
  m_pMount = std::make_unique<Mount>(m_Image, m_Folder);
  EXPECT_EQ(0u, StatOf(*this / "file").st_mode & 0222u);
  ASSERT_EQ(0, chmod((*this / "file").c_str(), 0644));
  EXPECT_NE(0u, StatOf(*this / "file").st_mode & 0200u);
}

TEST_P(AttributesOf, ModeThatFatCannotKeep_IsAcceptedAndForgotten) {
  WriteFile(*this / "file", "");
  EXPECT_EQ(0, ErrnoOf(chmod((*this / "file").c_str(), 0600)));
  EXPECT_EQ(0755u, StatOf(*this / "file").st_mode & 07777u);
  EXPECT_EQ(0, ErrnoOf(chmod(m_Folder.c_str(), 0500)));
  EXPECT_EQ(0755u, StatOf(m_Folder).st_mode & 07777u);
}

TEST_P(AttributesOf, OwnerAndGroup_AreWhoMounted) {
  WriteFile(*this / "file", "");
  EXPECT_EQ(getuid(), StatOf(*this / "file").st_uid);
  EXPECT_EQ(getgid(), StatOf(*this / "file").st_gid);
  EXPECT_EQ(0, ErrnoOf(chown((*this / "file").c_str(), getuid(), getgid())));
}

TEST_P(OwnedByAnother, OwnerAndGroup_AreThoseOfTheOptions) {
  WriteFile(*this / "file", "");
  EXPECT_EQ(1234u, StatOf(*this / "file").st_uid);
  EXPECT_EQ(567u, StatOf(*this / "file").st_gid);
  EXPECT_EQ(1234u, StatOf(m_Folder).st_uid);
  EXPECT_EQ(567u, StatOf(m_Folder).st_gid);
}

TEST_P(AttributesOf, AnotherOwner_IsNotPermitted) {
  WriteFile(*this / "file", "");
  EXPECT_EQ(EPERM, ErrnoOf(chown((*this / "file").c_str(), getuid() + 1, getgid())));
  EXPECT_EQ(EPERM, ErrnoOf(chown((*this / "file").c_str(), getuid(), getgid() + 1)));
}

TEST_P(AttributesOf, ExtendedAttributes_AreNotSupported) {
  WriteFile(*this / "file", "");
  EXPECT_EQ(EOPNOTSUPP, ErrnoOf(setxattr((*this / "file").c_str(), "user.x", "y", 1, 0)));
}

TEST_P(AttributesOf, Statfs_CountsClusters) {
  struct statvfs figures {};
  WriteFile(*this / "file", std::string(100000, 'x'));
  ASSERT_EQ(0, statvfs(m_Folder.c_str(), &figures));
  const CVolumeReader reader = Unmounted();
  EXPECT_EQ(reader.ClusterBytes(), figures.f_frsize);
  EXPECT_EQ(reader.Clusters(), figures.f_blocks);
  EXPECT_EQ(reader.FreeClusters(), figures.f_bfree);
  EXPECT_EQ(reader.FreeClusters(), figures.f_bavail);
  EXPECT_EQ(255u, figures.f_namemax);
}

TEST_P(AttributesOf, Blocks_AreThoseOfTheClusters) {
  struct statvfs figures {};
  ASSERT_EQ(0, statvfs(m_Folder.c_str(), &figures));
  WriteFile(*this / "empty", "");
  WriteFile(*this / "one", "x");
  EXPECT_EQ(0, StatOf(*this / "empty").st_blocks);
  EXPECT_EQ(static_cast<blkcnt_t>(figures.f_frsize / 512), StatOf(*this / "one").st_blocks);
}

TEST_P(AttributesOf, FileOver4GiB_IsTooLarge) {
  const Descriptor file(*this / "file", O_RDWR | O_CREAT);
  EXPECT_EQ(EFBIG, ErrnoOf(ftruncate(file.Get(), 0x100000000)));
  EXPECT_EQ(EFBIG, ErrnoOf(pwrite(file.Get(), "xx", 2, 0xFFFFFFFF)));
  EXPECT_EQ(0, file.Stat().st_size);
}

TEST_P(AttributesOf, FullVolume_HasNoSpace) {
  struct statvfs figures {};
  ASSERT_EQ(0, statvfs(m_Folder.c_str(), &figures));
  const off_t room = static_cast<off_t>(figures.f_bfree * figures.f_frsize);
  const Descriptor file(*this / "file", O_RDWR | O_CREAT);
  EXPECT_EQ(ENOSPC, ErrnoOf(ftruncate(file.Get(), room + 1)));
  ASSERT_EQ(0, ftruncate(file.Get(), room));
  EXPECT_EQ(ENOSPC, ErrnoOf(pwrite(file.Get(), "x", 1, room)));
  EXPECT_EQ(ENOSPC, ErrnoOf(mkdir((*this / "folder").c_str(), 0777)));
  ASSERT_EQ(0, statvfs(m_Folder.c_str(), &figures));
  EXPECT_EQ(0u, figures.f_bfree);
  ASSERT_EQ(0, ftruncate(file.Get(), 0));
  EXPECT_EQ(0, ErrnoOf(mkdir((*this / "folder").c_str(), 0777)));
}

// What somebody who is not root may do: whoever runs the tests, or another user where that is root.
class OrdinaryUser : public Volume {
 protected:
  OrdinaryUser() : Volume(OptionsOf(User())) { chmod(m_Directory.Path().c_str(), 0755); }

  static uid_t User() { return getuid() == 0 ? 1234 : getuid(); }
  static std::vector<std::string> OptionsOf(uid_t owner) {
    // Without the last one only root could look at what root has mounted.
    return {"-o", "uid=" + std::to_string(owner) + ",umask=022" + (getuid() == 0 ? ",allow_other" : "")};
  }

  /// @return the errno of opening a file for writing as that user, in a process of its own
  int OpenAsUser(const std::string& name) const {
    const pid_t child = fork();
    if (child == 0) {
      if (getuid() == 0 && (setgid(567) != 0 || setuid(User()) != 0)) _exit(255);
      _exit(open((*this / name).c_str(), O_WRONLY) >= 0 ? 0 : errno);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WEXITSTATUS(status);
  }
};
FOR_ALL_TYPES(OrdinaryUser);

TEST_P(OrdinaryUser, ReadOnlyFile_CannotBeWritten) {
  WriteFile(*this / "file", "bytes");
  EXPECT_EQ(0, OpenAsUser("file"));
  ASSERT_EQ(0, chmod((*this / "file").c_str(), 0444));
  EXPECT_EQ(EACCES, OpenAsUser("file"));
}

TEST_P(OrdinaryUser, FileOfAnother_CannotBeWritten) {
  WriteFile(*this / "file", "bytes");
  (void)Unmounted();
  m_pMount = std::make_unique<Mount>(m_Image, m_Folder, OptionsOf(User() + 1));
  EXPECT_EQ(EACCES, OpenAsUser("file"));
}

}  // namespace fatmount_test
