/// @file Twin.cpp

#include "model/Twin.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace {

constexpr unsigned int SLOT_BYTES = 32;
constexpr unsigned int MAX_DIRECTORY_SLOTS = 0x10000;
constexpr unsigned int ATTRIBUTE_LABEL = 0x08;
constexpr unsigned int ATTRIBUTE_DIRECTORY = 0x10;

SHORT11 DotName(unsigned int dots) {
  SHORT11 name;
  name.fill(' ');
  for (unsigned int i = 0; i < dots; ++i) name[i] = '.';
  return name;
}

bool IsEmptyDir(const TWIN_NODE& node) {
  return std::all_of(node.Slots.begin(), node.Slots.end(),
                     [](const RECORD_PTR& record) { return record == nullptr || record->Node == nullptr; });
}

// The count that a transfer reports, and the blocks that it leaves in memory. Cached blocks are copied on the way; the
// stretches between them are done afterwards, and each then counts as much as the last stretch held when the walk
// ended, which is nothing when that began inside a block.
unsigned int CountTransfer(std::set<unsigned int>& blocks, unsigned int position, unsigned int length) {
  constexpr unsigned int BLOCK = CTwinVolume::BLOCK_BYTES;
  const auto cached = [&blocks](unsigned int block) { return blocks.count(block) != 0; };
  unsigned int block = position / BLOCK;
  unsigned int done = 0;
  unsigned int open = 0;
  unsigned int stretches = 0;
  std::vector<unsigned int> loaded;
  if (position % BLOCK != 0) {
    unsigned int n = std::min(BLOCK - position % BLOCK, length);
    length -= n;
    if (cached(block)) {
      done = n;
      ++block;
    } else {
      ++stretches;
      loaded.push_back(block++);
      while (length > 0 && !cached(block)) {
        n = std::min(BLOCK, length);
        length -= n;
        loaded.push_back(block++);
      }
    }
  }
  for (; length > 0; ++block) {
    const unsigned int n = std::min(BLOCK, length);
    length -= n;
    if (cached(block)) {
      if (open != 0) ++stretches;
      open = 0;
      done += n;
    } else {
      loaded.push_back(block);
      open += n;
    }
  }
  if (open != 0) ++stretches;
  blocks.insert(loaded.begin(), loaded.end());
  return done + stretches * open;
}

}  // namespace

RECORD_PTR TWIN_NODE::Entry() const {
  RECORD_PTR record = Record.lock();
  if (record == nullptr) throw std::logic_error("a node without a record");
  return record;
}

void TWIN_NODE::Resize(std::size_t size) {
  for (std::size_t i = size; i < Bytes.size(); ++i) {
    if (!Known[i]) --Unknown;
  }
  if (size > Bytes.size()) Unknown += size - Bytes.size();
  Bytes.resize(size);
  Known.resize(size, false);
}

void TWIN_NODE::SetBytes(std::size_t offset, const unsigned char* bytes, std::size_t count) {
  if (count == 0) return;
  std::memcpy(Bytes.data() + offset, bytes, count);
  if (Unknown == 0) return;
  for (std::size_t i = offset; i < offset + count; ++i) {
    if (!Known[i]) --Unknown;
    Known[i] = true;
  }
}

// ---------------------------------------------------------------------------------------------- objects and paths

CTwinVolume::CTwinVolume(const TWIN_GEOMETRY& geometry, CNameCounter& counter, const std::time_t& now,
                         const CANARY& canary)
    : m_Geometry(geometry),
      m_pCounter(&counter),
      m_pNow(&now),
      m_pCanary(&canary),
      m_Root(std::make_shared<TWIN_NODE>()),
      m_nFree(geometry.FreeClusters) {
  m_Root->Dir = true;
  m_Root->Slots.resize(geometry.RootSlots);
  if (geometry.Label) {
    m_Root->Slots[0] = std::make_shared<TWIN_RECORD>();
    m_Root->Slots[0]->Label = true;
  }
}

// A hit is then the object used last.
OBJECT_PTR CTwinVolume::Find(const NAME& key) {
  const auto found =
      std::find_if(m_Cache.begin(), m_Cache.end(), [&key](const OBJECT_PTR& object) { return object->Key == key; });
  if (found == m_Cache.end()) return nullptr;
  m_Cache.splice(m_Cache.end(), m_Cache, found);
  return m_Cache.back();
}

