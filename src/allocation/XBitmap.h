/// @file XBitmap.h
/// A bit array with fast searches for runs of clear or set bits. The free-cluster bitmap is one (a set bit is a cluster
/// in use), and so is the map of a directory's used slots. Bit n lies in byte n / 8 at position n mod 8, the least
/// significant first. What a bit stands for, and how many there are, is the owner's business.
///
/// No operation reads or writes a bit at or above Size(): single bits there are clear and stay so, ranges are cut off,
/// and searches find nothing there. All operations are safe on an empty bitmap, which has no storage at all. Not
/// re-entrant: even a search may write (the padding of the last byte).

#ifndef FATLIB_XBITMAP_H
#define FATLIB_XBITMAP_H

#include "platform/Platform.h"

/// A stretch of equal bits.
struct BMP_RUN {
  unsigned Length;  // in bits
  unsigned Start;   // bit number
};

/// A fixed-capacity array of runs over memory of the caller's, filled by the run-listing searches of CBitmap. How many
/// of them are in use is kept by the caller (`count` below).
class CBmpRunArray {
 public:
  /// @param runs  `capacity` runs, which must outlive this object; may be null when capacity is 0
  CBmpRunArray(BMP_RUN* runs, unsigned capacity) : m_pRuns(runs), m_nCapacity(capacity) {}

  /// Sets the length of every run of the capacity to 0.
  void Clear();
  bool IsFull(unsigned count) const { return count >= m_nCapacity; }
  /// Stores the run behind the first `count` ones. When the array is full nothing happens.
  void Insert(unsigned& count, unsigned length, unsigned start);
  /// Keeps the array sorted by length, longest first; of equal lengths the one inserted first stays in front. When the
  /// array is full the shortest run makes room, unless the new one is no longer than it: then nothing happens.
  void InsertSortDes(unsigned& count, unsigned length, unsigned start);

  const BMP_RUN& operator[](unsigned index) const { return m_pRuns[index]; }
  unsigned Capacity() const { return m_nCapacity; }

 private:
  BMP_RUN* m_pRuns;
  unsigned m_nCapacity;
};

class CBitmap {
 public:
  /// What a search for a position returns when there is none.
  static constexpr unsigned NOT_FOUND = 0xFFFFFFFFu;

  /// Empty, without storage. The destructor frees nothing: the owner calls FreeMem.
  CBitmap() = default;
  CBitmap(const CBitmap&) = delete;
  CBitmap& operator=(const CBitmap&) = delete;

  // --- Memory and size -------------------------------------------------------------------------------------------

  /// Replaces what the bitmap holds by new storage for `bits` bits, with undefined contents.
  /// @return 0, or STATUS_NO_MEMORY with nothing changed
  [[nodiscard]] int AllocMem(unsigned bits);
  /// Takes over storage of at least (bits + 7) / 8 bytes at any address, contents as they are. From now on the bitmap
  /// owns it: memory that is not from osMemAlloc is allowed only if neither FreeMem nor a growing ReSize ever follows.
  /// Storage held before is forgotten, not freed.
  void Initialize(unsigned char* storage, unsigned bits);
  /// Changes the size without touching the storage: bits that come into view are whatever lies there. A size that the
  /// storage cannot hold is ignored.
  void SetSize(unsigned bits);
  /// Grows or shrinks, keeping the bits below both sizes. Bits that come into view by growing are 0, also those that
  /// were cut off by an earlier shrinking. Shrinking keeps the storage and cannot fail; growing by small steps takes
  /// time linear in the final size.
  /// @return 0, or STATUS_NO_MEMORY with nothing changed
  [[nodiscard]] int ReSize(unsigned bits);
  /// Frees the storage; the bitmap is empty then. May be called any number of times.
  void FreeMem();
  unsigned Size() const { return m_nBits; }

  // --- Single bits and ranges --------------------------------------------------------------------------------------

  void SetBit(unsigned n) {
    if (n < m_nBits) m_pBits[n / 8] = static_cast<unsigned char>(m_pBits[n / 8] | 1u << n % 8);
  }
  void ClearBit(unsigned n) {
    if (n < m_nBits) m_pBits[n / 8] = static_cast<unsigned char>(m_pBits[n / 8] & ~(1u << n % 8));
  }
  /// @return false also for a bit at or above Size()
  bool TestBit(unsigned n) const { return n < m_nBits && (m_pBits[n / 8] >> n % 8 & 1) != 0; }

  void SetAllBits();
  void ClearAllBits();
  /// The part of the range at or above Size() is ignored.
  void SetBits(unsigned start, unsigned count) { FillBits(start, count, true); }
  void ClearBits(unsigned start, unsigned count) { FillBits(start, count, false); }
  /// @return whether every bit of the range is clear (set); false for an empty range and for one that passes Size()
  bool AreBitsClear(unsigned start, unsigned count) const;
  bool AreBitsSet(unsigned start, unsigned count) const;

