/// @file ImageTree.cpp

#include "ImageTree.h"

#include <algorithm>
#include <utility>

namespace fatimg {

namespace {

class VolumeFileSource : public ByteSource {
 public:
  explicit VolumeFileSource(fatlib::File file) : m_File(std::move(file)) {}

  std::error_code Read(void* buffer, std::size_t size, std::size_t* done) override {
    const std::error_code error = m_File.Read(m_nOffset, buffer, size, done);
    m_nOffset += *done;
    return error;
  }

 private:
  fatlib::File m_File;
  std::uint64_t m_nOffset = 0;
};

class Scanner {
 public:
  Scanner(fatlib::Volume* volume, const ImageTreeOptions& options, std::vector<CopyItem>* items,
          std::vector<FailedItem>* failures)
      : m_pVolume(volume), m_Options(options), m_pItems(items), m_pFailures(failures) {}

  /// @param fromTop  empty for the top itself
  void Visit(const fatlib::Path& path, const fatlib::Entry& entry, const std::string& fromTop,
             const fatlib::Path& relative) {
    CopyItem item;
    item.place = m_Options.shown(path);
    item.volume = m_pVolume;
    item.image = path;
    item.relative = relative;
    item.directory = entry.IsDirectory();
    item.size = entry.size;
    item.attributes = entry.attributes;
    (void)fatlib::FromStamp(entry.times.modified, m_Options.zone, &item.modified.tv_sec, &item.modified.tv_nsec);
    if (!item.directory) {
      m_pItems->push_back(std::move(item));
    } else if (!m_Options.recursive) {
      m_pFailures->push_back({item.place, make_error_code(fatlib::Status::IsADirectory), NEEDS_RECURSION});
    } else if (path.Components().size() > MAX_DEPTH) {
      Fail(item.place, fatlib::Status::NameTooLong);
    } else if (++m_nDirectories > m_pVolume->Layout().clusters + 1) {
      // Each has a cluster of its own: a damaged volume leads in circles here.
      Fail(item.place, fatlib::Status::DiskCorrupt);
    } else {
      m_pItems->push_back(item);
      VisitDirectory(item, fromTop);
    }
  }

 private:
  static constexpr std::size_t MAX_DEPTH = (fatlib::Path::MAX_PATH_UNITS + 1) / 2;  // each takes a unit and a separator

  void VisitDirectory(const CopyItem& item, const std::string& fromTop) {
    fatlib::Directory directory;
    if (const std::error_code error = m_pVolume->List(item.image, &directory)) return Fail(item.place, error);
    std::vector<std::pair<std::string, const fatlib::Entry*>> entries;
    for (const fatlib::Entry& entry : directory) entries.emplace_back(entry.Utf8Name(), &entry);
    std::stable_sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& [name, entry] : entries) {
      const std::string below = fromTop.empty() ? name : fromTop + '/' + name;
      if (m_Options.excluded && m_Options.excluded(below)) continue;
      Visit(item.image / entry->name, *entry, below, item.relative / entry->name);
    }
  }

  void Fail(const std::string& place, std::error_code error) { m_pFailures->push_back({place, error, {}}); }

  fatlib::Volume* m_pVolume;
  const ImageTreeOptions& m_Options;
  std::vector<CopyItem>* m_pItems;
  std::vector<FailedItem>* m_pFailures;
  std::uint64_t m_nDirectories = 0;
};

}  // namespace

void ScanImage(fatlib::Volume* volume, const fatlib::Path& path, const fatlib::Path& relative,
               const ImageTreeOptions& options, std::vector<CopyItem>* items, std::vector<FailedItem>* failures) {
  fatlib::Entry entry;
  if (const std::error_code error = volume->Stat(path, &entry)) {
    failures->push_back({options.shown(path), error, {}});
  } else {
    Scanner(volume, options, items, failures).Visit(path, entry, {}, relative);
  }
}

std::error_code ImageSource::Open(const CopyItem& item, std::unique_ptr<ByteSource>* bytes) {
  fatlib::File file;
  if (const std::error_code error = item.volume->OpenFile(item.image, fatlib::Access::ReadOnly, &file)) return error;
  *bytes = std::make_unique<VolumeFileSource>(std::move(file));
  return {};
}

}  // namespace fatimg
