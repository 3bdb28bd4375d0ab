/// @file Volume.cpp
/// The public functions: they check arguments, and find what a path names.

#include "Volume.h"

#include "FileWork.h"
#include "NameWork.h"
#include "Narrow.h"
#include "Text.h"

namespace fatlib {

namespace {

Entry Shown(VolumeState* state, EntryNode* node) {
  Entry entry;
  entry.name = node->raw.name;
  if (!node->IsRoot()) {
    entry.shortName = node->raw.ShortNameText();
    entry.times = state->TimesOf(node);
  }
  entry.attributes = node->raw.attributes;
  entry.size = node->IsDirectory() ? 0 : node->raw.size;
  entry.reachable = node->IsReachable();
  return entry;
}

/// The place of something that is to be made. @return NameExists, Unreachable, ...
std::error_code FindNewPlace(VolumeState* state, const Path& path, DirectoryNode** parent) {
  if (path.IsRoot()) return Status::NameExists;
  if (const std::error_code error = path.Check()) return error;
  EntryNode* existing;
  if (const std::error_code error = state->FindPlace(path, parent, &existing)) return error;
  if (existing != nullptr) return Status::NameExists;
  return (*parent)->self->IsReachable() ? Status::Success : Status::Unreachable;
}

/// An entry that is to be changed. @return Refused for the root, Unreachable, ...
std::error_code FindToChange(VolumeState* state, const Path& path, EntryNode** entry) {
  if (const std::error_code error = state->BeginChange()) return error;
  if (const std::error_code error = state->Find(path, entry)) return error;
  if ((*entry)->IsRoot()) return Status::Refused;
  return (*entry)->IsReachable() ? Status::Success : Status::Unreachable;
}

}  // namespace

std::string Entry::Utf8Name() const { return ToUtf8(name); }

std::timespec VolumeOptions::Now() const {
  if (clock) return clock();
  std::timespec now{};
  (void)std::timespec_get(&now, TIME_UTC);
  return now;
}

Volume::Volume() = default;
Volume::Volume(Volume&&) noexcept = default;
Volume::~Volume() { (void)Close(); }

Volume& Volume::operator=(Volume&& other) noexcept {
  if (this != &other) {
    (void)Close();
    m_pState = std::move(other.m_pState);
  }
  return *this;
}

std::error_code Volume::Open(std::unique_ptr<Device> device, const VolumeOptions& options) {
  if (m_pState != nullptr || device == nullptr) return Status::Refused;
  auto state = std::make_shared<VolumeState>(options);
  if (const std::error_code error = state->Open(std::move(device))) return error;
  m_pState = std::move(state);
  return {};
}

std::error_code Volume::Close() {
  if (m_pState == nullptr) return {};
  const std::error_code error = m_pState->Close();
  m_pState.reset();
  return error;
}

std::error_code Volume::Sync() {
  if (m_pState == nullptr) return Status::Refused;
  m_pState->Begin();
  return m_pState->Sync();
}

bool Volume::IsDirty() const { return m_pState != nullptr && m_pState->IsDirty(); }

// ---------------------------------------------------------------------------------------------- looking

const Geometry& Volume::Layout() const {
  static const Geometry none{};
  return m_pState == nullptr ? none : m_pState->Layout();
}

Access Volume::Mode() const {
  return m_pState != nullptr && m_pState->IsWritable() ? Access::ReadWrite : Access::ReadOnly;
}

std::error_code Volume::FreeClusters(std::uint32_t* clusters) {
  if (m_pState == nullptr) return Status::Refused;
  m_pState->Begin();
  return m_pState->FreeClusters(clusters);
}

std::error_code Volume::Label(std::u16string* label) {
  if (m_pState == nullptr) return Status::Refused;
  m_pState->Begin();
  if (!m_pState->label) {
    std::u16string read;
    if (const std::error_code error = m_pState->MakeCurrent()) return error;
    if (const std::error_code error = m_pState->Bytes()->Label(&read)) return error;
    m_pState->label = read;
  }
  *label = *m_pState->label;
  return {};
}

std::error_code Volume::Stat(const Path& path, Entry* entry) {
  if (m_pState == nullptr) return Status::Refused;
  m_pState->Begin();
  EntryNode* node;
  if (const std::error_code error = m_pState->Find(path, &node)) return error;
  *entry = Shown(m_pState.get(), node);
  return {};
}

std::error_code Volume::List(const Path& path, Directory* directory) {
  if (m_pState == nullptr) return Status::Refused;
  m_pState->Begin();
  EntryNode* node;
  DirectoryNode* content;
  if (const std::error_code error = m_pState->Find(path, &node)) return error;
  if (const std::error_code error = m_pState->Load(node, &content)) return error;
  directory->m_Entries.clear();
  directory->m_Entries.reserve(content->Entries().size());
  for (const auto& [slot, child] : content->Entries()) {
    directory->m_Entries.push_back(Shown(m_pState.get(), child.get()));
  }
  return {};
}

std::error_code Volume::Raw(Medium** medium) {
  if (m_pState == nullptr) return Status::Refused;
  m_pState->Begin();
  if (const std::error_code error = m_pState->Sync()) return error;
  if (const std::error_code error = m_pState->Detach()) return error;
  m_pState->rawGiven = true;
  *medium = m_pState->Bytes();
  return {};
}

std::error_code Volume::Clusters(const Path& path, std::vector<Extent>* extents) {
  if (m_pState == nullptr) return Status::Refused;
  m_pState->Begin();
  EntryNode* node;
  if (const std::error_code error = m_pState->MakeCurrent()) return error;
  if (const std::error_code error = m_pState->Find(path, &node)) return error;
  const std::uint32_t first = node->IsRoot() ? Layout().rootCluster : node->raw.firstCluster;
  return m_pState->Bytes()->Chain(first, extents);
}

// ---------------------------------------------------------------------------------------------- files

std::error_code Volume::OpenFile(const Path& path, Access access, File* file) {
  if (m_pState == nullptr) return Status::Refused;
  m_pState->Begin();
  const bool writable = access == Access::ReadWrite;
  if (writable && !m_pState->IsWritable()) return Status::WriteProtected;
  EntryNode* node;
  if (const std::error_code error = m_pState->Find(path, &node)) return error;
  if (node->IsDirectory()) return Status::IsADirectory;
  if (writable && !node->IsReachable()) return Status::Unreachable;
  file->Close();
  file->m_pState = m_pState;
  file->m_pNode = OpenNode(node);
  file->m_bWritable = writable;
  return {};
}

std::error_code Volume::CreateFile(const Path& path, std::uint32_t size, File::Fill fill, std::uint8_t attributes,
                                   File* file) {
  if (m_pState == nullptr) return Status::Refused;
  if ((attributes & ~SETTABLE_ATTRIBUTES) != 0) return Status::InvalidParameter;
  VolumeState* const state = m_pState.get();
  if (const std::error_code error = state->BeginChange()) return error;
  DirectoryNode* parent;
  if (const std::error_code error = FindNewPlace(state, path, &parent)) return error;
  std::shared_ptr<FileNode> node;
  if (const std::error_code error = CreateEntry(state, parent, {path.Name(), attributes, size}, &node)) return error;
  if (fill == File::Fill::Zeros) {
    if (const std::error_code error = ZeroFile(state, node.get(), 0, size)) return error;
  }
  if (file == nullptr) return {};
  file->Close();
  file->m_pState = m_pState;
  file->m_pNode = std::move(node);
  file->m_bWritable = true;
  return {};
}

// ---------------------------------------------------------------------------------------------- names

std::error_code Volume::CreateDirectory(const Path& path, std::uint8_t attributes) {
  if (m_pState == nullptr) return Status::Refused;
  if ((attributes & ~SETTABLE_ATTRIBUTES) != 0) return Status::InvalidParameter;
  if (const std::error_code error = m_pState->BeginChange()) return error;
  DirectoryNode* parent;
  if (const std::error_code error = FindNewPlace(m_pState.get(), path, &parent)) return error;
  std::shared_ptr<FileNode> node;
  const std::uint8_t stored = static_cast<std::uint8_t>(attributes | DIRECTORY);
  return CreateEntry(m_pState.get(), parent, {path.Name(), stored, 0}, &node);
}

std::error_code Volume::CreateDirectories(const Path& path) {
  if (m_pState == nullptr) return Status::Refused;
  if (const std::error_code error = m_pState->BeginChange()) return error;
  Path made;
  for (const std::u16string& component : path.Components()) {
    made = made / component;
    EntryNode* node;
    std::error_code error = m_pState->Find(made, &node);
    if (!error && !node->IsDirectory()) return Status::NotADirectory;
    if (error == Status::NotFound) error = CreateDirectory(made);
    if (error) return error;
  }
  return {};
}

std::error_code Volume::Remove(const Path& path) {
  if (m_pState == nullptr) return Status::Refused;
  EntryNode* node;
  if (const std::error_code error = FindToChange(m_pState.get(), path, &node)) return error;
  return RemoveEntry(m_pState.get(), node);
}

std::error_code Volume::RemoveAll(const Path& path, std::uint64_t* removed) {
  if (m_pState == nullptr) return Status::Refused;
  std::uint64_t ignored = 0;
  std::uint64_t* const count = removed == nullptr ? &ignored : removed;
  *count = 0;
  EntryNode* node;
  if (const std::error_code error = m_pState->BeginChange()) return error;
  if (const std::error_code error = m_pState->Find(path, &node)) return error;
  return RemoveTree(m_pState.get(), node, count);
}

std::error_code Volume::Rename(const Path& from, const Path& to, bool replace) {
  if (m_pState == nullptr) return Status::Refused;
  EntryNode* node;
  if (const std::error_code error = FindToChange(m_pState.get(), from, &node)) return error;
  if (to.IsRoot()) return Status::Refused;
  if (const std::error_code error = to.Check()) return error;
  DirectoryNode* parent;
  EntryNode* existing;
  if (const std::error_code error = m_pState->FindPlace(to, &parent, &existing)) return error;
  return RenameEntry(m_pState.get(), node, parent, to.Name(), existing, replace);
}

std::error_code Volume::SetAttributes(const Path& path, std::uint8_t attributes) {
  if (m_pState == nullptr) return Status::Refused;
  if ((attributes & ~SETTABLE_ATTRIBUTES) != 0) return Status::InvalidParameter;
  EntryNode* node;
  if (const std::error_code error = FindToChange(m_pState.get(), path, &node)) return error;
  return StoreAttributes(m_pState.get(), node, attributes);
}

std::error_code Volume::SetTimes(const Path& path, const Times& times) {
  if (m_pState == nullptr) return Status::Refused;
  EntryNode* node;
  if (const std::error_code error = FindToChange(m_pState.get(), path, &node)) return error;
  m_pState->MarkChanged(node->parent);
  node->modified = false;
  node->raw.times = times;
  node->timesAhead = true;
  return {};
}

std::error_code Volume::SetLabel(const std::u16string& label) {
  if (m_pState == nullptr) return Status::Refused;
  if (const std::error_code error = m_pState->BeginChange()) return error;
  if (const std::error_code error = m_pState->Sync()) return error;
  return m_pState->StoreLabel(label);
}

}  // namespace fatlib