  /// Sets (clears) the padding: the bits of the last byte from position Size() mod 8 upward, if Size() is no multiple
  /// of 8. Searches for clear (set) bits do so first, so that the padding has no part in a result.
  void PadEnd_1_Bits();
  void PadEnd_0_Bits();
  unsigned NumberOf_0_Bits();
  unsigned NumberOf_1_Bits();

  // --- Searches ----------------------------------------------------------------------------------------------------

  /// First fit: the lowest start at or above `hint` of `count` consecutive clear bits, or, when there is none, the
  /// lowest one below it (the run found there may reach past the hint). A hint at or above Size() counts as 0.
  /// @return the start, or NOT_FOUND (always for count 0)
  unsigned Find_0_Bits(unsigned count, unsigned hint);
  /// The same for set bits.
  unsigned Find_1_Bits(unsigned count, unsigned hint);
  /// Find_0_Bits, and sets the bits found.
  unsigned Find_0_Bits_Set(unsigned count, unsigned hint);
  /// Find_1_Bits, and clears the bits found.
  unsigned Find_1_Bits_Clear(unsigned count, unsigned hint);

  /// The first clear bit at or above `from`: what FindNextForward_0_Run finds, without the way to the run's end, which
  /// can be all the rest of the map.
  /// @param start  out: that bit; `from` itself when that is not below Size(); unchanged when no clear bit follows
  /// @return whether there is one
  bool FindNextForward_0_Bit(unsigned from, unsigned* start) const;
  /// The clear run that holds the first clear bit at or above `from`, from that bit on.
  /// @param start  out: its first bit; `from` itself when that is not below Size(); unchanged when no clear bit follows
  /// @return its length, 0 for none
  unsigned FindNextForward_0_Run(unsigned from, unsigned* start) const;
  /// The clear run that holds the last clear bit at or below `from`, up to and including that bit.
  /// @param start  out: its first bit; `from` itself when that is not below Size(); unchanged when there is no clear
  /// bit
  /// @return its length, 0 for none
  unsigned FindLastBackward_0_Run(unsigned from, unsigned* start) const;
  /// @param start  out: the first bit of the longest clear run (the lowest of several), 0 when there is none
  /// @return its length, 0 for none
  unsigned FindLongest_0_Run(unsigned* start);

  /// Lists the clear runs until the array is full. They come in ascending order, except that those inside one byte,
  /// touching neither of its ends, come longest first and before a run that reaches up to the byte's end.
  /// @return the number of runs in the array; the lengths behind them are 0
  unsigned Find_0_Runs(CBmpRunArray* runs);
  /// Lists the longest clear runs, longest first; of equal lengths the lower one comes first and stays when there is
  /// room for only one of them.
  /// @return the number of runs in the array; the lengths behind them are 0
  unsigned FindLongest_0_Runs(CBmpRunArray* runs);

  /// @return the index 0..63 of the highest (lowest) set bit, NOT_FOUND for 0
  static unsigned FindMostSignificantBit(unsigned long long value);
  static unsigned FindLeastSignificantBit(unsigned long long value);
  /// @return the lowest position p such that bits p .. p + count - 1 of the byte are clear (set), NOT_FOUND for none
  static unsigned GetLeftShiftOf_0_Bits(unsigned count, unsigned char byte);
  static unsigned GetLeftShiftOf_1_Bits(unsigned count, unsigned char byte);

 protected:
  unsigned char* m_pBits = nullptr;  // the storage; null when the bitmap is empty
  unsigned m_nBits = 0;              // size in bits
  unsigned m_nBytes = 0;             // (m_nBits + 7) / 8
  void* m_pMem = nullptr;            // what FreeMem releases

 private:
  // The searches read a machine word at a time, so that a map of many millions of bits is walked at memory speed.
  using WORD = std::size_t;
  static constexpr unsigned WORD_BYTES = sizeof(WORD);
  static constexpr unsigned WORD_BITS = 8 * WORD_BYTES;
  // What a word is XORed with to have the wanted bits as ones.
  static constexpr WORD WANT_0_BITS = ~static_cast<WORD>(0);
  static constexpr WORD WANT_1_BITS = 0;

  WORD WantedBits(unsigned wordIndex, WORD want) const;
  unsigned CountBits(WORD want) const;
  unsigned NextBit(unsigned from, unsigned limit, WORD want) const;
  unsigned PreviousBit(unsigned from, WORD want) const;
  unsigned FindBits(unsigned count, unsigned hint, WORD want) const;
  unsigned FirstFit(unsigned count, unsigned from, unsigned lastStart, WORD want) const;
  void FillBits(unsigned start, unsigned count, bool set);
  template <typename EMIT>
  void WalkClearRuns(EMIT emit);

  unsigned m_nMemBytes = 0;  // length of the storage, at least m_nBytes
};

#endif  // FATLIB_XBITMAP_H