OBJECT_PTR CTwinVolume::Build(const NODE_PTR& node, bool load) {
  if (node->Object != nullptr) throw AVOID{"a second object of one entry"};
  auto object = std::make_shared<TWIN_OBJECT>(node);
  const RECORD_PTR record = node->Entry();
  object->Long = record->Long;
  if (!load) return object;
  object->Entries = true;
  object->HarmlessEntries = node->Unknown == 0;
  LoadBlocks(*object);
  // The entries are read anew. Searches that stand on the old ones keep those.
  std::vector<RECORD_PTR>& slots = node->Slots;
  for (std::size_t i = 0; i < slots.size(); ++i) {
    if (slots[i] == nullptr || slots[i]->FirstSlot() != i) continue;
    const auto copy = std::make_shared<TWIN_RECORD>(*slots[i]);
    if (copy->Node != nullptr) copy->Node->Record = copy;
    Put(*node, copy, static_cast<unsigned int>(i));
  }
  return object;
}

// Opening by path reads a file as a directory would be: block by block up to the one with a zero at a multiple of 32.
void CTwinVolume::LoadBlocks(TWIN_OBJECT& object) const {
  const TWIN_NODE& node = *object.Node;
  if (node.Dir) {
    object.Blocks.insert(0);
    object.BlocksKnown = Limit(object) <= BLOCK_BYTES;
    return;
  }
  bool sure = true;
  for (std::size_t i = 0; i < node.Bytes.size(); i += SLOT_BYTES) {
    if (!sure && i % BLOCK_BYTES == 0) {
      object.BlocksKnown = false;
      return;
    }
    object.Blocks.insert(static_cast<unsigned int>(i / BLOCK_BYTES));
    if (!node.Known[i]) {
      sure = false;
    } else if (node.Bytes[i] == 0) {
      return;
    }
  }
}

void CTwinVolume::AddToCache(const OBJECT_PTR& object, const NAME& key) {
  object->Key = key;
  object->Cached = true;
  m_Cache.push_back(object);
  if (m_Cache.size() <= MAX_CACHED) return;
  m_LastPushedOut = m_Cache.front()->Node;
  DropFromCache(m_Cache.front());
}

void CTwinVolume::DropFromCache(const OBJECT_PTR& object) {
  object->Cached = false;
  m_Cache.remove(OBJECT_PTR(object));
}

void CTwinVolume::Unhold(TWIN_OBJECT& object) const {
  object.Offset = 0;
  --object.Holders;
}

void CTwinVolume::CloseInternally(const PLACE& place) {
  if (place.Object != nullptr) place.Object->Offset = 0;
}

RECORD_PTR CTwinVolume::Lookup(const PLACE& place, const NAME& name) {
  if (!place.Dir->Dir) {
    if (place.Object->Entries && !place.Object->HarmlessEntries) throw AVOID{"unknown bytes read as entries"};
    return nullptr;
  }
  const NAME_FORM form = FormOf(name);
  const NAME upper = Upper(name);
  for (const RECORD_PTR& record : place.Dir->Slots) {
    if (record == nullptr || record->Node == nullptr) continue;
    if (record->Long.empty() ? !form.HasLong && record->Short == form.Short : record->Key == upper) return record;
  }
  return nullptr;
}

// The deepest directory of the path that is in memory under it.
CTwinVolume::PLACE CTwinVolume::StartWalk(const NAME& path, std::size_t& rest) {
  for (std::size_t end = path.rfind(u'\\'); end != NAME::npos && end != 0; end = path.rfind(u'\\', end - 1)) {
    const OBJECT_PTR object = Find(Upper(path.substr(0, end)));
    if (object == nullptr) continue;
    rest = end + 1;
    return {object->Node, object};
  }
  rest = 0;
  return RootPlace();
}

CTwinVolume::PLACE CTwinVolume::Enter(const RECORD_PTR& record, const NAME& key) {
  const OBJECT_PTR object = Build(record->Node, true);
  AddToCache(object, key);
  return {object->Node, object};
}

std::optional<CTwinVolume::ENTRY> CTwinVolume::Walk(const NAME& path) {
  std::size_t rest;
  PLACE place = StartWalk(path, rest);
  for (;;) {
    const std::size_t end = path.find(u'\\', rest);
    const RECORD_PTR record = Lookup(place, path.substr(rest, end - rest));
    if (record == nullptr) return std::nullopt;
    if (end == NAME::npos) return ENTRY{place, record};
    place = Enter(record, Upper(path.substr(0, end)));
    rest = end + 1;
  }
}

