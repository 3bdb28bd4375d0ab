/// @file ServerLook.cpp
/// Attributes, figures of the volume, and listings.

#include <fatlib/Text.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>

#include "Server.h"

namespace fatmount {

namespace {

// What the kernel remembers is true until a request changes it, for all changes are requests.
constexpr double ALWAYS = 3600;

}  // namespace

/// The names of a directory, as they were when a program began to read it.
struct Server::Listing {
  struct Name {
    std::u16string units;
    bool directory;
  };
  std::vector<Name> names;
  bool filled = false;
};

int Server::StatNode(Node* node, fatlib::Entry* entry) {
  if (node->orphan != nullptr) {
    *entry = node->orphan->Known();
    return 0;
  }
  if (node->removed) {
    if (!node->directory) return ESTALE;
    *entry = {};  // somebody's current directory
    entry->attributes = fatlib::DIRECTORY;
    return 0;
  }
  return ErrnoOf(m_pVolume->Stat(Nodes::PathOf(node), entry));
}

struct stat Server::AttributesOfNode(const Node* node, const fatlib::Entry& entry) const {
  struct stat attributes = AttributesOf(entry, m_Owner);
  attributes.st_ino = node->id;
  attributes.st_nlink = node->removed || node->orphan != nullptr ? 0 : 1;
  FillSize(m_pVolume->Layout(), node->orphan != nullptr ? node->orphan->Size() : entry.size, &attributes);
  return attributes;
}

int Server::AnswerAttributes(fuse_req_t request, Node* node) {
  fatlib::Entry entry;
  if (const int error = StatNode(node, &entry)) return error;
  const struct stat attributes = AttributesOfNode(node, entry);
  (void)fuse_reply_attr(request, &attributes, node->aliased ? 0 : ALWAYS);
  return 0;
}

int Server::Getattr(fuse_req_t request, NodeId id) {
  Node* node;
  if (const int error = Use(id, &node)) return error;
  return AnswerAttributes(request, node);
}

fuse_entry_param Server::Tell(Node* parent, const fatlib::Entry& entry, const std::u16string& spelling, Node** node) {
  Node* const told = m_Nodes.Enter(parent, entry.name, entry.IsDirectory());
  if (spelling != told->name && !told->directory) told->aliased = true;
  ++told->lookups;
  *node = told;
  fuse_entry_param answer{};
  answer.ino = told->id;
  answer.attr = AttributesOfNode(told, entry);
  answer.attr_timeout = told->aliased ? 0 : ALWAYS;
  answer.entry_timeout = spelling == told->name ? ALWAYS : 0;
  return answer;
}

int Server::SetMode(Node* node, mode_t mode) {
  if (node->directory) return 0;  // a directory can always be written
  fatlib::Entry entry;
  if (const int error = StatNode(node, &entry)) return error;
  const std::uint8_t attributes = WithMode(entry.attributes, mode);
  if (node->orphan != nullptr) {
    node->orphan->Known().attributes = attributes;
    return 0;
  }
  return ErrnoOf(m_pVolume->SetAttributes(Nodes::PathOf(node), attributes));
}

int Server::SetTimes(Node* node, const struct stat& wanted, int what) {
  fatlib::Entry entry;
  if (const int error = StatNode(node, &entry)) return error;
  if ((what & (FUSE_SET_ATTR_MTIME | FUSE_SET_ATTR_MTIME_NOW)) != 0) {
    entry.times.modified = (what & FUSE_SET_ATTR_MTIME_NOW) != 0 ? StampOfNow() : StampOf(wanted.st_mtim);
  }
  if ((what & (FUSE_SET_ATTR_ATIME | FUSE_SET_ATTR_ATIME_NOW)) != 0) {
    entry.times.accessed = StampOf(wanted.st_atim);
    if ((what & FUSE_SET_ATTR_ATIME_NOW) != 0) entry.times.accessed = StampOfNow();
    entry.times.accessed.time = 0;  // it is a date
  }
  if (node->orphan != nullptr) {
    node->orphan->Known().times = entry.times;
    return 0;
  }
  if (node->parent == nullptr) return 0;  // the root has no times
  return ErrnoOf(m_pVolume->SetTimes(Nodes::PathOf(node), entry.times));
}

int Server::Setattr(fuse_req_t request, NodeId id, const struct stat& wanted, int what) {
  Node* node;
  if (const int error = Use(id, &node)) return error;
  if (m_pVolume->Mode() == fatlib::Access::ReadOnly) return EROFS;
  if ((what & FUSE_SET_ATTR_UID) != 0 && wanted.st_uid != m_Owner.uid) return EPERM;
  if ((what & FUSE_SET_ATTR_GID) != 0 && wanted.st_gid != m_Owner.gid) return EPERM;
  if ((what & FUSE_SET_ATTR_SIZE) != 0) {
    if (const int error = Resize(node, static_cast<std::uint64_t>(wanted.st_size))) return error;
  }
  if ((what & FUSE_SET_ATTR_MODE) != 0) {
    if (const int error = SetMode(node, wanted.st_mode)) return error;
  }
  constexpr int TIMES = FUSE_SET_ATTR_MTIME | FUSE_SET_ATTR_MTIME_NOW | FUSE_SET_ATTR_ATIME | FUSE_SET_ATTR_ATIME_NOW;
  if ((what & TIMES) != 0) {
    if (const int error = SetTimes(node, wanted, what)) return error;
  }
  if (const int error = Changed()) return error;
  return AnswerAttributes(request, node);
}

int Server::Statfs(fuse_req_t request) {
  std::uint32_t free = 0;
  if (const std::error_code error = m_pVolume->FreeClusters(&free)) return ErrnoOf(error);
  const fatlib::Geometry& layout = m_pVolume->Layout();
  struct statvfs figures {};
  figures.f_bsize = layout.bytesPerCluster;
  figures.f_frsize = layout.bytesPerCluster;
  figures.f_blocks = layout.clusters;
  figures.f_bfree = free;
  figures.f_bavail = free;
  figures.f_namemax = fatlib::Path::MAX_NAME_UNITS;
  (void)fuse_reply_statfs(request, &figures);
  return 0;
}

// ---------------------------------------------------------------------------------------------- listings

int Server::Opendir(fuse_req_t request, NodeId id, fuse_file_info* file) {
  Node* node;
  if (const int error = Use(id, &node)) return error;
  if (!node->directory) return ENOTDIR;
  auto listing = std::make_unique<Listing>();
  file->fh = reinterpret_cast<std::uintptr_t>(listing.get());
  if (fuse_reply_open(request, file) == 0) (void)listing.release();  // it comes back with Releasedir
  return 0;
}

void Server::Releasedir(fuse_file_info* file) {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): libfuse keeps it as a number
  delete reinterpret_cast<Listing*>(file->fh);
}

