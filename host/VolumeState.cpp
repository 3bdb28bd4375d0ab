/// @file VolumeState.cpp
/// Opening, closing and the mirror. Mounting is in VolumeMount.cpp, room in VolumeRoom.cpp.

#include "VolumeState.h"

#include <algorithm>

#include "Text.h"

namespace fatlib {

namespace {

constexpr std::size_t MAX_DEPTH = 512;  // no path that anyone can write down is deeper

}  // namespace

// ---------------------------------------------------------------------------------------------- paths

LibraryPath::LibraryPath(const EntryNode* entry) { (void)Append(entry); }

LibraryPath::LibraryPath(const DirectoryNode& directory, std::u16string_view name) {
  std::size_t at = Append(directory.self);
  if (at != 0) m_Units[at++] = '\\';
  Append(name, standin::NONE, at);
}

std::size_t LibraryPath::Append(const EntryNode* entry) {
  if (entry->IsRoot()) return 0;
  std::size_t at = Append(entry->parent->self);
  if (at != 0) m_Units[at++] = '\\';
  Append(entry->raw.name, entry->standIn, at);
  return at + entry->raw.name.size();
}

void LibraryPath::Append(std::u16string_view name, StandInBase standIn, std::size_t at) {
  name = name.substr(0, Path::MAX_PATH_UNITS - std::min(at, Path::MAX_PATH_UNITS));
  const std::u16string replaced = standIn == standin::NONE ? std::u16string() : standin::Of(name, standIn);
  for (const char16_t unit : standIn == standin::NONE ? name : std::u16string_view(replaced)) {
    m_Units[at++] = static_cast<unsigned short>(unit);
  }
}

// ---------------------------------------------------------------------------------------------- opening and closing

VolumeState::~VolumeState() { (void)Close(); }

std::error_code VolumeState::Open(std::unique_ptr<Device> device) {
  m_pDevice = std::move(device);
  std::error_code error = m_Medium.Open(m_pDevice.get());
  if (!error && IsWritable() && !m_Options.force && Layout().IsHarmedByWriting()) {
    error = Status::UnsafeVolume;
  }
  if (error) {
    m_pDevice.reset();
    return error;
  }
  m_Log.device = m_pDevice.get();
  if (Layout().fats == 1) m_Log.onlyFatEnd = Layout().FatPosition(1);
  m_Root.raw.attributes = DIRECTORY;
  m_Library.emplace();
  return {};
}

std::error_code VolumeState::Close() {
  if (IsClosed()) return {};
  Begin();
  std::error_code error = Sync();
  if (const std::error_code detached = Detach(); !error) error = detached;
  m_Root.content.reset();
  m_Graveyard.clear();
  m_Library.reset();
  m_pDevice.reset();
  return error;
}

std::error_code VolumeState::Sync() {
  m_bUnflushed = IsDirty();
  if (const std::error_code error = m_bUnsettled ? Detach() : MakeCurrent()) Note(error);
  if (m_bUnflushed) {
    const std::error_code error = m_pDevice->Flush();
    Note(error);
    m_bUnflushed = static_cast<bool>(error);
  }
  const std::error_code write = m_Log.TakeFirstWrite();
  const std::error_code first = write ? write : m_FirstFailure;
  m_FirstFailure = {};
  return first;
}

void VolumeState::Begin() {
  m_Graveyard.clear();
  if (!rawGiven) return;
  rawGiven = false;
  m_Medium.Forget();
  m_bFreeKnown = false;
  label.reset();
  SuspectAll();
}

std::error_code VolumeState::BeginChange() {
  Begin();
  return IsWritable() ? Status::Success : Status::WriteProtected;
}

std::error_code VolumeState::StoreLabel(const std::u16string& text) {
  if (const std::error_code error = Detach()) return error;
  const std::error_code error = m_Medium.SetLabel(text, Now());
  if (error == Status::InvalidName || error == Status::DiskFull) return error;  // nothing was changed
  label.reset();
  m_bDirty = m_bUnflushed = true;
  m_bFreeKnown = false;
  if (m_Root.content != nullptr) m_Root.content->suspect = true;
  return error;
}

void VolumeState::Note(const std::error_code& error) {
  if (!m_FirstFailure) m_FirstFailure = error;
}

// ---------------------------------------------------------------------------------------------- the mirror

std::error_code VolumeState::Load(EntryNode* directory, DirectoryNode** content) {
  if (!directory->IsDirectory()) return Status::NotADirectory;
  if (directory->content == nullptr || directory->content->suspect) {
    const bool changed = directory->content != nullptr && directory->content->changed;
    if (m_pFileSystem != nullptr && (changed || directory->ahead)) {
      if (const std::error_code error = Detach()) return error;
      if (directory->IsGone()) return Status::NotFound;
    }
    if (const std::error_code error = Read(directory)) return error;
  }
  *content = directory->content.get();
  return {};
}

std::error_code VolumeState::Read(EntryNode* directory) {
  const std::uint32_t place = directory->IsRoot() ? Medium::ROOT : directory->raw.firstCluster;
  if (!directory->IsRoot()) {
    // A damaged directory may lead back to one above: a walk through it would not end.
    if (!Layout().IsCluster(place) || place == Layout().rootCluster || directory->Depth() > MAX_DEPTH) {
      return Status::DiskCorrupt;
    }
    for (const EntryNode* above = directory->parent->self; !above->IsRoot(); above = above->parent->self) {
      if (above->raw.firstCluster == place) return Status::DiskCorrupt;
    }
  }
  std::vector<RawEntry> entries;
  std::vector<bool> used;
  if (const std::error_code error = m_Medium.ReadDirectory(place, &entries, nullptr, &used)) return error;
  if (directory->content == nullptr) directory->content = std::make_unique<DirectoryNode>(directory);
  directory->content->Fill(std::move(entries), used, &m_Graveyard);
  return {};
}

std::error_code VolumeState::Find(const Path& path, EntryNode** entry) {
  EntryNode* node = &m_Root;
  for (const std::u16string& component : path.Components()) {
    DirectoryNode* content;
    if (const std::error_code error = Load(node, &content)) return error;
    node = content->Find(UpCase(component));
    if (node == nullptr) return Status::NotFound;
  }
  *entry = node;
  return {};
}

std::error_code VolumeState::FindPlace(const Path& path, DirectoryNode** directory, EntryNode** entry) {
  EntryNode* parent;
  if (const std::error_code error = Find(path.Parent(), &parent)) return error;
  if (const std::error_code error = Load(parent, directory)) return error;
  *entry = (*directory)->Find(UpCase(path.Name()));
  return {};
}

void VolumeState::MarkChanged(DirectoryNode* directory) {
  m_bDirty = m_bUnflushed = true;
  MarkToReconcile(directory);
}

void VolumeState::MarkToReconcile(DirectoryNode* directory) {
  directory->changed = true;
  for (DirectoryNode* node = directory; !node->changedBelow; node = node->self->parent) {
    node->changedBelow = true;
    if (node->self->IsRoot()) break;
  }
}

namespace {

void Suspect(EntryNode* entry) {
  if (entry->content == nullptr) return;
  entry->content->suspect = true;
  for (const auto& [slot, child] : entry->content->Entries()) Suspect(child.get());
}

}  // namespace

void VolumeState::SuspectAll() { Suspect(&m_Root); }

// ---------------------------------------------------------------------------------------------- times

Stamp VolumeState::Now() const {
  const std::timespec now = m_Options.Now();
  return ToStamp(now.tv_sec, now.tv_nsec, m_Options.zone);
}

void VolumeState::MarkModified(EntryNode* entry) {
  entry->ahead = true;
  MarkChanged(entry->parent);
  entry->modifiedAt = m_Options.Now();
  entry->modified = true;
}

// The conversion to local time is put off until somebody looks: a file may be written many times before.
void VolumeState::SettleTimes(EntryNode* entry) const {
  if (!entry->modified) return;
  entry->modified = false;
  entry->raw.times.modified = ToStamp(entry->modifiedAt.tv_sec, entry->modifiedAt.tv_nsec, m_Options.zone);
  entry->raw.times.modified.tenMilliseconds = 0;
  if (m_Options.times) entry->timesAhead = true;
}

const Times& VolumeState::TimesOf(EntryNode* entry) const {
  SettleTimes(entry);
  return entry->raw.times;
}

}  // namespace fatlib
