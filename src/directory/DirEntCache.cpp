/// @file DirEntCache.cpp

#include "directory/DirEntCache.h"

#include <new>

#include "directory/FatDirectory.h"
#include "platform/Slabs.h"

namespace {

// The records of all directories: they may move from one to another, and outlive their directory while a search stands
// on them.
CSlabPool s_Records;

constexpr unsigned int NAME_BUCKETS = 41;
constexpr unsigned int FIRST_SLOT_ROOM = 16;
constexpr unsigned int MAX_DIRECTORY_SLOTS = 1u << 27;  // byte positions in a directory are 32 bits

const unsigned char BLANK_NAME[SHORT_NAME_SIZE + 1] = {' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', 0};

/// Reads slots of a directory through its block cache, in place.
class CDirectorySource {
 public:
  explicit CDirectorySource(CFatDir* dir) : m_pDir(dir), m_nBlock(UINT32_MAX), m_pData(nullptr), m_nBytes(0) {}

  /// @param entry  out: valid until the next call
  /// @return negative: STATUS_END_OF_FILE behind the last slot, or the status of a failed read
  int Read(unsigned int slot, const CDirEnt*& entry) {
    const unsigned int block = slot / SLOTS_PER_BLOCK;
    if (block != m_nBlock) {
      const int status = m_pDir->PeekBlock(block, m_pData, m_nBytes);
      if (status < 0) return status;
      m_nBlock = block;
    }
    const unsigned int offset = slot % SLOTS_PER_BLOCK * DIRENT_SIZE;
    if (offset >= m_nBytes) return STATUS_END_OF_FILE;
    entry = reinterpret_cast<const CDirEnt*>(m_pData + offset);
    return STATUS_SUCCESS;
  }

 private:
  static constexpr unsigned int SLOTS_PER_BLOCK = CFatFile::BLOCK_BYTES / DIRENT_SIZE;
  CFatDir* m_pDir;
  unsigned int m_nBlock;
  const unsigned char* m_pData;
  unsigned int m_nBytes;
};

/// Reads slots that were kept.
class CRawSource {
 public:
  explicit CRawSource(const CRawSlots& raw) : m_Raw(raw) {}

  int Read(unsigned int slot, const CDirEnt*& entry) const {
    entry = m_Raw.At(slot);
    return entry == nullptr ? STATUS_END_OF_FILE : STATUS_SUCCESS;
  }

 private:
  const CRawSlots& m_Raw;
};

}  // namespace

SHORT_NAME_KEY::SHORT_NAME_KEY(const unsigned char* name) {
  for (std::size_t i = 0; i < 5; ++i) Units[i] = static_cast<unsigned short>(name[2 * i] | name[2 * i + 1] << 8);
  Units[5] = name[10];
  Units[6] = 0;
}

CDirEntCache::CDirEntCache()
    : m_nCapacity(0),
      m_ppSlots(nullptr),
      m_nSlotRoom(0),
      m_nSlots(0),
      m_nUsedSlots(0),
      m_nFreeHint(0),
      m_bParsing(false) {
  osMemCpy(m_Label, BLANK_NAME, SHORT_NAME_SIZE);
  m_Names.Initialize(NAME_BUCKETS);
  InitListHead(&m_Records);
}

CDirEntCache::~CDirEntCache() {
  DropRecords();
  osMemFree(m_ppSlots);
  m_UsedSlots.FreeMem();
}

void CDirEntCache::DropRecords() {
  m_Names.Terminate();
  while (!IsListEmpty(&m_Records)) {
    _LST_ENTRY* link = m_Records.Flink;
    (void)RemoveEntryList(link);
    FreeDent(&static_cast<DENTCTX&>(*link));
  }
  for (unsigned int slot = 0; slot < m_nSlotRoom; ++slot) m_ppSlots[slot] = nullptr;
}

