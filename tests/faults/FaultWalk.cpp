/// @file FaultWalk.cpp

#include "faults/FaultWalk.h"

#include <sys/mman.h>
#include <sys/prctl.h>

#include <algorithm>
#include <memory>
#include <sstream>

#include "allocation/XRuns.h"
#include "filesystem/FatFileSystem.h"

namespace faultwalk {

namespace {

constexpr unsigned int GARBAGE_CLUSTERS = 10;  // free clusters that hold old bytes, the lowest ones
constexpr unsigned char GARBAGE = 'A';         // read as a directory it is one file entry after another
constexpr unsigned int MOST_FAULTS = 400;      // of one kind: an operation that makes more does not end

// Forwards to the medium.
class CWalkStorage final : public CFatStorage {
 public:
  explicit CWalkStorage(WALK_MEDIUM& medium) : m_pMedium(&medium) {}

  int OpenDevice(void*) override {
    m_hDevice = 0;
    return m_pMedium->Medium.Open();
  }
  int CloseDevice() override { return m_pMedium->Medium.Close(); }
  void HookIoFunctions() override {
    m_pfnGetMpb = &CFatStorage::_GetMpb;
    m_pfnReadBytes = &Bytes<IO_KIND::ReadBytes>;
    m_pfnWriteBytes = &Bytes<IO_KIND::WriteBytes>;
    m_pfnReadBytesAligned = &Bytes<IO_KIND::ReadBytesAligned>;
    m_pfnWriteBytesAligned = &Bytes<IO_KIND::WriteBytesAligned>;
    m_pfnReadSectors = &Sectors<IO_KIND::ReadSectors>;
    m_pfnWriteSectors = &Sectors<IO_KIND::WriteSectors>;
  }

 private:
  template <IO_KIND KIND>
  static int Bytes(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
    return static_cast<CWalkStorage*>(storage)->Transfer(KIND, buffer, position, count);
  }
  template <IO_KIND KIND>
  static int Sectors(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
    CWalkStorage* self = static_cast<CWalkStorage*>(storage);
    return self->Transfer(KIND, buffer, position * static_cast<long long>(self->m_nBytesPerSector),
                          static_cast<unsigned long long>(count) * self->m_nBytesPerSector);
  }
  int Transfer(IO_KIND kind, unsigned char* buffer, long long position, unsigned long long count) const {
    WALK_MEDIUM& medium = *m_pMedium;
    if (kind == IO_KIND::WriteSectors && position == medium.BehindFat && count == medium.FatBytes) {
      medium.Kept = medium.Medium.Image().ReadBytes(static_cast<std::uint64_t>(position), ToSize(count));
    }
    return medium.Medium.Transfer(kind, buffer, position, count);
  }

  WALK_MEDIUM* m_pMedium;  // owned by the test
};

// Takes blocks of megabytes straight from the kernel, which hands out zero pages as they are touched. Thousands of runs
// get caches that they hardly use; what a checking allocator does for a block of that size costs more than the run.
class CLargeBlocks {
 public:
  static void Install() {
    s_Saved = g_OsServices;
    g_OsServices.pfnCalloc = &Calloc;
    g_OsServices.pfnRealloc = &Realloc;
    g_OsServices.pfnFree = &Free;
  }
  static void Remove() { g_OsServices = s_Saved; }

 private:
  static constexpr std::size_t LARGE = 1u << 20;