OBJECT_PTR CTwinVolume::Open(const NAME& path) {
  const NAME key = Upper(path);
  OBJECT_PTR object = Find(key);
  if (object != nullptr) return object;
  const std::optional<ENTRY> entry = Walk(path);
  if (!entry) return nullptr;
  object = Build(entry->Record->Node, true);
  AddToCache(object, key);
  return object;
}

// The entry of an object, found by the path it was reached by. Whoever asks closes the parent afterwards.
std::optional<CTwinVolume::ENTRY> CTwinVolume::OpenEntry(const OBJECT_PTR& object) {
  PLACE parent = RootPlace();
  const std::size_t end = object->Key.rfind(u'\\');
  if (end != NAME::npos) {
    parent.Object = Open(object->Key.substr(0, end));
    if (parent.Object == nullptr) return std::nullopt;
    parent.Dir = parent.Object->Node;
  }
  const RECORD_PTR record = Lookup(parent, LastComponent(object->Key));
  if (record == nullptr) {
    CloseInternally(parent);
    return std::nullopt;
  }
  if (record->Node != object->Node) throw AVOID{"another entry under the path of an object"};
  return ENTRY{parent, record};
}

// For a change of the entry's size, attributes or first cluster.
void CTwinVolume::TouchEntry(TWIN_OBJECT& object) {
  const OBJECT_PTR unowned(OBJECT_PTR(), &object);
  const std::optional<ENTRY> entry = OpenEntry(unowned);
  if (!entry) throw AVOID{"no entry under the path of an object"};
  CloseInternally(entry->Parent);
}

NAME CTwinVolume::NameOf(const TWIN_NODE& node) {
  const RECORD_PTR record = node.Entry();
  return record->Long.empty() ? Dotted(record->Short) : record->Long;
}

NAME CTwinVolume::PathOf(const TWIN_NODE& node) {
  NAME path = NameOf(node);
  for (const TWIN_NODE* at = node.Parent; at != nullptr && !at->IsRoot(); at = at->Parent)
    path = NameOf(*at) + u"\\" + path;
  return path;
}

// ---------------------------------------------------------------------------------------------- slots and clusters

unsigned int CTwinVolume::Clusters(unsigned long long bytes) const {
  return static_cast<unsigned int>((bytes + m_Geometry.ClusterBytes - 1) / m_Geometry.ClusterBytes);
}

unsigned int CTwinVolume::ClustersOf(const TWIN_NODE& node) const {
  return Clusters(node.Dir ? node.Slots.size() * SLOT_BYTES : node.Bytes.size());
}

long long CTwinVolume::Limit(const TWIN_OBJECT& object) const {
  const TWIN_NODE& node = *object.Node;
  return static_cast<long long>(node.Dir ? node.Slots.size() * SLOT_BYTES : node.Bytes.size());
}

void CTwinVolume::Put(TWIN_NODE& dir, const RECORD_PTR& record, unsigned int first) {
  record->ShortSlot = first + record->Slots() - 1;
  for (unsigned int i = first; i <= record->ShortSlot; ++i) dir.Slots[i] = record;
}

void CTwinVolume::Clear(TWIN_NODE& dir, const RECORD_PTR& record) {
  for (unsigned int i = record->FirstSlot(); i <= record->ShortSlot; ++i) dir.Slots[i] = nullptr;
}

// Finds room for a set: the first free run that is long enough, after growing the directory when there are too few free
// slots in all, and after sliding sets together when no run is long enough.
// @param reserved  free clusters that growing must leave
std::optional<unsigned int> CTwinVolume::TakeSlots(const PLACE& place, unsigned int count, unsigned int reserved) {
  TWIN_NODE& dir = *place.Dir;
  const auto used = [&dir](std::size_t slot) { return dir.Slots[slot] != nullptr; };
  const unsigned int nFree = static_cast<unsigned int>(std::count(dir.Slots.begin(), dir.Slots.end(), nullptr));
  if (count > nFree) {
    if (dir.IsRoot() && !m_Geometry.Fat32) return std::nullopt;
    const std::size_t slots = dir.Slots.size() + count - nFree;
    if (slots > MAX_DIRECTORY_SLOTS) return std::nullopt;
    const unsigned int clusters = Clusters(slots * SLOT_BYTES);
    const unsigned int more = clusters - ClustersOf(dir);
    if (more + reserved > m_nFree) return std::nullopt;
    if (!dir.IsRoot()) TouchEntry(*place.Object);
    ++m_nChanges;
    m_nFree -= more;
    dir.Slots.resize(static_cast<std::size_t>(clusters) * m_Geometry.ClusterBytes / SLOT_BYTES);
  }
  for (std::size_t first = 0; first + count <= dir.Slots.size(); ++first) {
    std::size_t n = 0;
    while (n < count && !used(first + n)) ++n;
    if (n == count) return static_cast<unsigned int>(first);
    first += n;  // a used slot
  }
  return Compact(dir, count);
}

