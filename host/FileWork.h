/// @file FileWork.h
/// Reading and writing open files. Not part of the face for hosts.

#ifndef FATLIB_FILEWORK_H
#define FATLIB_FILEWORK_H

#include "VolumeState.h"

namespace fatlib {

/// The node of an open file, new or old.
std::shared_ptr<FileNode> OpenNode(EntryNode* entry);

/// The largest size that the library gives a file, in bytes.
std::uint32_t MaxFileBytes(const VolumeState& state);

// The contracts are those of File.
[[nodiscard]] std::error_code ReadFile(VolumeState* state, FileNode* file, std::uint64_t offset, void* buffer,
                                       std::size_t size, std::size_t* done);
[[nodiscard]] std::error_code WriteFile(VolumeState* state, FileNode* file, std::uint64_t offset, const void* buffer,
                                        std::size_t size);
[[nodiscard]] std::error_code ResizeFile(VolumeState* state, FileNode* file, std::uint64_t size, File::Fill fill);

/// Makes bytes of a file read as zeros. They must lie below its size.
[[nodiscard]] std::error_code ZeroFile(VolumeState* state, FileNode* file, std::uint32_t from, std::uint32_t to);

/// @param attributes  of READ_ONLY HIDDEN SYSTEM ARCHIVE
[[nodiscard]] std::error_code StoreAttributes(VolumeState* state, EntryNode* entry, std::uint8_t attributes);

/// Whether a file's or directory's chain is sound, and long enough for its size. @return DiskCorrupt
[[nodiscard]] std::error_code CheckChain(VolumeState* state, const EntryNode* entry);

}  // namespace fatlib

#endif  // FATLIB_FILEWORK_H
