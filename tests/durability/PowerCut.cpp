/// @file PowerCut.cpp

#include "durability/PowerCut.h"

#include <algorithm>
#include <cstring>
#include <ostream>
#include <sstream>
#include <tuple>

#include "filesystem/FatFileSystem.h"
#include "support/VolumeReader.h"

namespace {

constexpr unsigned int SECTOR = 512;
constexpr unsigned int MOST_DEPTH = 4;    // deeper than any tree of these tests: an old directory that holds itself
constexpr std::size_t MOST_NODES = 5000;  // likewise
constexpr unsigned int MOST_READ = 64 * 1024;  // of a file; those of these tests are smaller
constexpr unsigned int CROWD = 160;            // objects that the library remembers

std::string CrowdFile(unsigned int n) { return "C" + std::to_string(100 + n) + ".TXT"; }

// Old contents of a free cluster: a directory that holds a file, whose cluster belongs to somebody else now, and
// itself.
BYTES OldDirectory(std::uint32_t own, std::uint32_t named) {
  BYTES bytes;
  const auto add = [&bytes](const char* name, unsigned int attributes, std::uint32_t cluster, std::uint32_t size) {
    const RAW_ENTRY entry = CImageBuilder::ShortEntry(CImageBuilder::ShortName11(name), attributes, cluster, size);
    bytes.insert(bytes.end(), entry.begin(), entry.end());
  };
  add(".          ", 0x10, own, 0);
  add("..         ", 0x10, 0, 0);
  add("GHOST   TXT", 0x20, named, 600);
  add("GHOSTDIR   ", 0x10, own, 0);
  bytes.resize(SECTOR);
  return bytes;
}

START_VOLUME MakeStart(const CUT_VOLUME& volume, bool crowd) {
  START_VOLUME start;
  CImageBuilder builder(SmallGeometry(volume));
  start.Geometry = builder.Geometry();
  std::uint32_t seed = 1;
  const auto file = [&](CImageBuilder::DIRECTORY dir, const std::string& prefix, const std::string& name,
                        std::size_t size, const std::vector<std::uint32_t>& clusters = {}) {
    const BYTES content = CImageBuilder::Pattern(size, seed++);
    builder.AddFile(dir, name, content, clusters);
    start.Files[prefix + name] = content;
  };
  const auto root = CImageBuilder::Root();
  file(root, "", "KEEP.TXT", 700);
  const auto dir = builder.AddDir(root, "DIR");
  const auto target = builder.AddDir(root, "TARGET");
  builder.AddDir(root, "EMPTY");
  const auto full = builder.AddDir(root, "FULL");
  file(root, "", "Kept by its long name.bin", 1500, {60, 58, 62});
  file(root, "", "OLD.TXT", 1200);
  // A directory of two clusters, with a name across the boundary.
  file(dir, "DIR\\", "KEEP1.TXT", 513);
  file(dir, "DIR\\", "OLD1.TXT", 2000);
  file(dir, "DIR\\", "Nobody touches this file of a directory.txt", 900);
  file(dir, "DIR\\", "KEEP6.TXT", 0);
  const auto sub = builder.AddDir(dir, "SUBDIR");
  file(sub, "DIR\\SUBDIR\\", "KEEP2.TXT", 300);
  file(dir, "DIR\\", "Neither does anybody touch this one here, whose name crosses.txt", 100);
  file(dir, "DIR\\", "KEEP3.TXT", 1024);
  const unsigned int slot = builder.NextSlot(target);
  file(target, "TARGET\\", "KEEP4.TXT", 600);
  const std::uint32_t named = builder.Entry(target, slot)[26];  // its first cluster, a small number
  file(target, "TARGET\\", "OLD2.TXT", 800);
  // Sixteen slots, all in use.
  file(full, "FULL\\", "KEEP5.TXT", 650);
  for (int i = 0; i < 13; ++i) file(full, "FULL\\", "FILLER" + std::to_string(10 + i) + ".TXT", 0);
  if (crowd) {
    const auto many = builder.AddDir(root, "CROWD");
    for (unsigned int i = 0; i < CROWD; ++i) file(many, "CROWD\\", CrowdFile(i), 0);
  }
  FillFreeClusters(builder, named);
  start.Image = builder.Image();
  return start;
}

DAMAGE KindOf(const std::string& problem) {
  static const std::vector<std::pair<const char*, DAMAGE>> s_Kinds = {
      {"FAT copy ", DAMAGE::FatsDiffer},
      {"runs into a free", DAMAGE::FreeCluster},
      {"is used twice", DAMAGE::SharedCluster},
      {" clusters for ", DAMAGE::WrongSize},
      {"wrong \".", DAMAGE::ForeignDir},
      {"no dot entries", DAMAGE::ForeignDir},
      {"dot entry out of place", DAMAGE::ForeignDir},
      {"chain leaves the volume", DAMAGE::ForeignDir},  // old bytes taken for an entry
      {"directory with a size", DAMAGE::ForeignDir},
      {"label outside the root", DAMAGE::ForeignDir},
      {"long-name", DAMAGE::TornName},
      {"\" twice", DAMAGE::NameTwice},
  };
  for (const auto& [words, kind] : s_Kinds) {
    if (problem.find(words) != std::string::npos) return kind;
  }
  return DAMAGE::Other;
}

}  // namespace