  static void* Calloc(std::size_t count, std::size_t size) {
    if (size == 0 || count < LARGE / size) return s_Saved.pfnCalloc(count, size);
    void* memory = ::mmap(nullptr, count * size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return nullptr;
    s_Sizes[memory] = count * size;
    return memory;
  }
  static void* Realloc(void* memory, std::size_t size) {
    const auto found = s_Sizes.find(memory);
    if (found == s_Sizes.end()) return s_Saved.pfnRealloc(memory, size);
    void* resized = ::mremap(memory, found->second, size, MREMAP_MAYMOVE);
    if (resized == MAP_FAILED) return nullptr;
    s_Sizes.erase(found);
    s_Sizes[resized] = size;
    return resized;
  }
  static void Free(void* memory) {
    const auto found = s_Sizes.find(memory);
    if (found == s_Sizes.end()) {
      s_Saved.pfnFree(memory);
      return;
    }
    EXPECT_EQ(::munmap(memory, found->second), 0);
    s_Sizes.erase(found);
  }

  static OS_SERVICES s_Saved;
  static std::map<void*, std::size_t> s_Sizes;
};
OS_SERVICES CLargeBlocks::s_Saved;
std::map<void*, std::size_t> CLargeBlocks::s_Sizes;

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}
bool Contains(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

std::string ParentOf(const std::string& path) {
  const std::size_t at = path.rfind('\\');
  return at == std::string::npos ? "" : path.substr(0, at);
}

// The path is one of these, or lies below one of them. "" is the root, in which everything lies.
bool IsAtOrBelow(const std::string& path, const std::set<std::string>& directories) {
  for (std::string at = path;; at = ParentOf(at)) {
    if (directories.count(at) != 0) return true;
    if (at.empty()) return false;
  }
}

bool Matches(const VOLUME_NODE& node, const CONTENT& content, const CVolumeReader& reader) {
  if (node.IsDir() || content.Dir) return node.IsDir() && content.Dir;
  if (node.Size != content.Size) return false;
  const std::uint64_t clusters =
      (static_cast<std::uint64_t>(node.Size) + reader.ClusterBytes() - 1) / reader.ClusterBytes();
  if (node.Clusters.size() != clusters) return false;
  if (content.Known.empty()) return true;
  if (content.Known.size() == content.Size) return node.Hash == content.Hash;
  const BYTES bytes = reader.Content(node);
  return bytes.size() >= content.Known.size() && std::equal(content.Known.begin(), content.Known.end(), bytes.begin());
}

bool IsSameEntry(const VOLUME_NODE& a, const VOLUME_NODE& b) {
  return a.ShortName == b.ShortName && a.LongName == b.LongName && a.Attributes == b.Attributes && a.Size == b.Size &&
         a.FirstCluster == b.FirstCluster && a.Clusters == b.Clusters && a.Hash == b.Hash &&
         a.CreationTime == b.CreationTime && a.CreationDate == b.CreationDate && a.AccessDate == b.AccessDate &&
         a.WriteTime == b.WriteTime && a.WriteDate == b.WriteDate;
}

}  // namespace

std::string SHAPE::Name() const {
  std::ostringstream name;
  name << "FAT" << FatBits << ", " << Fats << (Fats == 1 ? " FAT, " : " FATs, ") << SectorsPerCluster << " sectors of "
       << BytesPerSector << " bytes in a cluster";
  return name.str();
}

std::vector<SHAPE> Shapes(unsigned int fatBits) {
  std::vector<SHAPE> shapes;
  for (const unsigned int fats : {2u, 1u}) {
    for (const unsigned int sector : {512u, 4096u}) {
      for (const unsigned int perCluster : {1u, sector == 512 ? 16u : 2u}) {
        shapes.push_back({fatBits, fats, sector, perCluster, fatBits == 16 ? 4200u : 300u});
      }
    }
  }
  return shapes;
}

// ---------------------------------------------------------------------------------------------- the volume

CONTENT CONTENT::Directory() {
  CONTENT content;
  content.Dir = true;
  return content;
}

CONTENT CONTENT::File(unsigned int size, const BYTES& known) {
  CONTENT content;
  content.Size = size;
  content.Known = known;
  if (known.size() == size) content.Hash = CVolumeReader::HashOf(known);
  return content;
}

unsigned int SizeOf(const std::string& path, const SHAPE& shape) {
  const unsigned int cluster = shape.ClusterBytes();
  if (path == KEEP) return 700;
  if (path == KEEP_LONG) return cluster + 10;
  if (path == OTHER) return cluster + 300;
  if (path == FILE_IN_DIR) return 2 * cluster + cluster / 2;
  if (path == NEIGHBOUR) return 333;
  if (path == DEEP) return 100;
  if (path == IN_TARGET) return 55;
  if (path == ROOT_FILE) return cluster + 1;
  throw std::logic_error(path + " is not on the volume");
}

BYTES ContentOf(const std::string& path, const SHAPE& shape) {
  static std::map<std::pair<std::string, unsigned int>, BYTES> s_Made;
  BYTES& content = s_Made[{path, shape.ClusterBytes()}];
  if (!content.empty()) return content;
  std::uint32_t seed = 0;
  for (const char c : path) seed = seed * 31 + static_cast<unsigned char>(c);
  content = CImageBuilder::Pattern(SizeOf(path, shape), seed);
  content[0] = 0;  // opening it reads its first block and no more
  return content;
}

CDiskImage FaultWalk::MakeImage(const SHAPE& shape, const std::function<void(CImageBuilder&)>& build,
                                WALK_MEDIUM* medium) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = shape.FatBits;
  geometry.NumberOfFats = shape.Fats;
  geometry.BytesPerSector = shape.BytesPerSector;
  geometry.SectorsPerCluster = shape.SectorsPerCluster;
  geometry.Clusters = shape.Clusters;
  if (shape.FatBits != 32) {
    // A root directory that a single FAT does not reach beyond when it is copied.
    geometry.RootEntries = shape.BytesPerSector == 512 ? 64 : 128;
    if (shape.Fats == 1) geometry.RootEntries = shape.FatBits == 16 ? 384 : 128;
  }
  unsigned int sacrificed = 0;
  if (shape.FatBits == 32 && shape.Fats == 1) {
    // The copy of the single FAT goes over the first clusters.
    const unsigned int fatBytes = (shape.Clusters + 2) * 4;
    sacrificed = (fatBytes + shape.BytesPerSector + shape.ClusterBytes() - 1) / shape.ClusterBytes();
    geometry.RootCluster = 2 + sacrificed;
  }
  CImageBuilder builder(geometry);
  for (unsigned int i = 0; i < sacrificed; ++i) builder.SetFatEntry(2 + i, 0x0FFFFFF7);

  constexpr CImageBuilder::DIRECTORY ROOT = CImageBuilder::Root();
  const auto content = [&](const char* path) { return ContentOf(path, shape); };
  const unsigned int far = shape.Clusters - 40;
  builder.AddFile(ROOT, KEEP, content(KEEP));
  builder.AddFile(ROOT, KEEP_LONG, content(KEEP_LONG), {far, 120});
  const auto other = builder.AddDir(ROOT, "OTHER");
  builder.AddFile(other, "Nobody touches this.bin", content(OTHER), {121, far + 1});
  const auto dir = builder.AddDir(ROOT, "DIR");
  builder.AddFile(dir, "IN.TXT", content(FILE_IN_DIR), {130, 131, far + 5});
  builder.AddFile(dir, "A neighbour with a long name.txt", content(NEIGHBOUR));
  const auto sub = builder.AddDir(dir, "Sub");
  builder.AddFile(sub, "deep.txt", content(DEEP));
  builder.AddDir(dir, "Empty directory");
  const auto target = builder.AddDir(ROOT, "TARGET");
  builder.AddFile(target, "There.txt", content(IN_TARGET));
  builder.AddFile(ROOT, "A file in the root.dat", content(ROOT_FILE));
  build(builder);

