// What must be refused, and for which reason.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Exerciser.h"
#include "Names.h"

namespace exercise {
namespace {

constexpr mode_t FILE_MODE = 0644;
constexpr mode_t DIRECTORY_MODE = 0755;
constexpr std::size_t LONGEST_NAME = 255;
constexpr off_t TOO_LARGE = off_t{1} << 32;  // a FAT file has one byte less at most

int CreateNew(const std::string& path) { return open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, FILE_MODE); }

}  // namespace

void Exerciser::Refused() {
  const NodePtr file = SomeFile();
  const NodePtr directory = SomeDirectory();
  Note("try what must be refused");
  switch (m_Random.Below(7)) {
    case 0:
      if (!file) break;
      MustFail(CreateNew(HostPath(*file)), {EEXIST}, "creation of the existing " + Model::PathOf(*file));
      MustFail(mkdir(HostPath(*file).c_str(), DIRECTORY_MODE), {EEXIST}, "mkdir of the file " + Model::PathOf(*file));
      if (const NodePtr other = SomeFile(); other != file) {
        MustFail(renameat2(AT_FDCWD, HostPath(*other).c_str(), AT_FDCWD, HostPath(*file).c_str(), RENAME_NOREPLACE),
                 {EEXIST, EINVAL}, "a rename that must not replace " + Model::PathOf(*file));
      }
      MustFail(rmdir(HostPath(*file).c_str()), {ENOTDIR}, "rmdir of the file " + Model::PathOf(*file));
      break;
    case 1:
      if (!directory->parent) break;
      MustFail(mkdir(HostPath(*directory).c_str(), DIRECTORY_MODE), {EEXIST}, "mkdir of " + Model::PathOf(*directory));
      MustFail(unlink(HostPath(*directory).c_str()), {EISDIR, EPERM},
               "unlink of the directory " + Model::PathOf(*directory));
      MustFail(open(HostPath(*directory).c_str(), O_RDWR | O_CLOEXEC), {EISDIR},
               "writing to the directory " + Model::PathOf(*directory));
      break;
    case 2:
      if (!file) break;
      MustFail(open((HostPath(*file) + "/below").c_str(), O_RDONLY | O_CLOEXEC), {ENOTDIR},
               "a path through the file " + Model::PathOf(*file));
      break;
    case 3: {
      const std::string name = MakeName(m_Random);
      if (m_Model.Find(*directory, name)) break;
      const std::string path = HostPath(*directory, name);
      MustFail(open(path.c_str(), O_RDWR | O_CLOEXEC), {ENOENT}, "opening the missing " + path);
      MustFail(unlink(path.c_str()), {ENOENT}, "unlink of the missing " + path);
      MustFail(rmdir(path.c_str()), {ENOENT}, "rmdir of the missing " + path);
      MustFail(rename(path.c_str(), HostPath(*directory, "elsewhere").c_str()), {ENOENT},
               "rename of the missing " + path);
      break;
    }
    case 4: {
      const std::string path = HostPath(*directory, std::string(LONGEST_NAME + 1, 'n'));
      MustFail(CreateNew(path), {ENAMETOOLONG}, "creation of a name that is too long");
      MustFail(mkdir(path.c_str(), DIRECTORY_MODE), {ENAMETOOLONG}, "mkdir of a name that is too long");
      break;
    }
    case 5:
      RefusedName();
      break;
    default:
      RefusedSize();
      break;
  }
}

void Exerciser::RefusedName() {
  if (m_Settings.ordinary) return;
  const NodePtr file = SomeFile();
  const std::string path = HostPath(*SomeDirectory(), MakeForbiddenName(m_Random));
  MustFail(CreateNew(path), {EINVAL}, "creation of " + path);
  MustFail(mkdir(path.c_str(), DIRECTORY_MODE), {EINVAL}, "mkdir of " + path);
  if (file) MustFail(rename(HostPath(*file).c_str(), path.c_str()), {EINVAL}, "rename of a file to " + path);
  const std::string free = HostPath(*m_Model.Root(), "a link");
  MustFail(symlink("nowhere", free.c_str()), {EPERM, ENOSYS, EOPNOTSUPP}, "a symbolic link");
  if (file)
    MustFail(link(HostPath(*file).c_str(), free.c_str()), {EPERM, ENOSYS, EOPNOTSUPP}, "a second name of a file");
  MustFail(mkfifo(free.c_str(), FILE_MODE), {EPERM, ENOSYS, EOPNOTSUPP}, "a pipe");
}

void Exerciser::RefusedSize() {
  const OpenFile* open = Some([](const OpenFile& file) { return file.writable && !file.append; });
  if (m_Settings.ordinary || !open) return;
  const std::string name = Model::PathOf(*open->node);
  MustFail(ftruncate(open->fd, TOO_LARGE), {EFBIG}, "4 GiB for " + name);
  MustFail(pwrite(open->fd, "x", 1, TOO_LARGE - 1), {EFBIG}, "a last byte beyond 4 GiB - 1 for " + name);
  struct stat found {};
  if (fstat(open->fd, &found) != 0) Fail("fstat " + name + ": " + std::strerror(errno));
  CheckStat(*open->node, found);
}

}  // namespace exercise
