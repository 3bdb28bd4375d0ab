/// @file OrderedDeviceCutTest.cpp
/// Random changes of small volumes that are nearly full. For every commit, the writes to the device below are replayed
/// over the image as it was before, sector by sector; after each sector a check may find no more than what a cut may
/// leave, and what was not touched since the last commit is there.
///
/// FATLIB_SEED sets the seed, FATLIB_STEPS the length, FATLIB_FIGURES=1 prints how many cuts were looked at.

#include <iostream>
#include <random>
#include <set>

#include "OrderedDeviceFixture.h"
#include "support/Environment.h"

using fatlib::Access;
using fatlib::Defect;
using fatlib::OrderedDevice;
using fatlib::Path;

namespace {

struct SCENE {
  const char* name;
  TEST_SHAPE shape;
  std::uint32_t firstFree;
  std::uint32_t freeClusters;
  unsigned int maxFileBytes;
  bool longNames;
  unsigned int steps;
};

void PrintTo(const SCENE& scene, std::ostream* out) { *out << scene.name; }

class CCuts {
 public:
  CCuts(const SCENE& scene, unsigned int seed)
      : m_Scene(scene), m_Random(seed), m_pRecord(std::make_shared<RECORD>()), m_pPlain(std::make_shared<RECORD>()) {
    m_pRecord->bytes = m_pPlain->bytes = SmallVolume(scene.shape, scene.firstFree, scene.freeClusters);
    std::unique_ptr<OrderedDevice> device;
    EXPECT_FALSE(OrderedDevice::Open(std::make_unique<CRecordingDevice>(m_pRecord), &device));
    m_pDevice = device.get();
    EXPECT_FALSE(m_Volume.Open(std::move(device), Options()));
    EXPECT_FALSE(m_Plain.Open(std::make_unique<CRecordingDevice>(m_pPlain), Options()));
    m_Committed = m_pRecord->bytes;
    m_Before = TreeOf(&m_Committed);
  }

  void Run(unsigned int steps) {
    for (unsigned int step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
      m_nStep = step;
      if (Below(3) != 0) m_Now.tv_sec += 3;
      Step();
      if (Below(6) == 0) Commit();
    }
    if (!testing::Test::HasFailure()) Commit();
    if (FromEnvironment("FATLIB_FIGURES", 0) == 0) return;
    std::cout << m_Scene.name << ": " << m_nCommits << " commits, " << m_nCuts << " cuts, " << m_nShuffles
              << " shuffles, " << m_nSlides << " slides";
    for (const auto& [kind, count] : m_Defects) {
      std::cout << ", " << fatlib::DefectName(static_cast<Defect::Kind>(kind)) << " in " << count;
    }
    std::cout << "\n";
  }

 private:
  fatlib::VolumeOptions Options() {
    fatlib::VolumeOptions options;
    options.zone = fatlib::Zone::Utc;
    options.clock = [this] { return m_Now; };
    return options;
  }

  unsigned int Below(unsigned int limit) { return limit == 0 ? 0 : static_cast<unsigned int>(m_Random() % limit); }

  // ---- changes, the same on both volumes

  template <typename CHANGE>
  bool Do(const CHANGE& change) {
    const std::error_code plain = change(&m_Plain);
    const std::error_code error = change(&m_Volume);
    EXPECT_EQ(error, plain) << "step " << m_nStep << " " << error.message() << " / " << plain.message();
    return !error;
  }

  std::string RandomDirectory() {
    static const std::vector<std::string> directories = {"", "", "", "/D0", "/D1", "/D2", "/D0/D1", "/D1/D2", "/D2/D0"};
    return directories[Below(static_cast<unsigned int>(directories.size()))];
  }
  std::string RandomFile() {
    const std::string number = std::to_string(Below(14));
    const bool longName = m_Scene.longNames && Below(2) == 0;
    return RandomDirectory() + (longName ? "/a longer name for the file " + number + ".text" : "/F" + number + ".DAT");
  }

  std::vector<unsigned char> RandomBytes(unsigned int count) {
    std::vector<unsigned char> bytes(count);
    for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(m_Random() >> 7);
    return bytes;
  }