  unsigned int garbage = 0;
  for (std::uint32_t cluster = 2; garbage < GARBAGE_CLUSTERS && cluster < shape.Clusters; ++cluster) {
    if (builder.FatEntry(cluster) != 0) continue;
    builder.Store().Fill(builder.ClusterOffset(cluster), builder.ClusterBytes(), GARBAGE);
    ++garbage;
  }
  if (medium != nullptr && shape.Fats == 1) {
    medium->BehindFat = static_cast<long long>(builder.FatOffset(0) + builder.FatBytes());
    medium->FatBytes = builder.FatBytes();
  }
  return builder.Image();
}

void FaultWalk::FillDirectory(CImageBuilder& builder, CImageBuilder::DIRECTORY directory) {
  constexpr unsigned int MOST_SLOTS = 21;
  for (unsigned int number = 0; builder.NextSlot(directory) < builder.SlotCount(directory); ++number) {
    const unsigned int slots = std::min(MOST_SLOTS, builder.SlotCount(directory) - builder.NextSlot(directory));
    std::string name = "FILL" + std::to_string(number);
    if (slots > 1) name.resize((slots - 1) * 13 < 250 ? (slots - 1) * 13 : 250, 'x');
    builder.AddFile(directory, name);
  }
}

void WALK_MEDIUM::PutBack() {
  if (!Kept.empty()) Medium.Image().WriteBytes(static_cast<std::uint64_t>(BehindFat), Kept);
  Kept.clear();
}

// The volume before the operation.
struct FaultWalk::VOLUME {
  VOLUME(const SHAPE& shape, const OPERATION& operation)
      : Shape(shape),
        Template(CDiskImage()),
        Image(MakeImage(shape, operation.Build, &Template)),
        Builder(Image),
        Reader(Image) {
    EXPECT_EQ(Reader.ProblemText(), "");
    EXPECT_TRUE(Reader.LostClusters().empty());
    for (const auto& [path, content] : operation.New) Part.insert(path);
    for (const std::string& path : operation.Paths) Part.insert(path);
    for (const STATE& state : operation.AfterFailure) {
      for (const auto& [path, content] : state) Part.insert(path);
    }
    for (const auto& [path, node] : Reader.Tree()) {
      if (node.IsDir()) {
        for (const std::uint32_t cluster : node.Clusters) DirOfCluster[cluster] = path;
      }
      if (Part.count(path) == 0) {
        ClustersKept.insert(node.Clusters.begin(), node.Clusters.end());
      } else if (node.IsDir()) {
        Old[path] = CONTENT::Directory();
      } else {
        Old[path] = CONTENT::File(node.Size, Reader.Content(node));
      }
    }
    if (shape.FatBits == 32) {
      for (const std::uint32_t cluster : Builder.Chain(Builder.Geometry().RootCluster)) DirOfCluster[cluster] = "";
    }
  }

  PART PartOf(const IO_RECORD& transfer) const {
    const auto touches = [&](std::uint64_t offset, std::uint64_t count) {
      return transfer.Touches(static_cast<long long>(offset), count);
    };
    if (Shape.FatBits == 32 && touches(Builder.FsInfoOffset(), 512)) return PART::FsInfo;
    if (touches(Builder.FatOffset(0), Builder.FatBytes())) return PART::FirstFat;
    if (transfer.Offset == static_cast<long long>(Builder.FatOffset(0) + Builder.FatBytes()) &&
        transfer.Length == Builder.FatBytes() && transfer.Kind == IO_KIND::WriteSectors) {
      return PART::SecondFat;
    }
    if (transfer.Offset == 0) return PART::Boot;
    const auto directory = DirectoryAt(transfer);
    return directory.count("") != 0 ? PART::Root : PART::Data;
  }

  // The directories that a transfer touches; "" is the root.
  std::set<std::string> DirectoryAt(const IO_RECORD& transfer) const {
    std::set<std::string> found;
    if (Shape.FatBits != 32 &&
        transfer.Touches(static_cast<long long>(Builder.RootOffset()), Builder.DataOffset() - Builder.RootOffset())) {
      found.insert("");
    }
    for (const auto& [cluster, path] : DirOfCluster) {
      if (transfer.Touches(static_cast<long long>(Builder.ClusterOffset(cluster)), Builder.ClusterBytes())) {
        found.insert(path);
      }
    }
    return found;
  }

  SHAPE Shape;
  WALK_MEDIUM Template;  // where a single FAT is copied to
  CDiskImage Image;
  CImageBuilder Builder;
  CVolumeReader Reader;
  std::set<std::string> Part;  // paths that take part
  STATE Old;
  std::map<std::uint32_t, std::string> DirOfCluster;
  std::set<std::uint32_t> ClustersKept;  // of what takes no part
};

struct FaultWalk::FAULT {
  enum KIND { None, Transfer, ShortRead, ShortWrite, Allocation };
  KIND Kind = None;
  unsigned int Nth = 0;
  bool ForGood = false;
  bool Healed = false;  // at the end of the operation; else at the end of the unmount
  unsigned long long Bytes = 0;

