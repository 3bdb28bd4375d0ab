/// @file XRuns.cpp
/// Every change finds out first how many elements it needs, makes room for them, and only then touches a run: so a
/// change that fails leaves the map as it was.

#include "allocation/XRuns.h"

#include <climits>

namespace {

constexpr unsigned FIRST_STOCK = 16;  // blocks the pool starts with, and grows and shrinks by

}  // namespace

CLookasideList* CRuns::s_pFirstMappingLookasideList = nullptr;
CRuns::MAPPING CRuns::s_NoMappings = {0, CRuns::SENTINEL};

// ---------------------------------------------------------------------------------------------------- pool and storage

bool CRuns::InitializeFirstPool() {
  if (s_pFirstMappingLookasideList != nullptr) return true;
  auto* pool = new CLookasideList(sizeof(MAPPING) * FIRST_ROOM, FIRST_STOCK);
  if (pool != nullptr && pool->FreeCount() < FIRST_STOCK) {
    delete pool;
    pool = nullptr;
  }
  s_pFirstMappingLookasideList = pool;
  return pool != nullptr;
}

void CRuns::UninitializeFirstPool() {
  if (s_pFirstMappingLookasideList == nullptr) return;
  s_pFirstMappingLookasideList->ShrinkAll();
  delete s_pFirstMappingLookasideList;
  s_pFirstMappingLookasideList = nullptr;
}

bool CRuns::Initialize() {
  MAPPING* mappings = NewMappings(FIRST_ROOM);
  if (mappings == nullptr) {
    m_nRoom = 0;
    m_pMappings = &s_NoMappings;
  } else {
    m_nRoom = FIRST_ROOM;
    m_pMappings = mappings;
    m_pMappings[0] = {0, SENTINEL};
  }
  m_nEntries = 1;
  m_nLastHit = 1;
  return mappings != nullptr;
}

void CRuns::Uninitialize() {
  ReleaseMappings();
  m_nRoom = 0;
  m_nEntries = 1;
  m_pMappings = &s_NoMappings;
}

/// @return an array of that many elements, from the pool if there are 16 of them; null when it cannot be had
CRuns::MAPPING* CRuns::NewMappings(unsigned room) {
  if (room != FIRST_ROOM) return static_cast<MAPPING*>(osMemAllocArray(room, sizeof(MAPPING)));
  if (s_pFirstMappingLookasideList == nullptr) return nullptr;
  return static_cast<MAPPING*>(s_pFirstMappingLookasideList->Allocate());
}

void CRuns::ReleaseMappings() {
  if (m_nRoom == 0) return;
  // Blocks of the pool are allocated one by one and are all alike: one that has outlived its pool can be freed by
  // itself, or go into the next pool.
  if (m_nRoom == FIRST_ROOM && s_pFirstMappingLookasideList != nullptr)
    s_pFirstMappingLookasideList->Recycle(m_pMappings);
  else
    osMemFree(m_pMappings);
}

/// Moves the elements in use to an array of another size. @return false when it cannot be had; nothing is changed then
bool CRuns::SetRoom(unsigned room) {
  MAPPING* mappings;
  if (m_nRoom == FIRST_ROOM || room == FIRST_ROOM) {
    mappings = NewMappings(room);
    if (mappings == nullptr) return false;
    CopyEntry(mappings, m_pMappings, m_nEntries);
    ReleaseMappings();
  } else {
    if (room > UINT_MAX / sizeof(MAPPING)) return false;
    mappings = static_cast<MAPPING*>(osMemRealloc(m_pMappings, room * sizeof(MAPPING)));
    if (mappings == nullptr) return false;
  }
  m_pMappings = mappings;
  m_nRoom = room;
  return true;
}

void CRuns::CopyEntry(MAPPING* dst, const MAPPING* src, unsigned n) {
  osMemCpy(dst, src, n * static_cast<unsigned>(sizeof(MAPPING)));
}

void CRuns::MoveEntry(MAPPING* dst, const MAPPING* src, unsigned n) {
  osMemMove(dst, src, n * static_cast<unsigned>(sizeof(MAPPING)));
}

/// Opens `n` free elements at `index` (at most behind the last one). @return false with nothing changed
bool CRuns::AddEntryRoom(unsigned index, unsigned n) {
  if (m_nRoom == 0) return false;
  unsigned room = m_nRoom;
  while (room - m_nEntries < n) {
    room += room < DOUBLING_LIMIT ? room : DOUBLING_LIMIT;
    if (room > UINT_MAX / sizeof(MAPPING)) return false;
  }
  if (room != m_nRoom && !SetRoom(room)) return false;
  MoveEntry(m_pMappings + index + n, m_pMappings + index, m_nEntries - index);
  m_nEntries += n;
  return true;
}

