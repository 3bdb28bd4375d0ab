/// @file Mirror.cpp

#include "Mirror.h"

#include <algorithm>
#include <utility>

#include "OpenFiles.h"
#include "Path.h"
#include "Text.h"

namespace fatlib {

namespace {

/// Whether the library takes the entry for a file or directory and its name leads to it.
bool IsNamed(const RawEntry& raw) {
  if ((raw.attributes & LABEL) != 0 || CheckName(raw.name)) return false;
  if (raw.hasLongName) return true;
  ShortName own;
  const NameForm form = FormOf(raw.name, &own);
  return (form == NameForm::Short || form == NameForm::Cased) && own == raw.shortName;
}

}  // namespace

EntryNode::~EntryNode() {
  if (const std::shared_ptr<FileNode> file = open.lock()) file->entry = nullptr;
}

void Bury(std::unique_ptr<EntryNode> entry, Graveyard* graveyard) {
  if (const std::shared_ptr<FileNode> file = entry->open.lock()) file->entry = nullptr;
  entry->gone = true;
  graveyard->push_back(std::move(entry));
}

bool EntryNode::IsGone() const {
  const EntryNode* node = this;
  while (!node->gone && node->parent != nullptr) node = node->parent->self;
  return node->gone;
}

std::size_t EntryNode::Depth() const {
  std::size_t depth = 0;
  for (const EntryNode* node = this; node->parent != nullptr; node = node->parent->self) ++depth;
  return depth;
}

bool EntryNode::IsAtOrBelow(const EntryNode* other) const {
  const EntryNode* node = this;
  while (node != other && node->parent != nullptr) node = node->parent->self;
  return node == other;
}

bool EntryNode::IsReachable() const {
  for (const EntryNode* node = this; node->parent != nullptr; node = node->parent->self) {
    if (!node->named) return false;
  }
  return PathUnits() <= Path::MAX_PATH_UNITS;
}

std::size_t EntryNode::PathUnits() const {
  std::size_t units = 0;
  for (const EntryNode* node = this; node->parent != nullptr; node = node->parent->self) {
    units += node->raw.name.size() + 1;
  }
  return units == 0 ? 0 : units - 1;
}

std::u16string EntryNode::LibraryName() const {
  return standIn == standin::NONE ? raw.name : standin::Of(raw.name, standIn);
}

void DirectoryNode::Fill(std::vector<RawEntry> entries, const std::vector<bool>& used, Graveyard* gone) {
  std::multimap<std::uint32_t, std::unique_ptr<EntryNode>> before;
  std::unordered_map<std::u16string, EntryNode*> known;
  before.swap(m_Entries);
  known.swap(m_ByName);
  std::unordered_map<EntryNode*, std::unique_ptr<EntryNode>> kept;
  for (auto& [slot, entry] : before) kept.emplace(entry.get(), std::move(entry));
  m_ShortNames.clear();
  slots = SlotMap(used);
  changed = false;
  for (RawEntry& raw : entries) {
    if (raw.IsLabel() || raw.IsDot()) continue;
    std::unique_ptr<EntryNode> entry;
    auto found = known.find(UpCase(raw.name));
    const StandInBase base = standin::BaseOf(raw.name);
    if (base != standin::NONE && found == known.end()) {
      found = known.find(standin::Meant(raw.name, base));
      if (found != known.end() && found->second->standIn != base) found = known.end();
    }
    if (found != known.end() && found->second->IsDirectory() == raw.IsDirectory()) {
      entry = std::move(kept[found->second]);
      known.erase(found);
      if (entry->timesAhead) raw.times = entry->raw.times;
      if (entry->standIn != standin::NONE) TakeStandIn(entry.get(), &raw);
      changed = changed || entry->timesAhead || entry->standIn != standin::NONE;
    } else {
      entry = std::make_unique<EntryNode>(this);
    }
    entry->ahead = false;
    entry->raw = std::move(raw);
    EntryNode* const node = entry.get();
    m_Entries.emplace(node->raw.firstSlot, std::move(entry));
    Index(node);
  }
  for (auto& [node, entry] : kept) {
    if (entry != nullptr) Bury(std::move(entry), gone);
  }
  suspect = false;
}

// The name that was given stays the entry's; unless it is on the medium already.
void DirectoryNode::TakeStandIn(EntryNode* entry, RawEntry* raw) {
  if (raw->name != entry->LibraryName()) {
    entry->standIn = standin::NONE;
    return;
  }
  entry->standInShort = raw->shortName;
  raw->name = entry->raw.name;
  raw->shortName = entry->raw.shortName;
}

void DirectoryNode::FillNew(std::uint32_t slotCount) {
  slots = SlotMap();
  slots.Grow(slotCount);
  slots.Take(0, 2);  // "." and ".."
}

// Of entries that share a name the library finds one that has no long name, or else the first.
void DirectoryNode::Index(EntryNode* entry) {
  m_ShortNames.emplace(entry->raw.shortName, entry);
  if (entry->standIn != standin::NONE) m_ShortNames.emplace(entry->standInShort, entry);
  entry->named = IsNamed(entry->raw);
  if (!entry->named && CheckName(entry->raw.name)) {
    m_ByName.emplace(UpCase(entry->raw.name), entry);
    return;
  }
  EntryNode*& first = m_ByName[UpCase(entry->raw.name)];
  if (first == nullptr) {
    first = entry;
  } else if (entry->named && (!first->named || (first->raw.hasLongName && !entry->raw.hasLongName))) {
    first->named = false;
    first = entry;
  } else {
    entry->named = false;
  }
}

EntryNode* DirectoryNode::Find(const std::u16string& upper) const {
  const auto found = m_ByName.find(upper);
  return found == m_ByName.end() ? nullptr : found->second;
}

EntryNode* DirectoryNode::FindStandIn(std::u16string_view name) const {
  const StandInBase base = standin::BaseOf(name);
  if (base == standin::NONE) return nullptr;
  EntryNode* const meant = Find(standin::Meant(name, base));
  return meant != nullptr && meant->standIn == base ? meant : nullptr;
}

StandInBase DirectoryNode::UnusedStandIn(std::u16string_view name) const {
  for (StandInBase base = standin::FIRST; base <= standin::LAST; base += standin::STEP) {
    const std::u16string standIn = standin::Of(name, base);
    if (Find(standIn) == nullptr && FindStandIn(standIn) == nullptr) return base;
  }
  return standin::NONE;
}

bool DirectoryNode::HasOnlyShortName(const ShortName& name, const EntryNode* except) const {
  const auto [first, last] = m_ShortNames.equal_range(name);
  return std::any_of(first, last,
                     [except](const auto& item) { return item.second != except && !item.second->raw.hasLongName; });
}

EntryNode* DirectoryNode::FindByShortName(const ShortName& name, const EntryNode* except) const {
  const auto [first, last] = m_ShortNames.equal_range(name);
  const auto found = std::find_if(first, last, [except](const auto& item) { return item.second != except; });
  return found == last ? nullptr : found->second;
}

void DirectoryNode::DropStandIn(EntryNode* entry) {
  if (entry->standIn == standin::NONE) return;
  ForgetShortName(entry->standInShort, entry);
  entry->standIn = standin::NONE;
}

void DirectoryNode::ForgetShortName(const ShortName& name, const EntryNode* entry) {
  const auto [first, last] = m_ShortNames.equal_range(name);
  const auto own = std::find_if(first, last, [entry](const auto& item) { return item.second == entry; });
  if (own != last) m_ShortNames.erase(own);
}

EntryNode* DirectoryNode::Insert(std::unique_ptr<EntryNode> entry) {
  EntryNode* const node = entry.get();
  node->parent = this;
  slots.Take(node->raw.firstSlot, node->raw.slots);
  m_Entries.emplace(node->raw.firstSlot, std::move(entry));
  Index(node);
  return node;
}

std::unique_ptr<EntryNode> DirectoryNode::Extract(EntryNode* entry) {
  ForgetShortName(entry->raw.shortName, entry);
  if (entry->standIn != standin::NONE) ForgetShortName(entry->standInShort, entry);
  const auto name = m_ByName.find(UpCase(entry->raw.name));
  if (name != m_ByName.end() && name->second == entry) m_ByName.erase(name);
  slots.Release(entry->raw.firstSlot, entry->raw.slots);
  const auto [first, last] = m_Entries.equal_range(entry->raw.firstSlot);
  const auto place = std::find_if(first, last, [&](const auto& item) { return item.second.get() == entry; });
  std::unique_ptr<EntryNode> extracted = std::move(place->second);
  m_Entries.erase(place);
  return extracted;
}

}  // namespace fatlib