  bool IsShort() const { return Kind == ShortRead || Kind == ShortWrite; }
  std::string Name() const {
    static const char* const s_Names[] = {"no fault", "transfer ", "short read ", "short write ", "allocation "};
    std::ostringstream name;
    name << s_Names[Kind];
    if (Kind != None) name << Nth << (ForGood ? " and all after it" : "") << (Healed ? " in the operation" : "");
    if (IsShort()) name << ", " << Bytes << " bytes";
    return name.str();
  }
};

// What happens without a fault.
struct FaultWalk::REFERENCE {
  std::vector<IO_RECORD> Trace;
};

struct FaultWalk::RESULT {
  bool Ok = false;          // what the operation said
  bool Fired = false;       // a fault struck at all
  bool FiredInRun = false;  // a fault struck before the unmount
  bool Unmounted = false;
  std::vector<IO_RECORD> Trace;
  std::size_t RunEnd = 0;   // transfers of the operation itself
  std::size_t Unmount = 0;  // index of the first transfer of the unmount
};

// ---------------------------------------------------------------------------------------------- judging

// What is wrong with the volume beyond what is allowed.
std::string FaultWalk::Damage(const VOLUME& volume, const OPERATION& operation, const CDiskImage& image,
                              const std::vector<STATE>& states, unsigned int harm, const std::set<std::string>& blind) {
  std::ostringstream wrong;
  const CVolumeReader reader(image);
  const bool anything = !blind.empty();  // what takes part may be in any state
  // Whether a harm is allowed; asked only where it has been done.
  const auto allows = [&](HARM asked) {
    if ((harm & asked) != 0) m_nHarmMet |= asked;
    return (harm & asked) != 0;
  };

  // What takes no part is as it was.
  for (const auto& [path, node] : volume.Reader.Tree()) {
    if (volume.Part.count(path) != 0 || IsAtOrBelow(path, blind)) continue;
    const VOLUME_NODE* now = reader.Find(path);
    if (now == nullptr) {
      wrong << path << " is gone; ";
    } else if (!IsSameEntry(*now, node)) {
      wrong << path << " is not what it was; ";
    }
  }

  // What takes part is in one of the states, or has the harm that is allowed.
  const auto isIn = [&](const STATE& state) {
    return std::all_of(volume.Part.begin(), volume.Part.end(), [&](const std::string& path) {
      const VOLUME_NODE* node = reader.Find(path);
      const auto content = state.find(path);
      return content == state.end() ? node == nullptr : node != nullptr && Matches(*node, content->second, reader);
    });
  };
  if (!anything && std::none_of(states.begin(), states.end(), isIn)) {
    if (harm == NO_HARM) wrong << "what takes part is in no state that it may be in; ";
    for (const std::string& path : volume.Part) {
      const VOLUME_NODE* node = reader.Find(path);
      bool good = false;
      for (const STATE& state : states) {
        const auto content = state.find(path);
        good = good ||
               (content == state.end() ? node == nullptr : node != nullptr && Matches(*node, content->second, reader));
      }
      const bool inWritten = std::count(operation.Written.begin(), operation.Written.end(), ParentOf(path)) != 0;
      if (!good && node != nullptr) {
        const bool broken = std::any_of(reader.Problems().begin(), reader.Problems().end(),
                                        [&](const std::string& problem) { return StartsWith(problem, path + ":"); });
        good = broken && (allows(BROKEN_CHAIN) || allows(TWO_COPIES));  // its clusters were met under the other name
      }
      const auto before = volume.Old.find(path);
      const auto after = operation.New.find(path);
      bool mixed = false;
      if (!good && node != nullptr && before != volume.Old.end() && after != operation.New.end()) {
        const BYTES bytes = reader.Content(*node);
        const BYTES& a = before->second.Known;
        const BYTES& b = after->second.Known;
        good = bytes.size() == a.size() && bytes.size() == b.size();
        const auto from = [](const BYTES& in, std::size_t at) { return in.begin() + static_cast<std::ptrdiff_t>(at); };
        constexpr std::size_t PIECE = 256;  // as small a piece as is ever written
        for (std::size_t at = 0; good && at < bytes.size(); at += PIECE) {
          const std::size_t end = std::min(bytes.size(), at + PIECE);
          good = std::equal(from(bytes, at), from(bytes, end), from(a, at)) ||
                 std::equal(from(bytes, at), from(bytes, end), from(b, at));
          for (std::size_t i = at; !good && i < end && (bytes[i] == a[i] || bytes[i] == b[i]); ++i) good = i + 1 == end;
        }
        mixed = good;
      }
      if (good && !mixed) continue;
      good = good && (!mixed || allows(MIXED_CONTENT));
      good = good || (inWritten && allows(TORN_DIRECTORY));
      if (!good) wrong << path << (node == nullptr ? " is missing; " : " has a content it may not have; ");
    }
  }
  if (!anything && !operation.From.empty()) {
    const bool from = reader.Find(operation.From) != nullptr;
    const bool to = reader.Find(operation.To) != nullptr;
    if (from && to && !allows(TWO_COPIES)) wrong << "there are two copies; ";
    if (!from && !to && !allows(NO_COPY)) wrong << "there is no copy; ";
  }

  // Nothing else is there.
  const auto isWritten = [&](const std::string& directory) {
    return std::find(operation.Written.begin(), operation.Written.end(), directory) != operation.Written.end() &&
           allows(TORN_DIRECTORY);
  };
  const auto isRaw = [&](const std::string& path) { return IsAtOrBelow(path, volume.Part) && allows(RAW_DIRECTORY); };
  const auto isKnown = [&](const std::string& path) {
    return path.empty() || volume.Part.count(path) != 0 || volume.Reader.Find(path) != nullptr;
  };
  // The path lies in, or below something unknown in, a directory that may be torn.
  const auto isTorn = [&](std::string path) {
    while (!isKnown(ParentOf(path))) path = ParentOf(path);
    return isWritten(ParentOf(path));
  };
  for (const auto& [path, node] : reader.Tree()) {
    if (isKnown(path) || IsAtOrBelow(path, blind)) continue;
    if (!isTorn(path) && !isRaw(ParentOf(path))) wrong << path << " has come from nowhere; ";
  }

  // Every problem has its excuse.
  for (const std::string& problem : reader.Problems()) {
    const std::size_t colon = problem.find(": ");
    const std::string path = colon == std::string::npos ? "" : problem.substr(0, colon);
    const std::string directory = path == "root directory" ? "" : path;
    const bool part = volume.Part.count(path) != 0;
    bool excused = IsAtOrBelow(path, blind);
    if (excused) continue;
    if (StartsWith(problem, "FAT copy")) {
      excused = (harm & FAT_COPIES) != 0;
    } else if (Contains(problem, " is used twice")) {
      const std::size_t number = problem.find("cluster ") + 8;
      const auto cluster = static_cast<std::uint32_t>(std::stoul(problem.substr(number)));
      excused = volume.ClustersKept.count(cluster) == 0 && (part || isTorn(path)) && allows(TWO_COPIES);
    } else if (part && (Contains(problem, "chain runs into") || Contains(problem, " clusters for "))) {
      excused = allows(BROKEN_CHAIN) || allows(TWO_COPIES);
    } else if (part && Contains(problem, "wrong \"..\"")) {
      excused = allows(OLD_DOTDOT) || allows(RAW_DIRECTORY);
    }
    excused = excused || isRaw(ParentOf(path)) || isRaw(directory) || isWritten(directory);
    excused = excused || (!isKnown(path) && isTorn(path));  // found by half a set of entries
    if (!excused && anything) excused = part && !Contains(problem, "used twice");
    if (!excused) wrong << problem << "; ";
  }
  if (!reader.LostClusters().empty() && !anything && !allows(LOST_CLUSTERS)) {
    wrong << reader.LostClusters().size() << " clusters are lost; ";
  }
  return wrong.str();
}

void FaultWalk::CheckResult(const VOLUME& volume, const OPERATION& operation, const FAULT& fault,
                            const RESULT& result) {
  // What the operation was to say.
  bool failed = false;
  for (std::size_t i = 0; i < result.RunEnd; ++i) {
    const IO_RECORD& transfer = result.Trace[i];
    failed = failed || (transfer.Failed() && !operation.Swallowed(transfer, volume.PartOf(transfer)));
  }
  if (fault.Kind == FAULT::None || fault.Kind == FAULT::Transfer) {
    EXPECT_EQ(result.Ok, !failed);
  } else if (fault.Kind == FAULT::ShortWrite) {
    EXPECT_TRUE(result.Ok) << "a short write is no failure";
  } else if (fault.Kind == FAULT::Allocation && !result.Ok) {
    EXPECT_TRUE(result.Fired);
  }
  bool fatFailed = false;
  for (std::size_t i = result.Unmount; i < result.Trace.size(); ++i) {
    const IO_RECORD& transfer = result.Trace[i];
    fatFailed = fatFailed || (transfer.Failed() && !transfer.Read() && volume.PartOf(transfer) == PART::FirstFat);
  }
  EXPECT_EQ(result.Unmounted, !fatFailed);
}

// ---------------------------------------------------------------------------------------------- one run

void FaultWalk::Start(unsigned int poolBlocks) {
  // A smaller pool than the library makes for itself: it keeps the one that stands.
  ASSERT_TRUE(CRuns::InitializeFirstPool());
  ASSERT_TRUE(CFatFile::BLOCK_CACHE::GlobalInitialize(poolBlocks));
  Fat_LibInitialize();
}

CFatFileSystem* FaultWalk::MountOn(WALK_MEDIUM& medium, CVolumeStorage*& storage) {
  CWalkStorage* made = new CWalkStorage(medium);
  storage = made;
  return Fat_Mount(made, nullptr);
}

bool FaultWalk::Try(const VOLUME& volume, const OPERATION& operation, const FAULT& fault, REFERENCE* reference) {
  Start(operation.PoolBlocks);
  WALK_MEDIUM walkMedium(volume.Image);
  walkMedium.BehindFat = volume.Template.BehindFat;
  walkMedium.FatBytes = volume.Template.FatBytes;
  CMedium& medium = walkMedium.Medium;
  CVolumeStorage* storage;
  CFatFileSystem* fileSystem = MountOn(walkMedium, storage);
  if (fileSystem == nullptr) {
    ADD_FAILURE() << "cannot mount";
    return false;
  }
  SESSION session{medium, volume.Shape, !fault.IsShort(), {}, {}};
  operation.Prepare(session);
  medium.ClearTrace();
  Memory().ResetCount();
  switch (fault.Kind) {
    case FAULT::None:
      break;
    case FAULT::Transfer:
      medium.FailAt(fault.Nth, fault.ForGood ? FAULT_FOR_GOOD : FAULT_ONCE);
      break;
    case FAULT::ShortRead:
      medium.ShortenReadAt(fault.Nth, fault.Bytes, fault.ForGood ? FAULT_FOR_GOOD : FAULT_ONCE);
      break;
    case FAULT::ShortWrite:
      medium.ShortenWriteAt(fault.Nth, fault.Bytes, fault.ForGood ? FAULT_FOR_GOOD : FAULT_ONCE);
      break;
    case FAULT::Allocation:
      Memory().FailAt(fault.Nth, fault.ForGood ? CMemHooks::FOR_GOOD : CMemHooks::ONCE);
      break;
  }
  RESULT result;
  result.Ok = operation.Run(session);
  result.RunEnd = medium.Trace().size();
  if (fault.Kind == FAULT::None) {
    EXPECT_GE(medium.Transfers(), operation.Transfers);
    EXPECT_GE(Memory().Allocations(), operation.Allocations);
  }
  result.FiredInRun = fault.Kind == FAULT::Allocation ? Memory().Fired() : fault.Kind != FAULT::None && medium.Fired();
  if (!operation.MemoryGoneAtUnmount) Memory().Heal();
  if (fault.Healed) medium.Heal();
  const std::vector<IO_RECORD> runTrace = medium.Trace();
  // With the fault over, another file opens and reads as it should, and what failed for want of memory can be had.
  bool retried = false;
  const bool over = result.FiredInRun && !operation.MemoryGoneAtUnmount &&
                    (fault.Healed || !fault.ForGood || fault.Kind == FAULT::Allocation);
  const std::size_t nLost = static_cast<std::size_t>(
      std::count_if(runTrace.begin(), runTrace.end(), [](const IO_RECORD& t) { return t.Failed() && !t.Read(); }));
  const bool canRead = !operation.LosesBlocks || nLost + 2 < operation.PoolBlocks;
  if (over && canRead && !fault.IsShort()) {
    EXPECT_EQ(ReadPath(OTHER), ContentOf(OTHER, volume.Shape));
    if (!result.Ok && (operation.ReadsOnly || (fault.Kind == FAULT::Allocation && !fault.ForGood))) {
      retried = true;
      EXPECT_TRUE(operation.Run(session)) << "when tried again";
    }
  }
  for (const int handle : session.Handles) EXPECT_EQ(Fat_CloseFile(handle), 1u);
  for (const int handle : session.Searches) EXPECT_EQ(Fat_CloseFindHandle(handle), 1u);
  result.Unmount = medium.Trace().size();
  result.Unmounted = Fat_Unmount(fileSystem) == 1;
  result.Fired = result.FiredInRun;
  if (fault.Kind == FAULT::Allocation) result.Fired = Memory().Fired();
  if (fault.Kind == FAULT::Transfer || fault.IsShort()) result.Fired = medium.Fired();
  Memory().Heal();
  result.Trace = medium.Trace();
  medium.Heal();
  if (!result.Unmounted) static_cast<void>(storage->Close());
  EXPECT_EQ(medium.CloseCalls(), 1u);
  EXPECT_EQ(medium.TransfersWhileClosed(), 0u);
  EXPECT_EQ(medium.OutOfRange(), 0u);
  EXPECT_LE(CFatFile::BLOCK_CACHE::BlocksInUse(), operation.LosesBlocks ? nLost : 0);
  delete static_cast<CWalkStorage*>(storage);
  EXPECT_EQ(Fat_LibTerminate(), 1u);
  SetCurrentFileSystem(nullptr);
  EXPECT_EQ(Memory().Outstanding(), 0u);
  EXPECT_EQ(Memory().UnknownFrees(), 0u);
  CheckResult(volume, operation, fault, result);
  if (reference != nullptr) {
    reference->Trace = result.Trace;
    EXPECT_GE(result.Trace.size() - result.Unmount, operation.UnmountTransfers);
  }

  // What is on the medium.
  walkMedium.PutBack();
  const bool unmountTouched = std::any_of(result.Trace.begin() + static_cast<std::ptrdiff_t>(result.Unmount),
                                          result.Trace.end(), [](const IO_RECORD& t) { return t.Failed(); });
  std::vector<STATE> states;
  unsigned int harm = NO_HARM;
  std::set<std::string> blind;  // directories of which zeros were read
  if (!result.Fired || retried) {
    states = {operation.New};
    if (operation.ReadsOnly) states = {volume.Old};
  } else if (fault.Kind == FAULT::Allocation) {
    states = {result.Ok ? operation.New : volume.Old};
    if (!result.Ok) states.insert(states.end(), operation.AfterFailure.begin(), operation.AfterFailure.end());
    harm = operation.HarmAfterFailure & MIXED_CONTENT;     // what was there before is not lost, but may be overwritten
    if (operation.MemoryGoneAtUnmount) harm = FAT_COPIES;  // a FAT that has no room in memory is not copied
  } else if (!unmountTouched && !fault.IsShort()) {
    states = {result.Ok ? operation.New : volume.Old};
    if (!result.Ok) states.insert(states.end(), operation.AfterFailure.begin(), operation.AfterFailure.end());
    harm = operation.HarmAfterFailure;
  } else {
    states = {volume.Old, operation.New};
    states.insert(states.end(), operation.AfterFailure.begin(), operation.AfterFailure.end());
    harm = operation.HarmAfterFailure | operation.HarmAfterCut | FAT_COPIES;
    if (fault.IsShort()) harm |= operation.HarmAfterShort;
    if (fault.Kind == FAULT::ShortRead) {
      unsigned int nth = 0;
      for (std::size_t i = 0; i < result.Unmount; ++i) {
        if (!result.Trace[i].Read() || ++nth < fault.Nth || (!fault.ForGood && nth > fault.Nth)) continue;
        const std::set<std::string> touched = volume.DirectoryAt(result.Trace[i]);
        blind.insert(touched.begin(), touched.end());
        if (touched.empty()) blind.insert("the content of a file");  // no directory: what takes part may have changed
      }
    }
  }
  // Most runs leave what an earlier one has left: the same bytes wherever something was written.
  std::string leavings = std::to_string(harm) + (result.Ok || retried ? "+" : "-") + (result.Fired ? "*" : "");
  for (const std::string& directory : blind) leavings += "|" + directory;
  leavings += "#" + std::to_string(states.size());
  for (const IO_RECORD& transfer : medium.Trace()) {
    if (transfer.Read()) continue;
    const std::size_t end = leavings.size();
    leavings.resize(end + static_cast<std::size_t>(transfer.Length));
    medium.Image().Read(static_cast<std::uint64_t>(transfer.Offset), &leavings[end],
                        static_cast<std::size_t>(transfer.Length));
    leavings += std::to_string(transfer.Offset);
  }
  if (m_Judged.insert(leavings).second) {
    if (operation.ReadsOnly) {
      ExpectSame(volume, medium.Image(), (harm & FAT_COPIES) != 0);
    } else {
      EXPECT_EQ(Damage(volume, operation, medium.Image(), states, harm, blind), "");
    }
    if (!HasFailure()) Remount(volume, operation, medium.Image(), result.Fired);
  }
  if (HasFailure()) {
    ADD_FAILURE() << "with " << fault.Name() << "; " << (result.Ok ? "succeeded" : "failed")
                  << (retried ? ", tried again" : "") << (result.Unmounted ? ", unmounted" : ", not unmounted")
                  << "; transfers, the first " << result.RunEnd << " by the operation:\n"
                  << medium.TraceText();
  }
  return result.Fired;
}

// No byte has changed but those that every unmount writes.
void FaultWalk::ExpectSame(const VOLUME& volume, const CDiskImage& image, bool butSecondFat) {
  CDiskImage expected = volume.Image;
  const CImageBuilder builder(expected);
  for (const std::uint64_t offset : CDiskImage::Differences(image, expected)) {
    const bool fsInfo =
        volume.Shape.FatBits == 32 && offset >= builder.FsInfoOffset() + 488 && offset < builder.FsInfoOffset() + 496;
    const bool secondFat =
        volume.Shape.Fats == 2 && offset >= builder.FatOffset(1) && offset < builder.FatOffset(1) + builder.FatBytes();
    if (!fsInfo && !(secondFat && butSecondFat)) ADD_FAILURE() << "byte " << offset << " has changed";
  }
}

// The library mounts what was left, and whatever is asked of it does no harm.
void FaultWalk::Remount(const VOLUME& volume, const OPERATION& operation, const CDiskImage& image, bool fired) {
  Start(operation.PoolBlocks);
  WALK_MEDIUM walkMedium(image);
  CVolumeStorage* storage;
  CFatFileSystem* fileSystem = MountOn(walkMedium, storage);
  if (fileSystem == nullptr) {
    ADD_FAILURE() << "cannot mount again";
    return;
  }
  if (fired) {
    for (const std::string& path : volume.Part) {
      const int handle = Fat_OpenFile(CPath(path));
      if (handle < 0) continue;
      if (Fat_IsDir(handle) == 1) {
        (void)List(path);
      } else {
        unsigned int size = 0;
        unsigned int done;
        EXPECT_EQ(Fat_GetFileSize(handle, &size), 1u);
        BYTES bytes(std::min(size, 1u << 20));
        (void)Fat_ReadFileEx(handle, 0, static_cast<unsigned int>(bytes.size()), bytes.data(), &done);
      }
      EXPECT_EQ(Fat_CloseFile(handle), 1u);
    }
  }
  for (const char* path : {KEEP, OTHER}) EXPECT_EQ(ReadPath(path), ContentOf(path, volume.Shape));
  EXPECT_EQ(Fat_Unmount(fileSystem), 1u);
  delete static_cast<CWalkStorage*>(storage);
  EXPECT_EQ(Fat_LibTerminate(), 1u);
  SetCurrentFileSystem(nullptr);
  EXPECT_EQ(Memory().Outstanding(), 0u);
}

// ---------------------------------------------------------------------------------------------- the walk

void FaultWalk::SetUp() {
  CLargeBlocks::Install();
  CLibFixture::SetUp();
  EXPECT_EQ(Fat_LibTerminate(), 1u);  // every run starts it with a pool of its own
  // A cache in huge pages is quick to fill but slow to get, and here thousands are made and hardly used.
  (void)prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0);
}

