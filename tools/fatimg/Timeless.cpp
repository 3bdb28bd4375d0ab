/// @file Timeless.cpp

#include "Timeless.h"

#include <array>
#include <set>
#include <vector>

namespace fatimg {

namespace {

constexpr unsigned char DELETED = 0xE5;

using Slot = std::array<unsigned char, 32>;

std::error_code ClearRemoved(fatlib::Medium* medium, fatlib::DirectoryPlace place, const std::vector<bool>& used) {
  for (std::uint32_t slot = 0; slot < used.size(); ++slot) {
    if (used[slot]) continue;
    std::uint64_t position = 0;
    if (const std::error_code error = medium->SlotPosition(place, slot, &position)) return error;
    Slot bytes{};
    if (const std::error_code error = medium->Base()->Read(position, bytes.data(), bytes.size())) return error;
    if (bytes[0] == 0) break;  // what follows was never used
    Slot cleared{};
    cleared[0] = DELETED;
    if (bytes[0] != DELETED || bytes == cleared) continue;
    if (const std::error_code error = medium->Base()->Write(position, cleared.data(), cleared.size())) return error;
  }
  return {};
}

struct Folder {
  fatlib::DirectoryPlace place;
  fatlib::Times times;
};

std::error_code Visit(fatlib::Medium* medium, const Folder& folder, std::vector<Folder>* folders) {
  std::vector<fatlib::RawEntry> entries;
  std::vector<bool> used;
  if (const std::error_code error = medium->ReadDirectory(folder.place, &entries, nullptr, &used)) return error;
  for (const fatlib::RawEntry& entry : entries) {
    if (entry.IsDot()) {
      if (entry.times == folder.times) continue;
      if (const std::error_code error = medium->SetTimes(folder.place, entry, folder.times)) return error;
    } else if (entry.IsDirectory() && medium->Layout().IsCluster(entry.firstCluster)) {
      folders->push_back({entry.firstCluster, entry.times});
    }
  }
  return ClearRemoved(medium, folder.place, used);
}

}  // namespace

std::error_code MakeTimeless(fatlib::Medium* medium) {
  std::vector<Folder> folders{{fatlib::Medium::ROOT, {}}};
  std::set<fatlib::DirectoryPlace> known;
  while (!folders.empty()) {
    const Folder folder = folders.back();
    folders.pop_back();
    if (!known.insert(folder.place).second) continue;
    if (const std::error_code error = Visit(medium, folder, &folders)) return error;
  }
  return medium->Base()->Flush();
}

}  // namespace fatimg