  void Step() {
    switch (Below(16)) {
      case 0:
      case 1:
      case 2:
      case 3:
        return Write();
      case 4:
      case 5:
        return Append();
      case 6:
        return Overwrite();
      case 7:
      case 8:
        return Resize();
      case 9:
      case 10:
        return Remove();
      case 11:
      case 12:
        return Rename(RandomFile(), RandomFile());
      case 13:
        return Rename("/D" + std::to_string(Below(3)), RandomDirectory() + "/D" + std::to_string(Below(3)));
      case 14:
        return MakeDirectory();
      default:
        return Recreate();
    }
  }

  void Write() {
    const std::string path = RandomFile();
    const std::vector<unsigned char> bytes = RandomBytes(Below(5) == 0 ? 0 : Below(m_Scene.maxFileBytes));
    Do([&](fatlib::Volume* volume) { return volume->WriteAll(Path(path), bytes.data(), bytes.size()); });
    m_Touched.insert(path);
  }
  void Append() {
    const std::string path = RandomFile();
    const std::vector<unsigned char> bytes = RandomBytes(1 + Below(m_Scene.maxFileBytes / 2));
    Do([&](fatlib::Volume* volume) {
      fatlib::File file;
      if (const std::error_code error = volume->OpenFile(Path(path), Access::ReadWrite, &file)) return error;
      return file.Write(file.Size(), bytes.data(), bytes.size());
    });
    m_Appended.insert(path);
  }
  void Overwrite() {
    const std::string path = RandomFile();
    const std::vector<unsigned char> bytes = RandomBytes(1 + Below(600));
    Do([&](fatlib::Volume* volume) {
      fatlib::File file;
      if (const std::error_code error = volume->OpenFile(Path(path), Access::ReadWrite, &file)) return error;
      return file.Write(0, bytes.data(), bytes.size());
    });
    m_Touched.insert(path);
  }
  void Resize() {
    const std::string path = RandomFile();
    const std::vector<std::uint64_t> sizes = {Below(m_Scene.maxFileBytes), Below(m_Scene.maxFileBytes)};
    const bool twice = Below(2) == 0;  // cut and grown again
    Do([&](fatlib::Volume* volume) {
      fatlib::File file;
      if (const std::error_code error = volume->OpenFile(Path(path), Access::ReadWrite, &file)) return error;
      const std::uint32_t size = file.Size();
      if (const std::error_code error = file.Resize(sizes[0])) return error;
      return twice ? file.Resize(size) : std::error_code();
    });
    m_Touched.insert(path);
  }
  void Remove() {
    const std::string path = Below(4) == 0 ? RandomDirectory() : RandomFile();
    if (path.empty()) return;
    const bool all = Below(2) == 0;
    Do([&](fatlib::Volume* volume) { return all ? volume->RemoveAll(Path(path)) : volume->Remove(Path(path)); });
    m_Touched.insert(path);
  }
  void Rename(const std::string& from, const std::string& to) {
    const bool replace = Below(2) == 0;
    if (!Do([&](fatlib::Volume* volume) { return volume->Rename(Path(from), Path(to), replace); })) return;
    m_Touched.insert(from);
    m_Touched.insert(to);
  }
  void MakeDirectory() {
    const std::string path = RandomDirectory() + "/D" + std::to_string(Below(3));
    if (Do([&](fatlib::Volume* volume) { return volume->CreateDirectory(Path(path)); })) m_Touched.insert(path);
  }
  // Several files go, and others come into their slots and clusters.
  void Recreate() {
    for (unsigned int i = 0; i < 3; ++i) Remove();
    for (unsigned int i = 0; i < 3; ++i) Write();
  }

  // ---- commits