std::optional<unsigned int> CTwinVolume::Compact(TWIN_NODE& dir, unsigned int count) {
  const auto nextFree = [&dir](std::size_t at) {
    while (at < dir.Slots.size() && dir.Slots[at] != nullptr) ++at;
    return at;
  };
  const auto nextUsed = [&dir](std::size_t at) {
    while (at < dir.Slots.size() && dir.Slots[at] == nullptr) ++at;
    return at;
  };
  ++m_nChanges;
  std::size_t gap = nextFree(0);
  std::size_t end = nextUsed(gap);
  while (end - gap < count) {
    // The used run behind the gap slides to its start.
    const std::size_t usedEnd = nextFree(end);
    unsigned int sets = 0;
    for (std::size_t slot = end; slot < usedEnd; ++sets) {
      const RECORD_PTR record = dir.Slots[slot];
      const std::size_t length = record->Slots();
      Clear(dir, record);
      Put(dir, record, static_cast<unsigned int>(gap));
      gap += length;
      slot += length;
    }
    if (sets > 1) m_bNeedsRemount = true;
    end = nextUsed(gap);
  }
  return static_cast<unsigned int>(gap);
}

// ---------------------------------------------------------------------------------------------- creating

// @return null when there is no room; the running number has advanced all the same
RECORD_PTR CTwinVolume::AddRecord(const PLACE& place, const NAME& name, const NODE_PTR& node, unsigned int reserved) {
  const auto any = [&place](const auto& test) {
    return std::any_of(place.Dir->Slots.begin(), place.Dir->Slots.end(),
                       [&test](const RECORD_PTR& record) { return record != nullptr && test(*record); });
  };
  const NAME_FORM form = FormOf(name);
  CNameCounter counter = *m_pCounter;
  auto record = std::make_shared<TWIN_RECORD>();
  record->Node = node;
  if (form.HasLong) record->Long = name;
  record->Key = Upper(record->Long);
  record->Short = form.HasShort ? form.Short : counter.Invent(name, [&any](const SHORT11& invented) {
    // Only the names of entries without a long name are asked.
    return any([&invented](const TWIN_RECORD& other) { return other.Long.empty() && other.Short == invented; });
  });
  if (any([&record](const TWIN_RECORD& other) { return !other.Label && other.Short == record->Short; })) {
    throw AVOID{"two entries with one short name"};
  }
  const std::optional<unsigned int> first = TakeSlots(place, record->Slots(), reserved);
  ++m_nChanges;
  *m_pCounter = counter;
  if (!first) return nullptr;
  Put(*place.Dir, record, *first);
  node->Parent = place.Dir.get();
  node->Record = record;
  node->Stamp = *m_pNow;
  return record;
}

// @return false for a file: one that was just created takes no entries
bool CTwinVolume::MayHoldEntries(const PLACE& place, const NAME& name) {
  if (place.Dir->Dir) return true;
  if (place.Object->Entries) throw AVOID{"entries written into a file"};
  if (!FormOf(name).HasShort) throw AVOID{"a number for a name that is not made"};
  return false;
}

OBJECT_PTR CTwinVolume::MakeDir(const PLACE& place, const NAME& name, unsigned int attributes) {
  if (!MayHoldEntries(place, name)) return nullptr;
  if (m_nFree == 0) return nullptr;
  const auto node = std::make_shared<TWIN_NODE>();
  node->Dir = true;
  node->Attributes = attributes | ATTRIBUTE_DIRECTORY;
  node->Slots.resize(m_Geometry.ClusterBytes / SLOT_BYTES);
  for (unsigned int i = 0; i < 2; ++i) {
    node->Slots[i] = std::make_shared<TWIN_RECORD>();
    node->Slots[i]->Short = DotName(i + 1);
    node->Slots[i]->ShortSlot = i;
  }
  if (AddRecord(place, name, node, 1) == nullptr) return nullptr;
  --m_nFree;
  m_Nodes.push_back(node);
  OBJECT_PTR object = Build(node, false);
  object->Entries = true;
  LoadBlocks(*object);
  return object;
}

