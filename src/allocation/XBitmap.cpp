/// @file XBitmap.cpp
/// Searches for runs of equal bits work on machine words in which the wanted bits are ones; the last word is filled up
/// with unwanted ones. The bit layout of the storage is that of little-endian words of any size.

#include "allocation/XBitmap.h"

namespace {

constexpr std::size_t ALL_BITS = ~static_cast<std::size_t>(0);

// Both need a value other than 0.
unsigned CountTrailingZeros(std::size_t value) { return static_cast<unsigned>(__builtin_ctzl(value)); }
unsigned CountLeadingZeros(std::size_t value) { return static_cast<unsigned>(__builtin_clzl(value)); }

/// @return bit p for every p such that the `count` bits from p on are ones; 1 <= count <= bits of a word
std::size_t StartsOfRuns(std::size_t ones, unsigned count) {
  // After each step bit p says that the `length` bits from p on are ones.
  for (unsigned length = 1; length < count && ones != 0;) {
    const unsigned step = length < count - length ? length : count - length;
    ones &= ones >> step;
    length += step;
  }
  return ones;
}

unsigned BytesFromBitsRoundUp(unsigned bits) { return bits / 8 + (bits % 8 != 0 ? 1 : 0); }

// What the run listing needs to know of each byte.
struct BYTE_TABLE {
  unsigned char Entry[256];
};

template <typename RULE>
constexpr BYTE_TABLE MakeByteTable(RULE rule) {
  BYTE_TABLE table{};
  for (unsigned byte = 0; byte < 256; ++byte) table.Entry[byte] = static_cast<unsigned char>(rule(byte));
  return table;
}

// Length of the longest run of clear bits.
constexpr BYTE_TABLE s_Contigus_0_Bits_Longest = MakeByteTable([](unsigned byte) constexpr {
  unsigned longest = 0;
  for (unsigned bit = 0, length = 0; bit < 8; ++bit) {
    length = (byte >> bit & 1) != 0 ? 0 : length + 1;
    if (length > longest) longest = length;
  }
  return longest;
});

// Number of clear bits below the lowest set one.
constexpr BYTE_TABLE s_Contigus_0_Bits_Low = MakeByteTable([](unsigned byte) constexpr {
  unsigned length = 0;
  while (length < 8 && (byte >> length & 1) == 0) ++length;
  return length;
});

// Number of clear bits above the highest set one.
constexpr BYTE_TABLE s_Contigus_0_Bits_High = MakeByteTable([](unsigned byte) constexpr {
  unsigned length = 0;
  while (length < 8 && (byte << length & 0x80) == 0) ++length;
  return length;
});

}  // namespace

// ------------------------------------------------------------------------------------------------------ CBmpRunArray

void CBmpRunArray::Clear() {
  for (unsigned i = 0; i < m_nCapacity; ++i) m_pRuns[i].Length = 0;
}

void CBmpRunArray::Insert(unsigned& count, unsigned length, unsigned start) {
  if (!IsFull(count)) m_pRuns[count++] = {length, start};
}

void CBmpRunArray::InsertSortDes(unsigned& count, unsigned length, unsigned start) {
  if (m_nCapacity == 0) return;
  unsigned place = count;
  if (IsFull(count)) {
    place = m_nCapacity - 1;
    if (m_pRuns[place].Length >= length) return;
  } else {
    ++count;
  }
  for (; place > 0 && m_pRuns[place - 1].Length < length; --place) m_pRuns[place] = m_pRuns[place - 1];
  m_pRuns[place] = {length, start};
}

// ---------------------------------------------------------------------------------------------------- memory and size

int CBitmap::AllocMem(unsigned bits) {
  // Whole 32-bit words, and at least one: a request for nothing might be answered by null.
  const unsigned bytes = bits == 0 ? 4 : (BytesFromBitsRoundUp(bits) + 3) & ~3u;
  auto* storage = static_cast<unsigned char*>(osMemAlloc(bytes));
  if (storage == nullptr) return STATUS_NO_MEMORY;
  FreeMem();
  Initialize(storage, bits);
  m_nMemBytes = bytes;
  return STATUS_SUCCESS;
}

void CBitmap::Initialize(unsigned char* storage, unsigned bits) {
  m_pBits = storage;
  m_pMem = storage;
  m_nMemBytes = storage == nullptr ? 0 : BytesFromBitsRoundUp(bits);
  SetSize(storage == nullptr ? 0 : bits);
}

