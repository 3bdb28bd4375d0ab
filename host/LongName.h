/// @file LongName.h
/// Long names in the making, and what names on a medium may be. Not part of the face for hosts.
///
/// A long name lies on the medium last piece first: a name of 30 units as ordinals 0x43, 2, 1 and then the short entry,
/// all with the same checksum, which must be that of the short entry's 11 name bytes.

#ifndef FATLIB_LONGNAME_H
#define FATLIB_LONGNAME_H

#include <cstdint>
#include <string_view>

#include "Layout.h"

namespace fatlib {

/// The checksum by which long-name entries are known to belong to a short entry.
std::uint8_t ShortNameChecksum(const ShortName11& name);

/// Whether these are bytes that a short name can have; "." and ".." are.
bool IsShortName(const ShortName11& name);

/// Entries that a long name takes besides the short one.
std::uint32_t PiecesOf(std::u16string_view name);
/// Puts the units of one piece of a name into its entry, and nothing else. @param piece  counted from 1
void StorePiece(std::u16string_view name, std::uint32_t piece, LongEntry* entry);

/// The entries of one long name, as the library puts them together.
class LongNameRun {
 public:
  enum class Piece { Taken, NotStart, BadOrdinal, BadChecksum, Empty };

  /// Begins a run. @return Taken, or why the entry cannot begin one
  Piece Start(const LongEntry& entry);
  /// @return Taken, or why the entry is not the next piece
  Piece Continue(const LongEntry& entry);

  bool IsComplete() const { return m_nRemaining == 0; }
  std::uint8_t Checksum() const { return m_Checksum; }
  /// Of a complete run: the units up to the first 0, at most 260. Valid until the next Start.
  std::u16string_view Name() const;
  /// Whether a complete run is one that a careful writer makes: at most 255 units, none that no name can have, 0 and
  /// FFFF behind the last.
  bool IsWellFormed() const;

 private:
  static constexpr std::uint32_t MAX_PIECES = 20;

  void Store(const LongEntry& entry);

  char16_t m_Units[MAX_PIECES * LongEntry::UNITS] = {};
  std::uint32_t m_nPieces = 0;
  std::uint32_t m_nRemaining = 0;  // the next one has this ordinal
  std::uint8_t m_Checksum = 0;
};

}  // namespace fatlib

#endif  // FATLIB_LONGNAME_H