// ---------------------------------------------------------------- replaying

std::ostream& operator<<(std::ostream& out, const POWER_CUT& cut) {
  out << "cut after write " << cut.Writes;
  if (cut.Tear != TEAR::None) {
    out << " and the " << (cut.Tear == TEAR::First ? "first " : "last ") << cut.Sectors << " sectors of the next";
  }
  return out;
}

void Replay(CDiskImage& image, const MEDIUM_WRITE& write) { Replay(image, write, 0, write.Bytes.size()); }

void Replay(CDiskImage& image, const MEDIUM_WRITE& write, std::size_t from, std::size_t to) {
  if (from < to) image.Write(write.Offset + from, write.Bytes.data() + from, to - from);
}

CUT_COUNT ForEachCut(const CDiskImage& start, const std::vector<MEDIUM_WRITE>& writes, unsigned int sectorBytes,
                     const std::function<void(const CDiskImage&, const POWER_CUT&)>& judge) {
  CUT_COUNT count;
  CDiskImage image = start;
  CDiskImage judged = start;
  const auto cut = [&](const CDiskImage& left, const POWER_CUT& where) {
    ++count.Replayed;
    if (count.Different != 0 && left == judged) return;
    ++count.Different;
    judged = left;
    judge(left, where);
  };
  cut(image, {});
  for (std::size_t i = 0; i < writes.size(); ++i) {
    const MEDIUM_WRITE& write = writes[i];
    // Byte positions in the write where a sector of the medium begins.
    std::vector<std::size_t> boundaries;
    for (std::size_t at = sectorBytes - ToSize(write.Offset % sectorBytes); at < write.Bytes.size();
         at += sectorBytes) {
      boundaries.push_back(at);
    }
    for (std::size_t k = 1; k <= boundaries.size(); ++k) {
      CDiskImage torn = image;
      Replay(torn, write, 0, boundaries[k - 1]);
      cut(torn, {i, TEAR::First, k});
    }
    for (std::size_t k = 1; k <= boundaries.size(); ++k) {
      CDiskImage torn = image;
      Replay(torn, write, boundaries[boundaries.size() - k], write.Bytes.size());
      cut(torn, {i, TEAR::Last, k});
    }
    Replay(image, write);
    cut(image, {i + 1, TEAR::None, 0});
  }
  return count;
}

// ---------------------------------------------------------------- volumes

std::ostream& operator<<(std::ostream& out, const CUT_VOLUME& volume) {
  return out << "FAT" << volume.FatBits << " with " << volume.Fats << (volume.Fats == 1 ? " FAT" : " FATs");
}

const std::vector<CUT_VOLUME>& AllVolumes() {
  static const std::vector<CUT_VOLUME> s_Volumes = {{12, 2}, {16, 2}, {32, 2}, {12, 1}, {16, 1}, {32, 1}};
  return s_Volumes;
}

const std::vector<CUT_VOLUME>& TwoFatVolumes() {
  static const std::vector<CUT_VOLUME> s_Volumes = {{12, 2}, {16, 2}, {32, 2}};
  return s_Volumes;
}

FAT_GEOMETRY SmallGeometry(const CUT_VOLUME& volume) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = volume.FatBits;
  geometry.NumberOfFats = volume.Fats;
  geometry.BytesPerSector = SECTOR;
  geometry.SectorsPerCluster = 1;
  geometry.RootEntries = volume.FatBits == 32 ? 0 : 64;
  geometry.Clusters = volume.FatBits == 12 ? 1000 : volume.FatBits == 16 ? 4100 : 600;
  return geometry;
}

