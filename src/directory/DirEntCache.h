/// @file DirEntCache.h
/// The entries of one directory in memory: one record per file, found by slot and by name, and a map of the used slots.
/// Read once, when the directory object is built; afterwards every change is made here and on the medium together.
///
/// A slot is a 32-byte position in the directory, counted from 0. The entry set of one file takes consecutive slots:
/// its long-name entries, then its short entry.
///
/// Objects of regular files own such a cache too: a path may lead "below" a regular file, whose bytes are then taken
/// for directory entries. Few files are ever used that way, so their bytes are kept raw and looked at on first use.

#ifndef FATLIB_DIRENTCACHE_H
#define FATLIB_DIRENTCACHE_H

#include "allocation/XBitmap.h"
#include "directory/DirEnt.h"
#include "directory/RawSlots.h"
#include "names/TriHash.h"
#include "platform/ListEntry.h"

class CFatDir;

/// One file or directory named in a directory. Its key is hashed from the long name, in the case it was written with,
/// or for a short-only entry from the 11 bytes of its short name (see SHORT_NAME_KEY). The text lies behind the record.
/// There is one for each file, so its size counts: in 32 bits 72 bytes and the text.
struct DENTCTX : TriHashIdx, _LST_ENTRY {  // the latter: its place in its cache's list of records
  CDirEnt ShortEntry;
  unsigned int nShortIdx;    // slot of the short entry
  unsigned short nPlace;     // of the record in the pool that all records come from
  unsigned char nLongCount;  // long-name entries before it, up to LFN_MAX_ORDINAL
  bool bFreed : 1;           // FreeDent was called
  unsigned char nPins : 7;   // searches that stand on this record; it outlives its FreeDent as long as there are any

  unsigned int FirstSlot() const { return nShortIdx - nLongCount; }
};

/// The key text of a short-only entry: its 11 name bytes and a zero, read as 16-bit little-endian units.
struct SHORT_NAME_KEY {
  unsigned short Units[7];
  explicit SHORT_NAME_KEY(const unsigned char* name);
};

class CDirEntCache : public OS_ALLOCATED {
 public:
  static constexpr unsigned int MAX_SLOTS = 0x10000;  // of a directory that the library grows

  CDirEntCache();
  ~CDirEntCache();
  CDirEntCache(const CDirEntCache&) = delete;
  CDirEntCache& operator=(const CDirEntCache&) = delete;

  /// Makes room for n slots, new ones free. The capacity never shrinks, but with a smaller n the map of used slots
  /// does.
  /// @return STATUS_NO_MEMORY with nothing changed
  [[nodiscard]] int Grow(unsigned int n);

  // --- records -----------------------------------------------------------------------------------------------------

  /// Add a record for an entry set whose short entry lies in slot `index`. @return STATUS_NO_MEMORY with nothing
  /// changed
  [[nodiscard]] int AddShortDirEnt(const CDirEnt& entry, unsigned int index, DENTCTX*& record);
  [[nodiscard]] int AddLongDirEnt(const CDirEnt& entry, unsigned int index, unsigned int count,
                                  const unsigned short* name, DENTCTX*& record);
  /// Makes a record that is in no cache yet, so that InsertDirEnts of it cannot fail; its short index is for the caller
  /// to set. @return STATUS_NO_MEMORY
  [[nodiscard]] int MakeRecord(const CDirEnt& entry, unsigned int count, const unsigned short* name, DENTCTX*& record);
  /// Frees a record that is in no cache, or marks it when a search stands on it.
  static void FreeDent(DENTCTX* record);
  // A search holds on to the record it stands on.
  static void Pin(DENTCTX* record) { ++record->nPins; }
  static void Unpin(DENTCTX* record);

  /// Takes a record out of the cache. It is not freed, and its slots stay used.
  void RemoveDirEnts(DENTCTX* record);
  /// Makes sure that InsertDirEnts of any record finds memory, in slots that were reserved. @return STATUS_NO_MEMORY
  [[nodiscard]] int ReserveInsert() { return m_Names.Reserve() ? STATUS_SUCCESS : STATUS_NO_MEMORY; }
  /// Makes sure that a set may start at any slot up to this one. @return STATUS_NO_MEMORY
  [[nodiscard]] int ReserveSlots(unsigned int lastSlot);
  /// Puts a record in: one that was taken out of this cache; or one from MakeRecord, or after ReserveInsert, in
  /// reserved slots.
  void InsertDirEnts(DENTCTX* record);