void CBitmap::SetSize(unsigned bits) {
  if (BytesFromBitsRoundUp(bits) > m_nMemBytes) return;
  m_nBits = bits;
  m_nBytes = BytesFromBitsRoundUp(bits);
}

int CBitmap::ReSize(unsigned bits) {
  if (bits > m_nBits) {
    const unsigned bytes = BytesFromBitsRoundUp(bits);
    if (bytes > m_nMemBytes) {
      // Half as much again as before keeps many small steps cheap; if that cannot be had, what is asked for still may.
      const unsigned roomyBytes = m_nMemBytes + m_nMemBytes / 2;
      unsigned newBytes = roomyBytes > bytes ? roomyBytes : bytes;
      void* storage = osMemRealloc(m_pMem, newBytes);
      if (storage == nullptr && newBytes > bytes) {
        newBytes = bytes;
        storage = osMemRealloc(m_pMem, newBytes);
      }
      if (storage == nullptr) return STATUS_NO_MEMORY;
      m_pMem = storage;
      m_pBits = static_cast<unsigned char*>(storage);
      m_nMemBytes = newBytes;
    }
    PadEnd_0_Bits();
    osMemZero(m_pBits + m_nBytes, bytes - m_nBytes);
  }
  SetSize(bits);
  return STATUS_SUCCESS;
}

void CBitmap::FreeMem() {
  osMemFree(m_pMem);
  m_pMem = nullptr;
  m_pBits = nullptr;
  m_nMemBytes = 0;
  SetSize(0);
}

// ---------------------------------------------------------------------------------------------------- bits and ranges

void CBitmap::SetAllBits() {
  if (m_nBytes != 0) osMemSet(m_pBits, 0xFF, m_nBytes);
}

void CBitmap::ClearAllBits() {
  if (m_nBytes != 0) osMemZero(m_pBits, m_nBytes);
}

void CBitmap::FillBits(unsigned start, unsigned count, bool set) {
  if (count == 0 || start >= m_nBits) return;
  if (count > m_nBits - start) count = m_nBits - start;
  const unsigned last = start + count - 1;
  const auto fill = [this, set](unsigned byteIndex, unsigned mask) {
    const unsigned byte = m_pBits[byteIndex];
    m_pBits[byteIndex] = static_cast<unsigned char>(set ? byte | mask : byte & ~mask);
  };
  const unsigned firstMask = 0xFFu << start % 8;
  const unsigned lastMask = 0xFFu >> (7 - last % 8);
  const unsigned firstByte = start / 8;
  const unsigned lastByte = last / 8;
  if (firstByte == lastByte) {
    fill(firstByte, firstMask & lastMask);
    return;
  }
  fill(firstByte, firstMask);
  osMemSet(m_pBits + firstByte + 1, set ? 0xFF : 0, lastByte - firstByte - 1);
  fill(lastByte, lastMask);
}

bool CBitmap::AreBitsClear(unsigned start, unsigned count) const {
  if (count == 0 || start > m_nBits || count > m_nBits - start) return false;
  return NextBit(start, start + count, WANT_1_BITS) == start + count;
}

bool CBitmap::AreBitsSet(unsigned start, unsigned count) const {
  if (count == 0 || start > m_nBits || count > m_nBits - start) return false;
  return NextBit(start, start + count, WANT_0_BITS) == start + count;
}

void CBitmap::PadEnd_1_Bits() {
  if (m_nBits % 8 == 0) return;
  unsigned char& last = m_pBits[m_nBytes - 1];
  last = static_cast<unsigned char>(last | 0xFFu << m_nBits % 8);
}

void CBitmap::PadEnd_0_Bits() {
  if (m_nBits % 8 == 0) return;
  unsigned char& last = m_pBits[m_nBytes - 1];
  last = static_cast<unsigned char>(last & ~(0xFFu << m_nBits % 8));
}

unsigned CBitmap::NumberOf_0_Bits() {
  PadEnd_1_Bits();
  return CountBits(WANT_0_BITS);
}

unsigned CBitmap::NumberOf_1_Bits() {
  PadEnd_0_Bits();
  return CountBits(WANT_1_BITS);
}

// ---------------------------------------------------------------------------------------------------- words

/// @return the word with the wanted bits as ones. Behind the last byte nothing is wanted, but its padding may be.
CBitmap::WORD CBitmap::WantedBits(unsigned wordIndex, WORD want) const {
  const unsigned offset = wordIndex * WORD_BYTES;
  WORD word = want;
  if (m_nBytes - offset >= WORD_BYTES)
    osMemCpy(&word, m_pBits + offset, WORD_BYTES);
  else
    osMemCpy(&word, m_pBits + offset, m_nBytes - offset);
  return word ^ want;
}

