/// @file MediumLabel.cpp
/// The label, which stands in two or three places: an entry of the root directory, the boot sector, and on FAT32 its
/// backup.

#include <algorithm>

#include "BootSector.h"
#include "Error.h"
#include "Label.h"
#include "Medium.h"
#include "MediumState.h"
#include "SlotReader.h"

namespace fatlib {

namespace {

std::u16string Decode(std::string_view bytes) {
  std::u16string text;
  for (const char byte : bytes) text.push_back(FromCodePage437(static_cast<std::uint8_t>(byte)));
  text.erase(text.find_last_not_of(u' ') + 1);
  return text;
}

/// The label entries of a root, in slot order.
std::vector<RawEntry> LabelsOf(std::vector<RawEntry> entries) {
  const auto end =
      std::remove_if(entries.begin(), entries.end(), [](const RawEntry& entry) { return !entry.IsLabel(); });
  entries.erase(end, entries.end());
  return entries;
}

void StoreModified(const Stamp& modified, ShortEntry* entry) {
  if (modified.date == 0) return;
  entry->modifiedDate.Store(modified.date);
  entry->modifiedTime.Store(modified.time);
}

}  // namespace

std::error_code Medium::Label(std::u16string* label) {
  std::vector<RawEntry> entries;
  if (const std::error_code error = ReadDirectory(ROOT, &entries)) return error;
  std::string bytes = m_pState->geometry.bootLabel;
  if (const std::vector<RawEntry> labels = LabelsOf(std::move(entries)); !labels.empty()) {
    bytes.assign(labels[0].shortName.begin(), labels[0].shortName.end());
  }
  if (!bytes.empty() && bytes[0] == STORED_E5) bytes[0] = static_cast<char>(SlotReader::DELETED);
  *label = Decode(bytes);
  return {};
}

std::error_code Medium::SetLabel(std::u16string_view label, const Stamp& modified) {
  ShortName11 name;
  if (const std::error_code error = EncodeLabel(label, &name)) return error;
  const bool none = label.find_first_not_of(u' ') == std::u16string_view::npos;
  std::error_code error = none ? DeleteRootLabels(0) : SetRootLabel(name, modified);
  if (!error) error = SetBootLabel(0, name);
  const std::uint32_t backup = m_pState->geometry.backupBootSector;
  if (!error && backup != 0 && backup < m_pState->geometry.reservedSectors) error = SetBootLabel(backup, name);
  return error;
}

std::error_code Medium::SetRootLabel(const ShortName11& name, const Stamp& modified) {
  std::vector<RawEntry> entries;
  std::vector<bool> used;
  if (const std::error_code error = ReadDirectory(ROOT, &entries, nullptr, &used)) return error;
  const std::vector<RawEntry> labels = LabelsOf(std::move(entries));
  if (labels.empty()) return AddRootLabel(name, modified, used);
  std::uint64_t position = 0;
  if (const std::error_code error = SlotPosition(ROOT, labels[0].ShortSlot(), &position)) return error;
  ShortEntry stored;
  if (const std::error_code error = m_pState->pDevice->Read(position, &stored, sizeof stored)) return error;
  stored.name = name;
  StoreModified(modified, &stored);
  if (const std::error_code error = m_pState->pDevice->Write(position, &stored, sizeof stored)) return error;
  return DeleteRootLabels(1);
}

/// @param used  the slots of the root
std::error_code Medium::AddRootLabel(const ShortName11& name, const Stamp& modified, const std::vector<bool>& used) {
  const auto slot = static_cast<std::uint32_t>(std::find(used.begin(), used.end(), false) - used.begin());
  if (slot == used.size()) {
    if (const std::error_code error = GrowDirectory(ROOT, 1)) return error;
  }
  std::uint64_t position = 0;
  if (const std::error_code error = SlotPosition(ROOT, slot, &position)) return error;
  ShortEntry entry;
  if (const std::error_code error = m_pState->pDevice->Read(position, &entry, sizeof entry)) return error;
  std::uint64_t next = 0;
  if (entry.name[0] == SlotReader::NEVER_USED && !SlotPosition(ROOT, slot + 1, &next)) {
    // The end of the directory moves on by one slot, which may hold anything.
    const std::uint8_t mark = SlotReader::NEVER_USED;
    if (const std::error_code error = m_pState->pDevice->Write(next, &mark, sizeof mark)) return error;
  }
  entry = ShortEntry();
  entry.name = name;
  entry.attributes = LABEL;
  StoreModified(modified, &entry);
  return m_pState->pDevice->Write(position, &entry, sizeof entry);
}

/// @param kept  labels that stay, from the first one on
std::error_code Medium::DeleteRootLabels(std::size_t kept) {
  std::vector<RawEntry> entries;
  if (const std::error_code error = ReadDirectory(ROOT, &entries)) return error;
  const std::vector<RawEntry> labels = LabelsOf(std::move(entries));
  for (std::size_t i = kept; i < labels.size(); ++i) {
    std::uint64_t position = 0;
    if (const std::error_code error = SlotPosition(ROOT, labels[i].ShortSlot(), &position)) return error;
    const std::uint8_t mark = SlotReader::DELETED;
    if (const std::error_code error = m_pState->pDevice->Write(position, &mark, sizeof mark)) return error;
  }
  return {};
}

std::error_code Medium::SetBootLabel(std::uint32_t sector, const ShortName11& name) {
  const std::uint64_t position = std::uint64_t{sector} * m_pState->geometry.bytesPerSector;
  BootSector boot;
  if (const std::error_code error = m_pState->pDevice->Read(position, &boot, sizeof boot)) return error;
  Geometry geometry;
  // A backup that is none is left alone, and so is a boot sector that has no place for a label.
  if (ReadBootSector(boot, &geometry) || geometry.type != m_pState->geometry.type || !HasLabel(IdentityOf(boot))) {
    return {};
  }
  IdentityOf(boot).label = name;
  if (const std::error_code error = m_pState->pDevice->Write(position, &boot, sizeof boot)) return error;
  if (sector == 0 && !ReadBootSector(boot, &geometry)) m_pState->geometry.bootLabel = geometry.bootLabel;
  return {};
}

}  // namespace fatlib
