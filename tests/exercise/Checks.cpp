// Looking: what the folder shows, against the model.

#include <dirent.h>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "Exerciser.h"
#include "Names.h"

namespace exercise {
namespace {

constexpr std::size_t PIECE = 1u << 20;
constexpr std::size_t STAT_BLOCK = 512;

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};
struct Closing {
  int fd;
  ~Closing() { close(fd); }
};

std::string Joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "'" : ", '") + name + "'";
  return text.empty() ? "nothing" : text;
}

}  // namespace

void Exerciser::CheckAll() {
  Note("read everything back");
  CheckTree(*m_Model.Root());
  for (const OpenFile& open : m_Open) {
    if (open.readable) CheckBytes(*open.node, open.fd);
  }
  CheckSpace();
}

void Exerciser::CheckTree(const Node& directory) {
  CheckListing(directory);
  for (const auto& [key, child] : directory.children) {
    struct stat found {};
    const std::string path = HostPath(*child);
    if (lstat(path.c_str(), &found) != 0) Fail("lstat " + path + ": " + std::strerror(errno));
    CheckStat(*child, found);
    if (child->directory) {
      CheckTree(*child);
    } else {
      CheckFile(*child);
    }
  }
}

void Exerciser::CheckListing(const Node& directory) {
  const std::string path = HostPath(directory);
  const std::unique_ptr<DIR, CloseDirectory> stream(opendir(path.c_str()));
  if (!stream) Fail("opendir " + path + ": " + std::strerror(errno));
  std::vector<std::string> found;
  errno = 0;
  while (const dirent* entry = readdir(stream.get())) {
    // Other FUSE file systems keep removed files that are open under such names.
    if (m_Settings.ordinary && std::strncmp(entry->d_name, ".fuse_hidden", 12) == 0) continue;
    found.emplace_back(entry->d_name);
    const NodePtr node = m_Model.Find(directory, entry->d_name);
    if (node && entry->d_type != DT_UNKNOWN && (entry->d_type == DT_DIR) != node->directory) {
      Fail("readdir gives the wrong type for " + path + "/" + entry->d_name);
    }
    errno = 0;
  }
  if (errno != 0) Fail("readdir " + path + ": " + std::strerror(errno));
  std::vector<std::string> expected = {".", ".."};
  for (const auto& [key, child] : directory.children) expected.push_back(child->name);
  std::sort(found.begin(), found.end());
  std::sort(expected.begin(), expected.end());
  if (found == expected) return;
  std::vector<std::string> missing;
  std::vector<std::string> extra;
  std::set_difference(expected.begin(), expected.end(), found.begin(), found.end(), std::back_inserter(missing));
  std::set_difference(found.begin(), found.end(), expected.begin(), expected.end(), std::back_inserter(extra));
  Fail("the directory " + path + " lacks " + Joined(missing) + " and has besides " + Joined(extra));
}

void Exerciser::CheckFile(const Node& node) {
  const std::string path = HostPath(node);
  const Closing file{open(path.c_str(), O_RDONLY | O_CLOEXEC)};
  if (file.fd < 0) Fail("open " + path + ": " + std::strerror(errno));
  CheckBytes(node, file.fd);
}

