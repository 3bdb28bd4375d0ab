/// @file Twin.h
/// A plain twin of the library: the same operations on a tree in memory.
///
/// It follows the rules that hosts are told, not the library's code, and holds them in the plainest form: a directory
/// is a vector of slots, each of which says which entry set lies in it; a file is a vector of bytes, each of which is
/// known or not; the disk is a number of free clusters.
///
/// What it predicts exactly
///  - the result of every call: handles, booleans, sizes, offsets, attributes, long and short names (the running number
///    in them too), the order of listings, listings that go on while entries come, go and move;
///  - handles: the lowest free one, full tables, invalid ones, dead ones after an unmount, the offset that handles of
///    one path share, and every close that sets it back, the library's own ones included;
///  - where every entry set lies in its directory: first fit, growth by clusters, compaction; when a directory, the
///    fixed root or the disk is full, and what is left of an operation that failed half way;
///  - the cache of 160 objects by path, in order of use, with the objects that lost their place in it while they were
///    open, and the old paths under which renamed and moved objects stay known;
///  - contents, time stamps and free clusters, as an independent reader finds them after each unmount;
///  - the counts that reads and writes report, as long as no data block is evicted (see EXACT_COUNTS in ModelRun.h).
///
/// What it does not predict
///  - the bytes of clusters that a file got and nobody wrote yet: they are unknown, and any value is right;
///  - a count that depends on such bytes (opening a file of several blocks reads it up to a zero at a multiple of 32).
///
/// What it avoids: calls whose stated outcome is a mess. They throw AVOID, before the twin's tree changes. The run then
/// unmounts and mounts, as hosts are advised, and tries once more; a call still avoided is left out.
///  - building a second object of an entry that has one: after a rename or a move the object stays known by its old
///    path only, and an object pushed out of the cache while it is open is known by none;
///  - changing size or attributes through a path that leads to no entry or to another one;
///  - writing into a directory by its handle, shrinking one, turning the directory or label bit of an entry;
///  - paths below a regular file whose bytes could read as entries, creating below one that was opened by path;
///  - a name whose short form another entry of the directory has as its invented one;
///  - moving a directory into itself by an old path.
///
/// After two things the twin asks for an unmount itself (NeedsRemount), because from then on the library's picture of
/// the directory is wrong on purpose, though the medium is right: a compaction that slid several sets at once, and a
/// creation that failed for want of space for the file's data.

#ifndef FATLIB_TESTS_MODEL_TWIN_H
#define FATLIB_TESTS_MODEL_TWIN_H

#include <ctime>
#include <list>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "model/TwinNames.h"

struct TWIN_NODE;
struct TWIN_OBJECT;
using NODE_PTR = std::shared_ptr<TWIN_NODE>;
using OBJECT_PTR = std::shared_ptr<TWIN_OBJECT>;

/// Thrown by an operation that the twin does not play out. The text says why.
struct AVOID {
  const char* Why;
};

/// An entry set of a directory: long-name entries and the short entry behind them.
struct TWIN_RECORD {
  NAME Long;  ///< empty when there is none
  NAME Key;   ///< the same in upper case
  SHORT11 Short{};
  unsigned int ShortSlot = 0;
  NODE_PTR Node;       ///< null for "." and ".." and the label
  bool Label = false;  ///< takes a slot, but is in no listing

  unsigned int Slots() const { return LongSlots(Long) + 1; }
  unsigned int FirstSlot() const { return ShortSlot + 1 - Slots(); }
};
using RECORD_PTR = std::shared_ptr<TWIN_RECORD>;