OBJECT_PTR CTwinVolume::MakeFile(const PLACE& place, const NAME& name, unsigned int size, unsigned int attributes) {
  if (!MayHoldEntries(place, name)) return nullptr;
  const auto node = std::make_shared<TWIN_NODE>();
  node->Attributes = attributes & 0xFFu & ~ATTRIBUTE_DIRECTORY;
  const RECORD_PTR record = AddRecord(place, name, node, 0);
  if (record == nullptr) return nullptr;
  if (size > 0u - m_Geometry.ClusterBytes || Clusters(size) > m_nFree) {
    // The library goes on to know the name until the unmount.
    Clear(*place.Dir, record);
    m_bNeedsRemount = true;
    return nullptr;
  }
  m_nFree -= Clusters(size);
  node->Resize(size);
  m_Nodes.push_back(node);
  return Build(node, false);
}

OBJECT_PTR CTwinVolume::Create(const NAME& path, bool directory, unsigned int size, unsigned int attributes) {
  if ((attributes & ATTRIBUTE_LABEL) != 0) throw AVOID{"an entry that reads as a label"};
  const NAME key = Upper(path);
  if (Find(key) != nullptr) return nullptr;
  std::size_t rest;
  PLACE place = StartWalk(path, rest);
  bool creating = false;
  for (std::size_t end; (end = path.find(u'\\', rest)) != NAME::npos; rest = end + 1) {
    const NAME component = path.substr(rest, end - rest);
    const NAME prefix = Upper(path.substr(0, end));
    const RECORD_PTR record = creating ? nullptr : Lookup(place, component);
    if (record != nullptr) {
      place = Enter(record, prefix);
      continue;
    }
    creating = true;
    const OBJECT_PTR made = MakeDir(place, component, 0);
    if (made == nullptr) return nullptr;
    AddToCache(made, prefix);
    place = {made->Node, made};
  }
  const NAME name = path.substr(rest);
  if (Lookup(place, name) != nullptr) return nullptr;
  const OBJECT_PTR made =
      directory ? MakeDir(place, name, attributes & 0xFFu) : MakeFile(place, name, size, attributes);
  if (made != nullptr) AddToCache(made, key);
  return made;
}

// ---------------------------------------------------------------------------------------------- changing

void CTwinVolume::Erase(const ENTRY& entry) {
  ++m_nChanges;
  const NODE_PTR node = entry.Record->Node;
  Clear(*entry.Parent.Dir, entry.Record);
  if (*m_pCanary != CANARY::DeleteKeepsClusters) m_nFree += ClustersOf(*node);
  node->Parent = nullptr;
  m_Nodes.erase(std::find(m_Nodes.begin(), m_Nodes.end(), node));
}

bool CTwinVolume::Delete(const NAME& path) {
  const OBJECT_PTR object = Find(Upper(path));
  if (object != nullptr) {
    if (object->Holders != 0 || (object->Node->Dir && !IsEmptyDir(*object->Node))) return false;
    const std::optional<ENTRY> entry = OpenEntry(object);
    if (!entry) return false;
    Erase(*entry);
    CloseInternally(entry->Parent);
    DropFromCache(object);
    return true;
  }
  const std::optional<ENTRY> entry = Walk(path);
  if (!entry) return false;
  const NODE_PTR node = entry->Record->Node;
  (void)Build(node, true);
  if (node->Dir && !IsEmptyDir(*node)) return false;
  // Building read the entries of a directory, not of its parent: the record found before still stands.
  Erase(*entry);
  return true;
}

bool CTwinVolume::RenameEntry(const ENTRY& entry, const NAME& newName) {
  TWIN_NODE& dir = *entry.Parent.Dir;
  const NODE_PTR node = entry.Record->Node;
  const std::vector<RECORD_PTR> before = dir.Slots;
  const std::time_t stamp = node->Stamp;
  // The old set goes first: the new one may take its slots.
  Clear(dir, entry.Record);
  try {
    if (AddRecord(entry.Parent, newName, node, 0) != nullptr) {
      if (*m_pCanary == CANARY::RenameKeepsStamp) node->Stamp = stamp;
      return true;
    }
  } catch (const AVOID&) {
    dir.Slots = before;
    throw;
  }
  dir.Slots = before;
  return false;
}

bool CTwinVolume::Rename(const NAME& path, const NAME& newName) {
  const OBJECT_PTR object = Find(Upper(path));
  const std::optional<ENTRY> entry = object != nullptr ? OpenEntry(object) : Walk(path);
  if (!entry) return false;
  const bool exists = Lookup(entry->Parent, newName) != nullptr;
  if (object == nullptr) {
    if (exists) return false;
    (void)Build(entry->Record->Node, false);
    return RenameEntry(*entry, newName);
  }
  const bool renamed = !exists && RenameEntry(*entry, newName);
  CloseInternally(entry->Parent);
  if (renamed) (void)Find(object->Key);
  return renamed;
}

