/// @file CheckedVolume.h
/// A small volume to which tests add what Check is to find.

#ifndef FATLIB_TESTS_HOST_CHECKEDVOLUME_H
#define FATLIB_TESTS_HOST_CHECKEDVOLUME_H

#include <fatlib/Check.h>
#include <fatlib/Format.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ImageDevice.h"
#include "support/ImageBuilder.h"

/// What was told: "name path number count other", without what is empty or, at the end, 0.
using TOLD = std::vector<std::string>;

inline TOLD ToldOf(const fatlib::CheckReport& report) {
  TOLD told;
  for (const fatlib::Defect& defect : report.defects) {
    std::string text = fatlib::DefectName(defect.kind);
    if (!defect.path.empty()) text += " " + defect.path;
    if (defect.number != 0 || defect.count != 0) text += " " + std::to_string(defect.number);
    if (defect.count != 0) text += " " + std::to_string(defect.count);
    if (!defect.other.empty()) text += " " + defect.other;
    told.push_back(text);
  }
  return told;
}

/// Checks a device; fails the test when there is no volume on it.
inline fatlib::CheckReport CheckDevice(fatlib::Device* device) {
  fatlib::Medium medium;
  fatlib::CheckReport report;
  const std::error_code opened = medium.Open(device);
  EXPECT_FALSE(opened) << opened.message();
  if (opened) return report;
  EXPECT_FALSE(fatlib::Check(&medium, &report));
  return report;
}

/// The same; and fails the test when the image was written to.
inline fatlib::CheckReport CheckImage(const CDiskImage& image) {
  CImageDevice device(image);
  const fatlib::CheckReport report = CheckDevice(&device);
  EXPECT_EQ(0u, device.Writes());
  return report;
}

/// A volume with clusters of one sector, made by Format: FAT12 of 1 MiB, FAT16 of 8 MiB or FAT32 of 40 MiB.
class CCheckedVolume {
 public:
  static constexpr CImageBuilder::DIRECTORY ROOT = CImageBuilder::Root();

  explicit CCheckedVolume(int bits, const std::u16string& label = {}) : m_Image(Made(bits, label)), m_Builder(m_Image) {
    // The builder does not keep the count of free clusters.
    if (bits == 32) m_Image.Set32(m_Builder.FsInfoOffset() + 488, 0xFFFFFFFF);
  }

  CDiskImage& Image() { return m_Image; }
  CImageBuilder& Builder() { return m_Builder; }
  /// A file of so many bytes on clusters that follow each other.
  unsigned int AddFile(const std::string& name, std::size_t size, std::uint32_t first,
                       CImageBuilder::DIRECTORY directory = ROOT) {
    std::vector<std::uint32_t> clusters;
    for (std::size_t i = 0; i * 512 < size; ++i) clusters.push_back(static_cast<std::uint32_t>(first + i));
    return m_Builder.AddFile(directory, name, CImageBuilder::Pattern(size, first), clusters);
  }
  /// Changes a byte of a slot.
  void SetSlotByte(CImageBuilder::DIRECTORY directory, unsigned int slot, unsigned int at, unsigned int value) {
    m_Image.Set8(m_Builder.SlotOffset(directory, slot) + at, value);
  }
  fatlib::CheckReport Report() const { return CheckImage(m_Image); }
  TOLD Check() const { return ToldOf(Report()); }

 private:
  static CDiskImage Made(int bits, const std::u16string& label) {
    fatlib::FormatOptions options;
    options.bits = bits;
    options.bytesPerCluster = 512;
    options.label = label;
    options.created.date = 0x5A21;
    CImageDevice device(bits == 12 ? 1u << 20 : bits == 16 ? 8u << 20 : 40u << 20);
    EXPECT_FALSE(fatlib::Format(&device, options));
    return device.Image();
  }

  CDiskImage m_Image;
  CImageBuilder m_Builder;
};

#endif  // FATLIB_TESTS_HOST_CHECKEDVOLUME_H