/// A file or directory on the volume.
struct TWIN_NODE {
  bool Dir = false;
  unsigned int Attributes = 0;
  TWIN_NODE* Parent = nullptr;        ///< null for the root, and for what was deleted
  std::weak_ptr<TWIN_RECORD> Record;  ///< in the parent
  TWIN_OBJECT* Object = nullptr;      ///< the one in memory, or null
  std::time_t Stamp = 0;              ///< of the creation or the last rename
  bool OddDotDot = false;            ///< a directory that was moved into the root: its ".." is not what checkers expect
  std::vector<unsigned char> Bytes;  ///< of a file
  std::vector<bool> Known;           ///< which of them are
  std::size_t Unknown = 0;           ///< how many are not
  std::vector<RECORD_PTR> Slots;     ///< of a directory: the set that each slot belongs to, or null

  bool IsRoot() const { return Parent == nullptr; }
  /// The record; there is one unless this is the root.
  RECORD_PTR Entry() const;
  unsigned int Size() const { return static_cast<unsigned int>(Bytes.size()); }
  void Resize(std::size_t size);
  void SetBytes(std::size_t offset, const unsigned char* bytes, std::size_t count);
};

/// What the library keeps in memory of a file or directory in use.
struct TWIN_OBJECT {
  explicit TWIN_OBJECT(NODE_PTR node) : Node(std::move(node)) { Node->Object = this; }
  ~TWIN_OBJECT() { Node->Object = nullptr; }
  TWIN_OBJECT(const TWIN_OBJECT&) = delete;
  TWIN_OBJECT& operator=(const TWIN_OBJECT&) = delete;

  NODE_PTR Node;
  NAME Key;                       ///< upper-cased path that it was reached by
  NAME Long;                      ///< the long name of that time
  bool Cached = false;            ///< found by its key
  unsigned int Holders = 0;       ///< file and find handles
  unsigned int Offset = 0;        ///< of reading and writing
  bool Entries = false;           ///< its bytes were read as directory entries
  bool HarmlessEntries = false;   ///< none of them can be found by a name
  std::set<unsigned int> Blocks;  ///< 256 KiB blocks in memory
  bool BlocksKnown = true;
};

/// How a volume starts.
struct TWIN_GEOMETRY {
  bool Fat32 = false;
  unsigned int ClusterBytes = 0;
  unsigned int FreeClusters = 0;
  unsigned int RootSlots = 0;
  bool Label = false;  ///< slot 0 of the root holds the label
};

/// A wrong twin, to see that a wrong result is noticed.
enum class CANARY { None, SeekFromEndIsForward, DeleteKeepsClusters, RenameKeepsStamp };

/// One mounted volume of the twin. Paths are normalised.
class CTwinVolume {
 public:
  static constexpr std::size_t MAX_CACHED = 160;
  static constexpr unsigned int BLOCK_BYTES = 0x40000;

  CTwinVolume(const TWIN_GEOMETRY& geometry, CNameCounter& counter, const std::time_t& now, const CANARY& canary);

  OBJECT_PTR Open(const NAME& path);
  OBJECT_PTR Create(const NAME& path, bool directory, unsigned int size, unsigned int attributes);
  bool Delete(const NAME& path);
  bool Rename(const NAME& path, const NAME& newName);
  bool Move(const NAME& path, const NAME* directory);
  bool SetSize(TWIN_OBJECT& object, unsigned int size);
  bool SetAttributes(TWIN_OBJECT& object, unsigned int attributes);
  /// Where reading and writing ends.
  long long Limit(const TWIN_OBJECT& object) const;
  /// The next entry behind `current` (null: the first one); null at the end.
  static RECORD_PTR NextEntry(const TWIN_NODE& directory, const RECORD_PTR& current);
  void Hold(TWIN_OBJECT& object) const { ++object.Holders; }
  void Unhold(TWIN_OBJECT& object) const;
  /// Forgets all objects.
  void Unmount();

