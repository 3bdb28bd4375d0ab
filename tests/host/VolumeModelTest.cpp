/// @file VolumeModelTest.cpp
/// Random sequences of all functions against a tree in memory. Now and then the volume is synced or opened again; in
/// the end fsck.fat has nothing to say, and a reader that shares nothing with the face finds the same tree.
///
/// FATLIB_SEED sets the seed, FATLIB_STEPS the length.

#include <iostream>
#include <random>

#include "VolumeFixture.h"
#include "VolumeModel.h"
#include "support/Environment.h"
#include "support/VolumeReader.h"

using fatlib::Access;
using fatlib::Path;
using fatlib::Status;

namespace {

struct SCENE {
  const char* name;
  TEST_SHAPE shape;
  unsigned int maxFileBytes;
  unsigned int names;  // how many different ones there are: few names collide often
  unsigned int steps;
};

void PrintTo(const SCENE& scene, std::ostream* out) { *out << scene.name; }

class CExercise {
 public:
  CExercise(const SCENE& scene, unsigned int seed) : m_Scene(scene), m_Random(seed), m_Test(scene.shape) {
    m_Test.Close();
    Open();
  }

  void Run(unsigned int steps) {
    for (unsigned int step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
      m_Now.tv_sec += 3;
      m_sStep = "step " + std::to_string(step) + " ";
      Step();
      if (step % 97 == 96) CompareAll();
    }
    CompareAll();
    for (OPEN_FILE& file : m_Open) file.file.Close();
    m_Test.CloseAndCheck();
    CompareMedium();
  }

 private:
  struct OPEN_FILE {
    fatlib::File file;
    MODEL_NODE* node = nullptr;
  };

  void Open() {
    fatlib::VolumeOptions options;
    options.zone = fatlib::Zone::Utc;
    options.clock = [this] { return m_Now; };
    m_Test.Open(options);
  }

  unsigned int Below(unsigned int limit) { return limit == 0 ? 0 : static_cast<unsigned int>(m_Random() % limit); }

  std::u16string RandomName() {
    static const std::vector<std::u16string> shapes = {u"FILE#.TXT",
                                                       u"data#.bin",
                                                       u"Mixed#.Txt",
                                                       u"long_n~#.txt",
                                                       u"______~#",
                                                       u"_____~1#",
                                                       u"a name that is long, number #",
                                                       u"LONGNA~#.TXT",
                                                       u"longname of #.txt",
                                                       u"Grüße #.txt",
                                                       u"\u4E2D\u6587#",
                                                       u"\xD83D\xDE00#",
                                                       u".hidden#",
                                                       u"two.dots.#",
                                                       u"~FAT#.TMP",
                                                       u"A~#",
                                                       u"a+#",
                                                       u"common beginning of a name #.text",
                                                       u"\u0131#",
                                                       u"#",
                                                       u"x y #"};
    std::u16string name = shapes[Below(static_cast<unsigned int>(shapes.size()))];
    std::u16string number;
    for (const char digit : std::to_string(Below(m_Scene.names))) number += static_cast<char16_t>(digit);
    name.replace(name.find(u'#'), 1, number);
    if (Below(30) == 0) return ForPrivateUse(name);
    return Below(3) == 0 ? InAnyCase(name) : name;
  }

  /// A name of units for private use, like those under which the face has the library know names for a time.
  static std::u16string ForPrivateUse(const std::u16string& name) {
    std::u16string mapped = fatlib::UpCase(name);
    for (char16_t& unit : mapped) unit = static_cast<char16_t>(0xE000 + unit % 0x80);
    return mapped;
  }

  /// ASCII letters changed at random.
  std::u16string InAnyCase(std::u16string name) {
    for (char16_t& unit : name) {
      const auto lower = static_cast<char16_t>(unit | 0x20);
      if (lower >= u'a' && lower <= u'z' && Below(2) == 0) unit = static_cast<char16_t>(unit ^ 0x20);
    }
    return name;
  }

  MODEL_NODE* RandomDirectory() {
    std::vector<MODEL_NODE*> files;
    std::vector<MODEL_NODE*> directories;
    m_Model.Collect(m_Model.Root(), &files, &directories);
    return directories[Below(static_cast<unsigned int>(directories.size()))];
  }

  MODEL_NODE* RandomFile() {
    std::vector<MODEL_NODE*> files;
    std::vector<MODEL_NODE*> directories;
    m_Model.Collect(m_Model.Root(), &files, &directories);
    return files.empty() ? nullptr : files[Below(static_cast<unsigned int>(files.size()))];
  }