bool CTwinVolume::MoveEntry(const ENTRY& entry, const PLACE& target) {
  const NODE_PTR node = entry.Record->Node;
  for (const TWIN_NODE* at = target.Dir.get(); at != nullptr; at = at->Parent) {
    if (at == node.get()) throw AVOID{"a directory moved into itself"};
  }
  const SHORT11& name = entry.Record->Short;
  if (std::any_of(target.Dir->Slots.begin(), target.Dir->Slots.end(), [&name](const RECORD_PTR& other) {
        return other != nullptr && !other->Label && other->Short == name;
      })) {
    throw AVOID{"two entries with one short name"};
  }
  const std::optional<unsigned int> first = TakeSlots(target, entry.Record->Slots(), 0);
  if (!first) return false;
  ++m_nChanges;
  Clear(*entry.Parent.Dir, entry.Record);
  Put(*target.Dir, entry.Record, *first);
  node->Parent = target.Dir.get();
  node->OddDotDot = node->Dir && target.Dir->IsRoot();
  return true;
}

bool CTwinVolume::Move(const NAME& path, const NAME* directory) {
  PLACE target = RootPlace();
  if (directory != nullptr) {
    target.Object = Find(Upper(*directory));
    if (target.Object != nullptr) {
      if (!target.Object->Node->Dir || target.Object->Holders != 0) return false;
    } else {
      target.Object = Open(*directory);
      if (target.Object == nullptr || !target.Object->Node->Dir) return false;
    }
    target.Dir = target.Object->Node;
  }
  if (Lookup(target, LastComponent(path)) != nullptr) return false;
  const OBJECT_PTR object = Find(Upper(path));
  if (object != nullptr) {
    if (object->Holders != 0) return false;
    const std::optional<ENTRY> entry = OpenEntry(object);
    if (!entry) return false;
    const bool moved = MoveEntry(*entry, target);
    CloseInternally(entry->Parent);
    return moved;
  }
  const std::optional<ENTRY> entry = Walk(path);
  if (!entry) return false;
  if (entry->Record->Node->Object != nullptr) throw AVOID{"a second object of one entry"};
  return MoveEntry(*entry, target);
}

bool CTwinVolume::SetSize(TWIN_OBJECT& object, unsigned int size) {
  TWIN_NODE& node = *object.Node;
  if (size > 0u - m_Geometry.ClusterBytes) return false;
  const unsigned int before = ClustersOf(node);
  const unsigned int after = Clusters(size);
  if (after == before && (node.Dir || size == node.Size())) return true;
  if (after > before && after - before > m_nFree) return false;
  const unsigned long long slots = static_cast<unsigned long long>(after) * m_Geometry.ClusterBytes / SLOT_BYTES;
  if (node.Dir && after < before) throw AVOID{"a directory made smaller"};
  if (node.Dir && slots > MAX_DIRECTORY_SLOTS) throw AVOID{"a directory of more slots than one may have"};
  TouchEntry(object);
  ++m_nChanges;
  m_nFree = m_nFree + before - after;
  if (node.Dir) {
    node.Slots.resize(static_cast<std::size_t>(slots));
    if (Limit(object) > BLOCK_BYTES) object.BlocksKnown = false;
  } else {
    node.Resize(size);
  }
  return true;
}

bool CTwinVolume::SetAttributes(TWIN_OBJECT& object, unsigned int attributes) {
  TWIN_NODE& node = *object.Node;
  if ((attributes & ATTRIBUTE_LABEL) != 0 || ((attributes & ATTRIBUTE_DIRECTORY) != 0) != node.Dir) {
    throw AVOID{"an entry that becomes something else"};
  }
  TouchEntry(object);
  ++m_nChanges;
  node.Attributes = attributes & 0xFFu;
  return true;
}

RECORD_PTR CTwinVolume::NextEntry(const TWIN_NODE& directory, const RECORD_PTR& current) {
  for (std::size_t slot = current == nullptr ? 0 : current->ShortSlot + 1; slot < directory.Slots.size(); ++slot) {
    const RECORD_PTR& record = directory.Slots[slot];
    if (record != nullptr && !record->Label && record->FirstSlot() == slot) return record;
  }
  return nullptr;
}

void CTwinVolume::Unmount() {
  m_Cache.clear();
  m_bNeedsRemount = false;
}

// ---------------------------------------------------------------------------------------------- handles