  const NODE_PTR& Root() const { return m_Root; }
  unsigned int FreeClusters() const { return m_nFree; }
  unsigned int ClusterBytes() const { return m_Geometry.ClusterBytes; }
  /// Everything but the root, in no order.
  const std::vector<NODE_PTR>& Nodes() const { return m_Nodes; }
  bool NeedsRemount() const { return m_bNeedsRemount; }
  /// How often the tree changed.
  unsigned int Changes() const { return m_nChanges; }
  /// The object that is to leave the cache next, and the last one that left it for want of room; null when there is
  /// none.
  NODE_PTR OldestCached() const { return m_Cache.empty() ? nullptr : m_Cache.front()->Node; }
  NODE_PTR LastPushedOut() const { return m_LastPushedOut.lock(); }

  static NAME NameOf(const TWIN_NODE& node);
  static NAME PathOf(const TWIN_NODE& node);

 private:
  /// A directory on the way along a path; no object stands for the root.
  struct PLACE {
    NODE_PTR Dir;
    OBJECT_PTR Object;
  };
  struct ENTRY {
    PLACE Parent;
    RECORD_PTR Record;
  };

  PLACE RootPlace() const { return {m_Root, nullptr}; }
  OBJECT_PTR Find(const NAME& key);
  OBJECT_PTR Build(const NODE_PTR& node, bool load);
  void LoadBlocks(TWIN_OBJECT& object) const;
  void AddToCache(const OBJECT_PTR& object, const NAME& key);
  void DropFromCache(const OBJECT_PTR& object);
  static RECORD_PTR Lookup(const PLACE& place, const NAME& name);
  PLACE StartWalk(const NAME& path, std::size_t& rest);
  PLACE Enter(const RECORD_PTR& record, const NAME& key);
  std::optional<ENTRY> Walk(const NAME& path);
  std::optional<ENTRY> OpenEntry(const OBJECT_PTR& object);
  void TouchEntry(TWIN_OBJECT& object);
  static void CloseInternally(const PLACE& place);

  unsigned int ClustersOf(const TWIN_NODE& node) const;
  unsigned int Clusters(unsigned long long bytes) const;
  std::optional<unsigned int> TakeSlots(const PLACE& place, unsigned int count, unsigned int reserved);
  std::optional<unsigned int> Compact(TWIN_NODE& dir, unsigned int count);
  static void Put(TWIN_NODE& dir, const RECORD_PTR& record, unsigned int first);
  static void Clear(TWIN_NODE& dir, const RECORD_PTR& record);
  RECORD_PTR AddRecord(const PLACE& place, const NAME& name, const NODE_PTR& node, unsigned int reserved);
  static bool MayHoldEntries(const PLACE& place, const NAME& name);
  OBJECT_PTR MakeDir(const PLACE& place, const NAME& name, unsigned int attributes);
  OBJECT_PTR MakeFile(const PLACE& place, const NAME& name, unsigned int size, unsigned int attributes);
  void Erase(const ENTRY& entry);
  bool RenameEntry(const ENTRY& entry, const NAME& newName);
  bool MoveEntry(const ENTRY& entry, const PLACE& target);

  TWIN_GEOMETRY m_Geometry;
  CNameCounter* m_pCounter;
  const std::time_t* m_pNow;
  const CANARY* m_pCanary;
  NODE_PTR m_Root;
  std::vector<NODE_PTR> m_Nodes;
  std::list<OBJECT_PTR> m_Cache;  // least recently used first
  std::weak_ptr<TWIN_NODE> m_LastPushedOut;
  unsigned int m_nFree;
  unsigned int m_nChanges = 0;
  bool m_bNeedsRemount = false;
};

/// What a listing or Fat_GetFileAttribute shows.
struct TWIN_FOUND {
  NAME Long;
  NAME Short;
  unsigned int Attributes = 0;
  unsigned int Size = 0;
};

/// What a read or write does.
struct TWIN_TRANSFER {
  bool Ok = false;
  NODE_PTR Node;                         ///< null when nothing is transferred
  unsigned int Start = 0;                ///< first byte transferred
  unsigned int Length = 0;               ///< bytes transferred
  std::optional<unsigned int> Reported;  ///< the count that the library reports, where it can be known
};