/// Closes `n` elements at `index`.
void CRuns::RemoveEntryRoom(unsigned index, unsigned n) {
  MoveEntry(m_pMappings + index, m_pMappings + index + n, m_nEntries - (index + n));
  m_nEntries -= n;
}

bool CRuns::CheckMapping() const {
  if (m_nRoom == 0) return m_nEntries == 1 && m_pMappings == &s_NoMappings;
  if (m_nRoom < FIRST_ROOM || m_nEntries < 1 || m_nEntries > m_nRoom) return false;
  if (m_pMappings[0].NextVbn != 0 || m_pMappings[0].Lbn != SENTINEL) return false;
  for (unsigned i = 1; i < m_nEntries; ++i) {
    if (m_pMappings[i].NextVbn <= m_pMappings[i - 1].NextVbn) return false;
    if (!IsRunValid(StartingVbn(i), StartingLbn(i), LengthOfRun(i))) return false;
  }
  return true;
}

// ---------------------------------------------------------------------------------------------------- look-ups

/// @return the lowest run of lo .. hi that ends behind the VBN, or hi
unsigned CRuns::_FindIndex_(const MAPPING* a, unsigned lo, unsigned hi, unsigned vbn) {
  while (lo < hi) {
    const unsigned mid = lo + (hi - lo) / 2;
    if (a[mid].NextVbn <= vbn)
      lo = mid + 1;
    else
      hi = mid;
  }
  return lo;
}

unsigned CRuns::_FindIndex(const MAPPING* a, unsigned entries, unsigned vbn) {
  return _FindIndex_(a, 1, entries - 1, vbn);
}

/// @return the run that holds the VBN, which must be below the end
unsigned CRuns::IndexOf(unsigned vbn) const {
  // Files are mostly read in order: the run of the last look-up or the one after it is nearly always right.
  unsigned i = m_nLastHit;
  if (i < m_nEntries && m_pMappings[i - 1].NextVbn <= vbn) {
    if (vbn < m_pMappings[i].NextVbn) return i;
    if (vbn < m_pMappings[++i].NextVbn) return m_nLastHit = i;  // there is one: the VBN is below the end
  }
  return m_nLastHit = _FindIndex(m_pMappings, m_nEntries, vbn);
}

bool CRuns::LookupEntry(unsigned vbn, unsigned* lbn, unsigned* count, unsigned* index) const {
  if (vbn >= VbnBeyondEnd()) return false;
  const unsigned i = IndexOf(vbn);
  *lbn = LbnWithinRun(i, vbn);
  *count = NextStartingVbn(i) - vbn;
  *index = i;
  return *lbn != UNMAPPED_GAP;
}

bool CRuns::LookupEntry(unsigned vbn, unsigned* lbn, unsigned* count) const {
  unsigned index;
  return LookupEntry(vbn, lbn, count, &index);
}

bool CRuns::LookupEntry(unsigned vbn, unsigned* lbn, unsigned* count, unsigned* startingLbn,
                        unsigned* runLength) const {
  if (vbn >= VbnBeyondEnd()) return false;
  unsigned index;
  const bool mapped = LookupEntry(vbn, lbn, count, &index);
  *startingLbn = StartingLbn(index);
  *runLength = LengthOfRun(index);
  return mapped;
}

bool CRuns::FindIndex(unsigned vbn, unsigned* index) const {
  const bool inside = vbn < VbnBeyondEnd();
  *index = inside ? IndexOf(vbn) : m_nEntries;
  return inside;
}

bool CRuns::GetEntry(unsigned index, unsigned* vbn, unsigned* lbn, unsigned* length) const {
  if (index == 0 || index >= m_nEntries) return false;
  *vbn = StartingVbn(index);
  *lbn = StartingLbn(index);
  *length = LengthOfRun(index);
  return true;
}

bool CRuns::GetLastEntry(unsigned* vbn, unsigned* lbn) const {
  if (m_nEntries < 2) return false;
  *vbn = VbnBeyondEnd() - 1;
  *lbn = LbnWithinRun(m_nEntries - 1, *vbn);
  return true;
}

// ---------------------------------------------------------------------------------------------------- adding