  /// Steps through the records in slot order: to the first one from null, else to the next one after the record's own
  /// place. @return false, and null, at the end
  bool GetDirEntCtxPtr(DENTCTX*& record);

  /// @return the record whose key was hashed from that text (upper and lower case are one), or null
  DENTCTX* FindByName(const unsigned short* name);
  /// @return the short-only record with that 11-byte name, or null
  DENTCTX* FindByShortName(const unsigned char* name);

  /// Follows sets that were moved on the medium from slots first .. first + count - 1 down to `target`. After each
  /// moved set the walk goes on two slots past its old short entry: a set that begins right behind it is passed over,
  /// and keeps its old place here although its entries have moved.
  void MoveUsedEntriesForward(unsigned int first, unsigned int count, unsigned int target);

  // --- slots -------------------------------------------------------------------------------------------------------

  /// Looks at the bytes of a regular file that were kept raw, which any use of the cache does too, but without a way to
  /// say that memory ran out: to be called before. @return STATUS_NO_MEMORY, and a later call tries again; but when
  /// memory had run out before, as the file was changed, no call succeeds any more
  [[nodiscard]] int Prepare() { return EnsureParsed(); }
  unsigned int Slots() { return EnsureParsed() < 0 ? 0 : m_nSlots; }
  unsigned int FreeSlots() { return EnsureParsed() < 0 ? 0 : m_nSlots - m_nUsedSlots; }
  /// @param first  out: first of the lowest n consecutive free slots, or CBitmap::NOT_FOUND
  /// @return STATUS_NO_MEMORY with first unchanged
  [[nodiscard]] int FindFreeSlots(unsigned int n, unsigned int& first);
  /// Next free run at or after `from`, once FindFreeSlots was called. @return its length, 0 when there is none (start
  /// is unchanged then)
  unsigned int NextFreeRun(unsigned int from, unsigned int& start);
  /// Slots that the directory does not have are ignored by both. @return STATUS_NO_MEMORY with nothing changed
  [[nodiscard]] int MarkUsed(unsigned int first, unsigned int count);
  void MarkFree(unsigned int first, unsigned int count);

  // --- set-up ------------------------------------------------------------------------------------------------------

  /// Fills the cache of a new directory: "." and "..", all other slots of its one cluster free.
  [[nodiscard]] int InitDotDirEnts(unsigned int bytesPerCluster, const CDirEnt* dots);

  /// Reads the directory up to the first slot that was never used. Malformed long names are never an error: their
  /// entries only take up slots. Of a regular file at most the first MAX_SLOTS slots are kept, although all of it is
  /// read, up to the first slot with a zero first byte.
  /// @return 0; negative: a failed read, or STATUS_NO_MEMORY. What was read before stays.
  [[nodiscard]] int LoadAllDirEnts(CFatDir* dir);

  /// 11 bytes, spaces when the directory has no label entry.
  const unsigned char* VolumeLabel() const { return m_Label; }

 private:
  struct LONG_NAME_RUN;

  static DENTCTX* AllocDent(unsigned int nameUnits);
  int AddRecord(const CDirEnt& entry, unsigned int index, unsigned int count, const unsigned short* name,
                DENTCTX*& record);
  int EnsureParsed() { return m_Raw.IsEmpty() || m_bParsing ? STATUS_SUCCESS : ParseRaw(); }
  int ParseRaw();
  int ScanRegularFile(CFatDir* file);
  void DropRecords();
  template <class SOURCE>
  int Load(SOURCE& source);
  template <class SOURCE>
  int Fetch(SOURCE& source, unsigned int slot, const CDirEnt*& entry);

  unsigned int m_nCapacity;  // slots that the slot table answers for; only grows
  DENTCTX** m_ppSlots;       // record by the first slot of its set; null elsewhere
  unsigned int m_nSlotRoom;  // pointers allocated: memory is taken as slots are used, not from the capacity
  unsigned char m_Label[SHORT_NAME_SIZE];
  CBitmap m_UsedSlots;        // a set bit is a slot in use; reaches as far as slots were used, m_nSlots at most
  unsigned int m_nSlots;      // slots that the map of used slots covers
  unsigned int m_nUsedSlots;  // set bits
  unsigned int m_nFreeHint;   // no slot below is free
  TriHashTbl m_Names;
  _LST_ENTRY m_Records;  // every record this cache owns. The slot table cannot tell: two records may claim a slot
  CRawSlots m_Raw;       // first slots of a regular file, not looked at yet; else empty
  bool m_bParsing;       // they are being looked at
};

#endif  // FATLIB_DIRENTCACHE_H
