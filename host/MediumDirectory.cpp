/// @file MediumDirectory.cpp
/// Reading directories, with the library's eyes: which slots make an entry, and which are in use.

#include <algorithm>

#include "Error.h"
#include "Label.h"
#include "LongName.h"
#include "Medium.h"
#include "MediumState.h"
#include "Narrow.h"
#include "SlotReader.h"

namespace fatlib {

namespace {

constexpr std::uint32_t SLOT_BYTES = sizeof(ShortEntry);
constexpr std::uint32_t MOST_SLOTS = 1u << 27;  // of any directory, as damaged as it may be; the library's bound too
constexpr std::uint8_t CASE_LOWER_BASE = 0x08;
constexpr std::uint8_t CASE_LOWER_EXTENSION = 0x10;
constexpr std::size_t BASE_BYTES = 8;

/// A part of a short name without the spaces behind it.
void AppendPart(const std::array<unsigned char, 11>& name, std::size_t from, std::size_t end, bool lower,
                std::u16string* out) {
  const auto* begin = name.begin() + from;
  const auto* stop = std::find(begin, name.begin() + end, 0);
  while (stop != begin && stop[-1] == ' ') --stop;
  for (const auto* byte = begin; byte != stop; ++byte) {
    const bool letter = *byte >= 'A' && *byte <= 'Z';
    out->push_back(lower && letter ? static_cast<char16_t>(*byte + 0x20) : FromCodePage437(*byte));
  }
}

std::u16string ShortText(const std::array<unsigned char, 11>& name, std::uint8_t caseFlags) {
  std::u16string text;
  AppendPart(name, 0, BASE_BYTES, (caseFlags & CASE_LOWER_BASE) != 0, &text);
  const std::size_t base = text.size();
  text.push_back(u'.');
  AppendPart(name, BASE_BYTES, name.size(), (caseFlags & CASE_LOWER_EXTENSION) != 0, &text);
  if (text.size() == base + 1) text.pop_back();
  return text;
}

Stamp MakeStamp(const Le16& date, const Le16& time, std::uint8_t tenMilliseconds) {
  Stamp stamp;
  stamp.date = date.Load();
  stamp.time = time.Load();
  stamp.tenMilliseconds = tenMilliseconds;
  return stamp;
}

bool HasGoodAttributes(std::uint8_t attributes) {
  constexpr std::uint8_t MEANINGLESS = 0xC0;
  constexpr std::uint8_t LABEL_OF_A_DIRECTORY = LABEL | DIRECTORY;
  if ((attributes & MEANINGLESS) != 0 || (attributes & LABEL_OF_A_DIRECTORY) == LABEL_OF_A_DIRECTORY) return false;
  return (attributes & LongEntry::ATTRIBUTES) != LongEntry::ATTRIBUTES;
}

/// Puts entries together from slots: what belongs to what is decided as the library decides it.
class Parser {
 public:
  Parser(SlotReader* reader, std::vector<RawEntry>* entries, std::vector<SlotDefect>* defects, std::vector<bool>* slots)
      : m_pReader(reader), m_pEntries(entries), m_pDefects(defects), m_pSlots(slots) {}

  void Run();

 private:
  bool Next();
  void Defect(SlotDefect::Kind kind, std::uint32_t slot) {
    if (m_pDefects != nullptr) m_pDefects->push_back({kind, slot});
  }
  void CannotBegin(LongNameRun::Piece piece);
  bool TakeRun(bool* complete);
  void TakeShort(bool complete);
  bool TakeLongName(RawEntry* entry);
  void CheckShort(const RawEntry& entry);