bool CRuns::IsBatchValid(const MAPPING* batch, unsigned n) {
  for (unsigned i = 1; i <= n; ++i) {
    if (batch[i].NextVbn <= batch[i - 1].NextVbn) return false;
    if (!IsRunValid(batch[i - 1].NextVbn, batch[i].Lbn, batch[i].NextVbn - batch[i - 1].NextVbn)) return false;
  }
  return true;
}

/// @return whether a run that starts at `lbn`, directly behind run i, would continue it; i may be 0
bool CRuns::Continues(unsigned i, unsigned lbn) const { return i != 0 && Follows(StartingLbn(i), LengthOfRun(i), lbn); }

bool CRuns::AddEntry(unsigned vbn, unsigned lbn, unsigned count) {
  const MAPPING batch[2] = {{vbn, 0}, {vbn + count, lbn}};
  return AddEntries(batch, 1);
}

bool CRuns::AddEntries(const MAPPING* batch, int n) {
  if (n < 1 || !IsBatchValid(batch, static_cast<unsigned>(n))) return false;
  const unsigned start = batch[0].NextVbn;
  const unsigned end = batch[n].NextVbn;
  if (start >= VbnBeyondEnd()) return AppendBatch(batch, static_cast<unsigned>(n));
  for (unsigned i = IndexOf(start); i < m_nEntries && StartingVbn(i) < end; ++i) {
    const unsigned lbn = StartingLbn(i);
    if (lbn != HOLE && lbn != UNMAPPED_GAP) return false;
  }
  return ReplaceRange(batch, static_cast<unsigned>(n));
}

/// Adds a batch that starts at or behind the end.
bool CRuns::AppendBatch(const MAPPING* batch, unsigned n) {
  const unsigned start = batch[0].NextVbn;
  const unsigned last = m_nEntries - 1;
  const bool isGap = start > VbnBeyondEnd();
  const bool isNewGap = isGap && StartingLbn(last) != UNMAPPED_GAP;
  const bool isMerged = isGap ? batch[1].Lbn == UNMAPPED_GAP : Continues(last, batch[1].Lbn);
  const unsigned merged = isMerged ? 1 : 0;
  unsigned next = m_nEntries;
  if (!AddEntryRoom(next, (isNewGap ? 1 : 0) + n - merged)) return false;
  if (isNewGap)
    m_pMappings[next++] = {start, UNMAPPED_GAP};
  else if (isGap)
    m_pMappings[last].NextVbn = start;
  if (isMerged) m_pMappings[next - 1].NextVbn = batch[1].NextVbn;
  CopyEntry(m_pMappings + next, batch + 1 + merged, n - merged);
  return true;
}

/// Maps the range of a batch that starts before the end to its runs, whatever was there. What a run at either end of
/// the range has outside it stays mapped as it was.
bool CRuns::ReplaceRange(const MAPPING* batch, unsigned n) {
  const unsigned start = batch[0].NextVbn;
  const unsigned end = batch[n].NextVbn;
  const unsigned first = IndexOf(start);
  const unsigned last =
      end < VbnBeyondEnd() ? _FindIndex_(m_pMappings, first, m_nEntries - 1, end - 1) : m_nEntries - 1;

  // In front of the range: the head of a run cut by it, or a whole one.
  const bool isHeadKept = StartingVbn(first) < start;
  const unsigned before = isHeadKept ? first : first - 1;
  const bool isFrontMerged = before != 0 && Follows(StartingLbn(before), start - StartingVbn(before), batch[1].Lbn);

  // Behind the range: the tail of a run cut by it, a whole one, or nothing.
  const bool isTailCut = NextStartingVbn(last) > end;
  const bool isRunBehind = isTailCut || last + 1 < m_nEntries;
  MAPPING behind = {};
  if (isTailCut)
    behind = {NextStartingVbn(last), LbnWithinRun(last, end)};
  else if (isRunBehind)
    behind = m_pMappings[last + 1];
  const bool isBackMerged = isRunBehind && Follows(batch[n].Lbn, end - batch[n - 1].NextVbn, behind.Lbn);

  // The elements to be replaced, and what takes their place.
  const unsigned place = before + 1;
  const unsigned replaced = last + 1 - place + (isBackMerged && !isTailCut ? 1 : 0);
  const unsigned fromBatch = n - (isFrontMerged ? 1 : 0);
  const unsigned added = fromBatch + (isTailCut && !isBackMerged ? 1 : 0);
  if (added > replaced) {
    if (!AddEntryRoom(place, added - replaced)) return false;
  } else {
    RemoveEntryRoom(place, replaced - added);
  }
  if (isHeadKept) m_pMappings[before].NextVbn = start;
  if (isFrontMerged) m_pMappings[before].NextVbn = batch[1].NextVbn;
  CopyEntry(m_pMappings + place, batch + 1 + n - fromBatch, fromBatch);
  if (isBackMerged)
    m_pMappings[before + fromBatch].NextVbn = behind.NextVbn;
  else if (isTailCut)
    m_pMappings[place + fromBatch] = behind;
  return true;
}

