/// @file OrderedDeviceFixture.h
/// What the tests of OrderedDevice share: a device that remembers every write, volumes with few free clusters, trees
/// read from an image.

#ifndef FATLIB_TESTS_ORDEREDDEVICEFIXTURE_H
#define FATLIB_TESTS_ORDEREDDEVICEFIXTURE_H

#include <fatlib/Check.h>
#include <fatlib/Error.h>
#include <fatlib/OrderedDevice.h>
#include <fatlib/Text.h>
#include <fatlib/Volume.h>

#include <algorithm>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "VolumeFixture.h"

/// A write, or a flush when there are no bytes.
struct RECORDED_WRITE {
  std::uint64_t position = 0;
  std::vector<unsigned char> bytes;
  bool IsFlush() const { return bytes.empty(); }
};

struct RECORD {
  std::vector<unsigned char> bytes;
  std::vector<RECORDED_WRITE> log;
  std::uint64_t writes = 0;
  std::uint64_t failAt = 0;  ///< the write with this number, from 1, fails. 0: none
  std::uint64_t reads = 0;
  std::uint64_t failReadAt = 0;  ///< the same for reads
  fatlib::Access mode = fatlib::Access::ReadWrite;
};

/// A device on an image that the test keeps, which remembers what was written to it.
class CRecordingDevice final : public fatlib::Device {
 public:
  explicit CRecordingDevice(std::shared_ptr<RECORD> record) : m_pRecord(std::move(record)) {}

  std::error_code Read(std::uint64_t position, void* buffer, std::size_t size) override {
    if (++m_pRecord->reads == m_pRecord->failReadAt) return fatlib::Status::IoError;
    auto* out = static_cast<unsigned char*>(buffer);
    std::fill_n(out, size, static_cast<unsigned char>(0));
    const std::vector<unsigned char>& bytes = m_pRecord->bytes;
    if (position < bytes.size())
      std::copy_n(bytes.data() + ToSize(position), std::min(size, bytes.size() - ToSize(position)), out);
    return {};
  }
  std::error_code Write(std::uint64_t position, const void* buffer, std::size_t size) override {
    if (++m_pRecord->writes == m_pRecord->failAt) return fatlib::Status::IoError;
    if (position + size > m_pRecord->bytes.size()) return fatlib::Status::IoError;
    const auto* in = static_cast<const unsigned char*>(buffer);
    std::copy_n(in, size, m_pRecord->bytes.data() + ToSize(position));
    m_pRecord->log.push_back({position, {in, in + size}});
    return {};
  }
  std::error_code Flush() override {
    m_pRecord->log.push_back({});
    return {};
  }
  std::uint64_t Size() const override { return m_pRecord->bytes.size(); }
  fatlib::Access Mode() const override { return m_pRecord->mode; }

 private:
  std::shared_ptr<RECORD> m_pRecord;
};

/// A device on bytes that belong to somebody else.
class CViewDevice final : public fatlib::Device {
 public:
  explicit CViewDevice(std::vector<unsigned char>* bytes) : m_pBytes(bytes) {}
  std::error_code Read(std::uint64_t position, void* buffer, std::size_t size) override {
    auto* out = static_cast<unsigned char*>(buffer);
    std::fill_n(out, size, static_cast<unsigned char>(0));
    if (position < m_pBytes->size()) {
      std::copy_n(m_pBytes->data() + ToSize(position), std::min(size, m_pBytes->size() - ToSize(position)), out);
    }
    return {};
  }
  std::error_code Write(std::uint64_t position, const void* buffer, std::size_t size) override {
    if (position + size > m_pBytes->size()) return fatlib::Status::IoError;
    std::copy_n(static_cast<const unsigned char*>(buffer), size, m_pBytes->data() + ToSize(position));
    return {};
  }
  std::error_code Flush() override { return {}; }
  std::uint64_t Size() const override { return m_pBytes->size(); }
  fatlib::Access Mode() const override { return fatlib::Access::ReadWrite; }

 private:
  std::vector<unsigned char>* m_pBytes;
};

/// The sectors of a write one by one, as a device may write them.
inline std::vector<RECORDED_WRITE> SectorsOf(const RECORDED_WRITE& write, unsigned int sectorBytes) {
  std::vector<RECORDED_WRITE> sectors;
  for (std::size_t done = 0; done < write.bytes.size();) {
    const auto inSector = static_cast<unsigned int>((write.position + done) % sectorBytes);
    const auto count = std::min<std::size_t>(write.bytes.size() - done, sectorBytes - inSector);
    const auto from = write.bytes.begin() + static_cast<std::ptrdiff_t>(done);
    sectors.push_back({write.position + done, {from, from + static_cast<std::ptrdiff_t>(count)}});
    done += count;
  }
  return sectors;
}

inline void Apply(const RECORDED_WRITE& write, std::vector<unsigned char>* image) {
  std::copy(write.bytes.begin(), write.bytes.end(), image->data() + ToSize(write.position));
}

/// A formatted volume on which all clusters but some are marked as bad.
/// @param firstFree  the root directory's cluster on FAT32 is left out in any case
inline std::vector<unsigned char> SmallVolume(const TEST_SHAPE& shape, std::uint32_t firstFree,
                                              std::uint32_t freeClusters) {
  std::vector<unsigned char> bytes = FormattedImage(shape);
  CViewDevice device(&bytes);
  fatlib::Medium medium;
  EXPECT_FALSE(medium.Open(&device));
  for (std::uint32_t cluster = 3; cluster < medium.Layout().clusters + 2; ++cluster) {
    if (cluster >= firstFree && cluster < firstFree + freeClusters) continue;
    EXPECT_FALSE(medium.SetFatEntry(cluster, shape.bits == 12 ? 0xFF7 : shape.bits == 16 ? 0xFFF7 : 0x0FFFFFF7));
  }
  EXPECT_FALSE(medium.WriteFsInfo());
  return bytes;
}

