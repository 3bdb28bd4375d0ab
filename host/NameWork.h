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

/// What an entry is going to be called.
struct Naming {
  NameForm form = NameForm::Short;
  ShortName shortName{};                // in the end
  StandInBase standIn = standin::NONE;  // else: the library is given a stand-in
  std::u16string libraryName;           // what the library is given
  ShortName libraryShort{};             // the short name that it makes of that
  ShortNameNumber number;               // where its counter stands then
};

/// Finds out what an entry of a directory will be called. When another entry has the short name and can have another,
/// it gets a new one; an invented one is moved on until it is unique. May detach.
/// @param leaving  an entry whose short name will be free then; may be null
/// @return also NameExists, when an entry that cannot be changed has the short name
[[nodiscard]] std::error_code PrepareName(VolumeState* state, DirectoryNode* directory, const std::u16string& name,
                                          const EntryNode* leaving, Naming* naming);
/// Gives an entry these names, as far as this face knows it.
void TakeNaming(const std::u16string& name, const Naming& naming, EntryNode* entry);
/// Gives an entry another name in its directory. To the library it must not be the same but for case.
[[nodiscard]] std::error_code ChangeName(VolumeState* state, EntryNode* entry, const std::u16string& name);
/// Moves an entry under its name, which nothing must have there.
[[nodiscard]] std::error_code ChangeDirectory(VolumeState* state, EntryNode* entry, DirectoryNode* target);
/// A name of one slot that nothing has in either directory, and that is not the one that is wanted in the end.
std::u16string UnusedName(const DirectoryNode& directory, const DirectoryNode& other, const std::u16string& wanted);

}  // namespace fatlib

#endif  // FATLIB_NAMEWORK_H