void FillFreeClusters(CImageBuilder& builder, std::uint32_t named) {
  for (std::uint32_t cluster = 2, filled = 0; filled < 250 && cluster < builder.Geometry().Clusters + 2; ++cluster) {
    if (builder.FatEntry(cluster) != 0) continue;
    builder.Store().WriteBytes(builder.ClusterOffset(cluster), OldDirectory(cluster, named));
    ++filled;
  }
}

const START_VOLUME& StartVolume(const CUT_VOLUME& volume, bool crowd) {
  static std::map<std::tuple<unsigned int, unsigned int, bool>, START_VOLUME> s_Made;
  const auto key = std::make_tuple(volume.FatBits, volume.Fats, crowd);
  const auto found = s_Made.find(key);
  return found != s_Made.end() ? found->second : s_Made.emplace(key, MakeStart(volume, crowd)).first->second;
}

// ---------------------------------------------------------------- judging

std::string ToText(const DAMAGES& damages) {
  static const char* const s_Names[] = {"FatsDiffer", "LostClusters", "FreeCluster", "SharedCluster", "WrongSize",
                                        "ForeignDir", "TornName",     "NameTwice",   "Other"};
  std::string text;
  for (const DAMAGE damage : damages) text += std::string(s_Names[static_cast<int>(damage)]) + " ";
  return text;
}

DAMAGES DamageOf(const CDiskImage& image, std::string* text) {
  const CVolumeReader reader(image);
  DAMAGES damages;
  for (const std::string& problem : reader.Problems()) damages.insert(KindOf(problem));
  if (!reader.LostClusters().empty()) damages.insert(DAMAGE::LostClusters);
  if (text != nullptr) *text = reader.ProblemText();
  return damages;
}

std::vector<MEDIUM_WRITE> CPowerCutFixture::Record(const CDiskImage& start, const std::function<void()>& change,
                                                   bool withUnmount) {
  CMedium medium(start);
  medium.RecordWrites();
  CFaultStorage* const storage = new CFaultStorage(medium);
  CFatFileSystem* const fileSystem = Fat_Mount(storage, nullptr);
  if (fileSystem == nullptr) {
    ADD_FAILURE() << "the start image cannot be mounted";
    return {};
  }
  change();
  const std::size_t written = medium.RecordedWrites().size();
  EXPECT_EQ(Fat_Unmount(fileSystem), 1u);
  EXPECT_EQ(medium.TransfersWhileClosed(), 0u);
  delete storage;
  std::vector<MEDIUM_WRITE> writes = medium.RecordedWrites();
  if (!withUnmount) writes.resize(written, MEDIUM_WRITE{0, {}});
  return writes;
}

void CPowerCutFixture::Walk(CFatFileSystem* fileSystem, const std::string& path, unsigned int depth,
                            LIBRARY_VIEW& view) {
  if (depth > MOST_DEPTH) return;
  if (view.Files.size() + view.Unreadable.size() + view.Directories.size() > MOST_NODES) {
    ADD_FAILURE() << "the tree does not end";
    return;
  }
  std::vector<LISTED> entries;
  WIN_FIND_DATA data{};
  // The root has no path for the interface.
  FIND_CTX* const search = fileSystem->FindFirstFile(path.empty() ? nullptr : CPath(path).Get(), &data);
  if (search == nullptr) return;
  view.Directories.insert(path);
  do {
    entries.push_back(ToListed(data));
  } while (CFatFileSystem::FindNextFile(search, &data));
  CFatFileSystem::CloseFindCtx(search);
  for (const LISTED& entry : entries) {
    if (entry.LongName.empty() && (entry.ShortName == "." || entry.ShortName == "..")) continue;
    const std::string below = path.empty() ? entry.Name() : path + "\\" + entry.Name();
    const int handle = Fat_OpenFile(CPath(below));
    if (handle < 0) {
      view.Unreadable.insert(below);
      continue;
    }
    const bool isDir = Fat_IsDir(handle) == 1;
    unsigned int size = 0;
    EXPECT_EQ(Fat_GetFileSize(handle, &size), 1u);
    BYTES bytes(std::min(size, MOST_READ));
    unsigned int reported = 0;
    const bool read = size <= MOST_READ && (size == 0 || Fat_ReadFileEx(handle, 0, size, bytes.data(), &reported) == 1);
    EXPECT_EQ(Fat_CloseFile(handle), 1u);
    if (isDir) {
      Walk(fileSystem, below, depth + 1, view);
    } else if (read) {
      view.Files[below] = bytes;
    } else {
      view.Unreadable.insert(below);
    }
  }
}