/// The wanted bits of the map. The padding must be unwanted.
unsigned CBitmap::CountBits(WORD want) const {
  unsigned count = 0;
  for (unsigned i = 0; i * WORD_BYTES < m_nBytes; ++i)
    count += static_cast<unsigned>(__builtin_popcountl(WantedBits(i, want)));
  return count;
}

/// @return the lowest wanted bit of from .. limit - 1, or limit when there is none; limit <= Size()
unsigned CBitmap::NextBit(unsigned from, unsigned limit, WORD want) const {
  if (from >= limit) return limit;
  const unsigned lastWord = (limit - 1) / WORD_BITS;
  unsigned i = from / WORD_BITS;
  WORD bits = WantedBits(i, want) & ALL_BITS << from % WORD_BITS;
  while (bits == 0) {
    if (i == lastWord) return limit;
    bits = WantedBits(++i, want);
  }
  const unsigned n = i * WORD_BITS + CountTrailingZeros(bits);
  return n < limit ? n : limit;
}

/// @return the highest wanted bit of 0 .. from, or NOT_FOUND; from < Size()
unsigned CBitmap::PreviousBit(unsigned from, WORD want) const {
  unsigned i = from / WORD_BITS;
  WORD bits = WantedBits(i, want) & ALL_BITS >> (WORD_BITS - 1 - from % WORD_BITS);
  while (bits == 0) {
    if (i == 0) return NOT_FOUND;
    bits = WantedBits(--i, want);
  }
  return i * WORD_BITS + (WORD_BITS - 1 - CountLeadingZeros(bits));
}

// ---------------------------------------------------------------------------------------------------- first fit

unsigned CBitmap::Find_0_Bits(unsigned count, unsigned hint) {
  PadEnd_1_Bits();
  return FindBits(count, hint, WANT_0_BITS);
}

unsigned CBitmap::Find_1_Bits(unsigned count, unsigned hint) {
  PadEnd_0_Bits();
  return FindBits(count, hint, WANT_1_BITS);
}

unsigned CBitmap::Find_0_Bits_Set(unsigned count, unsigned hint) {
  const unsigned start = Find_0_Bits(count, hint);
  if (start != NOT_FOUND) SetBits(start, count);
  return start;
}

unsigned CBitmap::Find_1_Bits_Clear(unsigned count, unsigned hint) {
  const unsigned start = Find_1_Bits(count, hint);
  if (start != NOT_FOUND) ClearBits(start, count);
  return start;
}

unsigned CBitmap::FindBits(unsigned count, unsigned hint, WORD want) const {
  if (count == 0 || count > m_nBits) return NOT_FOUND;
  const unsigned lastStart = m_nBits - count;
  // No run fits from behind the last start on: such a hint leaves all to the second pass, as one beyond the map must.
  if (hint > lastStart) return FirstFit(count, 0, lastStart, want);
  const unsigned start = FirstFit(count, hint, lastStart, want);
  if (start != NOT_FOUND || hint == 0) return start;
  return FirstFit(count, 0, hint - 1, want);
}

/// The lowest start of `count` consecutive wanted bits from `from` on. Only bits that a run starting at or below
/// `lastStart` may need are looked at; 1 <= count, from <= lastStart <= Size() - count. The padding must be unwanted.
unsigned CBitmap::FirstFit(unsigned count, unsigned from, unsigned lastStart, WORD want) const {
  const unsigned firstWord = from / WORD_BITS;
  const unsigned lastWord = (lastStart + count - 1) / WORD_BITS;
  unsigned open = 0;  // length of the run of wanted bits that reaches up to the current word
  for (unsigned i = firstWord; i <= lastWord; ++i) {
    WORD bits = WantedBits(i, want);
    if (i == firstWord) bits &= ALL_BITS << from % WORD_BITS;
    if (bits == 0) {
      open = 0;
      continue;
    }
    const unsigned base = i * WORD_BITS;
    const unsigned low = bits == ALL_BITS ? WORD_BITS : CountTrailingZeros(~bits);
    if (open + low >= count) return base - open;
    if (low == WORD_BITS) {
      open += WORD_BITS;
      continue;
    }
    if (count < WORD_BITS) {
      const WORD starts = StartsOfRuns(bits, count);
      if (starts != 0) return base + CountTrailingZeros(starts);
    }
    open = CountLeadingZeros(~bits);
  }
  return NOT_FOUND;
}