CTwinVolume& CTwin::AddVolume(const TWIN_GEOMETRY& geometry) {
  m_Volumes.push_back(std::make_unique<CTwinVolume>(geometry, m_Counter, m_Now, m_Canary));
  return *m_Volumes.back();
}

bool CTwin::InUse(const TABLE& table, int handle) {
  return handle >= 0 && handle < static_cast<int>(table.size()) && table[static_cast<std::size_t>(handle)].InUse;
}

int CTwin::FreeHandle(const TABLE& table) {
  for (std::size_t i = 0; i < table.size(); ++i) {
    if (!table[i].InUse) return static_cast<int>(i);
  }
  return -1;
}

int CTwin::Enter(TABLE& table, int handle, CTwinVolume& volume, OBJECT_PTR object) {
  if (object == nullptr) return -1;
  volume.Hold(*object);
  table[static_cast<std::size_t>(handle)] = {true, std::move(object), &volume, nullptr};
  return handle;
}

bool CTwin::Leave(TABLE& table, int handle) {
  if (!InUse(table, handle)) return false;
  HANDLE& entry = table[static_cast<std::size_t>(handle)];
  if (entry.Object != nullptr) entry.Volume->Unhold(*entry.Object);
  entry = HANDLE();
  return true;
}

TWIN_OBJECT* CTwin::LiveObject(int handle) const {
  return InUse(m_Files, handle) ? m_Files[static_cast<std::size_t>(handle)].Object.get() : nullptr;
}

const TWIN_OBJECT* CTwin::ObjectOf(int handle) const { return LiveObject(handle); }

int CTwin::OpenFile(CTwinVolume& volume, const NAME& path) {
  const int handle = FreeHandle(m_Files);
  NAME normal;
  if (handle < 0 || !Normalise(path, normal)) return -1;
  return Enter(m_Files, handle, volume, volume.Open(normal));
}

int CTwin::CreateFile(CTwinVolume& volume, const NAME& path, unsigned int size, unsigned int attributes) {
  const int handle = FreeHandle(m_Files);
  NAME normal;
  if (handle < 0 || !Normalise(path, normal)) return -1;
  return Enter(m_Files, handle, volume, volume.Create(normal, false, size, attributes));
}

bool CTwin::CloseFile(int handle) { return Leave(m_Files, handle); }

bool CTwin::CreateDir(CTwinVolume& volume, const NAME& path, unsigned int attributes) {
  NAME normal;
  return Normalise(path, normal) && volume.Create(normal, true, 0, attributes) != nullptr;
}

bool CTwin::DeleteFile(CTwinVolume& volume, const NAME& path) {
  NAME normal;
  return Normalise(path, normal) && volume.Delete(normal);
}

bool CTwin::RenameFile(CTwinVolume& volume, const NAME& path, const NAME& newPath) {
  NAME from;
  NAME to;
  return Normalise(path, from) && Normalise(newPath, to) && volume.Rename(from, LastComponent(to));
}

bool CTwin::MoveFile(CTwinVolume& volume, const NAME& path, const NAME* directory) {
  NAME from;
  NAME to;
  if (!Normalise(path, from) || (directory != nullptr && !Normalise(*directory, to))) return false;
  const NAME* target = directory == nullptr ? nullptr : &to;
  const MOVE_VERDICT verdict = JudgeMove(from, target);
  if (verdict != MOVE_VERDICT::Go) return verdict == MOVE_VERDICT::Nothing;
  return volume.Move(from, target);
}

bool CTwin::GetFileSize(int handle, unsigned int& size) const {
  const TWIN_OBJECT* object = LiveObject(handle);
  if (object != nullptr) size = object->Node->Size();
  return object != nullptr;
}

bool CTwin::SetFileSize(int handle, unsigned int size) {
  TWIN_OBJECT* object = LiveObject(handle);
  return object != nullptr && m_Files[static_cast<std::size_t>(handle)].Volume->SetSize(*object, size);
}

bool CTwin::GetFileOffset(int handle, unsigned int& offset) const {
  const TWIN_OBJECT* object = LiveObject(handle);
  if (object != nullptr) offset = object->Offset;
  return object != nullptr;
}

bool CTwin::SetFileOffset(int handle, unsigned int distance, unsigned int method) {
  TWIN_OBJECT* object = LiveObject(handle);
  if (object == nullptr) return false;
  const unsigned int size = object->Node->Size();
  unsigned long long offset = object->Offset;
  if (method == 0) offset = distance;
  if (method == 1) offset += distance;
  if (method == 2) offset = distance > size ? 0 : size - distance;
  if (method == 2 && m_Canary == CANARY::SeekFromEndIsForward) offset = distance;
  object->Offset = static_cast<unsigned int>(std::min<unsigned long long>(offset, size));
  return true;
}

