/// @file NameWork.h
/// Making, removing, renaming and moving entries. Not part of the face for hosts.
///
/// Each of these finds out first whether it can be done: room for the name and the clusters, names in the way, damaged
/// chains. Once the library is asked, only a failed transfer can stop it.

#ifndef FATLIB_NAMEWORK_H
#define FATLIB_NAMEWORK_H

#include "VolumeState.h"

namespace fatlib {

/// What is to be made.
struct NewEntry {
  std::u16string name;
  std::uint8_t attributes = 0;  // with DIRECTORY for a directory
  std::uint32_t size = 0;       // of a file; what is in it then is what the disk held
};

/// @param parent   a directory that was loaded and holds no entry of that name
/// @param file     out, of a file: open
[[nodiscard]] std::error_code CreateEntry(VolumeState* state, DirectoryNode* parent, const NewEntry& what,
                                          std::shared_ptr<FileNode>* file);

/// A file, or an empty directory.
[[nodiscard]] std::error_code RemoveEntry(VolumeState* state, EntryNode* entry);
/// With all that is below. @param removed  counts up
[[nodiscard]] std::error_code RemoveTree(VolumeState* state, EntryNode* entry, std::uint64_t* removed);

/// @param parent   a directory that was loaded
/// @param inTheWay  the entry that has that name there, or null; it may be `entry` itself
[[nodiscard]] std::error_code RenameEntry(VolumeState* state, EntryNode* entry, DirectoryNode* parent,
                                          const std::u16string& name, EntryNode* inTheWay, bool replace);

// ---- steps, each of them one call of the library

/// The short name that an entry of a directory will get. When another entry has one that cannot be another, that entry
/// gets a new one; an invented one is moved on until it is unique.
/// @param leaving  an entry whose short name will be free then; may be null
/// @param number   out: where the library's counter will stand
[[nodiscard]] std::error_code PrepareShortName(VolumeState* state, DirectoryNode* directory, const std::u16string& name,
                                               const EntryNode* leaving, ShortName* shortName, ShortNameNumber* number);
/// Gives an entry another name in its directory. It must not be the same but for case.
[[nodiscard]] std::error_code ChangeName(VolumeState* state, EntryNode* entry, const std::u16string& name);
/// Moves an entry under its name, which nothing must have there.
[[nodiscard]] std::error_code ChangeDirectory(VolumeState* state, EntryNode* entry, DirectoryNode* target);
/// A name of one slot that nothing has in either directory, and that is not the one that is wanted in the end.
std::u16string UnusedName(const DirectoryNode& directory, const DirectoryNode& other, const std::u16string& wanted);

}  // namespace fatlib

#endif  // FATLIB_NAMEWORK_H