  /// A path that may be there or not.
  Path RandomPath() {
    const unsigned int kind = Below(10);
    MODEL_NODE* const file = RandomFile();
    if (kind < 4 && file != nullptr) return CVolumeModel::PathOf(file);
    if (kind < 6) return CVolumeModel::PathOf(RandomDirectory());
    if (kind == 6 && file != nullptr) return CVolumeModel::PathOf(file) / RandomName();
    return CVolumeModel::PathOf(RandomDirectory()) / RandomName();
  }

  fatlib::Stamp Now(bool created) const {
    fatlib::Stamp stamp = fatlib::ToStamp(m_Now.tv_sec, m_Now.tv_nsec, fatlib::Zone::Utc);
    if (!created) stamp.tenMilliseconds = 0;
    return stamp;
  }

  fatlib::Times NewTimes() const {
    fatlib::Times times;
    times.created = Now(true);
    times.modified = times.accessed = Now(false);
    times.accessed.time = 0;
    return times;
  }

  void Written(MODEL_NODE* node) const {
    node->times.modified = Now(false);
    node->attributes |= fatlib::ARCHIVE;
  }

  std::vector<unsigned char> RandomBytes(unsigned int count) {
    std::vector<unsigned char> bytes(count);
    for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(m_Random() >> 7);
    return bytes;
  }

  /// Compares a status with the one expected. A full volume is believed when it is nearly full.
  /// @return whether the call has succeeded
  bool Check(const char* what, const Path& path, const std::error_code& error, Status expected) {
    if (error == Status::DiskFull && expected == Status::Success) {
      ExpectNearlyFull(what, path);
      return false;
    }
    EXPECT_EQ(error.value(), static_cast<int>(expected))
        << m_sStep << what << " " << path.ToUtf8() << ": " << error.message();
    return !error;
  }

  /// A fixed root may be full when the volume is not.
  void ExpectNearlyFull(const char* what, const Path& path) {
    std::uint32_t clusters = 0;
    EXPECT_FALSE(m_Test.volume.FreeClusters(&clusters));
    const std::uint64_t bytes = std::uint64_t{clusters} * m_Test.volume.Layout().bytesPerCluster;
    std::size_t slots = 1 + 4;  // of a label, and of the longest of the names
    for (const auto& [upper, child] : m_Model.Root()->children) slots += 1 + (child->name.size() + 12) / 13;
    const bool fixedRoot = m_Scene.shape.bits != 32 && slots > m_Scene.shape.rootEntries;
    EXPECT_TRUE(fixedRoot || bytes < std::uint64_t{2} * m_Scene.maxFileBytes) << m_sStep << what << path.ToUtf8();
  }

  /// What is expected of something that makes a new entry.
  Status ExpectNew(const Path& path) {
    if (path.IsRoot()) return Status::NameExists;
    bool through;
    MODEL_NODE* const parent = m_Model.Find(path.Parent(), &through);
    if (parent == nullptr) return through ? Status::NotADirectory : Status::NotFound;
    if (!parent->directory) return Status::NotADirectory;
    return parent->Child(path.Name()) != nullptr ? Status::NameExists : Status::Success;
  }

  Status ExpectOld(const Path& path, MODEL_NODE** node) {
    bool through;
    *node = m_Model.Find(path, &through);
    return *node != nullptr ? Status::Success : through ? Status::NotADirectory : Status::NotFound;
  }

  void Step() {
    switch (Below(20)) {
      case 0:
      case 1:
      case 2:
        return CreateFile();
      case 3:
        return CreateDirectory();
      case 4:
      case 5:
        return WriteAll();
      case 6:
        return OpenOne();
      case 7:
      case 8:
        return WritePart();
      case 9:
        return Resize();
      case 10:
      case 11:
        return ReadPart();
      case 12:
      case 13:
        return Remove();
      case 14:
      case 15:
      case 16:
        return Rename();
      case 17:
        return SetAttributes();
      case 18:
        return SetTimes();
      default:
        return Rarely();
    }
  }

  void CreateFile() {
    const Path path = RandomPath();
    const unsigned int size = Below(2) == 0 ? 0 : Below(m_Scene.maxFileBytes);
    const std::uint8_t attributes = static_cast<std::uint8_t>(m_Random() & 0x27);
    const std::error_code error = m_Test.volume.CreateFile(path, size, fatlib::File::Fill::Zeros, attributes, nullptr);
    if (!Check("create", path, error, ExpectNew(path))) return;
    MODEL_NODE* const node = m_Model.Add(m_Model.Find(path.Parent()), path.Name(), false, attributes, NewTimes());
    node->bytes.resize(size);
  }