int Server::FillListing(Node* node, Listing* listing) {
  listing->names.clear();
  listing->filled = true;
  if (node->removed) return 0;
  fatlib::Directory directory;
  if (const std::error_code error = m_pVolume->List(Nodes::PathOf(node), &directory)) return ErrnoOf(error);
  listing->names.reserve(directory.size());
  for (const fatlib::Entry& entry : directory) listing->names.push_back({entry.name, entry.IsDirectory()});
  return 0;
}

// Offsets count entries: "." is 0, ".." is 1, and then come the names. @return bytes, more than `room` when there is
// none
std::size_t Server::AddEntry(fuse_req_t request, Node* directory, Listing* listing, std::size_t index, char* at,
                             std::size_t room, bool plus) {
  const off_t next = static_cast<off_t>(index) + 1;
  fuse_entry_param answer{};
  if (index < 2) {
    const Node* const node = index == 0 || directory->parent == nullptr ? directory : directory->parent;
    answer.attr.st_ino = node->id;
    answer.attr.st_mode = S_IFDIR;
    const char* const name = index == 0 ? "." : "..";
    return plus ? fuse_add_direntry_plus(request, at, room, name, &answer, next)
                : fuse_add_direntry(request, at, room, name, &answer.attr, next);
  }
  const Listing::Name& name = listing->names[index - 2];
  const std::string text = fatlib::ToUtf8(name.units);
  answer.attr.st_ino = m_Nodes.Enter(directory, name.units, name.directory)->id;
  answer.attr.st_mode = name.directory ? S_IFDIR : S_IFREG;
  if (!plus) return fuse_add_direntry(request, at, room, text.c_str(), &answer.attr, next);
  if (fuse_add_direntry_plus(request, nullptr, 0, text.c_str(), nullptr, 0) > room) return room + 1;
  fatlib::Entry entry;
  // What is gone, or was renamed, since the listing was made is listed, but the kernel learns nothing of it.
  if (!m_pVolume->Stat(Nodes::PathOf(directory) / name.units, &entry) && entry.name == name.units) {
    Node* node;
    answer = Tell(directory, entry, entry.name, &node);
  }
  return fuse_add_direntry_plus(request, at, room, text.c_str(), &answer, next);
}

int Server::Readdir(fuse_req_t request, NodeId id, std::size_t size, off_t offset, fuse_file_info* file, bool plus) {
  Node* node;
  if (const int error = Use(id, &node)) return error;
  // NOLINTNEXTLINE(performance-no-int-to-ptr): libfuse keeps it as a number
  Listing* const listing = reinterpret_cast<Listing*>(file->fh);
  if (offset == 0 || !listing->filled) {
    if (const int error = FillListing(node, listing)) return error;
  }
  char* const answer = m_Buffer.Get(size);
  std::size_t used = 0;
  for (std::size_t index = static_cast<std::size_t>(offset); index < listing->names.size() + 2; ++index) {
    const std::size_t bytes = AddEntry(request, node, listing, index, answer + used, size - used, plus);
    if (bytes > size - used) break;
    used += bytes;
  }
  (void)fuse_reply_buf(request, answer, used);
  return 0;
}

}  // namespace fatmount
