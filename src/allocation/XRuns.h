/// @file XRuns.h
/// The extent map of one file in memory: which cluster of the volume (LBN) holds which cluster of the file (VBN,
/// counted from 0). Every open file owns one, filled from its chain; the allocator hands out clusters in one, and
/// freeing walks one run by run. Where the clusters come from, and whether an LBN exists on the volume, is not tested
/// here.
///
/// The map is a sorted array of runs behind a sentinel. A run stores its LBN and where it ends; it starts where its
/// predecessor ends:
///
///   file clusters 0..2 at 5, 3 at 9      element    0 (sentinel)        1         2
///                                        NextVbn    0                   3         4
///                                        Lbn        0xFFFFFFFD          5         9
///
/// so run numbers, as taken and returned by everything below, go from 1 to NumberOfRuns(). An LBN with its top bit set
/// is a marker (a hole, for one) and stands for itself at every offset of its run; real LBNs end at 0x7FFFFFFF.
///
/// Invariants (CheckMapping tests what the array itself can tell of them):
///   1. element 0 is the sentinel;
///   2. NextVbn strictly increases along the array;
///   3. no run of real LBNs passes 0x7FFFFFFF;
///   4. the array is a block of the first pool exactly when it has room for 16 elements, and there is no array at all
///      when it has room for none.

#ifndef FATLIB_XRUNS_H
#define FATLIB_XRUNS_H

#include <cassert>

#include "platform/Lookaside.h"

class CRuns {
 public:
  struct MAPPING {
    unsigned NextVbn;  // first VBN behind the run
    unsigned Lbn;      // of the run's first cluster, or a marker
  };

  static constexpr unsigned HOLE = 0xFFFFFFFFu;          // deliberately without clusters
  static constexpr unsigned UNMAPPED_GAP = 0xFFFFFFFEu;  // skipped when a run was added beyond the end
  static constexpr unsigned SENTINEL = 0xFFFFFFFDu;      // element 0
  static constexpr unsigned MAX_LBN = 0x7FFFFFFFu;

  static constexpr bool IsMarker(unsigned lbn) { return lbn > MAX_LBN; }

  // --- The pool of first arrays, shared by all maps ----------------------------------------------------------------

  /// Makes the pool, or keeps the one that is there. Without a pool no map can be initialised.
  /// @return false when memory is short; there is no pool then
  [[nodiscard]] static bool InitializeFirstPool();
  /// Frees the pool, if any. A map that still holds one of its blocks stays usable and returns it by itself, also when
  /// another pool was made meanwhile.
  static void UninitializeFirstPool();

  // --- Life of a map -----------------------------------------------------------------------------------------------

  /// A map without storage: it is empty, answers every query, and cannot take any run. So is one that failed to
  /// initialise, and one that was uninitialised. The destructor frees nothing: the owner calls Uninitialize.
  CRuns() = default;
  CRuns(const CRuns&) = delete;
  CRuns& operator=(const CRuns&) = delete;

  /// Makes an empty map with room for 16 elements. Only for a map without storage.
  /// @return false when no block can be had; the map has no storage then
  [[nodiscard]] bool Initialize();
  /// Gives the storage back. May be called any number of times.
  void Uninitialize();
  /// Forgets all runs; the storage is kept.
  void Reset() { m_nEntries = 1; }

  // --- One run, 1 <= i <= NumberOfRuns() (for the first and the fourth query 0 is allowed too) --------------------

  unsigned NextStartingVbn(unsigned i) const {
    CheckIndex(i);
    return m_pMappings[i].NextVbn;
  }
  unsigned StartingVbn(unsigned i) const { return NextStartingVbn(i - 1); }
  unsigned EndingVbn(unsigned i) const { return NextStartingVbn(i) - 1; }
  unsigned StartingLbn(unsigned i) const {
    CheckIndex(i);
    return m_pMappings[i].Lbn;
  }
  unsigned LengthOfRun(unsigned i) const { return NextStartingVbn(i) - StartingVbn(i); }
  /// @return the LBN of a VBN of run i (or of the one just behind it); for a marker the marker itself
  unsigned LbnWithinRun(unsigned i, unsigned vbn) const {
    const unsigned lbn = StartingLbn(i);
    return IsMarker(lbn) ? lbn : vbn - StartingVbn(i) + lbn;
  }

  // --- The whole map -----------------------------------------------------------------------------------------------

  unsigned NumberOfRuns() const { return m_nEntries - 1; }
  /// First VBN behind the map, that is, the file's mapped length in clusters. Length is the same.
  unsigned VbnBeyondEnd() const { return m_pMappings[m_nEntries - 1].NextVbn; }
  unsigned Length() const { return VbnBeyondEnd(); }
  /// Elements (the sentinel included) that the array can hold; 0 when there is none.
  unsigned Room() const { return m_nRoom; }

  /// Looks one VBN up.
  /// @param lbn          out: its LBN, or the marker of its run
  /// @param count        out: clusters from it to the end of its run
  /// @param index        out: the number of its run
  /// @param startingLbn  out: the LBN, or marker, of its run
  /// @param runLength    out: clusters in its run
  /// @return true for a cluster and for a hole; false for an unmapped gap (outs as above), and at or beyond the end
  ///         (outs unchanged)
  bool LookupEntry(unsigned vbn, unsigned* lbn, unsigned* count) const;
  bool LookupEntry(unsigned vbn, unsigned* lbn, unsigned* count, unsigned* index) const;
  bool LookupEntry(unsigned vbn, unsigned* lbn, unsigned* count, unsigned* startingLbn, unsigned* runLength) const;