void FaultWalk::TearDown() {
  RecordProperty("transfers", static_cast<int>(m_nFaults[0]));
  RecordProperty("short_reads", static_cast<int>(m_nFaults[1]));
  RecordProperty("short_writes", static_cast<int>(m_nFaults[2]));
  RecordProperty("allocations", static_cast<int>(m_nFaults[3]));
  CLibFixture::TearDown();
  (void)prctl(PR_SET_THP_DISABLE, 0, 0, 0, 0);
  CLargeBlocks::Remove();
}

void FaultWalk::WalkShape(const SHAPE& shape, const OPERATION& operation) {
  SCOPED_TRACE(shape.Name());
  m_Judged.clear();
  const VOLUME volume(shape, operation);
  REFERENCE reference;
  FAULT fault;
  (void)Try(volume, operation, fault, &reference);
  if (HasFailure()) return;

  const auto walk = [&](FAULT::KIND kind, const std::vector<unsigned long long>& lengths, unsigned int percent) {
    for (const bool forGood : {false, true}) {
      for (const bool healed : {true, false}) {
        // A transfer that fails once needs no healing, and memory always comes back.
        if (healed && (kind != FAULT::Transfer || !forGood)) continue;
        bool fired = true;
        for (unsigned int nth = 1; fired && !HasFailure(); ++nth) {
          FAULT next;
          next.Kind = kind;
          next.Nth = nth;
          next.ForGood = forGood;
          next.Healed = healed;
          if (next.IsShort()) {
            if (nth > lengths.size()) break;
            next.Bytes = lengths[nth - 1] * percent / 100;
          }
          fired = Try(volume, operation, next, nullptr);
          if (fired) ++m_nFaults[kind - FAULT::Transfer];
          ASSERT_LT(nth, MOST_FAULTS);
        }
      }
    }
  };
  std::vector<unsigned long long> reads;
  std::vector<unsigned long long> writes;
  for (const IO_RECORD& transfer : reference.Trace) (transfer.Read() ? reads : writes).push_back(transfer.Length);
  walk(FAULT::Transfer, {}, 0);
  for (const unsigned int percent : {50u, 0u}) {
    walk(FAULT::ShortRead, reads, percent);
    walk(FAULT::ShortWrite, writes, percent);
  }
  // Nothing that needs memory depends on the number of FATs or the size of a sector.
  if (shape.Fats == 2 && shape.BytesPerSector == 512) walk(FAULT::Allocation, {}, 0);
}

