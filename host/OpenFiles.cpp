/// @file OpenFiles.cpp

#include "OpenFiles.h"

#include "Mirror.h"

namespace fatlib {

namespace {

/// Those with a handle, the one used last in front. Never destroyed: a file may be, later than any static object.
std::list<FileNode*>& Open() {
  static std::list<FileNode*>* const open = new std::list<FileNode*>;
  return *open;
}

template <class PREDICATE>
void CloseWhere(PREDICATE predicate) {
  for (auto next = Open().begin(); next != Open().end();) {
    FileNode* const file = *next++;
    if (predicate(file)) handles::Close(file);
  }
}

}  // namespace

FileNode::~FileNode() { handles::Close(this); }

namespace handles {

void MakeRoom() {
  if (Open().size() >= MAX_OPEN) Close(Open().back());
}

void Enter(FileNode* file, int handle, CFatFileSystem* fileSystem) {
  file->handle = handle;
  file->fileSystem = fileSystem;
  file->place = Open().insert(Open().begin(), file);
}

void Touch(FileNode* file) { Open().splice(Open().begin(), Open(), file->place); }

void Close(FileNode* file) {
  if (file->handle == FileNode::NO_HANDLE) return;
  SetCurrentFileSystem(file->fileSystem);
  (void)Fat_CloseFile(file->handle);  // the handle is one of ours
  file->handle = FileNode::NO_HANDLE;
  (void)Open().erase(file->place);
}

void CloseAllOf(const CFatFileSystem* fileSystem) {
  CloseWhere([fileSystem](const FileNode* file) { return file->fileSystem == fileSystem; });
}

void CloseBelow(const EntryNode* entry) {
  CloseWhere([entry](const FileNode* file) { return file->entry != nullptr && file->entry->IsAtOrBelow(entry); });
}

}  // namespace handles

}  // namespace fatlib