  void CreateDirectory() {
    const Path path = RandomPath();
    if (path.Components().size() > 4) return;
    if (!Check("mkdir", path, m_Test.volume.CreateDirectory(path), ExpectNew(path))) return;
    m_Model.Add(m_Model.Find(path.Parent()), path.Name(), true, 0, NewTimes());
  }

  void WriteAll() {
    const Path path = RandomPath();
    MODEL_NODE* node;
    Status expected = ExpectOld(path, &node);
    const bool creates = expected == Status::NotFound && ExpectNew(path) == Status::Success;
    if (creates) expected = Status::Success;
    if (node != nullptr && node->directory) expected = Status::IsADirectory;
    const std::vector<unsigned char> bytes = RandomBytes(Below(m_Scene.maxFileBytes));
    if (!Check("write", path, m_Test.volume.WriteAll(path, bytes.data(), bytes.size()), expected)) return;
    if (creates) {
      node = m_Model.Add(m_Model.Find(path.Parent()), path.Name(), false, fatlib::ARCHIVE, NewTimes());
    }
    node->bytes = bytes;
    Written(node);
  }

  void OpenOne() {
    const Path path = RandomPath();
    MODEL_NODE* node;
    Status expected = ExpectOld(path, &node);
    if (node != nullptr && node->directory) expected = Status::IsADirectory;
    if (m_Open.size() > 12)
      m_Open.erase(m_Open.begin() + static_cast<std::ptrdiff_t>(Below(static_cast<unsigned int>(m_Open.size()))));
    OPEN_FILE opened;
    if (!Check("open", path, m_Test.volume.OpenFile(path, Access::ReadWrite, &opened.file), expected)) return;
    opened.node = node;
    m_Open.push_back(std::move(opened));
  }

  OPEN_FILE* AnyOpen() { return m_Open.empty() ? nullptr : &m_Open[Below(static_cast<unsigned int>(m_Open.size()))]; }

  Path PathOf(const OPEN_FILE& file) { return file.node == nullptr ? Path("gone") : CVolumeModel::PathOf(file.node); }

  void WritePart() {
    OPEN_FILE* const open = AnyOpen();
    if (open == nullptr) return;
    const unsigned int offset = Below(m_Scene.maxFileBytes);
    const std::vector<unsigned char> bytes = RandomBytes(1 + Below(Below(2) == 0 ? 40 : m_Scene.maxFileBytes / 2));
    const Status expected = open->node == nullptr ? Status::NotFound : Status::Success;
    if (!Check("write part", PathOf(*open), open->file.Write(offset, bytes.data(), bytes.size()), expected)) return;
    if (open->node->bytes.size() < offset + bytes.size()) open->node->bytes.resize(offset + bytes.size());
    std::copy(bytes.begin(), bytes.end(), open->node->bytes.data() + offset);
    Written(open->node);
  }

  void Resize() {
    OPEN_FILE* const open = AnyOpen();
    if (open == nullptr) return;
    const unsigned int size = Below(m_Scene.maxFileBytes);
    const Status expected = open->node == nullptr ? Status::NotFound : Status::Success;
    if (!Check("resize", PathOf(*open), open->file.Resize(size), expected)) return;
    open->node->bytes.resize(size);
    Written(open->node);
  }

  void ReadPart() {
    OPEN_FILE* const open = AnyOpen();
    if (open == nullptr || open->node == nullptr) return;
    const std::vector<unsigned char>& bytes = open->node->bytes;
    const std::size_t offset = Below(static_cast<unsigned int>(bytes.size() + 10));
    std::vector<unsigned char> read(Below(m_Scene.maxFileBytes));
    std::size_t done;
    Check("read", PathOf(*open), open->file.Read(offset, read.data(), read.size(), &done), Status::Success);
    const std::size_t there = offset >= bytes.size() ? 0 : std::min(read.size(), bytes.size() - offset);
    ASSERT_EQ(done, there) << m_sStep << PathOf(*open).ToUtf8();
    EXPECT_EQ(open->file.Size(), bytes.size());
    const auto start = bytes.begin() + static_cast<std::ptrdiff_t>(std::min(offset, bytes.size()));
    EXPECT_TRUE(std::equal(start, start + static_cast<std::ptrdiff_t>(there), read.begin()))
        << m_sStep << PathOf(*open).ToUtf8();
  }

  void Forget(const MODEL_NODE* node) {
    for (OPEN_FILE& open : m_Open) {
      if (open.node != nullptr && open.node->IsAtOrBelow(node)) open.node = nullptr;
    }
  }