// ---------------------------------------------------------------------------------------------------- run searches

bool CBitmap::FindNextForward_0_Bit(unsigned from, unsigned* start) const {
  if (from >= m_nBits) {
    *start = from;
    return false;
  }
  const unsigned first = NextBit(from, m_nBits, WANT_0_BITS);
  if (first == m_nBits) return false;
  *start = first;
  return true;
}

unsigned CBitmap::FindNextForward_0_Run(unsigned from, unsigned* start) const {
  return FindNextForward_0_Bit(from, start) ? NextBit(*start, m_nBits, WANT_1_BITS) - *start : 0;
}

unsigned CBitmap::FindLastBackward_0_Run(unsigned from, unsigned* start) const {
  if (from >= m_nBits) {
    *start = from;
    return 0;
  }
  const unsigned last = PreviousBit(from, WANT_0_BITS);
  if (last == NOT_FOUND) return 0;
  const unsigned before = PreviousBit(last, WANT_1_BITS);  // NOT_FOUND is the position before bit 0
  *start = before + 1;
  return last - before;
}

/// Calls emit(length, start) for every clear run, in the order told at Find_0_Runs, until it returns false.
template <typename EMIT>
void CBitmap::WalkClearRuns(EMIT emit) {
  PadEnd_1_Bits();
  unsigned start = 0;
  unsigned length = 0;  // of the run that reaches up to the current byte
  for (unsigned i = 0; i < m_nBytes; ++i) {
    unsigned byte = m_pBits[i];
    if (byte == 0) {
      length += 8;
      continue;
    }
    const unsigned low = s_Contigus_0_Bits_Low.Entry[byte];
    const unsigned high = s_Contigus_0_Bits_High.Entry[byte];
    length += low;
    if (length != 0 && !emit(length, start)) return;
    length = high;
    start = 8 * (i + 1) - high;
    // NOLINTNEXTLINE(clang-analyzer-core.UndefinedBinaryOperatorResult): the table counts to 8
    byte |= ((1u << low) - 1) | (0xFF00u >> high & 0xFF);
    while (byte != 0xFF) {
      const unsigned inner = s_Contigus_0_Bits_Longest.Entry[byte];
      const unsigned shift = GetLeftShiftOf_0_Bits(inner, static_cast<unsigned char>(byte));
      if (!emit(inner, 8 * i + shift)) return;
      // NOLINTNEXTLINE(clang-analyzer-core.UndefinedBinaryOperatorResult): a byte with clear bits has a longest run
      byte |= ((1u << inner) - 1) << shift;
    }
  }
  if (length != 0) emit(length, start);
}

unsigned CBitmap::FindLongest_0_Run(unsigned* start) {
  unsigned longest = 0;
  *start = 0;
  WalkClearRuns([&longest, start](unsigned length, unsigned runStart) {
    if (length > longest) {
      longest = length;
      *start = runStart;
    }
    return true;
  });
  return longest;
}

unsigned CBitmap::Find_0_Runs(CBmpRunArray* runs) {
  unsigned count = 0;
  runs->Clear();
  WalkClearRuns([&count, runs](unsigned length, unsigned start) {
    runs->Insert(count, length, start);
    return !runs->IsFull(count);
  });
  return count;
}

unsigned CBitmap::FindLongest_0_Runs(CBmpRunArray* runs) {
  unsigned count = 0;
  runs->Clear();
  WalkClearRuns([&count, runs](unsigned length, unsigned start) {
    runs->InsertSortDes(count, length, start);
    return true;
  });
  return count;
}

// ---------------------------------------------------------------------------------------------------- single values

unsigned CBitmap::FindMostSignificantBit(unsigned long long value) {
  return value == 0 ? NOT_FOUND : 63 - static_cast<unsigned>(__builtin_clzll(value));
}

unsigned CBitmap::FindLeastSignificantBit(unsigned long long value) {
  return value == 0 ? NOT_FOUND : static_cast<unsigned>(__builtin_ctzll(value));
}

unsigned CBitmap::GetLeftShiftOf_0_Bits(unsigned count, unsigned char byte) {
  return GetLeftShiftOf_1_Bits(count, static_cast<unsigned char>(~byte));
}

unsigned CBitmap::GetLeftShiftOf_1_Bits(unsigned count, unsigned char byte) {
  if (count == 0) return 0;
  if (count > 8) return NOT_FOUND;
  const std::size_t starts = StartsOfRuns(byte, count);
  return starts == 0 ? NOT_FOUND : CountTrailingZeros(starts);
}