LIBRARY_VIEW CPowerCutFixture::ViewOf(const CDiskImage& image) {
  LIBRARY_VIEW view;
  CMedium medium(image);
  medium.KeepTrace(false);
  CFatFileSystem* const fileSystem = MountMedium(medium);
  view.Mounted = fileSystem != nullptr;
  if (view.Mounted) {
    Walk(fileSystem, "", 0, view);
    EXPECT_EQ(medium.Writes(), 0u) << "looking at a volume has written to it";
    EXPECT_TRUE(Unmount(fileSystem));
  }
  return view;
}

std::set<std::string> CPowerCutFixture::Missing(const LIBRARY_VIEW& view, const std::map<std::string, BYTES>& files) {
  std::set<std::string> missing;
  for (const auto& [path, bytes] : files) {
    const auto found = view.Files.find(path);
    if (found == view.Files.end() || found->second != bytes) missing.insert(path);
  }
  return missing;
}

std::set<std::string> CPowerCutFixture::MissingForReader(const CDiskImage& image,
                                                         const std::map<std::string, BYTES>& files) {
  const CVolumeReader reader(image);
  CDiskImage copy = image;
  const CImageBuilder builder(copy);
  std::set<std::string> missing;
  for (const auto& [path, bytes] : files) {
    const VOLUME_NODE* const node = reader.Find(path);
    BYTES content;
    // The chain is followed here: the reader counts a cluster for the first chain that holds it only.
    if (node != nullptr && node->FirstCluster != 0) {
      for (const std::uint32_t cluster : builder.Chain(node->FirstCluster)) {
        const BYTES part = builder.Cluster(cluster);
        content.insert(content.end(), part.begin(), part.end());
      }
    }
    const bool there = node != nullptr && !node->IsDir() && node->Size == bytes.size() &&
                       content.size() >= bytes.size() && std::equal(bytes.begin(), bytes.end(), content.begin());
    if (!there) missing.insert(path);
  }
  return missing;
}

// ---------------------------------------------------------------- calls

void CPowerCutFixture::ForgetObjects() {
  for (unsigned int i = 0; i < CROWD; ++i) {
    const int handle = Fat_OpenFile(CPath("CROWD\\" + CrowdFile(i)));
    ASSERT_GE(handle, 0);
    EXPECT_EQ(Fat_CloseFile(handle), 1u);
  }
}

void CPowerCutFixture::MakeFile(const std::string& path, std::size_t size) {
  EXPECT_TRUE(WritePath(path, CImageBuilder::Pattern(size, 77))) << path;
}

void CPowerCutFixture::MakeDir(const std::string& path) { EXPECT_EQ(Fat_CreateDir(CPath(path), 0), 1u) << path; }

void CPowerCutFixture::Overwrite(const std::string& path, std::uint32_t seed) {
  const int handle = Fat_OpenFile(CPath(path));
  ASSERT_GE(handle, 0) << path;
  unsigned int size = 0;
  EXPECT_EQ(Fat_GetFileSize(handle, &size), 1u);
  BYTES bytes = CImageBuilder::Pattern(size, seed);
  unsigned int reported = 0;
  EXPECT_EQ(Fat_WriteFileEx(handle, 0, size, bytes.data(), &reported), 1u) << path;
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
}

void CPowerCutFixture::Resize(const std::string& path, unsigned int size) {
  const int handle = Fat_OpenFile(CPath(path));
  ASSERT_GE(handle, 0) << path;
  EXPECT_EQ(Fat_SetFileSize(handle, size), 1u) << path;
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
}

void CPowerCutFixture::Rename(const std::string& path, const std::string& name) {
  EXPECT_EQ(Fat_RenameFile(CPath(path), CPath(name)), 1u) << path;
}

void CPowerCutFixture::Move(const std::string& path, const std::string& directory) {
  EXPECT_EQ(Fat_MoveFile(CPath(path), directory.empty() ? nullptr : CPath(directory).Get()), 1u) << path;
}

void CPowerCutFixture::Delete(const std::string& path) { EXPECT_EQ(Fat_DeleteFile(CPath(path)), 1u) << path; }
