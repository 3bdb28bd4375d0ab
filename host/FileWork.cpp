/// @file FileWork.cpp

#include "FileWork.h"

#include <algorithm>

#include "Narrow.h"

namespace fatlib {

namespace {

constexpr std::uint32_t BLOCK = 256 * 1024;  // the library's count of bytes is exact for what lies in one

// So much is read from the device without a copy in the library's cache: it would only push others out. Less is mostly
// followed by what lies behind it, which the cache then has.
constexpr std::uint64_t DIRECT_BYTES = std::uint64_t{64} * 1024;

/// Bytes from `offset` on that lie in one block.
std::uint32_t PieceAt(std::uint64_t offset, std::uint64_t left) {
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(left, BLOCK - offset % BLOCK));
}

/// Makes sure that a file has a library handle.
std::error_code NeedHandle(VolumeState* state, FileNode* file) {
  if (file->entry == nullptr) return Status::NotFound;
  if (file->handle != FileNode::NO_HANDLE) {
    handles::Touch(file);
    SetCurrentFileSystem(file->fileSystem);
    return {};
  }
  if (const std::error_code error = state->Use(file->entry)) return error;
  handles::MakeRoom();
  const CLocaleScope locale;
  const std::uint64_t failures = state->Failures();
  SetCurrentFileSystem(state->FileSystem());
  const int handle = Fat_OpenFile(LibraryPath(file->entry).Get());
  if (handle < 0) return state->Reason(failures, Status::DiskCorrupt);
  handles::Enter(file, handle, state->FileSystem());
  return {};
}

/// The same for a change. The library would not notice a chain that is too short, and lose the bytes.
std::error_code NeedHandleToChange(VolumeState* state, FileNode* file) {
  if (file->entry == nullptr) return Status::NotFound;
  if (!file->chainChecked && !file->entry->ahead) {
    if (const std::error_code error = CheckChain(state, file->entry)) return error;
  }
  file->chainChecked = true;
  return NeedHandle(state, file);
}

std::error_code WritePieces(VolumeState* state, FileNode* file, std::uint64_t offset, const unsigned char* bytes,
                            std::uint64_t size) {
  while (size != 0) {
    const std::uint32_t piece = PieceAt(offset, size);
    const std::uint64_t failures = state->Failures();
    unsigned int reported;
    if (Fat_WriteFileEx(file->handle, static_cast<long long>(offset), piece, const_cast<unsigned char*>(bytes),
                        &reported) == 0) {
      return state->ChangeFailed(failures, Status::DiskCorrupt);
    }
    offset += piece;
    bytes += piece;
    size -= piece;
  }
  return {};
}

/// Changes the size as the library does: what is new keeps what the disk held.
std::error_code SetSize(VolumeState* state, FileNode* file, std::uint32_t size) {
  const std::uint32_t before = file->entry->raw.size;
  const std::uint32_t clustersBefore = state->ClustersOf(before);
  const std::uint32_t clusters = state->ClustersOf(size);
  if (clusters > clustersBefore) {
    if (const std::error_code error = state->NeedClusters(clusters - clustersBefore)) return error;
  }
  if (const std::error_code error = NeedHandleToChange(state, file)) return error;
  const std::uint64_t failures = state->Failures();
  state->MarkModified(file->entry);
  if (Fat_SetFileSize(file->handle, size) == 0) return state->ChangeFailed(failures, Status::DiskCorrupt);
  file->entry->raw.size = size;
  if (clusters > clustersBefore) {
    state->TakeClusters(clusters - clustersBefore);
  } else {
    state->ReturnClusters(clustersBefore - clusters);
  }
  return {};
}

std::error_code SetArchive(VolumeState* state, FileNode* file) {
  const std::uint8_t attributes = file->entry->raw.attributes;
  return (attributes & ARCHIVE) != 0 ? Status::Success : StoreAttributes(state, file->entry, attributes | ARCHIVE);
}

}  // namespace

std::shared_ptr<FileNode> OpenNode(EntryNode* entry) {
  std::shared_ptr<FileNode> file = entry->open.lock();
  if (file == nullptr) {
    file = std::make_shared<FileNode>(entry);
    entry->open = file;
  }
  return file;
}

std::uint32_t MaxFileBytes(const VolumeState& state) { return 0u - state.Layout().bytesPerCluster; }

std::error_code CheckChain(VolumeState* state, const EntryNode* entry) {
  if (entry->ahead) return {};  // it is the library's own
  std::vector<Extent> extents;
  if (const std::error_code error = state->Bytes()->Chain(entry->raw.firstCluster, &extents)) return error;
  std::uint64_t clusters = 0;
  for (const Extent& extent : extents) clusters += extent.count;
  return clusters < state->ClustersOf(entry->raw.size) ? Status::DiskCorrupt : Status::Success;
}