void Exerciser::CheckBytes(const Node& node, int fd) {
  struct stat found {};
  if (fstat(fd, &found) != 0) Fail("fstat " + Model::PathOf(node) + ": " + std::strerror(errno));
  CheckStat(node, found);
  // Every second time what the kernel remembers is dropped, so that the file system itself must answer.
  if (m_Random.Percent(50) && fsync(fd) == 0) posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  std::vector<unsigned char> bytes(std::min(PIECE, node.bytes.size() + 1));
  std::size_t offset = 0;
  for (;;) {
    const ssize_t done = pread(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    if (done < 0) {
      if (errno == EBADF) return;  // open for writing only
      Fail("read " + Model::PathOf(node) + ": " + std::strerror(errno));
    }
    if (done == 0) break;
    const auto count = static_cast<std::size_t>(done);
    if (count > node.bytes.size() - offset) Fail(Model::PathOf(node) + " gives bytes beyond its end");
    CompareBytes(node, offset, bytes.data(), count);
    offset += count;
  }
  if (offset != node.bytes.size()) {
    Fail(Model::PathOf(node) + " ends after " + std::to_string(offset) + " bytes of " +
         std::to_string(node.bytes.size()));
  }
}

void Exerciser::CheckStat(const Node& node, const struct stat& found) {
  const std::string name = Model::PathOf(node);
  if (S_ISDIR(found.st_mode) != node.directory || S_ISREG(found.st_mode) == node.directory) {
    Fail(name + " is of the wrong type");
  }
  if (node.directory) return;
  const auto size = static_cast<std::size_t>(found.st_size);
  if (size != node.bytes.size()) {
    Fail(name + " has " + std::to_string(size) + " bytes instead of " + std::to_string(node.bytes.size()));
  }
  if (!m_Settings.ordinary && static_cast<std::size_t>(found.st_blocks) * STAT_BLOCK < size) {
    Fail(name + " takes " + std::to_string(found.st_blocks) + " blocks of 512 bytes, fewer than its size");
  }
  if (node.parent && found.st_nlink == 0) Fail(name + " has no link");
  if (node.changed.known && (found.st_mtime < node.changed.first || found.st_mtime > node.changed.last)) {
    Fail(name + " was changed at " + std::to_string(found.st_mtime) + " instead of " +
         std::to_string(node.changed.first) + " to " + std::to_string(node.changed.last));
  }
}

void Exerciser::CheckSpace() {
  struct statvfs space {};
  if (statvfs(m_Settings.folder.c_str(), &space) != 0) Fail(std::string("statvfs: ") + std::strerror(errno));
  if (space.f_frsize == 0 || space.f_blocks == 0 || space.f_bfree > space.f_blocks || space.f_bavail > space.f_bfree) {
    Fail("statvfs: " + std::to_string(space.f_bavail) + " available of " + std::to_string(space.f_bfree) + " free of " +
         std::to_string(space.f_blocks) + " blocks of " + std::to_string(space.f_frsize));
  }
  if (m_Settings.ordinary) return;
  if (space.f_namemax < 255) Fail("statvfs: names of up to " + std::to_string(space.f_namemax));
  if (m_nBlocks == 0) m_nBlocks = space.f_blocks;
  if (space.f_blocks != m_nBlocks)
    Fail("statvfs: the volume has changed its size to " + std::to_string(space.f_blocks));
  std::uint64_t needed = 0;
  for (const NodePtr& node : m_Model.All()) {
    needed += node->directory ? 1 : (node->bytes.size() + space.f_frsize - 1) / space.f_frsize;
  }
  if (space.f_blocks - space.f_bfree < needed) {
    Fail("statvfs: " + std::to_string(space.f_blocks - space.f_bfree) + " blocks in use, but the files take " +
         std::to_string(needed));
  }
}

void Exerciser::StatOne() {
  const std::vector<NodePtr> all = m_Model.All();
  if (all.empty()) return;
  const NodePtr node = m_Random.Of(all);
  const std::string path = HostPath(*node);
  struct stat found {};
  if (stat(path.c_str(), &found) != 0) Fail("stat " + path + ": " + std::strerror(errno));
  CheckStat(*node, found);
}

// Makes the model wrong in one place, just before everything is read back.
void Exerciser::PlantFault() {
  if (m_Settings.plant == Plant::Nothing || m_bPlanted) return;
  for (const NodePtr& file : m_Model.Files()) {
    if (file->bytes.empty() || !file->changed.known) continue;
    Note("a fault is planted in the model of " + Model::PathOf(*file));
    m_bPlanted = true;
    switch (m_Settings.plant) {
      case Plant::Byte:
        file->bytes[m_Random.Below(file->bytes.size())] ^= 1;
        break;
      case Plant::Size:
        file->bytes.pop_back();
        break;
      case Plant::Name:
        file->name = file->name == "planted" ? "other" : "planted";
        break;
      default:
        file->changed = {file->changed.first + 3600, file->changed.last + 3600, true};
        break;
    }
    return;
  }
}

}  // namespace exercise
