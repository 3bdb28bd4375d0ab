/// @file OrderedDeviceVolume.h
/// A volume on an OrderedDevice that is changed byte by byte, as no careful program would, to have each case by itself.

#ifndef FATLIB_TESTS_ORDEREDDEVICEVOLUME_H
#define FATLIB_TESTS_ORDEREDDEVICEVOLUME_H

#include "OrderedDeviceFixture.h"

class COrdered {
 public:
  static constexpr std::uint32_t CLUSTER_BYTES = 512;
  static constexpr std::uint32_t ROOT = fatlib::Medium::ROOT;

  explicit COrdered(int width) : bits(width), record(std::make_shared<RECORD>()) {
    record->bytes = FormattedImage({bits, bits == 12 ? 1u << 20 : bits == 16 ? 3u << 20 : 36u << 20, CLUSTER_BYTES, 0});
    Open();
  }

  void Open() {
    ASSERT_FALSE(fatlib::OrderedDevice::Open(std::make_unique<CRecordingDevice>(record), &device));
    medium = {};
    ASSERT_FALSE(medium.Open(device.get()));
  }

  std::uint32_t End() const { return bits == 12 ? 0xFFF : bits == 16 ? 0xFFFF : 0x0FFFFFFF; }

  /// Links clusters to a chain.
  void Chain(const std::vector<std::uint32_t>& clusters) {
    for (std::size_t i = 0; i < clusters.size(); ++i) {
      EXPECT_FALSE(medium.SetFatEntry(clusters[i], i + 1 < clusters.size() ? clusters[i + 1] : End()));
    }
  }
  void Free(std::uint32_t cluster) { EXPECT_FALSE(medium.SetFatEntry(cluster, 0)); }

  void Slot(std::uint32_t place, std::uint32_t slot, const std::string& name11, unsigned int attributes,
            std::uint32_t cluster, std::uint32_t size) {
    std::vector<unsigned char> bytes(32);
    std::copy(name11.begin(), name11.end(), bytes.begin());
    bytes[11] = static_cast<unsigned char>(attributes);
    bytes[20] = static_cast<unsigned char>(cluster >> 16);
    bytes[26] = static_cast<unsigned char>(cluster);
    bytes[27] = static_cast<unsigned char>(cluster >> 8);
    for (unsigned int i = 0; i < 4; ++i) bytes[28 + i] = static_cast<unsigned char>(size >> (8 * i));
    std::uint64_t position = 0;
    ASSERT_FALSE(medium.SlotPosition(place, slot, &position));
    ASSERT_FALSE(device->Write(position, bytes.data(), bytes.size()));
  }
  void Delete(std::uint32_t place, std::uint32_t slot, unsigned char mark = 0xE5) {
    std::uint64_t position = 0;
    ASSERT_FALSE(medium.SlotPosition(place, slot, &position));
    ASSERT_FALSE(device->Write(position, &mark, 1));
  }
  /// A directory of one cluster with entries in all its slots.
  void FullDirectory(std::uint32_t place, std::uint32_t slot, const std::string& name11, std::uint32_t cluster) {
    Directory(place, slot, name11, cluster);
    for (std::uint32_t i = 2; i < 16; ++i) Slot(cluster, i, "X" + std::to_string(10 + i) + "        ", 0x20, 0, 0);
  }
  /// A file of as many bytes as its clusters hold.
  void File(std::uint32_t place, std::uint32_t slot, const std::string& name11,
            const std::vector<std::uint32_t>& clusters) {
    Chain(clusters);
    Slot(place, slot, name11, 0x20, clusters.empty() ? 0 : clusters[0], Bytes(clusters.size()));
  }
  static std::uint32_t Bytes(std::size_t clusters) { return static_cast<std::uint32_t>(clusters) * CLUSTER_BYTES; }
  /// An empty directory.
  void Directory(std::uint32_t place, std::uint32_t slot, const std::string& name11, std::uint32_t cluster) {
    Chain({cluster});
    Fill(cluster, 0);
    Slot(cluster, 0, ".          ", 0x10, cluster, 0);
    Slot(cluster, 1, "..         ", 0x10, place, 0);
    Slot(place, slot, name11, 0x10, cluster, 0);
  }
  void Fill(std::uint32_t cluster, unsigned char byte) {
    const std::vector<unsigned char> bytes(CLUSTER_BYTES, byte);
    ASSERT_FALSE(device->Write(medium.Layout().ClusterPosition(cluster), bytes.data(), bytes.size()));
  }

  /// What has been written until now is the state from which a commit starts.
  void Begin() {
    ASSERT_FALSE(medium.WriteFsInfo());
    ASSERT_FALSE(device->Flush());
    before = record->bytes;
    ASSERT_EQ(TextOf(ReportOf(&before)), "");
    record->log.clear();
  }
  /// Commits; at each cut only lost clusters, clusters too many and copies that differ are found.
  void ExpectSoundCuts() {
    ASSERT_FALSE(medium.WriteFsInfo());
    std::vector<unsigned char> current(record->bytes.size());
    ASSERT_FALSE(device->Read(0, current.data(), current.size()));
    ASSERT_FALSE(device->Flush());
    EXPECT_TRUE(record->bytes == current);
    EXPECT_EQ(device->HeldBytes(), 0u);
    EXPECT_EQ(TextOf(ReportOf(&current)), "");
    cuts = 0;
    std::vector<unsigned char> forward = before;
    std::vector<unsigned char> backward = before;
    std::vector<RECORDED_WRITE> phase;
    bool isCommit = false;  // bytes of files come first, and one may be written twice
    for (const RECORDED_WRITE& write : record->log) {
      if (write.IsFlush()) {
        CutBackward(isCommit, &phase, &backward);
        isCommit = true;
      }
      for (const RECORDED_WRITE& sector : SectorsOf(write, medium.Layout().bytesPerSector)) {
        Apply(sector, &forward);
        ExpectSound(&forward);
        ++cuts;
        phase.push_back(sector);
      }
    }
  }
  /// A device may begin with what came last since it was flushed.
  void CutBackward(bool isCommit, std::vector<RECORDED_WRITE>* phase, std::vector<unsigned char>* image) const {
    if (!isCommit) std::reverse(phase->begin(), phase->end());
    for (; !phase->empty(); phase->pop_back()) {
      Apply(phase->back(), image);
      if (isCommit && phase->size() > 1) ExpectSound(image);
    }
  }
  void ExpectSound(std::vector<unsigned char>* image) const {
    const fatlib::CheckReport report = ReportOf(image);
    for (const fatlib::Defect& defect : report.defects) {
      const bool allowed = defect.kind == fatlib::Defect::LostChain || defect.kind == fatlib::Defect::ChainBeyondSize ||
                           defect.kind == fatlib::Defect::FatCopiesDiffer ||
                           defect.kind == fatlib::Defect::FsInfoWrongCount ||
                           (mayBreak && defect.kind == fatlib::Defect::ChainBroken);
      EXPECT_TRUE(allowed) << "cut " << cuts << "\n" << TextOf(report);
    }
  }

  int bits;
  std::shared_ptr<RECORD> record;
  std::unique_ptr<fatlib::OrderedDevice> device;
  fatlib::Medium medium;
  std::vector<unsigned char> before;
  unsigned int cuts = 0;
  bool mayBreak = false;  ///< a chain, for a moment
};

#endif  // FATLIB_TESTS_ORDEREDDEVICEVOLUME_H