  SlotReader* m_pReader;
  std::vector<RawEntry>* m_pEntries;
  std::vector<SlotDefect>* m_pDefects;
  std::vector<bool>* m_pSlots;
  LongNameRun m_Run;
  std::uint32_t m_nRunSlot = 0;  // of the run's first piece
};

bool Parser::Next() {
  if (!m_pReader->Next()) return false;
  if (m_pSlots != nullptr && m_pReader->Slot() < m_pSlots->size()) {
    (*m_pSlots)[m_pReader->Slot()] = !m_pReader->IsDeleted();
  }
  return true;
}

void Parser::Run() {
  bool more = Next();
  while (more) {
    bool complete = false;  // a whole run stands in front of this slot
    if (m_pReader->IsLong()) {
      const LongNameRun::Piece piece = m_Run.Start(m_pReader->AsLong());
      if (piece == LongNameRun::Piece::Taken) {
        if (!TakeRun(&complete)) return;
        // What broke the run, or follows it, may itself be the start of another one.
        if (m_pReader->IsLong()) continue;
      } else {
        CannotBegin(piece);
      }
    }
    if (m_pReader->IsShort()) {
      TakeShort(complete);
    } else if (complete) {
      Defect(SlotDefect::OrphanLongName, m_nRunSlot);  // the entry it belonged to is deleted
    }
    more = Next();
  }
}

void Parser::CannotBegin(LongNameRun::Piece piece) {
  Defect(piece == LongNameRun::Piece::NotStart     ? SlotDefect::OrphanLongName
         : piece == LongNameRun::Piece::BadOrdinal ? SlotDefect::BadLongNameOrder
                                                   : SlotDefect::BadLongNameUnits,
         m_pReader->Slot());
}

/// Steps over the pieces that follow the first, to the slot behind the last or the one that breaks the run.
/// @return false when the directory ends before
bool Parser::TakeRun(bool* complete) {
  m_nRunSlot = m_pReader->Slot();
  bool broken = false;
  while (!broken && !m_Run.IsComplete()) {
    if (!Next()) {
      Defect(SlotDefect::OrphanLongName, m_nRunSlot);
      return false;
    }
    if (m_pReader->IsDeleted()) {
      Defect(SlotDefect::BadLongNameOrder, m_pReader->Slot());  // which does not end a run
    } else if (m_pReader->IsShort()) {
      broken = true;
      Defect(SlotDefect::OrphanLongName, m_nRunSlot);
    } else {
      const LongNameRun::Piece piece = m_Run.Continue(m_pReader->AsLong());
      broken = piece != LongNameRun::Piece::Taken;
      if (broken) {
        Defect(SlotDefect::OrphanLongName, m_nRunSlot);
        Defect(
            piece == LongNameRun::Piece::BadChecksum ? SlotDefect::BadLongNameChecksum : SlotDefect::BadLongNameOrder,
            m_pReader->Slot());
      }
    }
  }
  if (broken) return true;
  if (!Next()) {
    Defect(SlotDefect::OrphanLongName, m_nRunSlot);
    return false;
  }
  *complete = !m_pReader->IsLong();
  if (!*complete) Defect(SlotDefect::OrphanLongName, m_nRunSlot);
  return true;
}

/// @param complete  a whole run stands in front of it
void Parser::TakeShort(bool complete) {
  const ShortEntry& stored = m_pReader->Entry();
  RawEntry entry;
  std::copy(stored.name.begin(), stored.name.end(), entry.shortName.begin());
  if (entry.shortName[0] == STORED_E5) entry.shortName[0] = SlotReader::DELETED;
  entry.caseFlags = stored.caseFlags;
  entry.attributes = stored.attributes;
  entry.size = stored.size.Load();
  entry.firstCluster = std::uint32_t{stored.clusterHigh.Load()} << 16 | stored.clusterLow.Load();
  entry.times.created = MakeStamp(stored.createdDate, stored.createdTime, stored.createdTenMilliseconds);
  entry.times.modified = MakeStamp(stored.modifiedDate, stored.modifiedTime, 0);
  entry.times.accessed.date = stored.accessedDate.Load();
  entry.firstSlot = m_pReader->Slot();
  if (!complete || !TakeLongName(&entry)) entry.name = ShortText(entry.shortName, entry.caseFlags);
  if (m_pDefects != nullptr) CheckShort(entry);
  m_pEntries->push_back(std::move(entry));
}

/// @return false when the run in front of the entry does not name it
bool Parser::TakeLongName(RawEntry* entry) {
  if (entry->IsLabel()) {
    Defect(SlotDefect::OrphanLongName, m_nRunSlot);
    return false;
  }
  if (ShortNameChecksum(m_pReader->Entry().name) != m_Run.Checksum()) {
    Defect(SlotDefect::BadLongNameChecksum, m_nRunSlot);
    return false;
  }
  entry->slots = m_pReader->Slot() - m_nRunSlot + 1;
  entry->firstSlot = m_nRunSlot;
  if (m_pDefects != nullptr && !m_Run.IsWellFormed()) Defect(SlotDefect::BadLongNameUnits, m_nRunSlot);
  entry->name = m_Run.Name();
  entry->hasLongName = !entry->name.empty();
  return entry->hasLongName;
}

void Parser::CheckShort(const RawEntry& entry) {
  const std::uint32_t slot = m_pReader->Slot();
  if (!entry.IsLabel() && !IsShortName(m_pReader->Entry().name)) Defect(SlotDefect::BadShortName, slot);
  if (!HasGoodAttributes(entry.attributes)) Defect(SlotDefect::BadAttributes, slot);
}

}  // namespace

std::u16string RawEntry::ShortNameText() const { return ShortText(shortName, 0); }

bool RawEntry::IsDot() const { return shortName == DOT_NAME || shortName == DOT_DOT_NAME; }

// ---------------------------------------------------------------------------------------------- where slots lie

std::uint32_t Medium::State::FixedRootSlots() const {
  // Whole sectors: the slots behind the boot sector's number of entries are used too.
  const std::uint64_t bytes = geometry.firstDataSector * geometry.bytesPerSector - geometry.RootPosition();
  return static_cast<std::uint32_t>(bytes / SLOT_BYTES);
}

const FollowedChain& Medium::State::FollowDirectory(Medium* medium, DirectoryPlace place) {
  if (place != ROOT) return Follow(medium, place, &directory);
  // What boot sectors say that have no root directory; the library takes both for an empty one.
  constexpr std::uint32_t NO_CLUSTER = 0xFFFFFFFF;
  const bool none = HasFixedRoot() || geometry.rootCluster == NO_CLUSTER;
  return Follow(medium, none ? 0 : geometry.rootCluster, &directory);
}

std::uint32_t Medium::State::SlotsOf(Medium* medium, DirectoryPlace place) {
  if (place == ROOT && HasFixedRoot()) return FixedRootSlots();
  const std::uint64_t bytes = std::uint64_t{FollowDirectory(medium, place).map.Clusters()} * geometry.bytesPerCluster;
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(bytes / SLOT_BYTES, MOST_SLOTS));
}

