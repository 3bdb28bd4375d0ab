/// @file ImageTarget.cpp

#include "ImageTarget.h"

#include <fatlib/Text.h>

#include <limits>
#include <utility>

namespace fatimg {

namespace {

constexpr std::uint8_t STORED_ATTRIBUTES = fatlib::READ_ONLY | fatlib::HIDDEN | fatlib::SYSTEM | fatlib::ARCHIVE;

/// Follows the directories of a path on the medium.
std::error_code PlaceOf(fatlib::Medium* medium, const fatlib::Path& path, fatlib::DirectoryPlace* place) {
  *place = fatlib::Medium::ROOT;
  for (const std::u16string& name : path.Components()) {
    std::vector<fatlib::RawEntry> entries;
    if (const std::error_code error = medium->ReadDirectory(*place, &entries)) return error;
    bool found = false;
    for (const fatlib::RawEntry& entry : entries) {
      if (!entry.IsDirectory() || !fatlib::SameName(entry.name, name)) continue;
      *place = entry.firstCluster;
      found = true;
      break;
    }
    if (!found) return fatlib::Status::NotFound;
  }
  return {};
}

}  // namespace

void ImageTarget::BeginPlan(Count count) {
  m_Count = count;
  m_Folders.clear();
}

fatlib::Path ImageTarget::Absolute(const fatlib::Path& relative) const {
  fatlib::Path path = m_Base;
  for (const std::u16string& name : relative.Components()) path = path / name;
  return path;
}

std::string ImageTarget::Shown(const fatlib::Path& relative) const { return m_Label + Absolute(relative).ToUtf8(); }

std::u16string ImageTarget::Key(const std::u16string& name) const { return fatlib::UpCase(name); }

std::u16string ImageTarget::KeyOf(const fatlib::Path& path) const {
  std::u16string key;
  for (const std::u16string& name : path.Components()) key += Key(name) + u'/';
  return key;
}

std::error_code ImageTarget::CheckPath(const fatlib::Path& relative) const { return Absolute(relative).Check(); }

std::uint64_t ImageTarget::MaxFileBytes() const {
  // The library counts what a file occupies in 32 bits too.
  return std::numeric_limits<std::uint32_t>::max() - UnitBytes() + 1;
}

std::error_code ImageTarget::LoadFolder(const fatlib::Path& path, Folder** folder) {
  const auto [place, added] = m_Folders.try_emplace(KeyOf(path));
  *folder = &place->second;
  if (!added) return {};
  fatlib::Directory directory;
  if (const std::error_code error = m_pVolume->List(path, &directory)) {
    m_Folders.erase(place);
    return error;
  }
  for (const fatlib::Entry& entry : directory) {
    (*folder)->children[Key(entry.name)] = {entry.IsDirectory(), entry.size};
    (*folder)->slots += fatlib::SlotsOfName(entry.name);
  }
  return {};
}

std::error_code ImageTarget::Look(const fatlib::Path& relative, bool* exists, Existing* existing) {
  const fatlib::Path path = Absolute(relative);
  *exists = path.IsRoot();
  existing->directory = true;
  if (*exists) return {};
  Folder* folder = nullptr;
  if (const std::error_code error = LoadFolder(path.Parent(), &folder)) return error;
  const auto child = folder->children.find(Key(path.Name()));
  *exists = child != folder->children.end();
  if (*exists) *existing = child->second;
  return {};
}

std::error_code ImageTarget::FreeUnits(std::uint64_t* units) {
  std::uint32_t clusters = 0;
  const std::error_code error = m_pVolume->FreeClusters(&clusters);
  *units = clusters;
  return error;
}

std::error_code ImageTarget::UsedSlots(const fatlib::Path& path, const Folder& folder, std::vector<bool>* used) {
  const fatlib::Geometry& layout = m_pVolume->Layout();
  if (m_Count == Count::Exact) {
    fatlib::Medium* medium = nullptr;
    fatlib::DirectoryPlace place = fatlib::Medium::ROOT;
    std::vector<fatlib::RawEntry> entries;
    if (const std::error_code error = m_pVolume->Raw(&medium)) return error;
    if (const std::error_code error = PlaceOf(medium, path, &place)) return error;
    return medium->ReadDirectory(place, &entries, nullptr, used);
  }
  if (path.IsRoot() && layout.rootEntries != 0) {
    used->assign(layout.rootEntries, false);
    for (std::uint32_t i = 0; i < folder.slots && i < layout.rootEntries; ++i) (*used)[i] = true;
  } else {
    const std::uint32_t inCluster = layout.SlotsPerCluster();
    used->assign(std::size_t{(folder.slots + inCluster - 1) / inCluster} * inCluster, true);
  }
  return {};
}

std::error_code ImageTarget::LoadRoom(const fatlib::Path& path, Folder* folder) {
  if (folder->hasRoom) return {};
  const fatlib::Geometry& layout = m_pVolume->Layout();
  const bool fixed = path.IsRoot() && layout.rootEntries != 0;
  std::vector<bool> used;
  if (const std::error_code error = UsedSlots(path, *folder, &used)) return error;
  folder->room = DirectoryRoom(used, fixed ? 0 : layout.SlotsPerCluster());
  folder->hasRoom = true;
  return {};
}

std::error_code ImageTarget::PlanEntry(const fatlib::Path& relative, bool directory, std::uint64_t* units) {
  const fatlib::Path path = Absolute(relative);
  Folder* folder = nullptr;
  if (const std::error_code error = LoadFolder(path.Parent(), &folder)) return error;
  if (const std::error_code error = LoadRoom(path.Parent(), folder)) return error;
  std::uint32_t grown = 0;
  if (!folder->room.Take(fatlib::SlotsOfName(path.Name()), &grown)) return fatlib::Status::DiskFull;
  *units = grown;
  if (directory) {
    Folder made;
    made.room = DirectoryRoom::OfNewDirectory(m_pVolume->Layout().SlotsPerCluster());
    made.hasRoom = true;
    m_Folders.insert_or_assign(KeyOf(path), std::move(made));
    ++*units;
  }
  return {};
}

std::error_code ImageTarget::MakeDirectory(const fatlib::Path& relative, std::uint8_t attributes) {
  return m_pVolume->CreateDirectory(Absolute(relative), attributes & STORED_ATTRIBUTES);
}

std::error_code ImageTarget::WriteFile(const WriteOrder& order, ByteSource* bytes, const Advance& advance,
                                       std::uint64_t* written) {
  *written = 0;
  const fatlib::Path path = Absolute(order.relative);
  const auto size = static_cast<std::uint32_t>(order.size);
  fatlib::File file;
  std::error_code error;
  if (order.replace) {
    error = m_pVolume->OpenFile(path, fatlib::Access::ReadWrite, &file);
    if (!error) error = file.Resize(size, fatlib::File::Fill::Nothing);
    if (error) return error;
  } else {
    const std::uint8_t attributes = order.attributes & STORED_ATTRIBUTES;
    error = m_pVolume->CreateFile(path, size, fatlib::File::Fill::Nothing, attributes, &file);
    if (error) return error;
  }
  if (order.withoutBytes) {
    *written = size;
    return {};
  }
  error = m_Pump.Run(
      bytes, size,
      [&](std::uint64_t offset, const void* buffer, std::size_t count) { return file.Write(offset, buffer, count); },
      advance, written);
  if (!error && *written == size) return {};
  // What was not written would show what the disk held before.
  const std::error_code resized = file.Resize(*written);
  file.Close();
  if (error && !order.replace) (void)m_pVolume->Remove(path);  // the first failure is told
  return error ? error : resized;
}

std::error_code ImageTarget::SetTime(const fatlib::Path& relative, const std::timespec& modified) {
  const fatlib::Path path = Absolute(relative);
  if (path.IsRoot()) return {};  // which has no entry
  fatlib::Entry entry;
  if (const std::error_code error = m_pVolume->Stat(path, &entry)) return error;
  entry.times.modified = fatlib::ToStamp(modified.tv_sec, modified.tv_nsec, m_Zone);
  return m_pVolume->SetTimes(path, entry.times);
}

}  // namespace fatimg
