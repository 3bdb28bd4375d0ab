/// @file ServerFiles.cpp
/// The bytes of files.

#include <fcntl.h>

#include <cerrno>
#include <limits>

#include "Server.h"

namespace fatmount {

int Server::OpenFile(Node* node) {
  if (node->directory) return EISDIR;
  if (node->orphan != nullptr || node->file.IsOpen()) return 0;
  if (node->removed) return ESTALE;
  const fatlib::Path path = Nodes::PathOf(node);
  std::error_code error = m_pVolume->OpenFile(path, m_pVolume->Mode(), &node->file);
  if (error == fatlib::Status::Unreachable) {  // it can be read all the same
    error = m_pVolume->OpenFile(path, fatlib::Access::ReadOnly, &node->file);
  }
  return ErrnoOf(error);
}

void Server::OpenHandle(Node* node, fuse_file_info* file) {
  ++node->opens;
  file->fh = 0;
  file->keep_cache = 1;  // all changes come through the kernel
  file->noflush = 1;     // there is nothing to do when a file is closed
}

int Server::Open(fuse_req_t request, NodeId id, fuse_file_info* file) {
  Node* node;
  if (const int error = Use(id, &node)) return error;
  if (const int error = OpenFile(node)) return error;
  if ((file->flags & O_TRUNC) != 0) {
    if (const int error = Resize(node, 0)) {
      if (node->opens == 0) m_Nodes.Closed(node);
      return error;
    }
  }
  OpenHandle(node, file);
  if (fuse_reply_open(request, file) != 0) Release(id);  // the program has gone away
  return 0;
}

void Server::Release(NodeId id) {
  Node* const node = m_Nodes.Find(id);
  if (node != nullptr && node->opens != 0 && --node->opens == 0) m_Nodes.Closed(node);
}

int Server::Read(fuse_req_t request, NodeId id, std::size_t size, off_t offset) {
  Node* node;
  if (const int error = Use(id, &node)) return error;
  if (const int error = OpenFile(node)) return error;
  char* const bytes = m_Buffer.Get(size);
  const std::uint64_t from = static_cast<std::uint64_t>(offset);
  std::size_t done = 0;
  const std::error_code error = node->orphan != nullptr ? node->orphan->Read(from, bytes, size, &done)
                                                        : node->file.Read(from, bytes, size, &done);
  if (error && done == 0) return ErrnoOf(error);
  m_pStats->bytesRead += done;
  (void)fuse_reply_buf(request, bytes, done);
  return 0;
}

int Server::Write(fuse_req_t request, NodeId id, const char* bytes, std::size_t size, off_t offset) {
  Node* node;
  if (const int error = Use(id, &node)) return error;
  if (const int error = OpenFile(node)) return error;
  const std::uint64_t from = static_cast<std::uint64_t>(offset);
  std::error_code error;
  if (node->orphan != nullptr) {
    const std::uint64_t limit = std::numeric_limits<std::uint32_t>::max();
    if (from > limit || size > limit - from) return EFBIG;
    error = node->orphan->Write(from, bytes, size);
    node->orphan->Known().times.modified = StampOfNow();
  } else {
    error = node->file.Write(from, bytes, size);
  }
  if (error) return ErrnoOf(error);
  m_pStats->bytesWritten += size;
  if (const int failed = Changed()) return failed;
  (void)fuse_reply_write(request, size);
  return 0;
}

int Server::Resize(Node* node, std::uint64_t size) {
  const bool wasOpen = node->opens != 0;
  if (const int error = OpenFile(node)) return error;
  std::error_code error;
  if (node->orphan != nullptr) {
    if (size > std::numeric_limits<std::uint32_t>::max()) return EFBIG;
    error = node->orphan->Resize(size);
    node->orphan->Known().times.modified = StampOfNow();
  } else {
    error = node->file.Resize(size);
    if (!wasOpen) node->file.Close();
  }
  return error ? ErrnoOf(error) : Changed();
}

int Server::Fallocate(NodeId id, int mode, off_t offset, off_t length) {
  if (mode != 0) return EOPNOTSUPP;
  Node* node;
  if (const int error = Use(id, &node)) return error;
  if (const int error = OpenFile(node)) return error;
  const std::uint64_t end = static_cast<std::uint64_t>(offset) + static_cast<std::uint64_t>(length);
  const std::uint64_t size = node->orphan != nullptr ? node->orphan->Size() : node->file.Size();
  return end <= size ? 0 : Resize(node, end);
}

int Server::MakeOrphan(Node* node) {
  fatlib::Entry entry;
  if (const int error = StatNode(node, &entry)) return error;
  if (const int error = OpenFile(node)) return error;
  if (const std::error_code error = Orphan::Copy(&node->file, entry, &node->orphan)) return ErrnoOf(error);
  node->file.Close();
  ++m_pStats->filesKeptOpenAfterRemoval;
  return 0;
}

void Server::UndoOrphan(Node* node) {
  node->orphan.reset();  // the file is opened again when it is used
  --m_pStats->filesKeptOpenAfterRemoval;
}

}  // namespace fatmount
