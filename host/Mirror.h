/// @file Mirror.h
/// What is known of a volume's directories in memory: a node for each entry of each directory that was looked at. It is
/// read from the medium, and each change is made here as soon as the library has made it, so that looking never needs
/// the medium to be brought up to date. Not part of the face for hosts.
///
/// A directory's node is one of
///   ABSENT   not read yet
///   CLEAN    as the medium is
///   CHANGED  ahead of the medium: the library holds changes back, or names and times are still to be written; after
///            the next unmount it is compared with the medium
///   SUSPECT  something failed: it is compared with the medium before it is used again

#ifndef FATLIB_MIRROR_H
#define FATLIB_MIRROR_H

#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Medium.h"
#include "ShortNames.h"
#include "SlotMap.h"
#include "StandIn.h"

namespace fatlib {

class DirectoryNode;
class FileNode;

/// A file, a directory, or the root.
class EntryNode {
 public:
  explicit EntryNode(DirectoryNode* parentNode) : parent(parentNode) {}
  ~EntryNode();
  EntryNode(const EntryNode&) = delete;
  EntryNode& operator=(const EntryNode&) = delete;

  bool IsRoot() const { return parent == nullptr; }
  bool IsDirectory() const { return raw.IsDirectory(); }
  bool IsAtOrBelow(const EntryNode* other) const;
  /// Whether it, or something above, is not on the volume any more.
  bool IsGone() const;
  /// How many directories are above.
  std::size_t Depth() const;
  /// Whether a path of the library leads here.
  bool IsReachable() const;
  /// Units of the path, with separators between the components.
  std::size_t PathUnits() const;
  /// The name under which the library knows it.
  std::u16string LibraryName() const;

  DirectoryNode* parent;     // null: the root
  RawEntry raw;              // name, attributes, size and times are current; cluster and slots unless `ahead`
  bool gone = false;         // it is not on the volume any more
  bool named = true;         // the library finds the entry in its directory by its name
  bool ahead = false;        // what it has on the medium is older: only the library can read it
  bool timesAhead = false;   // raw.times is to be written to the medium
  bool dotDotAhead = false;  // a directory that was moved into the root: its ".." is to be set to 0
  bool modified = false;     // modifiedAt is to become the modification time
  std::timespec modifiedAt{};
  StandInBase standIn = standin::NONE;  // else: it is on the medium under a stand-in, which is to be replaced
  ShortName standInShort{};             // the short name that goes with it there
  unsigned int touchedIn = 0;           // number of the last mount in which the library looked this path up
  unsigned int staleIn = 0;  // number of the last mount in which the library knew this, or what is below, elsewhere
  std::unique_ptr<DirectoryNode> content;  // null: no directory, or absent
  std::weak_ptr<FileNode> open;
};

/// Entries that are not on the volume any more, until nobody holds on to them.
using Graveyard = std::vector<std::unique_ptr<EntryNode>>;
void Bury(std::unique_ptr<EntryNode> entry, Graveyard* graveyard);

/// The entries of one directory.
class DirectoryNode {
 public:
  explicit DirectoryNode(EntryNode* entry) : self(entry) {}

  /// Takes what was read from the medium. Nodes of names that are still there stay, with all that hangs on them; the
  /// directory is CHANGED when something of them is still to be written.
  /// @param gone  the others are added here
  void Fill(std::vector<RawEntry> entries, const std::vector<bool>& used, Graveyard* gone);
  /// What a directory holds that was just made.
  void FillNew(std::uint32_t slotCount);

  /// @param upper  the name in upper case
  EntryNode* Find(const std::u16string& upper) const;
  /// The entry that has this name as its stand-in, or null.
  EntryNode* FindStandIn(std::u16string_view name) const;
  /// Where the stand-in of a name can begin, so that nothing has it. @return NONE when there is no such place
  StandInBase UnusedStandIn(std::u16string_view name) const;
  /// Short names are those that entries are going to have, and those of stand-ins.
  bool HasShortName(const ShortName& name) const { return m_ShortNames.count(name) != 0; }
  /// Whether an entry without a long name, another than `except`, has it.
  bool HasOnlyShortName(const ShortName& name, const EntryNode* except) const;
  /// An entry other than `except` whose short name that is, or null.
  EntryNode* FindByShortName(const ShortName& name, const EntryNode* except) const;

  /// Puts an entry in. Its slots become used; `raw` must be filled in.
  EntryNode* Insert(std::unique_ptr<EntryNode> entry);
  /// Takes an entry out; its slots become free.
  std::unique_ptr<EntryNode> Extract(EntryNode* entry);

  /// Says that an entry has its own name on the medium.
  void DropStandIn(EntryNode* entry);

  bool IsEmpty() const { return m_Entries.empty(); }
  /// In slot order.
  const std::multimap<std::uint32_t, std::unique_ptr<EntryNode>>& Entries() const { return m_Entries; }

  EntryNode* self;
  SlotMap slots;
  bool changed = false;
  bool changedBelow = false;  // it, or a directory below, is changed
  bool suspect = false;
  std::unordered_set<std::u16string> staleNames;  // upper-cased names under which the library may know what has left
  unsigned int staleNamesIn = 0;                  // number of the mount that they are of

 private:
  void Index(EntryNode* entry);
  void ForgetShortName(const ShortName& name, const EntryNode* entry);
  static void TakeStandIn(EntryNode* entry, RawEntry* raw);

  std::multimap<std::uint32_t, std::unique_ptr<EntryNode>> m_Entries;  // by first slot
  std::unordered_map<std::u16string, EntryNode*> m_ByName;
  std::unordered_multimap<ShortName, EntryNode*, ShortNameHash> m_ShortNames;
};

}  // namespace fatlib

#endif  // FATLIB_MIRROR_H