  void Remove() {
    const Path path = RandomPath();
    MODEL_NODE* node;
    Status expected = ExpectOld(path, &node);
    if (node == m_Model.Root()) return;
    const bool all = Below(8) == 0;
    if (node != nullptr && !all && !node->children.empty()) expected = Status::NotEmpty;
    if (!Check("remove", path, all ? m_Test.volume.RemoveAll(path) : m_Test.volume.Remove(path), expected)) return;
    Forget(node);
    m_Model.Remove(node);
  }

  Status ExpectRename(const MODEL_NODE* node, const Path& to, bool replace) {
    bool through;
    MODEL_NODE* const parent = m_Model.Find(to.Parent(), &through);
    if (parent == nullptr) return through ? Status::NotADirectory : Status::NotFound;
    if (!parent->directory) return Status::NotADirectory;
    if (parent->IsAtOrBelow(node)) return Status::Refused;
    const MODEL_NODE* const target = parent->Child(to.Name());
    if (target == nullptr || target == node) return Status::Success;
    if (!replace) return Status::NameExists;
    if (node->directory && !target->directory) return Status::NotADirectory;
    if (!node->directory && target->directory) return Status::IsADirectory;
    return target->children.empty() ? Status::Success : Status::NotEmpty;
  }

  void Rename() {
    const Path from = RandomPath();
    Path to = RandomPath();
    if (Below(4) == 0) to = from.Parent() / to.Name();
    if (Below(6) == 0) to = from.Parent() / fatlib::UpCase(from.Name());
    if (Below(6) == 0) to = from.Parent() / InAnyCase(from.Name());
    if (Below(4) == 0) to = to.Parent() / from.Name();
    MODEL_NODE* node;
    Status expected = ExpectOld(from, &node);
    if (from.IsRoot() || to.IsRoot()) return;
    const bool replace = Below(2) == 0;
    if (expected == Status::Success) expected = ExpectRename(node, to, replace);
    const std::error_code error = m_Test.volume.Rename(from, to, replace);
    if (!Check(("rename to " + to.ToUtf8() + " of").c_str(), from, error, expected)) return;
    MODEL_NODE* const parent = m_Model.Find(to.Parent());
    MODEL_NODE* const target = parent->Child(to.Name());
    if (target != nullptr && target != node) {
      Forget(target);
      m_Model.Remove(target);
    }
    m_Model.Move(node, parent, to.Name());
  }

  void SetAttributes() {
    const Path path = RandomPath();
    MODEL_NODE* node;
    Status expected = ExpectOld(path, &node);
    if (node == m_Model.Root()) expected = Status::Refused;
    const std::uint8_t attributes = static_cast<std::uint8_t>(m_Random() & 0x27);
    if (Check("attributes", path, m_Test.volume.SetAttributes(path, attributes), expected)) {
      node->attributes = attributes;
    }
  }

  void SetTimes() {
    const Path path = RandomPath();
    MODEL_NODE* node;
    Status expected = ExpectOld(path, &node);
    if (node == m_Model.Root()) expected = Status::Refused;
    const std::time_t then = 315532800 + static_cast<std::time_t>(Below(1800000000));
    fatlib::Times times;
    times.created = fatlib::ToStamp(then, 990000000, fatlib::Zone::Utc);
    times.modified = times.created;
    times.modified.tenMilliseconds = 0;
    times.accessed.date = times.created.date;
    if (Check("times", path, m_Test.volume.SetTimes(path, times), expected)) node->times = times;
  }

  void Rarely() {
    switch (Below(5)) {
      case 0:
      case 1:
        EXPECT_FALSE(m_Test.volume.Sync()) << m_sStep;
        EXPECT_FALSE(m_Test.volume.IsDirty());
        return;
      case 2:
        for (OPEN_FILE& open : m_Open) open.file.Close();
        m_Open.clear();
        m_Test.Close();
        EXPECT_EQ(Below(4) == 0 ? FsckFindings(m_Test.medium->bytes) : "", "") << m_sStep;
        return Open();
      case 3: {
        std::uint32_t counted;
        std::uint32_t counting;
        ASSERT_FALSE(m_Test.volume.FreeClusters(&counting));
        ASSERT_FALSE(m_Test.volume.Sync());
        ASSERT_FALSE(m_Test.volume.FreeClusters(&counted));
        EXPECT_EQ(counting, counted) << m_sStep;
        return;
      }
      default:
        (void)Check("label", Path(), m_Test.volume.SetLabel(Below(2) == 0 ? u"" : u"LABEL"), Status::Success);
    }
  }