/// Files with their bytes, and directories, which end with a slash.
using IMAGE_TREE = std::map<std::string, std::vector<unsigned char>>;

/// What can be read of an image. A file of which bytes are missing has none.
inline IMAGE_TREE TreeOf(std::vector<unsigned char>* bytes) {
  IMAGE_TREE tree;
  CViewDevice device(bytes);
  fatlib::Medium medium;
  if (medium.Open(&device)) return tree;
  std::vector<std::pair<std::string, fatlib::DirectoryPlace>> places = {{"", fatlib::Medium::ROOT}};
  while (!places.empty() && tree.size() < 10000) {
    const auto [path, place] = places.back();
    places.pop_back();
    std::vector<fatlib::RawEntry> entries;
    (void)medium.ReadDirectory(place, &entries);  // what is wrong with it is for the check to tell
    for (const fatlib::RawEntry& entry : entries) {
      if (entry.IsDot() || entry.IsLabel()) continue;
      const std::string name = path + "/" + fatlib::ToUtf8(entry.name);
      if (entry.IsDirectory()) {
        tree[name + "/"] = {};
        places.emplace_back(name, entry.firstCluster);
        continue;
      }
      std::vector<unsigned char> content(entry.size);
      std::size_t done = 0;
      if (medium.ReadFile(entry, 0, content.data(), content.size(), &done)) content.clear();
      tree[name] = std::move(content);
    }
  }
  return tree;
}

/// Where the entries lie, by path: the sector, or the bytes when they are in more than one.
inline std::map<std::string, std::uint64_t> EntryPlacesOf(std::vector<unsigned char>* bytes) {
  std::map<std::string, std::uint64_t> places;
  CViewDevice device(bytes);
  fatlib::Medium medium;
  if (medium.Open(&device)) return places;
  std::vector<std::pair<std::string, fatlib::DirectoryPlace>> directories = {{"", fatlib::Medium::ROOT}};
  while (!directories.empty()) {
    const auto [path, place] = directories.back();
    directories.pop_back();
    std::vector<fatlib::RawEntry> entries;
    EXPECT_FALSE(medium.ReadDirectory(place, &entries));
    for (const fatlib::RawEntry& entry : entries) {
      if (entry.IsDot() || entry.IsLabel()) continue;
      std::uint64_t first = 0;
      std::uint64_t last = 0;
      EXPECT_FALSE(medium.SlotPosition(place, entry.firstSlot, &first));
      EXPECT_FALSE(medium.SlotPosition(place, entry.ShortSlot(), &last));
      const std::string name = path + "/" + fatlib::ToUtf8(entry.name);
      const std::uint64_t sector = first / medium.Layout().bytesPerSector;
      places[name] = sector == last / medium.Layout().bytesPerSector ? sector : first;
      if (entry.IsDirectory()) directories.emplace_back(name, entry.firstCluster);
    }
  }
  return places;
}

inline fatlib::CheckReport ReportOf(std::vector<unsigned char>* bytes) {
  CViewDevice device(bytes);
  fatlib::Medium medium;
  fatlib::CheckReport report;
  EXPECT_FALSE(medium.Open(&device));
  EXPECT_FALSE(fatlib::Check(&medium, &report));
  return report;
}

/// The lines of fsck.fat that tell of more than what a cut may leave; empty when there are none.
inline std::string FsckObjections(const std::vector<unsigned char>& bytes) {
  static const std::vector<std::string> expected = {"fsck.fat ",
                                                    " files, ",
                                                    "FATs differ but appear to be intact",
                                                    "Using first FAT",
                                                    "File size is ",
                                                    "Truncating file to ",
                                                    "Reclaimed ",
                                                    "Free cluster summary wrong",
                                                    "Long filename fragment",
                                                    "start bit is missing",
                                                    "start bit may have been incorrectly set",
                                                    "Wrong checksum for long file name",
                                                    "Checksum in long filename part wrong",
                                                    "auto-correcting",
                                                    "Auto-correcting",
                                                    "Auto-setting",
                                                    "Deleting",
                                                    "Leaving filesystem unchanged"};
  const CTempDir place;
  WriteHostFile(place / "image", bytes);
  std::istringstream output(RunProcess({"fsck.fat", "-n", place / "image"}).Output);
  std::string objections;
  for (std::string line; std::getline(output, line);) {
    const bool isPath = line.empty() || line[0] == '/';
    const bool isExpected = isPath || std::any_of(expected.begin(), expected.end(), [&line](const std::string& text) {
                              return line.find(text) != std::string::npos;
                            });
    // A chain may be longer than the size says, and not shorter.
    const bool isShort = line.find("File size is ") != std::string::npos && line.find(" > ") == std::string::npos;
    if (!isExpected || isShort) objections += line + "\n";
  }
  return objections;
}

inline std::string TextOf(const fatlib::CheckReport& report) {
  std::string text;
  for (const fatlib::Defect& defect : report.defects) text += fatlib::DefectText(defect) + "\n";
  return text;
}

#endif  // FATLIB_TESTS_ORDEREDDEVICEFIXTURE_H
