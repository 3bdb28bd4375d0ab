/// @file OpenFiles.h
/// The files that a host has open, and the library handles behind them. Not part of the face for hosts.
///
/// However often a host opens a file, there is one FileNode of it, and at most one handle: the library would remember
/// two objects that do not see each other's bytes as soon as others push the first one out. Handles are opened when
/// they are needed, and the ones used longest ago are closed when there are many.

#ifndef FATLIB_OPENFILES_H
#define FATLIB_OPENFILES_H

#include <fatlib/FatLibIntf.h>

#include <list>

namespace fatlib {

class EntryNode;

/// A file that is open at least once.
class FileNode {
 public:
  static constexpr int NO_HANDLE = -1;

  explicit FileNode(EntryNode* entryNode) : entry(entryNode) {}
  ~FileNode();
  FileNode(const FileNode&) = delete;
  FileNode& operator=(const FileNode&) = delete;

  EntryNode* entry;  // null: the file is gone
  int handle = NO_HANDLE;
  CFatFileSystem* fileSystem = nullptr;  // that the handle is of
  bool chainChecked = false;             // its clusters are as many as its size needs
  std::list<FileNode*>::iterator place;  // among the open handles, when it has one
};

/// The handles of all volumes of the process.
namespace handles {

/// The library has 160; some are left for what is opened for a moment.
constexpr std::size_t MAX_OPEN = 120;

/// Closes the handle used longest ago when there are MAX_OPEN. To be called before a handle is opened.
void MakeRoom();
/// Enters a handle that was opened.
void Enter(FileNode* file, int handle, CFatFileSystem* fileSystem);
/// Makes it the one used last.
void Touch(FileNode* file);
/// Closes it, if there is one.
void Close(FileNode* file);
void CloseAllOf(const CFatFileSystem* fileSystem);
/// Closes those of an entry and of all that is below.
void CloseBelow(const EntryNode* entry);

}  // namespace handles

}  // namespace fatlib

#endif  // FATLIB_OPENFILES_H