  void CompareAll() { Compare(m_Model.Root()); }

  void Compare(const MODEL_NODE* directory) {
    fatlib::Directory listed;
    const Path path = CVolumeModel::PathOf(directory);
    ASSERT_FALSE(m_Test.volume.List(path, &listed)) << m_sStep << path.ToUtf8();
    EXPECT_EQ(listed.size(), directory->children.size()) << m_sStep << path.ToUtf8();
    for (const fatlib::Entry& entry : listed) {
      const MODEL_NODE* const node = directory->Child(entry.name);
      ASSERT_NE(node, nullptr) << m_sStep << "there is " << (path / entry.name).ToUtf8();
      const std::string text = m_sStep + (path / entry.name).ToUtf8();
      EXPECT_EQ(entry.name, node->name) << text;
      EXPECT_EQ(entry.IsDirectory(), node->directory) << text;
      EXPECT_EQ(entry.attributes & ~fatlib::DIRECTORY, node->attributes) << text;
      EXPECT_EQ(entry.size, node->bytes.size()) << text;
      EXPECT_TRUE(entry.times == node->times)
          << text << " " << ToIso8601(entry.times.modified) << " " << ToIso8601(node->times.modified);
      if (node->directory) {
        Compare(node);
        continue;
      }
      std::vector<unsigned char> bytes;
      const std::error_code error = m_Test.volume.ReadAll(path / entry.name, &bytes);
      EXPECT_FALSE(error) << text << ": " << error.message();
      EXPECT_TRUE(bytes == node->bytes) << text;
    }
  }

  /// What a reader that shares nothing with the face or the library finds on the medium.
  void CompareMedium() {
    const CDiskImage image(m_Test.medium->bytes);
    const CVolumeReader reader(image);
    EXPECT_EQ(reader.ProblemText(), "");
    EXPECT_TRUE(reader.LostClusters().empty());
    std::vector<MODEL_NODE*> files;
    std::vector<MODEL_NODE*> directories;
    m_Model.Collect(m_Model.Root(), &files, &directories);
    EXPECT_EQ(reader.Tree().size(), files.size() + directories.size() - 1);
    for (const MODEL_NODE* node : files) {
      std::string path;
      const Path components = CVolumeModel::PathOf(node);
      for (const std::u16string& component : components.Components()) {
        path += (path.empty() ? "" : "\\") + fatlib::ToUtf8(component);
      }
      const VOLUME_NODE* const found = reader.Find(path);
      ASSERT_NE(found, nullptr) << path;
      EXPECT_EQ(found->Hash, CVolumeReader::HashOf(node->bytes)) << path;
      EXPECT_EQ(found->WriteDate, node->times.modified.date) << path;
      EXPECT_EQ(found->WriteTime, node->times.modified.time) << path;
    }
  }

  SCENE m_Scene;
  std::mt19937 m_Random;
  std::timespec m_Now{1767225600, 250000000};  // 2026-01-01
  CTestVolume m_Test;
  CVolumeModel m_Model;
  std::vector<OPEN_FILE> m_Open;
  std::string m_sStep;
};

constexpr std::uint64_t MIB = std::uint64_t{1} << 20;

const SCENE SCENES[] = {
    {"Fat12", {12, 2 * MIB, 512, 224}, 20000, 40, 1200},
    {"Fat12NearlyFull", {12, MIB / 4, 512, 64}, 20000, 20, 1200},
    {"Fat12SmallRoot", {12, MIB, 512, 16}, 2000, 10, 1200},
    {"Fat16", {16, 16 * MIB, 2048, 512}, 60000, 60, 1200},
    {"Fat16LargeFiles", {16, 24 * MIB, 4096, 512}, 900000, 10, 400},
    {"Fat32", {32, 36 * MIB, 512, 0}, 30000, 100, 1200},
    {"FewNames", {12, 2 * MIB, 1024, 224}, 6000, 2, 1200},
};

class VolumeModel : public testing::TestWithParam<SCENE> {};

}  // namespace

TEST_P(VolumeModel, RandomCalls_KeepTheVolumeAsTheModelSays) {
  const unsigned int seed = FromEnvironment("FATLIB_SEED", 20260314);
  std::cout << "FATLIB_SEED=" << seed << "\n";
  CExercise exercise(GetParam(), seed);
  exercise.Run(FromEnvironment("FATLIB_STEPS", GetParam().steps));
}

INSTANTIATE_TEST_SUITE_P(Scenes, VolumeModel, testing::ValuesIn(SCENES),
                         [](const testing::TestParamInfo<SCENE>& scene) { return std::string(scene.param.name); });
