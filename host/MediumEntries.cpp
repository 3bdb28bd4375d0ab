/// @file MediumEntries.cpp
/// Changing the names and times of many entries of a directory at once.

#include <algorithm>

#include "Error.h"
#include "LongName.h"
#include "Medium.h"
#include "MediumState.h"
#include "Narrow.h"
#include "SlotReader.h"

namespace fatlib {

namespace {

constexpr std::uint32_t SLOT_BYTES = Geometry::SLOT_BYTES;
constexpr std::uint64_t MAX_STRETCH_BYTES = 65536;
constexpr std::uint64_t MAX_GAP_BYTES = 4096;  // reading and writing so much more is cheaper than another transfer

/// One slot that is to be changed.
struct SlotPlace {
  std::uint64_t position;
  const EntryChange* change;
  std::uint32_t piece;  // of the long name, counted from 1 in the order of the name; 0: the short entry
};

ShortName11 AsStored(ShortName11 name) {
  if (name[0] == SlotReader::DELETED) name[0] = STORED_E5;
  return name;
}

/// @return false when the entry is not in its slot any more
bool ChangeShort(const EntryChange& change, unsigned char* bytes) {
  auto& stored = *reinterpret_cast<ShortEntry*>(bytes);
  if (stored.name != AsStored(change.stored)) return false;
  if (!change.name.empty()) {
    stored.name = AsStored(change.shortName);
    stored.caseFlags = 0;
  }
  if (const Times* const times = change.times) {
    stored.createdTenMilliseconds = times->created.tenMilliseconds;
    stored.createdTime.Store(times->created.time);
    stored.createdDate.Store(times->created.date);
    stored.accessedDate.Store(times->accessed.date);
    stored.modifiedTime.Store(times->modified.time);
    stored.modifiedDate.Store(times->modified.date);
  }
  return true;
}

bool ChangeLong(const EntryChange& change, std::uint32_t piece, unsigned char* bytes) {
  auto& stored = *reinterpret_cast<LongEntry*>(bytes);
  if (stored.ordinal == SlotReader::DELETED || stored.attributes != LongEntry::ATTRIBUTES ||
      (stored.ordinal & LongEntry::ORDINAL) != piece || stored.checksum != ShortNameChecksum(AsStored(change.stored))) {
    return false;
  }
  stored.checksum = ShortNameChecksum(AsStored(change.shortName));
  StorePiece(change.name, piece, &stored);
  return true;
}

bool Change(const SlotPlace& place, unsigned char* bytes) {
  return place.piece == 0 ? ChangeShort(*place.change, bytes) : ChangeLong(*place.change, place.piece, bytes);
}

/// The slots of one stretch of the device, changed together.
std::error_code ChangeStretch(Device* device, const SlotPlace* begin, const SlotPlace* end) {
  const std::uint64_t start = begin->position;
  std::vector<unsigned char> bytes(ToSize(end[-1].position + SLOT_BYTES - start));
  if (const std::error_code error = device->Read(start, bytes.data(), bytes.size())) return error;
  const std::vector<unsigned char> before = bytes;
  std::error_code missing;
  for (const SlotPlace* place = begin; place != end; ++place) {
    if (!Change(*place, bytes.data() + ToSize(place->position - start))) missing = Status::NotFound;
  }
  if (bytes == before) return missing;
  const std::error_code error = device->Write(start, bytes.data(), bytes.size());
  return error ? error : missing;
}

}  // namespace

std::error_code Medium::ChangeEntries(DirectoryPlace place, const std::vector<EntryChange>& changes) {
  std::vector<SlotPlace> places;
  places.reserve(changes.size() * 2);
  for (const EntryChange& change : changes) {
    // A name that needs other slots than there are cannot be put in place.
    if (!change.name.empty() && PiecesOf(change.name) + 1 != change.slots) return Status::InvalidParameter;
    for (std::uint32_t piece = change.name.empty() ? 0 : change.slots - 1;; --piece) {
      std::uint64_t position = 0;
      const std::uint32_t slot = change.firstSlot + change.slots - 1 - piece;
      if (const std::error_code error = SlotPosition(place, slot, &position)) return error;
      places.push_back({position, &change, piece});
      if (piece == 0) break;
    }
  }
  // From the end: where the slots of an entry lie apart, its short name is written before the long one.
  std::error_code first;
  for (std::size_t end = places.size(); end != 0;) {
    std::size_t begin = end - 1;
    const std::uint64_t last = places[begin].position;
    for (; begin != 0; --begin) {
      const std::uint64_t before = places[begin - 1].position;
      if (before >= places[begin].position || places[begin].position - before > MAX_GAP_BYTES) break;
      if (last - before > MAX_STRETCH_BYTES - SLOT_BYTES) break;
    }
    const std::error_code error = ChangeStretch(m_pState->pDevice, places.data() + begin, places.data() + end);
    if (error && (!first || first == Status::NotFound)) first = error;
    end = begin;
  }
  return first;
}

std::error_code Medium::SetTimes(DirectoryPlace place, const RawEntry& entry, const Times& times) {
  return ChangeEntries(place, {{entry.firstSlot, entry.slots, entry.shortName, entry.shortName, {}, &times}});
}

}  // namespace fatlib