int CDirEntCache::Grow(unsigned int n) {
  if (n < m_nSlots) {
    if (n < m_UsedSlots.Size()) {
      const int status = m_UsedSlots.ReSize(n);
      if (status < 0) return status;
    }
    m_nUsedSlots = m_UsedSlots.NumberOf_1_Bits();
    if (m_nFreeHint > n) m_nFreeHint = n;
  }
  m_nSlots = n;
  if (m_nCapacity < n) m_nCapacity = n;
  return STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------------------------- records

DENTCTX* CDirEntCache::AllocDent(unsigned int nameUnits) {
  constexpr std::size_t MAX_NAME_BYTES = (LFN_MAX_ORDINAL * LFN_UNITS + 1) * sizeof(unsigned short);
  static_assert(sizeof(DENTCTX) + MAX_NAME_BYTES <= CSlabPool::MAX_BYTES && alignof(DENTCTX) <= CSlabPool::UNIT,
                "a record with the longest name fits the pool");
  unsigned short place;
  void* memory =
      s_Records.Allocate(static_cast<unsigned int>(sizeof(DENTCTX) + nameUnits * sizeof(unsigned short)), place);
  if (memory == nullptr) return nullptr;
  DENTCTX* record = new (memory) DENTCTX;  // the rest is filled in by the caller
  record->nShortIdx = 0;
  record->nPlace = place;
  record->bFreed = false;
  record->nPins = 0;
  record->m_pName = reinterpret_cast<unsigned short*>(record + 1);
  return record;
}

void CDirEntCache::FreeDent(DENTCTX* record) {
  record->bFreed = true;
  if (record->nPins == 0) s_Records.Recycle(record, record->nPlace);
}

void CDirEntCache::Unpin(DENTCTX* record) {
  if (--record->nPins == 0 && record->bFreed) s_Records.Recycle(record, record->nPlace);
}

int CDirEntCache::ReserveSlots(unsigned int slot) {
  if (slot < m_nSlotRoom || slot >= m_nCapacity) return STATUS_SUCCESS;
  unsigned int room = m_nSlotRoom == 0 ? FIRST_SLOT_ROOM : m_nSlotRoom;
  while (room <= slot) room *= 2;
  if (room > m_nCapacity) room = m_nCapacity;
  void* memory = osMemRealloc(m_ppSlots, room * sizeof(DENTCTX*));
  if (memory == nullptr) return STATUS_NO_MEMORY;
  m_ppSlots = static_cast<DENTCTX**>(memory);
  for (; m_nSlotRoom < room; ++m_nSlotRoom) m_ppSlots[m_nSlotRoom] = nullptr;
  return STATUS_SUCCESS;
}

int CDirEntCache::MakeRecord(const CDirEnt& entry, unsigned int count, const unsigned short* name, DENTCTX*& record) {
  TriHashIdx key;
  key.CalcHash(name);
  const unsigned int nameUnits = key.NameChars() + 1;
  if (!m_Names.Reserve()) return STATUS_NO_MEMORY;
  DENTCTX* added = AllocDent(nameUnits);
  if (added == nullptr) return STATUS_NO_MEMORY;
  unsigned short* text = added->m_pName;
  *static_cast<TriHashIdx*>(added) = key;
  added->m_pName = text;
  osCopyUnits(text, name, nameUnits - 1);
  text[nameUnits - 1] = 0;
  added->ShortEntry = entry;
  added->nLongCount = static_cast<unsigned char>(count);
  record = added;
  return STATUS_SUCCESS;
}

int CDirEntCache::AddRecord(const CDirEnt& entry, unsigned int index, unsigned int count, const unsigned short* name,
                            DENTCTX*& record) {
  int status = ReserveSlots(index - count);
  if (status >= 0) status = MakeRecord(entry, count, name, record);
  if (status < 0) return status;
  record->nShortIdx = index;
  InsertDirEnts(record);
  return STATUS_SUCCESS;
}

int CDirEntCache::AddShortDirEnt(const CDirEnt& entry, unsigned int index, DENTCTX*& record) {
  return AddRecord(entry, index, 0, SHORT_NAME_KEY(entry.Name).Units, record);
}

int CDirEntCache::AddLongDirEnt(const CDirEnt& entry, unsigned int index, unsigned int count,
                                const unsigned short* name, DENTCTX*& record) {
  return AddRecord(entry, index, count, name, record);
}

void CDirEntCache::RemoveDirEnts(DENTCTX* record) {
  // The slot may meanwhile name another record that was put there: it is cleared all the same.
  const unsigned int first = record->FirstSlot();
  if (first < m_nSlotRoom) m_ppSlots[first] = nullptr;
  m_Names.Remove(record);
  (void)RemoveEntryList(record);
}

void CDirEntCache::InsertDirEnts(DENTCTX* record) {
  const unsigned int first = record->FirstSlot();
  if (first < m_nSlotRoom) m_ppSlots[first] = record;
  (void)m_Names.Insert(record);  // its memory was reserved
  InsertTailList(&m_Records, record);
}

bool CDirEntCache::GetDirEntCtxPtr(DENTCTX*& record) {
  unsigned int slot = record == nullptr ? 0 : record->nShortIdx + 1;
  record = nullptr;
  if (EnsureParsed() < 0) return false;
  for (; slot < m_nSlotRoom; ++slot) {
    if (m_ppSlots[slot] == nullptr) continue;
    record = m_ppSlots[slot];
    return true;
  }
  return false;
}

DENTCTX* CDirEntCache::FindByName(const unsigned short* name) {
  if (EnsureParsed() < 0) return nullptr;
  return static_cast<DENTCTX*>(m_Names.Search(name));
}

DENTCTX* CDirEntCache::FindByShortName(const unsigned char* name) { return FindByName(SHORT_NAME_KEY(name).Units); }

void CDirEntCache::MoveUsedEntriesForward(unsigned int first, unsigned int count, unsigned int target) {
  const unsigned int delta = first - target;
  const unsigned int end = first + count < m_nSlotRoom ? first + count : m_nSlotRoom;
  unsigned int slot = first;
  while (slot < end) {
    DENTCTX* record = m_ppSlots[slot];
    if (record == nullptr) {
      ++slot;
      continue;
    }
    m_ppSlots[slot - delta] = record;
    m_ppSlots[slot] = nullptr;
    slot = record->nShortIdx + 2;  // one slot too far, which is how directories are kept
    record->nShortIdx -= delta;
  }
}

// ---------------------------------------------------------------------------------------------- slots

int CDirEntCache::FindFreeSlots(unsigned int n, unsigned int& first) {
  int status = EnsureParsed();
  // From here on holes anywhere in the directory count, so the map must reach to its end.
  if (status >= 0 && m_UsedSlots.Size() < m_nSlots) status = m_UsedSlots.ReSize(m_nSlots);
  if (status >= 0) first = m_UsedSlots.Find_0_Bits(n, m_nFreeHint);
  return status;
}

unsigned int CDirEntCache::NextFreeRun(unsigned int from, unsigned int& start) {
  return from < m_UsedSlots.Size() ? m_UsedSlots.FindNextForward_0_Run(from, &start) : 0;
}

int CDirEntCache::MarkUsed(unsigned int first, unsigned int count) {
  if (first >= m_nSlots) return STATUS_SUCCESS;
  const unsigned int end = count < m_nSlots - first ? first + count : m_nSlots;
  if (end > m_UsedSlots.Size()) {
    const int status = m_UsedSlots.ReSize(end);
    if (status < 0) return status;
  }
  for (unsigned int slot = first; slot < end; ++slot) {
    if (m_UsedSlots.TestBit(slot)) continue;
    m_UsedSlots.SetBit(slot);
    ++m_nUsedSlots;
  }
  if (first <= m_nFreeHint && m_nFreeHint < end) m_nFreeHint = end;
  return STATUS_SUCCESS;
}

void CDirEntCache::MarkFree(unsigned int first, unsigned int count) {
  for (unsigned int i = 0; i < count; ++i) {
    if (!m_UsedSlots.TestBit(first + i)) continue;
    m_UsedSlots.ClearBit(first + i);
    --m_nUsedSlots;
    if (first + i < m_nFreeHint) m_nFreeHint = first + i;
  }
}

// ---------------------------------------------------------------------------------------------- loading

int CDirEntCache::InitDotDirEnts(unsigned int bytesPerCluster, const CDirEnt* dots) {
  DENTCTX* record;
  int status = Grow(bytesPerCluster / DIRENT_SIZE);
  if (status >= 0) status = AddShortDirEnt(dots[0], 0, record);
  if (status >= 0) status = AddShortDirEnt(dots[1], 1, record);
  if (status >= 0) status = MarkUsed(0, 2);
  return status;
}

/// A long name in the making. It lies on the medium last piece first: a name of 30 units as ordinals 0x43, 2, 1 and
/// then the short entry, all with the same checksum, which must be that of the short entry's 11 name bytes.
struct CDirEntCache::LONG_NAME_RUN {
  unsigned short szName[LFN_MAX_ORDINAL * LFN_UNITS + 2];
  unsigned int nCount;      // pieces
  unsigned int nRemaining;  // pieces still to come; the next one has this ordinal
  unsigned char Checksum;

  /// @return false when the entry cannot start a run
  bool Start(const CLfnDirEnt& entry) {
    nCount = entry.Ordinal();
    if (!entry.IsLast() || nCount == 0 || nCount > LFN_MAX_ORDINAL) return false;
    nRemaining = nCount - 1;
    // A piece that ends early leaves a gap, at which the name then ends.
    osMemZero(szName, (nCount * LFN_UNITS + 1) * static_cast<unsigned int>(sizeof(unsigned short)));
    const unsigned int units = entry.NameUCharCount(szName + std::size_t{LFN_UNITS} * nRemaining);
    Checksum = entry.Checksum;
    return units + LFN_UNITS * nRemaining != 0;
  }

  /// @return false when the entry is not the next piece
  bool Continue(const CDirEnt& entry) {
    if (!entry.IsLfn()) return false;
    const CLfnDirEnt& piece = *entry.ToLfn();
    if (piece.Ordinal() != nRemaining || piece.Checksum != Checksum) return false;
    --nRemaining;
    (void)piece.NameUCharCount(szName + std::size_t{LFN_UNITS} * nRemaining);
    return true;
  }
};

// Reads a slot and marks it used unless it is deleted. STATUS_END_OF_FILE also stands for a slot that was never used:
// no slot behind it is looked at.
template <class SOURCE>
int CDirEntCache::Fetch(SOURCE& source, unsigned int slot, const CDirEnt*& entry) {
  const int status = source.Read(slot, entry);
  if (status < 0) return status;
  if (entry->IsEmpty()) return STATUS_END_OF_FILE;
  return entry->IsDeleted() ? STATUS_SUCCESS : MarkUsed(slot, 1);
}

template <class SOURCE>
int CDirEntCache::Load(SOURCE& source) {
  LONG_NAME_RUN run;
  DENTCTX* record;
  const CDirEnt* entry;
  unsigned int slot = 0;
  int status = Fetch(source, slot, entry);
  while (status >= 0) {
    bool complete = false;  // a whole run stands before `entry`
    if (!entry->IsDeleted() && entry->IsLfn() && run.Start(*entry->ToLfn())) {
      bool broken = false;
      while (!broken && run.nRemaining > 0) {
        status = Fetch(source, ++slot, entry);
        if (status < 0) return status;
        broken = !entry->IsDeleted() && !run.Continue(*entry);  // a deleted slot inside a run does not end it
      }
      if (!broken) {
        status = Fetch(source, ++slot, entry);
        if (status < 0) return status;
        complete = true;
      }
      // What broke the run, or follows it, may itself be the start of another one.
      if (!entry->IsDeleted() && entry->IsLfn()) continue;
    }
    if (!entry->IsDeleted() && !entry->IsLfn()) {
      if (entry->IsVolumeId()) {
        osMemCpy(m_Label, entry->Name, SHORT_NAME_SIZE);
      } else if (complete && entry->ComputeLfnChecksum() == run.Checksum) {
        status = AddLongDirEnt(*entry, slot, run.nCount, run.szName, record);
      } else {
        status = AddShortDirEnt(*entry, slot, record);
      }
    }
    if (status >= 0) status = Fetch(source, ++slot, entry);
  }
  return status;
}

int CDirEntCache::LoadAllDirEnts(CFatDir* dir) {
  const unsigned long long slots = dir->AllocBytes() / DIRENT_SIZE;
  // What is not kept of a regular file must not count as free either: new entries would go over its bytes.
  const unsigned int most = dir->IsDir() ? MAX_DIRECTORY_SLOTS : MAX_SLOTS;
  int status = Grow(slots < most ? static_cast<unsigned int>(slots) : most);
  if (status < 0) return status;
  if (dir->IsDir()) {
    CDirectorySource source(dir);
    status = Load(source);
  } else {
    status = ScanRegularFile(dir);
  }
  return status == STATUS_END_OF_FILE ? STATUS_SUCCESS : status;
}

// The file is read as a directory would be: block after block, up to and including the first one in which a slot starts
// with a zero byte. Only that decides where the reading ends, so nothing else is looked at yet.
int CDirEntCache::ScanRegularFile(CFatDir* file) {
  for (unsigned int block = 0;; ++block) {
    const unsigned char* data;
    unsigned int bytes;
    BLOCK_LOAN* loan;
    const int status = file->PeekBlock(block, data, bytes, &loan);
    if (status < 0) return status;
    unsigned int used = 0;
    while (used < bytes && data[used] != DIRENT_END) used += DIRENT_SIZE;
    const bool ended = used < bytes;
    if (used != 0 && !m_Raw.IsFull()) m_Raw.Append(*loan, data, used / DIRENT_SIZE);
    if (ended) return STATUS_SUCCESS;
  }
}

int CDirEntCache::ParseRaw() {
  if (m_Raw.IsLost()) return STATUS_NO_MEMORY;
  m_bParsing = true;  // the operations used below must not come back here
  CRawSource source(m_Raw);
  int status = Load(source);
  if (status == STATUS_END_OF_FILE) status = STATUS_SUCCESS;
  if (status < 0) {
    // Out of memory: as if nobody had asked, so that a later try may succeed.
    DropRecords();
    MarkFree(0, m_nSlots);
  } else {
    m_Raw.Clear();
  }
  m_bParsing = false;
  return status;
}
