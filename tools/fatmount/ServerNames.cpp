/// @file ServerNames.cpp
/// Finding, making, removing and renaming.

#include <fatlib/Text.h>
#include <sys/stat.h>

#include <cerrno>

#include "Caller.h"
#include "Server.h"

#ifndef RENAME_NOREPLACE
#define RENAME_NOREPLACE 1
#endif

namespace fatmount {

Server::Server(fatlib::Volume* volume, const Owner& owner, WriteBack* writeBack, Notifier* notifier, Stats* stats)
    : m_pVolume(volume), m_Owner(owner), m_pWriteBack(writeBack), m_pNotifier(notifier), m_pStats(stats) {}
Server::~Server() = default;

int Server::Use(NodeId id, Node** node) {
  *node = m_Nodes.Find(id);
  return *node == nullptr ? ESTALE : 0;
}

int Server::UseDirectory(NodeId id, Node** node) {
  if (const int error = Use(id, node)) return error;
  if (!(*node)->directory) return ENOTDIR;
  return (*node)->removed ? ENOENT : 0;
}

int Server::FindChild(NodeId parent, const char* name, Node** directory, std::u16string* units, Node** node) {
  if (const int error = UseDirectory(parent, directory)) return error;
  if (!fatlib::FromUtf8(name, units)) return EINVAL;
  *node = m_Nodes.Child(*directory, *units);
  return 0;
}

// ---------------------------------------------------------------------------------------------- finding

int Server::Lookup(fuse_req_t request, NodeId parent, const char* name) {
  Node* directory;
  if (const int error = UseDirectory(parent, &directory)) return error;
  std::u16string units;
  if (!fatlib::FromUtf8(name, &units)) return ENOENT;
  if (units.size() > fatlib::Path::MAX_NAME_UNITS) return ENAMETOOLONG;
  fatlib::Entry entry;
  if (const std::error_code error = m_pVolume->Stat(Nodes::PathOf(directory) / units, &entry)) return ErrnoOf(error);
  if (units != entry.name) {
    const std::size_t passed = entry.IsDirectory() ? Nodes::CountAbove(directory, units) : ALL;
    if (IsChangingCase(fuse_req_ctx(request)->pid, name, passed)) return ENOENT;
  }
  Node* node;
  const fuse_entry_param answer = Tell(directory, entry, units, &node);
  if (fuse_reply_entry(request, &answer) != 0) m_Nodes.Forget(node->id, 1);
  return 0;
}

// ---------------------------------------------------------------------------------------------- making

// FAT has a time for it, but the library leaves it alone. That it cannot be set is no reason to refuse the change.
void Server::EntriesChanged(Node* directory) {
  fatlib::Entry entry;
  const fatlib::Path path = Nodes::PathOf(directory);
  if (path.IsRoot() || m_pVolume->Stat(path, &entry)) return;
  entry.times.modified = StampOfNow();
  (void)m_pVolume->SetTimes(path, entry.times);
}

int Server::AnswerNewEntry(fuse_req_t request, Node* parent, const std::u16string& name, fuse_file_info* file) {
  fatlib::Entry entry;
  if (const std::error_code error = m_pVolume->Stat(Nodes::PathOf(parent) / name, &entry)) return ErrnoOf(error);
  EntriesChanged(parent);
  if (const int error = Changed()) return error;
  Node* node;
  const fuse_entry_param answer = Tell(parent, entry, name, &node);
  if (file == nullptr) {
    if (fuse_reply_entry(request, &answer) != 0) m_Nodes.Forget(node->id, 1);
    return 0;
  }
  OpenHandle(node, file);
  if (fuse_reply_create(request, &answer, file) != 0) {
    Release(node->id);
    m_Nodes.Forget(node->id, 1);
  }
  return 0;
}

int Server::Mknod(fuse_req_t request, NodeId parent, const char* name, mode_t mode) {
  if (!S_ISREG(mode) && (mode & S_IFMT) != 0) return EPERM;
  return Create(request, parent, name, mode, nullptr);
}

int Server::Create(fuse_req_t request, NodeId parent, const char* name, mode_t mode, fuse_file_info* file) {
  Node* directory;
  Node* node;
  std::u16string units;
  if (const int error = FindChild(parent, name, &directory, &units, &node)) return error;
  const std::uint8_t attributes = WithMode(fatlib::ARCHIVE, mode);
  if (const std::error_code error = m_pVolume->CreateFile(Nodes::PathOf(directory) / units, 0,
                                                          fatlib::File::Fill::Nothing, attributes, nullptr)) {
    return ErrnoOf(error);
  }
  return AnswerNewEntry(request, directory, units, file);
}

int Server::Mkdir(fuse_req_t request, NodeId parent, const char* name) {
  Node* directory;
  Node* node;
  std::u16string units;
  if (const int error = FindChild(parent, name, &directory, &units, &node)) return error;
  if (const std::error_code error = m_pVolume->CreateDirectory(Nodes::PathOf(directory) / units)) {
    return ErrnoOf(error);
  }
  return AnswerNewEntry(request, directory, units, nullptr);
}

// ---------------------------------------------------------------------------------------------- removing, renaming

// The kernel follows a change under the name that it was asked for. Under another one that it remembers it would find
// the file still.
void Server::ForgetOtherSpelling(const Node* node, const std::u16string& used) {
  if (used != node->name) m_pNotifier->ForgetName(node->parent->id, fatlib::ToUtf8(node->name));
}

int Server::Remove(NodeId parent, const char* name, bool directory) {
  Node* folder;
  Node* node;
  std::u16string units;
  if (const int error = FindChild(parent, name, &folder, &units, &node)) return error;
  const fatlib::Path path = Nodes::PathOf(folder) / units;
  fatlib::Entry entry;
  if (const std::error_code error = m_pVolume->Stat(path, &entry)) return ErrnoOf(error);
  if (entry.IsDirectory() != directory) return directory ? ENOTDIR : EISDIR;
  if (m_pVolume->Mode() == fatlib::Access::ReadOnly) return EROFS;
  const bool open = node != nullptr && node->opens != 0;
  if (open) {
    if (const int error = MakeOrphan(node)) return error;
  }
  if (const std::error_code error = m_pVolume->Remove(path)) {
    if (open) UndoOrphan(node);
    return ErrnoOf(error);
  }
  if (node != nullptr) {
    ForgetOtherSpelling(node, units);
    m_Nodes.Remove(node);
  }
  EntriesChanged(folder);
  return Changed();
}

int Server::Rename(NodeId parent, const char* name, NodeId newParent, const char* newName, unsigned int flags) {
  if ((flags & ~static_cast<unsigned int>(RENAME_NOREPLACE)) != 0) return EINVAL;
  Node* from;
  Node* to;
  Node* node;
  Node* inTheWay;
  std::u16string units;
  std::u16string newUnits;
  if (const int error = FindChild(parent, name, &from, &units, &node)) return error;
  if (const int error = FindChild(newParent, newName, &to, &newUnits, &inTheWay)) return error;
  if (m_pVolume->Mode() == fatlib::Access::ReadOnly) return EROFS;
  for (const Node* above = to; above != nullptr; above = above->parent) {
    if (above == node) return EINVAL;
  }
  const bool replace = (flags & RENAME_NOREPLACE) == 0;
  if (inTheWay == node) inTheWay = nullptr;
  const bool keeps = inTheWay != nullptr && inTheWay->opens != 0 && replace;
  if (keeps) {
    if (const int error = MakeOrphan(inTheWay)) return error;
  }
  const fatlib::Path target = Nodes::PathOf(to) / newUnits;
  if (const std::error_code error = m_pVolume->Rename(Nodes::PathOf(from) / units, target, replace)) {
    if (keeps) UndoOrphan(inTheWay);
    return ErrnoOf(error);
  }
  if (inTheWay != nullptr) {
    ForgetOtherSpelling(inTheWay, newUnits);
    m_Nodes.Remove(inTheWay);
  }
  fatlib::Entry entry;
  if (const std::error_code error = m_pVolume->Stat(target, &entry)) return ErrnoOf(error);
  if (node != nullptr) {
    ForgetOtherSpelling(node, units);
    m_Nodes.Move(node, to, entry.name);
    // The kernel gives the entry its new name, and goes on believing it for as long as the old one was good for.
    if (entry.name != newUnits) {
      node->aliased = !node->directory;
      m_pNotifier->ForgetName(to->id, fatlib::ToUtf8(newUnits));
    }
  }
  EntriesChanged(from);
  if (to != from) EntriesChanged(to);
  return Changed();
}

}  // namespace fatmount