  /// @param index  out: the number of the run that holds the VBN; beyond the end NumberOfRuns() + 1
  /// @return false at or beyond the end
  bool FindIndex(unsigned vbn, unsigned* index) const;
  /// @param index  run number, 1 .. NumberOfRuns()
  /// @return false for any other number, outs unchanged
  bool GetEntry(unsigned index, unsigned* vbn, unsigned* lbn, unsigned* length) const;
  /// The last mapped VBN and its LBN (or marker). @return false when there is no run, outs unchanged
  bool GetLastEntry(unsigned* vbn, unsigned* lbn) const;

  // --- Changes -----------------------------------------------------------------------------------------------------
  // Each of them is all or nothing: false means that the map is as it was. Besides the reasons named below, all fail
  // when memory runs out, when a run would have no cluster, and when the map would pass VBN 0xFFFFFFFE or an LBN
  // 0x7FFFFFFF.

  /// Maps `count` clusters from the end of the map on to `lbn` onwards, by making the last run longer if `lbn` follows
  /// it. Loading a chain cluster by cluster so gives one run for each contiguous stretch.
  bool AppendEntry(unsigned lbn, unsigned count) {
    if (m_nEntries > 1) {
      // A chain is loaded by one call a cluster, most of which end here.
      MAPPING& last = m_pMappings[m_nEntries - 1];
      if (Follows(last.Lbn, last.NextVbn - m_pMappings[m_nEntries - 2].NextVbn, lbn) &&
          IsRunValid(last.NextVbn, lbn, count)) {
        last.NextVbn += count;
        return true;
      }
    }
    return AddEntry(VbnBeyondEnd(), lbn, count);
  }
  /// Maps `count` clusters from `vbn` on to `lbn` onwards, see AddEntries.
  bool AddEntry(unsigned vbn, unsigned lbn, unsigned count);
  /// Adds runs that follow one another. Beyond the end they are appended, what is skipped becoming an unmapped gap;
  /// before it they may only replace holes and gaps (false otherwise). Runs that continue a neighbour are merged with
  /// it at both ends of the batch, not inside it.
  /// @param batch  element 0 holds the starting VBN in NextVbn, elements 1 .. n are the runs. Not part of this map.
  bool AddEntries(const MAPPING* batch, int n);
  /// Maps the range to `lbn` onwards, whatever was there, merging with the neighbours; beyond the end like AddEntry.
  /// @return false also when the range lies inside one run, neither first nor last in it, and that run starts at `lbn`:
  ///         a hole needs no change then, and a run of clusters gets none
  bool ModifyEntry(unsigned vbn, unsigned count, unsigned lbn);
  /// Inserts `count` clusters of hole at `vbn`; what was there and behind moves up. @return false beyond the end too
  bool SplitAsHole(unsigned vbn, unsigned count);
  /// Appends every run of another map in order.
  bool AppendRuns(const CRuns* src);
  /// Moves the last `count` clusters (all, if there are fewer) to the end of another map, last run first; inside a run
  /// the order stays. On failure the other map is as it was, too.
  bool MoveTailTo(CRuns* dest, unsigned count);
  /// Keeps the VBNs below `vbn`. Storage of which less than a quarter is left in use is made smaller.
  void Truncate(unsigned vbn);

  /// @return whether the invariants hold; walks the whole map, for tests
  bool CheckMapping() const;

 private:
  static constexpr unsigned FIRST_ROOM = 16;        // elements of a pool block
  static constexpr unsigned DOUBLING_LIMIT = 2048;  // below this a room is doubled, from it on it grows by as much
  static_assert(sizeof(MAPPING) * FIRST_ROOM == 128, "a pool block takes 128 bytes");

  static CLookasideList* s_pFirstMappingLookasideList;
  static MAPPING s_NoMappings;  // the sentinel of every map without storage; never written

  static unsigned _FindIndex_(const MAPPING* a, unsigned lo, unsigned hi, unsigned vbn);
  static unsigned _FindIndex(const MAPPING* a, unsigned entries, unsigned vbn);
  static void CopyEntry(MAPPING* dst, const MAPPING* src, unsigned n);
  static void MoveEntry(MAPPING* dst, const MAPPING* src, unsigned n);
  /// @return whether `next` is the LBN that continues a run; a marker continues itself
  static constexpr bool Follows(unsigned lbn, unsigned length, unsigned next) {
    return IsMarker(lbn) ? next == lbn : next == lbn + length && !IsMarker(next);
  }
  /// @return whether the run has a cluster and stays within VBNs and LBNs
  static constexpr bool IsRunValid(unsigned vbn, unsigned lbn, unsigned count) {
    return count != 0 && count <= 0xFFFFFFFFu - vbn && (IsMarker(lbn) || count - 1 <= MAX_LBN - lbn);
  }
  static bool IsBatchValid(const MAPPING* batch, unsigned n);
  static MAPPING* NewMappings(unsigned room);

  void CheckIndex(unsigned i) const {
    static_cast<void>(i);
    assert(i < m_nEntries);
  }
  unsigned IndexOf(unsigned vbn) const;
  bool SetRoom(unsigned room);
  bool AddEntryRoom(unsigned index, unsigned n);
  void RemoveEntryRoom(unsigned index, unsigned n);
  bool Continues(unsigned i, unsigned lbn) const;
  void Rewind(unsigned entries, unsigned end);
  bool AppendBatch(const MAPPING* batch, unsigned n);
  bool ReplaceRange(const MAPPING* batch, unsigned n);
  void _Truncate(unsigned vbn);
  void ReleaseMappings();

  unsigned m_nRoom = 0;
  unsigned m_nEntries = 1;  // elements in use, the sentinel included
  MAPPING* m_pMappings = &s_NoMappings;
  mutable unsigned m_nLastHit = 1;  // run of the last look-up, to start the next one from; may be out of date
};

#endif  // FATLIB_XRUNS_H