  void Commit() {
    EXPECT_FALSE(m_Plain.Sync());
    EXPECT_FALSE(m_Volume.Sync());
    ++m_nCommits;
    EXPECT_EQ(m_pDevice->HeldBytes(), 0u);
    EXPECT_EQ(TextOf(ReportOf(&m_pRecord->bytes)), "") << "step " << m_nStep;
    m_After = TreeOf(&m_pRecord->bytes);
    // Short names of long ones are counted in the process, so that they differ.
    EXPECT_TRUE(m_Scene.longNames || m_pRecord->bytes == m_pPlain->bytes) << "step " << m_nStep;
    EXPECT_TRUE(m_After == TreeOf(&m_pPlain->bytes)) << "step " << m_nStep;
    NoteSlides();
    Replay();
    m_Before = m_After;
    m_Touched.clear();
    m_Appended.clear();
    m_pRecord->log.clear();
    m_pPlain->log.clear();
  }

  /// A full root is slid together: what comes into another sector is on its way for a while, and so are the parts of
  /// a name in two sectors.
  void NoteSlides() {
    const std::map<std::string, std::uint64_t> before = EntryPlacesOf(&m_Committed);
    for (const auto& [path, place] : EntryPlacesOf(&m_pRecord->bytes)) {
      const auto old = before.find(path);
      if (old == before.end() || old->second == place || IsTouched(path)) continue;
      m_Touched.insert(path);
      ++m_nSlides;
    }
  }

  void Replay() {
    std::vector<unsigned char>& image = m_Committed;
    const unsigned int sectorBytes = m_Volume.Layout().bytesPerSector;
    std::vector<RECORDED_WRITE> phase;
    for (std::size_t i = 0; i < m_pRecord->log.size() && !testing::Test::HasFailure(); ++i) {
      const RECORDED_WRITE& write = m_pRecord->log[i];
      m_sCut = "step " + std::to_string(m_nStep) + ", write " + std::to_string(i) + " at " +
               std::to_string(write.position) + "\n";
      if (write.IsFlush()) {
        phase.clear();
        for (std::size_t next = i + 1; next < m_pRecord->log.size() && !m_pRecord->log[next].IsFlush(); ++next) {
          const std::vector<RECORDED_WRITE> sectors = SectorsOf(m_pRecord->log[next], sectorBytes);
          phase.insert(phase.end(), sectors.begin(), sectors.end());
        }
        Shuffle(image, phase);
        continue;
      }
      for (const RECORDED_WRITE& sector : SectorsOf(write, sectorBytes)) {
        Apply(sector, &image);
        ++m_nCuts;
        LookAt(&image);
      }
    }
    EXPECT_TRUE(image == m_pRecord->bytes) << "step " << m_nStep;
  }

  /// Between two flushes a device writes what it likes, and leaves the rest.
  void Shuffle(const std::vector<unsigned char>& image, const std::vector<RECORDED_WRITE>& phase) {
    if (phase.size() < 2) return;
    for (unsigned int i = 0; i < 2 && !testing::Test::HasFailure(); ++i) {
      std::vector<unsigned char> copy = image;
      for (const RECORDED_WRITE& sector : phase) {
        if (Below(2) == 0) Apply(sector, &copy);
      }
      ++m_nShuffles;
      LookAt(&copy);
    }
  }

  /// An entry of the FAT: only this scene is that far behind in it.
  bool HasEntryInTwoSectors() const { return m_Scene.firstFree > 3; }

  bool IsAllowed(Defect::Kind kind) const {
    switch (kind) {
      case Defect::LostChain:
      case Defect::ChainBeyondSize:
      case Defect::FatCopiesDiffer:
      case Defect::FsInfoWrongCount:
        return true;
      case Defect::ChainBroken:  // for a moment
        return HasEntryInTwoSectors();
      case Defect::OrphanLongName:
      case Defect::BadLongName:
        return m_Scene.longNames;
      default:
        return false;
    }
  }

  bool IsTouched(const std::string& path) const {
    return std::any_of(m_Touched.begin(), m_Touched.end(), [&path](const std::string& touched) {
      return path == touched || path.compare(0, touched.size() + 1, touched + "/") == 0;
    });
  }

  bool IsBelowTouched(const std::string& path) const { return IsTouched(path.substr(0, path.rfind('/'))); }