bool CRuns::ModifyEntry(unsigned vbn, unsigned count, unsigned lbn) {
  if (vbn >= VbnBeyondEnd()) return AddEntry(vbn, lbn, count);
  const MAPPING batch[2] = {{vbn, 0}, {vbn + count, lbn}};
  if (!IsBatchValid(batch, 1)) return false;
  const unsigned i = IndexOf(vbn);
  if (StartingVbn(i) < vbn && NextStartingVbn(i) > vbn + count && StartingLbn(i) == lbn) return false;
  return ReplaceRange(batch, 1);
}

bool CRuns::SplitAsHole(unsigned vbn, unsigned count) {
  if (vbn >= VbnBeyondEnd() || count == 0 || count > 0xFFFFFFFFu - VbnBeyondEnd()) return false;
  unsigned i = IndexOf(vbn);
  const unsigned lbn = StartingLbn(i);
  if (lbn != HOLE) {
    if (StartingVbn(i) < vbn) {
      const unsigned tailLbn = LbnWithinRun(i, vbn);
      if (!AddEntryRoom(i, 2)) return false;
      m_pMappings[i] = {vbn, lbn};
      m_pMappings[i + 1] = {vbn + count, HOLE};
      m_pMappings[i + 2].Lbn = tailLbn;
      i += 2;
    } else if (StartingLbn(i - 1) == HOLE) {
      --i;
    } else {
      if (!AddEntryRoom(i, 1)) return false;
      m_pMappings[i] = {vbn + count, HOLE};
      ++i;
    }
  }
  for (; i < m_nEntries; ++i) m_pMappings[i].NextVbn += count;
  return true;
}

/// Takes appended runs back: `entries` elements were in use before them, and the map ended at `end`.
void CRuns::Rewind(unsigned entries, unsigned end) {
  if (m_nRoom == 0) return;  // nothing can have been appended
  m_nEntries = entries;
  m_pMappings[entries - 1].NextVbn = end;
}

bool CRuns::AppendRuns(const CRuns* src) {
  if (src == this) return false;
  const unsigned entries = m_nEntries;
  const unsigned end = VbnBeyondEnd();
  for (unsigned i = 1; i <= src->NumberOfRuns(); ++i) {
    if (!AppendEntry(src->StartingLbn(i), src->LengthOfRun(i))) {
      Rewind(entries, end);
      return false;
    }
  }
  return true;
}

// ---------------------------------------------------------------------------------------------------- cutting

bool CRuns::MoveTailTo(CRuns* dest, unsigned count) {
  if (dest == this) return false;
  if (count > Length()) count = Length();
  const unsigned newEnd = VbnBeyondEnd() - count;
  const unsigned destEntries = dest->m_nEntries;
  const unsigned destEnd = dest->VbnBeyondEnd();
  for (unsigned i = NumberOfRuns(), left = count; left != 0; --i) {
    const unsigned length = LengthOfRun(i);
    const unsigned moved = length < left ? length : left;
    if (!dest->AppendEntry(LbnWithinRun(i, NextStartingVbn(i) - moved), moved)) {
      dest->Rewind(destEntries, destEnd);
      return false;
    }
    left -= moved;
  }
  Truncate(newEnd);
  return true;
}

void CRuns::Truncate(unsigned vbn) {
  if (vbn < VbnBeyondEnd()) _Truncate(vbn);
  if (m_nEntries < m_nRoom / 4 && m_nRoom > FIRST_ROOM) {
    // Without memory for a smaller array the larger one does as well.
    static_cast<void>(SetRoom(2 * m_nEntries < FIRST_ROOM ? FIRST_ROOM : 2 * m_nEntries));
  }
}

/// Keeps the VBNs below `vbn`, which must be below the end.
void CRuns::_Truncate(unsigned vbn) {
  if (vbn == 0) {
    Reset();
    return;
  }
  const unsigned i = IndexOf(vbn - 1);
  m_nEntries = i + 1;
  m_pMappings[i].NextVbn = vbn;
}