std::error_code ReadFile(VolumeState* state, FileNode* file, std::uint64_t offset, void* buffer, std::size_t size,
                         std::size_t* done) {
  *done = 0;
  EntryNode* const entry = file->entry;
  if (entry == nullptr) return Status::NotFound;
  if (offset >= entry->raw.size || size == 0) return {};
  const std::uint64_t wanted = std::min<std::uint64_t>(size, entry->raw.size - offset);
  if (!entry->IsReachable() || (wanted >= DIRECT_BYTES && !entry->ahead)) {
    return state->Bytes()->ReadFile(entry->raw, offset, buffer, ToSize(wanted), done);
  }
  if (const std::error_code error = NeedHandle(state, file)) return error;
  unsigned char* const bytes = static_cast<unsigned char*>(buffer);
  while (*done < wanted) {
    const std::uint32_t piece = PieceAt(offset + *done, wanted - *done);
    const std::uint64_t failures = state->Failures();
    unsigned int reported;
    if (Fat_ReadFileEx(file->handle, static_cast<long long>(offset) + static_cast<long long>(*done), piece,
                       bytes + *done, &reported) == 0) {
      return state->Reason(failures, Status::DiskCorrupt);
    }
    *done += piece;
  }
  return {};
}

std::error_code ZeroFile(VolumeState* state, FileNode* file, std::uint32_t from, std::uint32_t to) {
  static const std::vector<unsigned char> zeros(BLOCK);
  if (from < to) {
    if (const std::error_code error = NeedHandleToChange(state, file)) return error;
    // A file that was just made may have been brought to the medium already, as where the entries of its directory
    // slid.
    file->entry->ahead = true;
    state->MarkChanged(file->entry->parent);
  }
  while (from < to) {
    const std::uint32_t piece = PieceAt(from, to - from);
    if (const std::error_code error = WritePieces(state, file, from, zeros.data(), piece)) return error;
    from += piece;
  }
  return {};
}

std::error_code WriteFile(VolumeState* state, FileNode* file, std::uint64_t offset, const void* buffer,
                          std::size_t size) {
  if (file->entry == nullptr) return Status::NotFound;
  if (size == 0) return {};
  const std::uint32_t limit = MaxFileBytes(*state);
  if (offset > limit || size > limit - offset) return Status::FileTooLarge;
  if (!file->entry->IsReachable()) return Status::Unreachable;
  const std::uint32_t before = file->entry->raw.size;
  const std::uint32_t start = static_cast<std::uint32_t>(offset);
  const std::uint32_t end = static_cast<std::uint32_t>(offset + size);
  if (end > before) {
    if (const std::error_code error = SetSize(state, file, end)) return error;
    if (const std::error_code error = ZeroFile(state, file, before, start)) return error;
  } else if (const std::error_code error = NeedHandleToChange(state, file)) {
    return error;
  }
  state->MarkModified(file->entry);
  if (const std::error_code error = WritePieces(state, file, offset, static_cast<const unsigned char*>(buffer), size)) {
    return error;
  }
  return SetArchive(state, file);
}

std::error_code ResizeFile(VolumeState* state, FileNode* file, std::uint64_t size, File::Fill fill) {
  if (file->entry == nullptr) return Status::NotFound;
  const std::uint32_t before = file->entry->raw.size;
  const std::uint32_t limit = MaxFileBytes(*state);
  // Of a file that another system made larger the library has a wrong idea.
  if (size > limit || before > limit) return Status::FileTooLarge;
  if (!file->entry->IsReachable()) return Status::Unreachable;
  const std::uint32_t after = static_cast<std::uint32_t>(size);
  if (after != before) {
    if (const std::error_code error = SetSize(state, file, after)) return error;
    if (fill == File::Fill::Zeros && after > before) {
      if (const std::error_code error = ZeroFile(state, file, before, after)) return error;
    }
  } else {
    state->MarkModified(file->entry);
  }
  return SetArchive(state, file);
}

std::error_code StoreAttributes(VolumeState* state, EntryNode* entry, std::uint8_t attributes) {
  // The others say what the entry is.
  const std::uint8_t stored =
      static_cast<std::uint8_t>((entry->raw.attributes & ~SETTABLE_ATTRIBUTES) | (attributes & SETTABLE_ATTRIBUTES));
  if (stored == entry->raw.attributes) return {};
  std::shared_ptr<FileNode> file = OpenNode(entry);
  if (const std::error_code error = NeedHandle(state, file.get())) return error;
  WIN_FIND_DATA data{};  // times that the library takes for none change nothing
  data.dwFileAttributes = stored;
  const std::uint64_t failures = state->Failures();
  state->MarkChanged(entry->parent);
  const bool done = Fat_SetFileAttribute(file->handle, &data) != 0;
  if (!done) return state->ChangeFailed(failures, Status::DiskCorrupt);
  entry->raw.attributes = stored;
  return {};
}

}  // namespace fatlib