  void LookAt(std::vector<unsigned char>* image) {
    const fatlib::CheckReport report = ReportOf(image);
    std::set<int> kinds;
    for (const Defect& defect : report.defects) {
      EXPECT_TRUE(IsAllowed(defect.kind)) << m_sCut << TextOf(report);
      kinds.insert(defect.kind);
    }
    for (const int kind : kinds) ++m_Defects[kind];
    // A program that shares nothing with the check looks at some of them.
    const bool small = image->size() < (std::size_t{8} << 20);
    if (m_nCuts % 40 == 0 && small && !HasEntryInTwoSectors()) {
      EXPECT_EQ(FsckObjections(*image), "") << m_sCut;
    }
    const IMAGE_TREE tree = TreeOf(image);
    for (const auto& [path, bytes] : m_Before) {
      if (IsTouched(path)) continue;
      const auto found = tree.find(path);
      if (found == tree.end()) {
        ADD_FAILURE() << m_sCut << path << " is missing\n" << TextOf(report);
        continue;
      }
      const bool grew = m_Appended.count(path) != 0;
      EXPECT_TRUE(grew ? found->second.size() >= bytes.size() : found->second.size() == bytes.size()) << m_sCut << path;
      if (found->second.size() < bytes.size()) continue;
      EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), found->second.begin())) << m_sCut << path;
    }
    for (const auto& [path, bytes] : tree) {
      const auto before = m_Before.find(path);
      const auto after = m_After.find(path);
      // What is new comes with all its bytes; what is old may be below a directory that has another name already.
      const bool isNew = before == m_Before.end() && after != m_After.end() && !IsBelowTouched(path);
      EXPECT_TRUE(!isNew || bytes == after->second) << m_sCut << path;
    }
  }

  const SCENE& m_Scene;
  std::mt19937 m_Random;
  std::timespec m_Now{1600000000, 0};
  std::shared_ptr<RECORD> m_pRecord;
  std::shared_ptr<RECORD> m_pPlain;
  OrderedDevice* m_pDevice = nullptr;
  fatlib::Volume m_Volume;
  fatlib::Volume m_Plain;  // the same without order
  std::vector<unsigned char> m_Committed;
  IMAGE_TREE m_Before;
  IMAGE_TREE m_After;
  std::set<std::string> m_Touched;   // since the last commit; with all that is below
  std::set<std::string> m_Appended;  // only their ends
  std::map<int, std::uint64_t> m_Defects;
  std::string m_sCut;
  unsigned int m_nStep = 0;
  std::uint64_t m_nCommits = 0;
  std::uint64_t m_nCuts = 0;
  std::uint64_t m_nShuffles = 0;
  std::uint64_t m_nSlides = 0;
};

class OrderedDeviceCuts : public testing::TestWithParam<SCENE> {};

TEST_P(OrderedDeviceCuts, LeaveWhatWasNotTouched) {
  const unsigned int seed = FromEnvironment("FATLIB_SEED", 1);
  SCOPED_TRACE("FATLIB_SEED=" + std::to_string(seed));
  CCuts(GetParam(), seed).Run(FromEnvironment("FATLIB_STEPS", GetParam().steps));
}

INSTANTIATE_TEST_SUITE_P(Scenes, OrderedDeviceCuts,
                         testing::Values(SCENE{"Fat12Short", {12, 1u << 20, 512, 16}, 3, 60, 4000, false, 300},
                                         SCENE{"Fat12Long", {12, 1u << 20, 512, 64}, 3, 90, 4000, true, 300},
                                         SCENE{"Fat12TwoSectors", {12, 1u << 20, 512, 16}, 320, 40, 4000, false, 200},
                                         SCENE{"Fat16Short", {16, 3u << 20, 512, 16}, 3, 60, 4000, false, 200},
                                         SCENE{"Fat16Long", {16, 5u << 20, 1024, 64}, 3, 60, 9000, true, 200},
                                         SCENE{"Fat32Short", {32, 36u << 20, 512, 0}, 3, 60, 4000, false, 60},
                                         SCENE{"Fat32Long", {32, 36u << 20, 512, 0}, 3, 90, 4000, true, 60}),
                         [](const testing::TestParamInfo<SCENE>& scene) { return std::string(scene.param.name); });

}  // namespace