void FaultWalk::Walk(const DESCRIPTION& description, unsigned int bytes) {
  unsigned int allowed = NO_HARM;
  for (SHAPE shape : Shapes(GetParam())) {
    shape.Clusters += bytes / shape.ClusterBytes();
    const OPERATION operation = description(shape);
    if (!operation.Run) continue;
    allowed |= operation.HarmAfterFailure | operation.HarmAfterCut | operation.HarmAfterShort;
    WalkShape(shape, operation);
    if (HasFailure()) return;
  }
  EXPECT_EQ(allowed & ~m_nHarmMet, 0u) << "this harm is never done, and need not be allowed";
}

// A mount that fails has released everything, and can be tried again.
void FaultWalk::WalkMount(const SHAPE& shape) {
  SCOPED_TRACE(shape.Name());
  const OPERATION nothing;
  const VOLUME volume(shape, nothing);
  const auto attempt = [&](const FAULT& fault, REFERENCE* reference) {
    SCOPED_TRACE(fault.Name());
    Start(nothing.PoolBlocks);
    WALK_MEDIUM walkMedium(volume.Image);
    walkMedium.BehindFat = volume.Template.BehindFat;
    walkMedium.FatBytes = volume.Template.FatBytes;
    CMedium& medium = walkMedium.Medium;
    const FAULT_DURATION duration = fault.ForGood ? FAULT_FOR_GOOD : FAULT_ONCE;
    if (fault.Kind == FAULT::Transfer) medium.FailAt(fault.Nth, duration);
    if (fault.Kind == FAULT::ShortRead) medium.ShortenReadAt(fault.Nth, fault.Bytes, duration);
    const auto length = fault.ForGood ? CMemHooks::FOR_GOOD : CMemHooks::ONCE;
    if (fault.Kind == FAULT::Allocation) Memory().FailAt(fault.Nth, length);
    const std::size_t before = Memory().Outstanding();
    CVolumeStorage* storage;
    CFatFileSystem* fileSystem = MountOn(walkMedium, storage);
    bool fired = fault.Kind != FAULT::None && (fault.Kind == FAULT::Allocation ? Memory().Fired() : medium.Fired());
    Memory().Heal();
    if (fault.Kind == FAULT::Transfer) medium.Heal();
    EXPECT_EQ(medium.Writes(), 0u);
    if (reference != nullptr) reference->Trace = medium.Trace();
    if (fault.Kind == FAULT::Transfer) {
      EXPECT_EQ(fileSystem == nullptr, fired);
    }
    if (fileSystem == nullptr) {
      EXPECT_TRUE(fired);
      EXPECT_EQ(Memory().Outstanding(), before);
      EXPECT_LE(medium.CloseCalls(), medium.OpenCalls());
      medium.Heal();
      const unsigned int closed = medium.CloseCalls();
      fileSystem = MountOn(walkMedium, storage);
      if (fileSystem == nullptr) {
        ADD_FAILURE() << "cannot be mounted afterwards";
        return fired;
      }
      EXPECT_EQ(ReadPath(OTHER), ContentOf(OTHER, shape));
      EXPECT_EQ(Fat_Unmount(fileSystem), 1u);
      EXPECT_EQ(medium.CloseCalls(), closed + 1);
    } else {
      if (!fired || fault.Kind == FAULT::Allocation) {
        EXPECT_EQ(ReadPath(OTHER), ContentOf(OTHER, shape));
      }
      for (const auto& [path, node] : volume.Reader.Tree())
        (void)Exists(path);  // whatever zeros the volume is taken for
      EXPECT_EQ(Fat_Unmount(fileSystem), 1u);
      EXPECT_EQ(medium.CloseCalls(), 1u);
      fired = fired || (fault.IsShort() && medium.Fired());
    }
    medium.Heal();
    EXPECT_EQ(medium.TransfersWhileClosed(), 0u);
    EXPECT_EQ(CFatFile::BLOCK_CACHE::BlocksInUse(), 0u);
    delete static_cast<CWalkStorage*>(storage);
    EXPECT_EQ(Fat_LibTerminate(), 1u);
    SetCurrentFileSystem(nullptr);
    EXPECT_EQ(Memory().Outstanding(), 0u);
    EXPECT_EQ(Memory().UnknownFrees(), 0u);
    walkMedium.PutBack();
    ExpectSame(volume, medium.Image(), fault.Kind == FAULT::ShortRead);
    return fired;
  };
  REFERENCE reference;
  FAULT fault;
  (void)attempt(fault, &reference);
  EXPECT_GE(reference.Trace.size(), 3u);  // boot sector, FAT, root directory
  const auto walk = [&](FAULT::KIND kind, unsigned int percent) {
    for (const bool forGood : {false, true}) {
      bool fired = true;
      for (unsigned int nth = 1; fired && !HasFailure(); ++nth) {
        FAULT next;
        next.Kind = kind;
        next.Nth = nth;
        next.ForGood = forGood;
        if (next.IsShort()) {
          if (nth > reference.Trace.size()) break;
          next.Bytes = reference.Trace[nth - 1].Length * percent / 100;
        }
        fired = attempt(next, nullptr);
        if (fired) ++m_nFaults[kind - FAULT::Transfer];
        ASSERT_LT(nth, MOST_FAULTS);
      }
    }
  };
  walk(FAULT::Transfer, 0);
  walk(FAULT::ShortRead, 50);
  walk(FAULT::ShortRead, 0);
  walk(FAULT::Allocation, 0);
  EXPECT_GT(m_nFaults[3], 10u);
}