/// The interface's side of the twin: handles, and the rules that stand before every volume.
class CTwin {
 public:
  static constexpr int MAX_FILES = 160;
  static constexpr int MAX_SEARCHES = 32;

  CTwin() : m_Files(MAX_FILES), m_Searches(MAX_SEARCHES) {}
  CTwin(const CTwin&) = delete;
  CTwin& operator=(const CTwin&) = delete;

  CTwinVolume& AddVolume(const TWIN_GEOMETRY& geometry);
  CTwinVolume& Volume(std::size_t n) { return *m_Volumes[n]; }
  const CTwinVolume& Volume(std::size_t n) const { return *m_Volumes[n]; }
  std::size_t Volumes() const { return m_Volumes.size(); }
  CNameCounter& Counter() { return m_Counter; }
  void SetTime(std::time_t now) { m_Now = now; }
  void SetCanary(CANARY canary) { m_Canary = canary; }

  int OpenFile(CTwinVolume& volume, const NAME& path);
  int CreateFile(CTwinVolume& volume, const NAME& path, unsigned int size, unsigned int attributes);
  bool CloseFile(int handle);
  bool CreateDir(CTwinVolume& volume, const NAME& path, unsigned int attributes);
  bool DeleteFile(CTwinVolume& volume, const NAME& path);
  bool RenameFile(CTwinVolume& volume, const NAME& path, const NAME& newPath);
  bool MoveFile(CTwinVolume& volume, const NAME& path, const NAME* directory);
  bool GetFileSize(int handle, unsigned int& size) const;
  bool SetFileSize(int handle, unsigned int size);
  bool GetFileOffset(int handle, unsigned int& offset) const;
  bool SetFileOffset(int handle, unsigned int distance, unsigned int method);
  bool IsDir(int handle) const;
  bool GetFileAttribute(int handle, TWIN_FOUND& found) const;
  bool SetFileAttribute(int handle, unsigned int attributes);
  /// Reads and writes. The offset of the handle does not move here: see Advance. With bytes the transfer is a write.
  TWIN_TRANSFER TransferEx(int handle, long long offset, unsigned int count, const unsigned char* bytes);
  TWIN_TRANSFER Transfer(int handle, unsigned int count, const unsigned char* bytes);
  /// Moves the offset by the count that the library reported.
  void Advance(int handle, unsigned int reported);
  int FindFirstFile(CTwinVolume& volume, const NAME& path, TWIN_FOUND& found);
  bool FindNextFile(int handle, TWIN_FOUND& found);
  bool CloseFindHandle(int handle);
  /// Unmounts: the handles on the volume die.
  void Unmount(CTwinVolume& volume);

  /// What a file handle names; null when it is invalid or dead.
  const TWIN_OBJECT* ObjectOf(int handle) const;
  bool IsFileHandle(int handle) const { return InUse(m_Files, handle); }
  bool IsFindHandle(int handle) const { return InUse(m_Searches, handle); }

 private:
  struct HANDLE {
    bool InUse = false;
    OBJECT_PTR Object;  // null when the volume is gone
    CTwinVolume* Volume = nullptr;
    RECORD_PTR Current;  // of a search: the entry last shown
  };
  using TABLE = std::vector<HANDLE>;

  static bool InUse(const TABLE& table, int handle);
  static int FreeHandle(const TABLE& table);
  static int Enter(TABLE& table, int handle, CTwinVolume& volume, OBJECT_PTR object);
  static bool Leave(TABLE& table, int handle);
  TWIN_OBJECT* LiveObject(int handle) const;

  CNameCounter m_Counter;
  std::time_t m_Now = 0;
  CANARY m_Canary = CANARY::None;
  std::vector<std::unique_ptr<CTwinVolume>> m_Volumes;
  TABLE m_Files;
  TABLE m_Searches;
};

#endif  // FATLIB_TESTS_MODEL_TWIN_H
