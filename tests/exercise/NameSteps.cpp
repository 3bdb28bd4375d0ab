// Steps on names: opening and closing, creating and removing, renaming, listing.

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Exerciser.h"
#include "Names.h"

namespace exercise {
namespace {

constexpr std::size_t MOST_OPEN = 12;
constexpr unsigned DEEPEST = 4;
// UTF-16 units of a path from the folder; the folder itself may lie in another directory of the volume.
constexpr std::size_t LONGEST_PATH = 200;
constexpr mode_t FILE_MODE = 0644;
constexpr mode_t DIRECTORY_MODE = 0755;

bool Fits(const Node& directory, const std::string& name, std::size_t unitsBelow) {
  return UnitsOf(Model::PathOf(directory)) + 1 + UnitsOf(name) + unitsBelow <= LONGEST_PATH;
}

unsigned LevelsBelow(const Node& node) {
  unsigned levels = 0;
  for (const auto& [key, child] : node.children) levels = std::max(levels, 1 + LevelsBelow(*child));
  return levels;
}

}  // namespace

NodePtr Exerciser::SomeDirectory() { return m_Random.Of(m_Model.Directories()); }

NodePtr Exerciser::SomeFile() {
  const std::vector<NodePtr> files = m_Model.Files();
  return files.empty() ? nullptr : m_Random.Of(files);
}

void Exerciser::Open() {
  const NodePtr file = SomeFile();
  if (!file) return Create();
  if (m_Open.size() >= MOST_OPEN) Close();
  OpenFile open{-1, file, true, true, false};
  int flags = O_RDWR;
  if (m_Random.Percent(15)) {
    flags = O_RDONLY;
    open.writable = false;
  } else if (m_Random.Percent(15)) {
    flags = O_WRONLY;
    open.readable = false;
  }
  if (open.writable && m_Random.Percent(20)) {
    flags |= O_APPEND;
    open.append = true;
  }
  const bool cut = open.writable && m_Random.Percent(5);
  if (cut) flags |= O_TRUNC;
  if (m_Random.Percent(20)) flags |= O_CREAT;
  const std::string path = HostPath(*file);
  const std::time_t before = std::time(nullptr);
  open.fd = ::open(path.c_str(), flags | O_CLOEXEC, FILE_MODE);
  Note("open " + path + (cut ? ", cut" : "") + (open.append ? ", append" : "") + (open.writable ? "" : ", to read") +
       (open.readable ? "" : ", to write") + (flags & O_CREAT ? ", O_CREAT" : "") + ": fd " + std::to_string(open.fd));
  if (open.fd < 0) Fail("open " + path + ": " + std::strerror(errno));
  if (cut) {
    const bool wasEmpty = file->bytes.empty();
    file->bytes.clear();
    Changed(*file, before);
    if (wasEmpty) file->changed.known = false;
  }
  m_Open.push_back(open);
  struct stat found {};
  if (fstat(open.fd, &found) != 0) Fail("fstat " + path + ": " + std::strerror(errno));
  CheckStat(*file, found);
}

void Exerciser::Create() {
  if (m_Model.All().size() >= m_Settings.files) return Unlink();
  if (m_Open.size() >= MOST_OPEN) Close();
  const NodePtr directory = SomeDirectory();
  const std::string name = MakeName(m_Random);
  if (m_Model.Find(*directory, name) || !Fits(*directory, name, 0)) return;
  const std::string path = HostPath(*directory, name);
  const int flags = O_RDWR | O_CREAT | O_CLOEXEC | (m_Random.Percent(50) ? O_EXCL : 0);
  const std::time_t before = std::time(nullptr);
  const int fd = ::open(path.c_str(), flags, FILE_MODE);
  Note("create " + path + ": fd " + std::to_string(fd));
  if (!Done(fd, "create " + path)) return CheckListing(*directory);
  const NodePtr file = m_Model.Add(*directory, name, false);
  Changed(*file, before);
  m_Open.push_back({fd, file, true, true, false});
}

void Exerciser::Close() {
  if (m_Open.empty()) return;
  const std::size_t at = m_Random.Below(m_Open.size());
  Note("close fd " + std::to_string(m_Open[at].fd) + " of " + Model::PathOf(*m_Open[at].node));
  if (close(m_Open[at].fd) != 0) Fail(std::string("close: ") + std::strerror(errno));
  m_Open.erase(m_Open.begin() + static_cast<std::ptrdiff_t>(at));
}

void Exerciser::Unlink() {
  const NodePtr file = SomeFile();
  if (!file) return;
  const std::string path = HostPath(*file);
  Note("unlink " + path);
  if (unlink(path.c_str()) != 0) Fail("unlink " + path + ": " + std::strerror(errno));
  m_Model.Remove(*file);
  MustFail(access(path.c_str(), F_OK), {ENOENT}, "access to the removed " + path);
}

void Exerciser::MakeDirectory() {
  const NodePtr parent = SomeDirectory();
  const std::string name = MakeName(m_Random);
  if (m_Model.Find(*parent, name) || Model::DepthOf(*parent) >= DEEPEST || !Fits(*parent, name, 0)) return;
  if (m_Model.All().size() >= m_Settings.files || m_Model.Directories().size() > m_Settings.files / 4)
    return RemoveDirectory();
  const std::string path = HostPath(*parent, name);
  Note("mkdir " + path);
  if (!Done(mkdir(path.c_str(), DIRECTORY_MODE), "mkdir " + path)) return CheckListing(*parent);
  CheckListing(*m_Model.Add(*parent, name, true));
}

void Exerciser::RemoveDirectory() {
  const NodePtr directory = SomeDirectory();
  if (!directory->parent) return;
  const std::string path = HostPath(*directory);
  Note("rmdir " + path);
  if (!directory->children.empty()) {
    return MustFail(rmdir(path.c_str()), {ENOTEMPTY, EEXIST}, "rmdir of " + path + ", which is not empty,");
  }
  if (rmdir(path.c_str()) != 0) Fail("rmdir " + path + ": " + std::strerror(errno));
  m_Model.Remove(*directory);
  MustFail(access(path.c_str(), F_OK), {ENOENT}, "access to the removed " + path);
}

void Exerciser::Rename() {
  const std::vector<NodePtr> all = m_Model.All();
  if (all.empty()) return;
  const NodePtr node = m_Random.Of(all);
  const NodePtr directory =
      m_Random.Percent(40)
          ? node->parent->parent ? m_Model.Find(*node->parent->parent, node->parent->name) : m_Model.Root()
          : SomeDirectory();
  std::string name = MakeName(m_Random);
  if (!directory->children.empty() && m_Random.Percent(35)) {  // over something
    auto target = directory->children.begin();
    std::advance(target, static_cast<std::ptrdiff_t>(m_Random.Below(directory->children.size())));
    name = Written(*target->second);
  }
  DoRename(*node, *directory, name);
}

void Exerciser::RenameCase() {
  const std::vector<NodePtr> all = m_Model.All();
  if (all.empty()) return;
  const NodePtr node = m_Random.Of(all);
  DoRename(*node, *node->parent, InOtherCase(node->name, m_Random));
}

void Exerciser::DoRename(Node& node, Node& directory, const std::string& name) {
  const NodePtr over = m_Model.Find(directory, name);
  if (!Fits(directory, name, Model::UnitsBelow(node))) return;
  if (node.directory && Model::DepthOf(directory) + 1 + LevelsBelow(node) > DEEPEST) return;
  // Of a file by another spelling to that spelling is a rename of nothing to the same: so a new spelling comes from the
  // old.
  const std::string from = over.get() == &node ? HostPath(*node.parent, node.name) : HostPath(node);
  const std::string to = HostPath(directory, name);
  const std::string what = "rename " + from + " to " + to;
  Note(what + (over ? ", over " + Model::PathOf(*over) : ""));
  const int result = rename(from.c_str(), to.c_str());
  if (over.get() == &node && over->name == name) {  // nothing to do
    if (result != 0) Fail(what + ": " + std::strerror(errno));
    return;
  }
  if (node.directory && Model::IsWithin(directory, node)) {
    return MustFail(result, {EINVAL, ENOTEMPTY}, what + ", into itself,");
  }
  if (over && over.get() != &node) {
    if (Model::IsWithin(node, *over))
      return MustFail(result, {ENOTEMPTY, EISDIR, EEXIST, EINVAL}, what + ", over its parent,");
    if (node.directory && !over->directory) return MustFail(result, {ENOTDIR}, what + ", a directory over a file,");
    if (!node.directory && over->directory) return MustFail(result, {EISDIR}, what + ", a file over a directory,");
    if (!over->children.empty()) return MustFail(result, {ENOTEMPTY, EEXIST}, what + ", over a full directory,");
  }
  Node& source = *node.parent;
  if (Done(result, what)) m_Model.Move(node, directory, name);
  CheckListing(source);
  if (&source != &directory) CheckListing(directory);
  StatOne();
}

void Exerciser::ToggleReadOnly() {
  const NodePtr file = SomeFile();
  if (!file) return;
  Note("make " + Model::PathOf(*file) + " read-only, and writable again");
  for (const mode_t mode : {mode_t{0444}, FILE_MODE}) {
    const std::string path = HostPath(*file);
    if (chmod(path.c_str(), mode) != 0) Fail("chmod " + path + ": " + std::strerror(errno));
    struct stat found {};
    if (stat(HostPath(*file).c_str(), &found) != 0) Fail("stat " + path + ": " + std::strerror(errno));
    if ((found.st_mode & S_IWUSR) != (mode & S_IWUSR)) Fail(path + " has not become read-only, or writable again");
    CheckStat(*file, found);
  }
}

void Exerciser::ListSome() {
  const NodePtr directory = SomeDirectory();
  Note("list " + HostPath(*directory));
  CheckListing(*directory);
}

}  // namespace exercise
