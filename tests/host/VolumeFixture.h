/// @file VolumeFixture.h
/// What the tests of Volume and File share: volumes in memory that outlive their Volume, a device that fails, fsck.fat.

#ifndef FATLIB_TESTS_VOLUMEFIXTURE_H
#define FATLIB_TESTS_VOLUMEFIXTURE_H

#include <fatlib/Format.h>
#include <fatlib/Volume.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/DiskImage.h"
#include "support/Process.h"

/// An image, the transfers on it, and which of them fail.
struct TEST_MEDIUM {
  std::vector<unsigned char> bytes;
  fatlib::Access mode = fatlib::Access::ReadWrite;
  std::uint64_t reads = 0;
  std::uint64_t bytesRead = 0;
  std::uint64_t writes = 0;
  std::uint64_t flushes = 0;
  std::uint64_t failAt = 0;  ///< the transfer, counted from 1 and from reads and writes together; 0: none
  bool forGood = false;      ///< that transfer and all later ones
  bool fired = false;
  bool firedOnWrite = false;
  bool keepOld = false;  ///< what is overwritten can be put back
  std::vector<std::pair<std::uint64_t, std::vector<unsigned char>>> old;

  /// Puts back everything since keepOld was set.
  void PutBack() {
    for (; !old.empty(); old.pop_back()) {
      std::memcpy(bytes.data() + ToSize(old.back().first), old.back().second.data(), old.back().second.size());
    }
  }
  std::uint64_t Transfers() const { return reads + writes; }
  bool Fails() {
    if (failAt == 0 || (forGood ? Transfers() < failAt : Transfers() != failAt)) return false;
    return fired = true;
  }
  void FailAfter(std::uint64_t transfers, bool persistent) {
    failAt = Transfers() + transfers;
    forGood = persistent;
    fired = firedOnWrite = false;
  }
  void Heal() { failAt = 0; }
};

class CTestDevice final : public fatlib::Device {
 public:
  explicit CTestDevice(std::shared_ptr<TEST_MEDIUM> medium) : m_pMedium(std::move(medium)) {}

  std::error_code Read(std::uint64_t position, void* buffer, std::size_t size) override {
    ++m_pMedium->reads;
    m_pMedium->bytesRead += size;
    if (m_pMedium->Fails()) return fatlib::Status::IoError;
    const std::size_t end = m_pMedium->bytes.size();
    const std::size_t start = position < end ? ToSize(position) : end;
    const std::size_t there = size < end - start ? size : end - start;
    std::memset(buffer, 0, size);
    if (there != 0) std::memcpy(buffer, m_pMedium->bytes.data() + start, there);
    return {};
  }
  std::error_code Write(std::uint64_t position, const void* buffer, std::size_t size) override {
    ++m_pMedium->writes;
    if (m_pMedium->mode == fatlib::Access::ReadOnly) return fatlib::Status::WriteProtected;
    if (m_pMedium->Fails()) {
      m_pMedium->firedOnWrite = true;
      return fatlib::Status::IoError;
    }
    if (position + size > m_pMedium->bytes.size()) return fatlib::Status::IoError;
    unsigned char* const place = m_pMedium->bytes.data() + ToSize(position);
    if (m_pMedium->keepOld) m_pMedium->old.emplace_back(position, std::vector<unsigned char>(place, place + size));
    std::memcpy(place, buffer, size);
    return {};
  }
  std::error_code Flush() override {
    ++m_pMedium->flushes;
    return {};
  }
  std::uint64_t Size() const override { return m_pMedium->bytes.size(); }
  fatlib::Access Mode() const override { return m_pMedium->mode; }

 private:
  std::shared_ptr<TEST_MEDIUM> m_pMedium;
};

/// What a test wants of a volume.
struct TEST_SHAPE {
  int bits = 16;
  std::uint64_t bytes = std::uint64_t{8} << 20;
  std::uint32_t bytesPerCluster = 0;
  std::uint32_t rootEntries = 0;
};

inline std::vector<unsigned char> FormattedImage(const TEST_SHAPE& shape) {
  fatlib::FormatOptions options;
  options.bits = shape.bits;
  options.bytesPerCluster = shape.bytesPerCluster;
  options.rootEntries = shape.rootEntries;
  options.volumeId = 0x12345678;
  fatlib::MemoryImage image{std::vector<unsigned char>(ToSize(shape.bytes))};
  const std::error_code error = fatlib::Format(&image, options);
  EXPECT_FALSE(error) << error.message();
  return std::move(image.Bytes());
}

/// What fsck.fat has to say about an image, besides its name and the count of files; empty when it is content.
inline std::string FsckFindings(const std::vector<unsigned char>& bytes) {
  const CTempDir place;
  WriteHostFile(place / "image", bytes);
  const PROCESS_RESULT result = RunProcess({"fsck.fat", "-n", place / "image"});
  std::string findings;
  std::size_t start = 0;
  for (std::size_t end; (end = result.Output.find('\n', start)) != std::string::npos; start = end + 1) {
    const std::string line = result.Output.substr(start, end - start);
    const bool expected = line.rfind("fsck.fat ", 0) == 0 || line.find(" clusters") != std::string::npos;
    if (!expected) findings += line + "\n";
  }
  if (result.ExitCode != 0) findings += "exit status " + std::to_string(result.ExitCode) + "\n";
  return findings;
}

/// A volume in memory that can be opened again and looked at.
class CTestVolume {
 public:
  explicit CTestVolume(const TEST_SHAPE& shape = {}) : medium(std::make_shared<TEST_MEDIUM>()) {
    medium->bytes = FormattedImage(shape);
    Open();
  }

  void Open(const fatlib::VolumeOptions& options = {}) {
    const std::error_code error = volume.Open(std::make_unique<CTestDevice>(medium), options);
    ASSERT_FALSE(error) << error.message();
  }
  void Reopen() {
    Close();
    Open();
  }
  void Close() {
    const std::error_code error = volume.Close();
    ASSERT_FALSE(error) << error.message();
  }
  /// Closes, and has fsck.fat look at it.
  void CloseAndCheck() {
    Close();
    EXPECT_EQ(FsckFindings(medium->bytes), "");
  }

  std::error_code Write(const std::string& path, const std::string& text) {
    return volume.WriteAll(path, text.data(), text.size());
  }
  /// The bytes of a file, or "error: " and why it cannot be read.
  std::string Read(const std::string& path) {
    std::vector<unsigned char> bytes;
    const std::error_code error = volume.ReadAll(path, &bytes);
    return error ? "error: " + error.message() : std::string(bytes.begin(), bytes.end());
  }
  fatlib::Entry Stat(const std::string& path) {
    fatlib::Entry entry;
    const std::error_code error = volume.Stat(path, &entry);
    EXPECT_FALSE(error) << path << ": " << error.message();
    return entry;
  }
  bool Exists(const std::string& path) {
    fatlib::Entry entry;
    return !volume.Stat(path, &entry);
  }
  /// The names in a directory in the order in which they lie there, with a space between.
  std::string Names(const std::string& path) {
    fatlib::Directory directory;
    const std::error_code error = volume.List(path, &directory);
    if (error) return "error: " + error.message();
    std::string names;
    for (const fatlib::Entry& entry : directory) names += (names.empty() ? "" : " ") + entry.Utf8Name();
    return names;
  }

  std::shared_ptr<TEST_MEDIUM> medium;
  fatlib::Volume volume;
};

#endif  // FATLIB_TESTS_VOLUMEFIXTURE_H