bool CTwin::IsDir(int handle) const {
  const TWIN_OBJECT* object = LiveObject(handle);
  return object != nullptr && object->Node->Dir;
}

bool CTwin::GetFileAttribute(int handle, TWIN_FOUND& found) const {
  const TWIN_OBJECT* object = LiveObject(handle);
  if (object == nullptr) return false;
  const TWIN_NODE& node = *object->Node;
  found = {object->Long, Dotted(node.Entry()->Short), node.Attributes, node.Size()};
  return true;
}

bool CTwin::SetFileAttribute(int handle, unsigned int attributes) {
  TWIN_OBJECT* object = LiveObject(handle);
  return object != nullptr && m_Files[static_cast<std::size_t>(handle)].Volume->SetAttributes(*object, attributes);
}

TWIN_TRANSFER CTwin::TransferEx(int handle, long long offset, unsigned int count, const unsigned char* bytes) {
  TWIN_TRANSFER transfer;
  TWIN_OBJECT* object = LiveObject(handle);
  if (object == nullptr) return transfer;
  transfer.Reported = 0;
  const long long limit = m_Files[static_cast<std::size_t>(handle)].Volume->Limit(*object);
  if (offset < 0 || offset >= limit) return transfer;
  if (bytes != nullptr && object->Node->Dir) throw AVOID{"bytes written into a directory"};
  transfer.Ok = true;
  transfer.Node = object->Node;
  transfer.Start = static_cast<unsigned int>(offset);
  transfer.Length = static_cast<unsigned int>(std::min<long long>(count, limit - offset));
  const unsigned int reported = CountTransfer(object->Blocks, transfer.Start, transfer.Length);
  transfer.Reported.reset();
  if (object->BlocksKnown) transfer.Reported = reported;
  if (bytes != nullptr) object->Node->SetBytes(transfer.Start, bytes, transfer.Length);
  return transfer;
}

TWIN_TRANSFER CTwin::Transfer(int handle, unsigned int count, const unsigned char* bytes) {
  const TWIN_OBJECT* object = LiveObject(handle);
  if (object == nullptr) return {};
  TWIN_TRANSFER transfer = TransferEx(handle, object->Offset, count, bytes);
  transfer.Ok = true;  // at the end there is nothing to transfer, which is no failure here
  return transfer;
}

void CTwin::Advance(int handle, unsigned int reported) {
  TWIN_OBJECT* object = LiveObject(handle);
  if (object != nullptr) object->Offset += reported;
}

// ---------------------------------------------------------------------------------------------- listing

namespace {

TWIN_FOUND FoundOf(const TWIN_RECORD& record) {
  if (record.Node == nullptr) return {NAME(), Dotted(record.Short), ATTRIBUTE_DIRECTORY, 0};
  return {record.Long, Dotted(record.Short), record.Node->Attributes, record.Node->Size()};
}

}  // namespace

int CTwin::FindFirstFile(CTwinVolume& volume, const NAME& path, TWIN_FOUND& found) {
  const int handle = FreeHandle(m_Searches);
  NAME normal;
  if (handle < 0 || !Normalise(path, normal)) return -1;
  const OBJECT_PTR object = volume.Open(normal);
  if (object == nullptr) return -1;
  if (!object->Node->Dir) {
    object->Offset = 0;  // it was opened and closed again
    return -1;
  }
  (void)Enter(m_Searches, handle, volume, object);
  (void)FindNextFile(handle, found);  // "." at least
  return handle;
}

bool CTwin::FindNextFile(int handle, TWIN_FOUND& found) {
  if (!InUse(m_Searches, handle)) return false;
  HANDLE& search = m_Searches[static_cast<std::size_t>(handle)];
  if (search.Object == nullptr) return false;
  search.Current = CTwinVolume::NextEntry(*search.Object->Node, search.Current);
  if (search.Current == nullptr) return false;
  found = FoundOf(*search.Current);
  return true;
}

bool CTwin::CloseFindHandle(int handle) { return Leave(m_Searches, handle); }

void CTwin::Unmount(CTwinVolume& volume) {
  for (TABLE* table : {&m_Files, &m_Searches}) {
    for (HANDLE& handle : *table) {
      if (handle.Volume == &volume) handle.Object = nullptr;
    }
  }
  volume.Unmount();
}
