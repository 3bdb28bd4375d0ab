/// @file LongName.cpp

#include "LongName.h"

#include <algorithm>

#include "Path.h"

namespace fatlib {

namespace {

constexpr char16_t FILLING = 0xFFFF;

bool IsShortNameByte(std::uint8_t byte) {
  constexpr std::string_view FORBIDDEN = "\"*+,./:;<=>?[\\]|\x7F";
  return byte >= 0x20 && !(byte >= 'a' && byte <= 'z') &&
         FORBIDDEN.find(static_cast<char>(byte)) == std::string_view::npos;
}

}  // namespace

std::uint8_t ShortNameChecksum(const ShortName11& name) {
  std::uint32_t sum = 0;
  for (const std::uint8_t byte : name) sum = ((sum << 7 | sum >> 1) + byte) & 0xFF;
  return static_cast<std::uint8_t>(sum);
}

bool IsShortName(const ShortName11& name) {
  if (name == DOT_NAME || name == DOT_DOT_NAME) return true;
  if (name[0] == ' ') return false;
  const std::uint8_t first = name[0] == STORED_E5 ? 0xE5 : name[0];
  return IsShortNameByte(first) && std::all_of(name.begin() + 1, name.end(), IsShortNameByte);
}

std::uint32_t PiecesOf(std::u16string_view name) {
  return (static_cast<std::uint32_t>(name.size()) + LongEntry::UNITS - 1) / LongEntry::UNITS;
}

void StorePiece(std::u16string_view name, std::uint32_t piece, LongEntry* entry) {
  std::size_t at = std::size_t{piece - 1} * LongEntry::UNITS;
  const auto store = [&](auto& units) {
    for (Le16& unit : units) {
      unit.Store(at < name.size() ? name[at] : at == name.size() ? u'\0' : FILLING);
      ++at;
    }
  };
  store(entry->units1);
  store(entry->units2);
  store(entry->units3);
}

void LongNameRun::Store(const LongEntry& entry) {
  char16_t* out = m_Units + std::size_t{m_nRemaining} * LongEntry::UNITS;
  const auto copy = [&out](const auto& units) {
    for (const Le16& unit : units) *out++ = static_cast<char16_t>(unit.Load());
  };
  copy(entry.units1);
  copy(entry.units2);
  copy(entry.units3);
}

LongNameRun::Piece LongNameRun::Start(const LongEntry& entry) {
  if ((entry.ordinal & LongEntry::LAST) == 0) return Piece::NotStart;
  m_nPieces = entry.ordinal & LongEntry::ORDINAL;
  if (m_nPieces == 0 || m_nPieces > MAX_PIECES) return Piece::BadOrdinal;
  m_nRemaining = m_nPieces - 1;
  m_Checksum = entry.checksum;
  Store(entry);
  return m_nPieces == 1 && m_Units[0] == 0 ? Piece::Empty : Piece::Taken;
}

LongNameRun::Piece LongNameRun::Continue(const LongEntry& entry) {
  if ((entry.ordinal & LongEntry::ORDINAL) != m_nRemaining) return Piece::BadOrdinal;
  if (entry.checksum != m_Checksum) return Piece::BadChecksum;
  --m_nRemaining;
  Store(entry);
  return Piece::Taken;
}

std::u16string_view LongNameRun::Name() const {
  const std::u16string_view all(m_Units, std::size_t{m_nPieces} * LongEntry::UNITS);
  return all.substr(0, all.find(char16_t{0}));
}

bool LongNameRun::IsWellFormed() const {
  const std::u16string_view all(m_Units, std::size_t{m_nPieces} * LongEntry::UNITS);
  const std::u16string_view name = Name();
  if (name.empty() || name.size() > Path::MAX_NAME_UNITS) return false;
  if (name.size() <= std::size_t{m_nPieces - 1} * LongEntry::UNITS) return false;  // the last piece holds nothing of it
  const auto forbidden = [](char16_t unit) {
    return unit < 0x20 || std::u16string_view(u"\"*/:<>?\\|\x7F").find(unit) != std::u16string_view::npos;
  };
  if (std::any_of(name.begin(), name.end(), forbidden)) return false;
  return name.size() == all.size() || all.find_first_not_of(FILLING, name.size() + 1) == std::u16string_view::npos;
}

}  // namespace fatlib