std::error_code Medium::SlotPosition(DirectoryPlace place, std::uint32_t slot, std::uint64_t* position) {
  if (slot >= m_pState->SlotsOf(this, place)) return Status::InvalidParameter;
  const Geometry& geometry = m_pState->geometry;
  const std::uint64_t offset = std::uint64_t{slot} * SLOT_BYTES;
  if (place == ROOT && m_pState->HasFixedRoot()) {
    *position = geometry.RootPosition() + offset;
    return {};
  }
  const FollowedChain& chain = m_pState->FollowDirectory(this, place);
  const std::uint32_t cluster = chain.map.From(static_cast<std::uint32_t>(offset / geometry.bytesPerCluster)).first;
  *position = geometry.ClusterPosition(cluster) + offset % geometry.bytesPerCluster;
  return {};
}

std::error_code Medium::ReadDirectory(DirectoryPlace place, std::vector<RawEntry>* entries,
                                      std::vector<SlotDefect>* defects, std::vector<bool>* slots) {
  entries->clear();
  if (defects != nullptr) defects->clear();
  const Geometry& geometry = m_pState->geometry;
  std::uint64_t left = std::uint64_t{m_pState->SlotsOf(this, place)} * SLOT_BYTES;
  if (slots != nullptr) slots->assign(ToSize(left / SLOT_BYTES), false);
  std::vector<ByteRun> runs;
  std::error_code chainError;
  if (place == ROOT && m_pState->HasFixedRoot()) {
    runs.push_back({geometry.RootPosition(), left});
  } else {
    const FollowedChain& chain = m_pState->FollowDirectory(this, place);
    chainError = chain.error;
    for (const Extent& extent : chain.map.Extents()) {
      const std::uint64_t bytes = std::min(left, std::uint64_t{extent.count} * geometry.bytesPerCluster);
      if (bytes == 0) break;
      runs.push_back({geometry.ClusterPosition(extent.first), bytes});
      left -= bytes;
    }
  }
  SlotReader reader(m_pState->pDevice, std::move(runs));
  Parser(&reader, entries, defects, slots).Run();
  return reader.Error() ? reader.Error() : chainError;
}

}  // namespace fatlib