// ---------------------------------------------------------------------------------------------- shorthands

int FaultWalk::Open(SESSION& session, const std::string& path) {
  const int handle = Fat_OpenFile(CPath(path));
  EXPECT_GE(handle, 0) << path;
  session.Handles.push_back(handle);
  return handle;
}

bool FaultWalk::Create(const std::string& path, unsigned int size) {
  const int handle = Fat_CreateFile(CPath(path), size, 0);
  return handle >= 0 && Fat_CloseFile(handle) == 1;
}

bool FaultWalk::Write(int handle, long long offset, BYTES bytes) {
  unsigned int done;
  return Fat_WriteFileEx(handle, offset, static_cast<unsigned int>(bytes.size()), bytes.data(), &done) == 1;
}

bool FaultWalk::Read(const SESSION& session, const BYTES& content, unsigned int offset, unsigned int count,
                     unsigned int misalign) {
  BYTES buffer(count + misalign);
  unsigned int done;
  if (Fat_ReadFileEx(session.Handles[0], offset, count, buffer.data() + misalign, &done) != 1) return false;
  // What a short read did not deliver is zeros.
  for (unsigned int i = 0; i < count; ++i) {
    const unsigned char got = buffer[misalign + i];
    if (got == content[offset + i] || (!session.Exact && got == 0)) continue;
    ADD_FAILURE() << "byte " << offset + i << " was read wrong";
    break;
  }
  return true;
}

}  // namespace faultwalk
