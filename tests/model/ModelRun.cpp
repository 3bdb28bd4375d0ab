/// @file ModelRun.cpp

#include "model/ModelRun.h"

#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>

#include "allocation/XRuns.h"
#include "file/FatFile.h"
#include "support/Utf16.h"
#include "support/VolumeReader.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>
#endif

namespace {

constexpr std::time_t START_TIME = 1700000000;
constexpr unsigned char FILLER = 0xA5;

UTF16 ToUnits(const NAME& name) { return UTF16(name.begin(), name.end()); }
CPath ToPath(const NAME& name) { return CPath(ToUnits(name)); }
std::string Text(const NAME& name) { return ToUtf8(ToUnits(name)); }
NAME FromZ(const unsigned short* units, std::size_t max) {
  NAME name;
  for (std::size_t i = 0; i < max && units[i] != 0; ++i) name.push_back(units[i]);
  return name;
}

std::string Show(unsigned int value) { return std::to_string(value); }
std::string Show(int value) { return std::to_string(value); }
std::string Show(bool value) { return value ? "true" : "false"; }
std::string Show(const NAME& value) { return "«" + Text(value) + "»"; }

// A host's memory as a store.
class CMemoryStore final : public CByteStore {
 public:
  explicit CMemoryStore(std::vector<unsigned char>& bytes) : m_pBytes(&bytes) {}
  std::uint64_t Size() const override { return m_pBytes->size(); }
  void Read(std::uint64_t offset, void* buffer, std::size_t count) const override {
    const std::size_t there = offset < m_pBytes->size() ? std::min(count, m_pBytes->size() - ToSize(offset)) : 0;
    if (there != 0) std::memcpy(buffer, m_pBytes->data() + offset, there);
    std::memset(static_cast<unsigned char*>(buffer) + there, 0, count - there);
  }
  void Write(std::uint64_t offset, const void* buffer, std::size_t count) override {
    std::memcpy(m_pBytes->data() + offset, buffer, count);
  }

 private:
  std::vector<unsigned char>* m_pBytes;
};

// Marks clusters of a FAT16 or FAT32 volume as bad.
void MarkBad(CDiskImage& image, unsigned int period, unsigned int good) {
  CImageBuilder builder(image);
  const bool fat32 = builder.Geometry().FatBits == 32;
  const std::size_t bytes = fat32 ? 4 : 2;
  std::vector<unsigned char> fat = image.ReadBytes(builder.FatOffset(0), ToSize(builder.FatBytes()));
  for (unsigned int cluster = 2; cluster < builder.Geometry().Clusters + 2; ++cluster) {
    unsigned char* const entry = fat.data() + cluster * bytes;
    const bool isFree = std::all_of(entry, entry + bytes, [](unsigned char byte) { return byte == 0; });
    if (!isFree || (cluster + good / 2) % period < good) continue;
    entry[0] = 0xF7;
    entry[1] = 0xFF;
    if (fat32) entry[2] = 0xFF;
    if (fat32) entry[3] = 0x0F;
  }
  for (unsigned int copy = 0; copy < builder.Geometry().NumberOfFats; ++copy) {
    image.WriteBytes(builder.FatOffset(copy), fat);
  }
}

CDiskImage Format(const MODEL_VOLUME& volume) {
  if (volume.Mkfs.empty()) {
    CImageBuilder builder(volume.Geometry);
    return builder.Image();
  }
  const CTempDir dir;
  std::vector<std::string> arguments = {"mkfs.fat", "-a", "--invariant"};
  arguments.insert(arguments.end(), volume.Mkfs.begin(), volume.Mkfs.end());
  arguments.insert(arguments.end(), {"-C", dir / "image", std::to_string(volume.KiB)});
  RunOrThrow(arguments);
  return CDiskImage::FromFile(dir / "image");
}

// A freshly formatted volume. Each is made once.
const CDiskImage& Formatted(const MODEL_VOLUME& volume) {
  static std::map<std::string, CDiskImage> s_Images;
  const auto found = s_Images.find(volume.Name);
  if (found != s_Images.end()) return found->second;
  CDiskImage image = Format(volume);
  if (volume.FreePeriod != 0) MarkBad(image, volume.FreePeriod, volume.FreeInPeriod);
  return s_Images.emplace(volume.Name, std::move(image)).first->second;
}

TWIN_GEOMETRY GeometryOf(const CDiskImage& image) {
  const CVolumeReader reader(image);
  TWIN_GEOMETRY geometry;
  geometry.Fat32 = reader.FatBits() == 32;
  geometry.ClusterBytes = reader.ClusterBytes();
  geometry.FreeClusters = reader.FreeClusters();
  const unsigned int sector = image.Get16(11);
  geometry.RootSlots =
      geometry.Fat32 ? geometry.ClusterBytes / 32 : (image.Get16(17) * 32u + sector - 1) / sector * sector / 32;
  geometry.Label = !reader.Label().empty();
  return geometry;
}

// The date and time words of a moment.
struct STAMP {
  unsigned int Date;
  unsigned int Time;
};
STAMP StampOf(std::time_t time) {
  const std::tm local = *std::localtime(&time);
  return {static_cast<unsigned int>((local.tm_year - 80) << 9 | (local.tm_mon + 1) << 5 | local.tm_mday),
          static_cast<unsigned int>(local.tm_hour << 11 | local.tm_min << 5 | local.tm_sec / 2)};
}

// ---- when the process dies, what it was doing is worth knowing

char s_Running[4096];

void PrintRunning() {
  if (s_Running[0] == 0) return;
  const ssize_t ignored = ::write(STDERR_FILENO, s_Running, std::strlen(s_Running));
  static_cast<void>(ignored);
}

#if !defined(__SANITIZE_ADDRESS__)
extern "C" void OnDeadlySignal(int number) {
  PrintRunning();
  std::signal(number, SIG_DFL);
  std::raise(number);
}
#endif

void WatchForDeath() {
  static const bool s_Watching = [] {
#if defined(__SANITIZE_ADDRESS__)
    __sanitizer_set_death_callback(&PrintRunning);
#else
    for (const int number : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGTERM}) std::signal(number, &OnDeadlySignal);
#endif
    return true;
  }();
  static_cast<void>(s_Watching);
}

}  // namespace

void NoteRunning(const std::string& what) {
  WatchForDeath();
  const std::size_t length = std::min(what.size(), sizeof s_Running - 2);
  std::memcpy(s_Running, what.data(), length);
  s_Running[length] = what.empty() ? '\0' : '\n';
  s_Running[length + 1] = 0;
}

// ---------------------------------------------------------------------------------------------- the library

CLibrary::CLibrary(POOL pool) : m_Pool(pool), m_pMemory(std::make_unique<CMemHooks>()), m_Clock(START_TIME) {
  // Short names of letters beyond ASCII depend on the locale.
  const char* locale = std::getenv("LC_ALL");
  m_bLocaleSet = locale != nullptr;
  if (m_bLocaleSet) m_Locale = locale;
  ::setenv("LC_ALL", "C.UTF-8", 1);
  // A pool that stands is kept.
  if (CRuns::InitializeFirstPool()) {
    static_cast<void>(CFatFile::BLOCK_CACHE::GlobalInitialize(static_cast<unsigned int>(pool)));
  }
  Fat_LibInitialize();
}

CLibrary::~CLibrary() {
  static_cast<void>(Stop());
  if (m_bLocaleSet) {
    ::setenv("LC_ALL", m_Locale.c_str(), 1);
  } else {
    ::unsetenv("LC_ALL");
  }
  std::setlocale(LC_ALL, "C");
}

std::string CLibrary::Stop() {
  if (!m_bUp) return {};
  m_bUp = false;
  SetCurrentFileSystem(nullptr);
  std::string wrong;
  if (Fat_LibTerminate() != 1) wrong += "a handle is open\n";
  if (m_pMemory->Outstanding() != 0) wrong += std::to_string(m_pMemory->OutstandingBytes()) + " bytes not freed\n";
  if (m_pMemory->UnknownFrees() != 0) wrong += "memory freed twice\n";
  return wrong;
}

// ---------------------------------------------------------------------------------------------- a mounted volume

// The image of a volume between mounts, and the storage object while it is mounted.
class CModelRun::CMounted {
 public:
  explicit CMounted(const MODEL_VOLUME& volume) : m_Backend(volume.Backend) {
    const CDiskImage& image = Formatted(volume);
    switch (m_Backend) {
      case BACKEND::Memory:
        m_Bytes = image.ToVector();
        break;
      case BACKEND::File:
        image.ToFile(Path());
        break;
      case BACKEND::Medium:
        m_pMedium = std::make_unique<CMedium>(image);
        m_pMedium->KeepTrace(false);
        m_pMedium->RefuseOutOfRange(true);
        break;
    }
  }
  ~CMounted() {
    if (m_pFileSystem != nullptr) static_cast<void>(Unmount());
  }
  CMounted(const CMounted&) = delete;
  CMounted& operator=(const CMounted&) = delete;

  bool Mount() {
    std::string path = Path();
    void* parameter = nullptr;
    switch (m_Backend) {
      case BACKEND::Memory:
        m_pStorage = new CFatMemory;
        parameter = m_Bytes.data();
        break;
      case BACKEND::File:
        m_pStorage = new CFatPartition;
        parameter = path.data();
        break;
      case BACKEND::Medium:
        m_pStorage = new CFaultStorage(*m_pMedium);
        break;
    }
    m_pFileSystem = Fat_Mount(m_pStorage, parameter);
    return m_pFileSystem != nullptr;
  }

  bool Unmount() {
    const bool unmounted = Fat_Unmount(m_pFileSystem) == 1;
    if (!unmounted) static_cast<void>(m_pStorage->Close());
    m_pGone = m_pFileSystem;
    m_pFileSystem = nullptr;
    ::operator delete(static_cast<void*>(m_pStorage));
    return unmounted;
  }

  CFatFileSystem* FileSystem() const { return m_pFileSystem; }
  /// The one unmounted last.
  CFatFileSystem* Gone() const { return m_pGone; }
  /// Of a volume on a medium; else null.
  CMedium* Medium() const { return m_pMedium.get(); }
  unsigned int TransfersOutOfRange() const { return m_pMedium == nullptr ? 0 : m_pMedium->OutOfRange(); }

  /// The image, while it is not mounted.
  void Look(const std::function<void(const CByteStore&)>& look) {
    if (m_Backend == BACKEND::File) {
      look(CFileImage(Path()));
    } else if (m_Backend == BACKEND::Medium) {
      look(m_pMedium->Image());
    } else {
      look(CMemoryStore(m_Bytes));
    }
  }
  /// The image as a file, for other programs.
  std::string AsFile() {
    if (m_Backend == BACKEND::Memory) WriteHostFile(Path(), m_Bytes);
    if (m_Backend == BACKEND::Medium) m_pMedium->Image().ToFile(Path());
    return Path();
  }

 private:
  std::string Path() const { return m_Dir / "image"; }

  BACKEND m_Backend;
  CTempDir m_Dir;
  std::vector<unsigned char> m_Bytes;
  std::unique_ptr<CMedium> m_pMedium;
  CVolumeStorage* m_pStorage = nullptr;
  CFatFileSystem* m_pFileSystem = nullptr;
  CFatFileSystem* m_pGone = nullptr;
};

// ---------------------------------------------------------------------------------------------- a run

CModelRun::CModelRun(const MODEL_CONFIG& config, CLibrary& library)
    : m_Config(config),
      m_pLibrary(&library),
      m_FileHandles(CGenerator::FILE_VARIABLES, -1),
      m_FindHandles(CGenerator::FIND_VARIABLES, -1),
      m_bExactCounts(config.Pool == POOL::ExactCounts),
      m_Now(START_TIME) {
  m_Twin.SetCanary(config.Canary);
  if (!Calibrate()) return;
  for (const MODEL_VOLUME& volume : config.Volumes) {
    m_Twin.AddVolume(GeometryOf(Formatted(volume)));
    m_Volumes.push_back(std::make_unique<CMounted>(volume));
  }
  for (std::size_t i = 0; i < m_Volumes.size(); ++i) {
    if (!MountVolume(i)) return;
  }
}

CModelRun::~CModelRun() {
  // After a failure handles may be left. They close while some file system, even a dead one, is current.
  for (const std::unique_ptr<CMounted>& volume : m_Volumes) {
    if (volume->FileSystem() != nullptr) static_cast<void>(volume->Unmount());
    SetCurrentFileSystem(volume->Gone());
  }
  CloseAll();
  m_Volumes.clear();
  SetCurrentFileSystem(nullptr);
}

bool CModelRun::Fail(const std::string& what) {
  if (m_Failure.empty()) m_Failure = what;
  return false;
}

template <class T>
bool CModelRun::Same(const char* what, const T& library, const T& twin) {
  return library == twin ||
         Fail(std::string(what) + ": the library says " + Show(library) + ", the twin " + Show(twin));
}

// The running number of invented names goes on from run to run: one name on a throw-away volume shows where it stands.
bool CModelRun::Calibrate() {
  static const MODEL_VOLUME s_Scratch = {"scratch", {}, 0, FAT_GEOMETRY(), BACKEND::Memory, 0};
  CMounted scratch(s_Scratch);
  WIN_FIND_DATA data{};
  const bool good = scratch.Mount() && Fat_CreateDir(CPath("D"), 0) == 1 && Fat_CreateDir(CPath("D\\x+"), 0) == 1;
  const int search = good ? Fat_FindFirstFile(CPath("D"), &data) : -1;
  const bool found = Fat_FindNextFile(search, &data) == 1 && Fat_FindNextFile(search, &data) == 1;
  static_cast<void>(Fat_CloseFindHandle(search));
  const std::string name = ToUtf8Z(data.cAlternateFileName, 14);
  const std::size_t tilde = name.find('~');
  if (!found || tilde == std::string::npos) return Fail("no short name to start from");
  m_Twin.Counter().SetLast(name.substr(tilde + 1));
  return true;
}

void CModelRun::Use(std::size_t volume) { SetCurrentFileSystem(m_Volumes[volume]->FileSystem()); }

bool CModelRun::MountVolume(std::size_t volume) { return m_Volumes[volume]->Mount() || Fail("mount failed"); }

bool CModelRun::UnmountVolume(std::size_t volume) {
  CMounted& mounted = *m_Volumes[volume];
  m_Twin.Unmount(m_Twin.Volume(volume));
  if (!mounted.Unmount()) return Fail("unmount failed");
  if (Fat_Unmount(mounted.Gone()) != 0) return Fail("a second unmount succeeded");
  if (mounted.TransfersOutOfRange() != 0) return Fail("transfers beyond the end of the volume");
  bool good = true;
  mounted.Look([&](const CByteStore& store) { good = CheckImage(volume, store); });
  return good;
}

bool CModelRun::Remount(std::size_t volume) {
  ++m_nRemounts;
  return UnmountVolume(volume) && MountVolume(volume);
}

// ---------------------------------------------------------------------------------------------- the image

// Compares the tree of the twin with what an independent reader finds.
bool CModelRun::CheckImage(std::size_t volume, const CByteStore& store) {
  const CTwinVolume& twin = m_Twin.Volume(volume);
  const CVolumeReader reader(store);
  std::set<std::string> expected;
  for (const NODE_PTR& node : twin.Nodes()) {
    if (node->OddDotDot) expected.insert(Text(CTwinVolume::PathOf(*node)) + ": wrong \"..\"");
  }
  const std::set<std::string> problems(reader.Problems().begin(), reader.Problems().end());
  if (problems != expected) return Fail("the volume is damaged:\n" + reader.ProblemText());
  if (!reader.LostClusters().empty()) return Fail(std::to_string(reader.LostClusters().size()) + " lost clusters");
  if (!Same<unsigned int>("free clusters", reader.FreeClusters(), twin.FreeClusters())) return false;
  if (!Same<unsigned int>("files and directories", static_cast<unsigned int>(reader.Tree().size()),
                          static_cast<unsigned int>(twin.Nodes().size()))) {
    return false;
  }
  if (reader.FatBits() == 32 && (reader.FsInfoFree() != 0xFFFFFFFF || reader.FsInfoNext() != 0xFFFFFFFF)) {
    return Fail("the counters of FSInfo are not unknown");
  }
  for (const NODE_PTR& node : twin.Nodes()) {
    const std::string path = Text(CTwinVolume::PathOf(*node));
    const RECORD_PTR record = node->Entry();
    const VOLUME_NODE* found = reader.Find(path);
    if (found == nullptr) return Fail(path + " is not on the volume");
    const STAMP stamp = StampOf(node->Stamp);
    const bool same = found->Attributes == node->Attributes && found->Size == node->Size() &&
                      found->ShortName == std::string(record->Short.begin(), record->Short.end()) &&
                      found->LongName == ToUnits(record->Long) && found->FirstSlot == record->FirstSlot() &&
                      found->ShortSlot == record->ShortSlot && found->CreationDate == stamp.Date &&
                      found->CreationTime == stamp.Time && found->WriteDate == stamp.Date &&
                      found->WriteTime == stamp.Time && found->AccessDate == stamp.Date;
    if (!same) {
      std::ostringstream text;
      text << path << ": the entry differs. On the volume (expected): attributes " << found->Attributes << " ("
           << node->Attributes << "), size " << found->Size << " (" << node->Size() << "), slots " << found->FirstSlot
           << "-" << found->ShortSlot << " (" << record->FirstSlot() << "-" << record->ShortSlot << "), short name "
           << found->ShortName << " (" << std::string(record->Short.begin(), record->Short.end()) << "), stamp "
           << found->WriteDate << ":" << found->WriteTime << " (" << stamp.Date << ":" << stamp.Time << ")";
      return Fail(text.str());
    }
    if (node->Dir || (node->Unknown == 0 && found->Hash == CVolumeReader::HashOf(node->Bytes))) continue;
    const std::vector<unsigned char> bytes = reader.Content(*found);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      if (node->Known[i] && bytes[i] != node->Bytes[i]) {
        return Fail(path + ": byte " + std::to_string(i) + " differs on the volume");
      }
    }
  }
  return true;
}

// fsck.fat says nothing but its version and its summary; and what has to be expected of a FAT32 with few clusters, of
// the free-cluster count that is left unknown, and of each directory moved into the root.
bool CModelRun::CheckWithFsck(std::size_t volume) {
  const CTwinVolume& twin = m_Twin.Volume(volume);
  unsigned int oddDirs = 0;
  for (const NODE_PTR& node : twin.Nodes()) oddDirs += node->OddDotDot ? 1u : 0u;
  const PROCESS_RESULT result = RunProcess({"fsck.fat", "-n", m_Volumes[volume]->AsFile()});
  std::istringstream lines(result.Output);
  std::string complaints;
  std::string path;     // a line that names a file; what is wrong with it follows
  std::string summary;  // "image: 3 files, 9/1346 clusters"
  for (std::string line; std::getline(lines, line);) {
    static const std::vector<std::string> s_Expected = {"fsck.fat ",
                                                        "Warning: Filesystem is FAT32 according to",
                                                        "  but has only ",
                                                        "  This may lead to problems",
                                                        "Free cluster summary uninitialized",
                                                        "Leaving filesystem unchanged"};
    const bool expected =
        line.empty() || std::any_of(s_Expected.begin(), s_Expected.end(), [&](const std::string& start) {
          return line.compare(0, start.size(), start) == 0;
        });
    if (line.find(" files, ") != std::string::npos) {
      summary = line;
    } else if (oddDirs != 0 && !path.empty() && line == "  Invalid '..' entry in the second slot. Fixing.") {
      --oddDirs;
      path.clear();
    } else if (!expected) {
      if (!path.empty()) complaints += path + "\n";
      path = line[0] == '/' ? line : "";
      if (path.empty()) complaints += line + "\n";
    }
  }
  complaints += path;
  if (!complaints.empty()) return Fail("fsck.fat complains:\n" + complaints.substr(0, 1000));
  if (oddDirs != 0) return Fail("fsck.fat finds \"..\" right in a directory moved into the root");
  const std::string clusters = summary.substr(summary.find(" files, ") + 8);
  const unsigned long used = std::strtoul(clusters.c_str(), nullptr, 10);
  const unsigned long all = std::strtoul(clusters.c_str() + clusters.find('/') + 1, nullptr, 10);
  return Same("free clusters by fsck.fat", static_cast<unsigned int>(all - used), twin.FreeClusters());
}

// ---------------------------------------------------------------------------------------------- one call

// In a path, the number that the next invented name gets, behind as much of its base as then remains.
NAME CModelRun::Resolved(NAME path) const {
  const std::size_t at = path.find(NEXT_NUMBER);
  if (at == NAME::npos) return path;
  const std::string digits = const_cast<CTwin&>(m_Twin).Counter().Next();
  const std::size_t base = path.rfind(u'\\', at) + 1;
  NAME name = path.substr(base, std::min(at - 1 - base, 7 - digits.size())) + u"~";
  for (const char digit : digits) name.push_back(static_cast<char16_t>(digit));
  return path.substr(0, base) + name + path.substr(at + 1);
}

void CModelRun::Tick() {
  m_Now += 3;
  m_Twin.SetTime(m_Now);
  m_pLibrary->Clock().Set(m_Now);
}

bool CModelRun::Step(const OPERATION& operation) {
  if (!m_Failure.empty()) return false;
  Tick();
  for (unsigned int attempt = 0;; ++attempt) {
    std::vector<unsigned int> changes;
    for (std::size_t i = 0; i < m_Volumes.size(); ++i) changes.push_back(m_Twin.Volume(i).Changes());
    try {
      if (!RunOnce(operation)) return false;
      break;
    } catch (const AVOID& avoid) {
      for (std::size_t i = 0; i < m_Volumes.size(); ++i) {
        if (m_Twin.Volume(i).Changes() != changes[i])
          return Fail(std::string("the twin changed and gave up: ") + avoid.Why);
      }
      // What the twin's cache looks like now nobody knows.
      if (!Remount(operation.Volume)) return false;
      for (std::size_t i = 0; m_Volumes.size() > 1 && i < m_Volumes.size(); ++i) {
        if (i != operation.Volume && !Remount(i)) return false;
      }
      if (attempt == 1) {
        ++m_nLeftOut;
        break;
      }
    }
  }
  for (std::size_t i = 0; i < m_Volumes.size(); ++i) {
    if (m_Twin.Volume(i).NeedsRemount() && !Remount(i)) return false;
  }
  if (m_bExactCounts && CFatFile::BLOCK_CACHE::BlocksInUse() == static_cast<unsigned int>(POOL::ExactCounts)) {
    // The objects of one volume never need as many; those of two may.
    if (m_Volumes.size() == 1) return Fail("the volume is too large for exact counts");
    m_bExactCounts = false;
  }
  return true;
}

bool CModelRun::RunOnce(const OPERATION& operation) {
  Use(operation.Volume);
  CTwinVolume& twin = m_Twin.Volume(operation.Volume);
  const NAME path = Resolved(operation.Path);
  switch (operation.Kind) {
    case OP::Open: {
      const int handle = m_Twin.OpenFile(twin, path);
      if (!Same("handle", Fat_OpenFile(ToPath(path)), handle)) return false;
      if (handle >= 0) m_FileHandles[operation.Variable] = handle;
      return true;
    }
    case OP::Create: {
      const int handle = m_Twin.CreateFile(twin, path, operation.Number, operation.Attributes);
      if (!Same("handle", Fat_CreateFile(ToPath(path), operation.Number, operation.Attributes), handle)) return false;
      if (handle >= 0) m_FileHandles[operation.Variable] = handle;
      return true;
    }
    case OP::FindFirst: {
      TWIN_FOUND found;
      WIN_FIND_DATA data;
      std::memset(&data, FILLER, sizeof data);
      const int handle = m_Twin.FindFirstFile(twin, path, found);
      if (!Same("handle", Fat_FindFirstFile(ToPath(path), &data), handle)) return false;
      if (handle < 0) return true;
      m_FindHandles[operation.Variable] = handle;
      return SameFound(data, found);
    }
    case OP::FindNext: {
      TWIN_FOUND found;
      WIN_FIND_DATA data;
      std::memset(&data, FILLER, sizeof data);
      const WIN_FIND_DATA untouched = data;
      const int handle =
          operation.Literal ? operation.Handle : m_FindHandles[operation.Variable % m_FindHandles.size()];
      const bool more = m_Twin.FindNextFile(handle, found);
      if (!Same("result", Fat_FindNextFile(handle, &data) == 1, more)) return false;
      if (more) return SameFound(data, found);
      return std::memcmp(&data, &untouched, sizeof data) == 0 || Fail("the record was written to");
    }
    case OP::FindClose: {
      const int handle =
          operation.Literal ? operation.Handle : m_FindHandles[operation.Variable % m_FindHandles.size()];
      const bool closed = m_Twin.CloseFindHandle(handle);
      return Same("result", Fat_CloseFindHandle(handle) == 1, closed);
    }
    case OP::Delete: {
      const bool deleted = m_Twin.DeleteFile(twin, path);
      return Same("result", Fat_DeleteFile(ToPath(path)) == 1, deleted);
    }
    case OP::Rename: {
      const bool renamed = m_Twin.RenameFile(twin, path, operation.Path2);
      return Same("result", Fat_RenameFile(ToPath(path), ToPath(operation.Path2)) == 1, renamed);
    }
    case OP::Move: {
      const bool moved = m_Twin.MoveFile(twin, path, operation.ToRoot ? nullptr : &operation.Path2);
      CPath target = ToPath(operation.Path2);
      return Same("result", Fat_MoveFile(ToPath(path), operation.ToRoot ? nullptr : target.Get()) == 1, moved);
    }
    case OP::CreateDir: {
      const bool created = m_Twin.CreateDir(twin, path, operation.Attributes);
      return Same("result", Fat_CreateDir(ToPath(path), operation.Attributes) == 1, created);
    }
    case OP::ReadBack:
      return ReadBack(operation, path);
    case OP::List:
      return ListAll(operation.Volume, path);
    case OP::Remount:
      return Remount(operation.Volume);
    default:
      break;
  }
  return RunOnFile(operation, operation.Literal ? operation.Handle : m_FileHandles[operation.Variable]);
}

bool CModelRun::RunOnFile(const OPERATION& operation, int handle) {
  switch (operation.Kind) {
    case OP::Close: {
      const bool closed = m_Twin.CloseFile(handle);
      return Same("result", Fat_CloseFile(handle) == 1, closed);
    }
    case OP::GetOffset: {
      unsigned int offset = 0;
      unsigned int twin = 0;
      const bool told = m_Twin.GetFileOffset(handle, twin);
      return Same("result", Fat_GetFileOffset(handle, &offset) == 1, told) && Same("offset", offset, twin);
    }
    case OP::Seek: {
      const bool sought = m_Twin.SetFileOffset(handle, operation.Number, operation.Attributes);
      if (!Same("result", Fat_SetFileOffset(handle, operation.Number, operation.Attributes) == 1, sought)) return false;
      OPERATION look = operation;
      look.Kind = OP::GetOffset;
      return RunOnFile(look, handle);
    }
    case OP::GetSize: {
      unsigned int size = 0;
      unsigned int twin = 0;
      const bool told = m_Twin.GetFileSize(handle, twin);
      return Same("result", Fat_GetFileSize(handle, &size) == 1, told) && Same("size", size, twin);
    }
    case OP::SetSize: {
      const bool set = m_Twin.SetFileSize(handle, operation.Number);
      if (!Same("result", Fat_SetFileSize(handle, operation.Number) == 1, set)) return false;
      OPERATION look = operation;
      look.Kind = OP::GetSize;
      return RunOnFile(look, handle);
    }
    case OP::IsDir:
      return Same("result", Fat_IsDir(handle) == 1, m_Twin.IsDir(handle));
    case OP::GetAttribute: {
      TWIN_FOUND found;
      WIN_FIND_DATA data;
      std::memset(&data, FILLER, sizeof data);
      const bool told = m_Twin.GetFileAttribute(handle, found);
      if (!Same("result", Fat_GetFileAttribute(handle, &data) == 1, told)) return false;
      return !told || SameFound(data, found);
    }
    case OP::SetAttribute: {
      WIN_FIND_DATA data;
      std::memset(&data, FILLER, sizeof data);
      data.dwFileAttributes = operation.Attributes;
      const bool set = m_Twin.SetFileAttribute(handle, operation.Attributes);
      return Same("result", Fat_SetFileAttribute(handle, &data) == 1, set);
    }
    case OP::NullArguments:
      return NullArguments(handle);
    case OP::NoVolume:
      return NoVolume(operation, handle);
    default:
      return RunTransfer(operation, handle);
  }
}

// Reads deliver exactly the bytes between the offset and the limit and touch nothing behind them; writes leave the
// buffer as it is. Buffers lie at all kinds of addresses.
bool CModelRun::RunTransfer(const OPERATION& operation, int handle) {
  const bool write = operation.Kind == OP::Write || operation.Kind == OP::WriteEx;
  const bool positioned = operation.Kind == OP::ReadEx || operation.Kind == OP::WriteEx;
  const TWIN_OBJECT* object = m_Twin.ObjectOf(handle);
  const std::size_t limit = object == nullptr   ? 0
                            : object->Node->Dir ? object->Node->Slots.size() * 32
                                                : object->Node->Size();
  const std::size_t shift = operation.Seed % 4;
  const std::size_t room = std::min<std::size_t>(operation.Number, limit + 16);
  std::vector<unsigned char> buffer(shift + room + 16, FILLER);
  if (write) {
    const std::vector<unsigned char> bytes = BytesOf(operation.Seed, room);
    std::copy(bytes.begin(), bytes.end(), buffer.begin() + static_cast<std::ptrdiff_t>(shift));
  }
  const std::vector<unsigned char> before = buffer;
  unsigned char* const at = buffer.data() + shift;
  const unsigned char* const source = write ? at : nullptr;
  const TWIN_TRANSFER twin = positioned ? m_Twin.TransferEx(handle, operation.Offset, operation.Number, source)
                                        : m_Twin.Transfer(handle, operation.Number, source);
  unsigned int reported = 0x55555555;
  unsigned int result;
  switch (operation.Kind) {
    case OP::Read:
      result = Fat_ReadFile(handle, operation.Number, at, &reported);
      break;
    case OP::Write:
      result = Fat_WriteFile(handle, operation.Number, at, &reported);
      break;
    case OP::ReadEx:
      result = Fat_ReadFileEx(handle, operation.Offset, operation.Number, at, &reported);
      break;
    default:
      result = Fat_WriteFileEx(handle, operation.Offset, operation.Number, at, &reported);
      break;
  }
  if (!Same("result", result == 1, twin.Ok)) return false;
  if (object == nullptr) return reported == 0x55555555 || Fail("a count was written");
  if (twin.Reported && (m_bExactCounts || twin.Length == 0) && !Same("count", reported, *twin.Reported)) {
    return false;
  }
  if (!positioned && twin.Ok) m_Twin.Advance(handle, reported);
  const std::size_t length = twin.Node == nullptr ? 0 : twin.Length;
  if (write) return buffer == before || Fail("the buffer of a write was changed");
  if (!std::equal(buffer.begin() + static_cast<std::ptrdiff_t>(shift + length), buffer.end(),
                  before.begin() + static_cast<std::ptrdiff_t>(shift + length))) {
    return Fail("bytes behind those read were changed");
  }
  if (length == 0 || twin.Node->Dir) return true;
  const TWIN_NODE& node = *twin.Node;
  if (std::memcmp(at, node.Bytes.data() + twin.Start, length) == 0) return true;
  for (std::size_t i = 0; i < length; ++i) {
    const std::size_t position = twin.Start + i;
    if (node.Known[position] && at[i] != node.Bytes[position]) {
      return Fail("byte " + std::to_string(position) + " is " + Show(static_cast<unsigned int>(at[i])) + ", not " +
                  Show(static_cast<unsigned int>(node.Bytes[position])));
    }
  }
  return true;
}

bool CModelRun::SameFound(const WIN_FIND_DATA& data, const TWIN_FOUND& found) {
  constexpr unsigned int FILLERS = 0xA5A5A5A5;
  for (const WIN_FTIME* time : {&data.ftCreationTime, &data.ftLastAccessTime, &data.ftLastWriteTime}) {
    if (time->dwHighDateTime != 0x019DB1DE || time->dwLowDateTime != 0xD4A5E980)
      return Fail("a time is not the constant");
  }
  return Same("attributes", data.dwFileAttributes, found.Attributes) && Same("size", data.nFileSizeLow, found.Size) &&
         Same("high size", data.nFileSizeHigh, 0u) && Same("reserved word", data.dwReserved0, FILLERS) &&
         Same("reserved word", data.dwReserved1, FILLERS) &&
         Same("long name", FromZ(data.cFileName, 260), found.Long) &&
         Same("short name", FromZ(data.cAlternateFileName, 14), found.Short);
}

// ---------------------------------------------------------------------------------------------- calls of several calls

bool CModelRun::ReadBack(const OPERATION& readBack, const NAME& path) {
  const int handle = m_Twin.OpenFile(m_Twin.Volume(readBack.Volume), path);
  if (!Same("handle", Fat_OpenFile(ToPath(path)), handle)) return false;
  if (handle < 0) return true;
  OPERATION operation;
  operation.Kind = OP::ReadEx;
  operation.Number = CTwinVolume::BLOCK_BYTES;
  unsigned int size = 0;
  static_cast<void>(m_Twin.GetFileSize(handle, size));
  // Some bytes from the middle first: the count that is reported tells whether the object was in memory.
  operation.Offset = size == 0 ? 0 : readBack.Seed % size;
  if (readBack.Seed % 2 == 0 && !RunTransfer(operation, handle)) return false;
  operation.Offset = 0;
  for (; operation.Offset < size; operation.Offset += operation.Number) {
    if (!RunTransfer(operation, handle)) return false;
  }
  for (const OP kind : {OP::GetAttribute, OP::GetSize, OP::GetOffset, OP::Close}) {
    operation.Kind = kind;
    if (!RunOnFile(operation, handle)) return false;
  }
  return true;
}

bool CModelRun::ListAll(std::size_t volume, const NAME& path) {
  TWIN_FOUND found;
  WIN_FIND_DATA data;
  std::memset(&data, FILLER, sizeof data);
  const int handle = m_Twin.FindFirstFile(m_Twin.Volume(volume), path, found);
  if (!Same("handle", Fat_FindFirstFile(ToPath(path), &data), handle)) return false;
  if (handle < 0) return true;
  for (bool more = true; more;) {
    if (!SameFound(data, found)) return false;
    more = m_Twin.FindNextFile(handle, found);
    if (!Same("result", Fat_FindNextFile(handle, &data) == 1, more)) return false;
  }
  const bool closed = m_Twin.CloseFindHandle(handle);
  return Same("result", Fat_CloseFindHandle(handle) == 1, closed);
}

bool CModelRun::NullArguments(int handle) {
  unsigned char byte = 0;
  unsigned int number = 0;
  WIN_FIND_DATA data{};
  const bool refused =
      Fat_OpenFile(nullptr) == -1 && Fat_CreateFile(nullptr, 0, 0) == -1 && Fat_GetFileSize(handle, nullptr) == 0 &&
      Fat_GetFileOffset(handle, nullptr) == 0 && Fat_ReadFile(handle, 1, &byte, nullptr) == 0 &&
      Fat_WriteFile(handle, 1, &byte, nullptr) == 0 && Fat_ReadFileEx(handle, 0, 1, &byte, nullptr) == 0 &&
      Fat_WriteFileEx(handle, 0, 1, &byte, nullptr) == 0 && Fat_ReadFile(handle, 1, nullptr, &number) == 0 &&
      Fat_WriteFileEx(handle, 0, 1, nullptr, &number) == 0 && Fat_GetFileAttribute(handle, nullptr) == 0 &&
      Fat_SetFileAttribute(handle, nullptr) == 0 && Fat_DeleteFile(nullptr) == 0 &&
      Fat_RenameFile(nullptr, CPath("x")) == 0 && Fat_RenameFile(CPath("x"), nullptr) == 0 &&
      Fat_MoveFile(nullptr, nullptr) == 0 && Fat_CreateDir(nullptr, 0) == 0 &&
      Fat_FindFirstFile(nullptr, &data) == -1 && Fat_FindFirstFile(CPath("x"), nullptr) == -1 &&
      Fat_FindNextFile(0, nullptr) == 0 && Fat_Unmount(nullptr) == 0;
  return refused || Fail("a null argument was taken");
}

// Without a current file system everything fails, and nothing has changed afterwards.
bool CModelRun::NoVolume(const OPERATION& operation, int handle) {
  SetCurrentFileSystem(operation.Seed % 2 == 0 ? nullptr : Fat_Mount(nullptr, nullptr));
  unsigned char byte = 0;
  unsigned int number = 0;
  WIN_FIND_DATA data{};
  const bool refused =
      Fat_OpenFile(CPath("x")) == -1 && Fat_CreateFile(CPath("x"), 0, 0) == -1 && Fat_CloseFile(handle) == 0 &&
      Fat_GetFileSize(handle, &number) == 0 && Fat_SetFileSize(handle, 1) == 0 &&
      Fat_ReadFile(handle, 1, &byte, &number) == 0 && Fat_WriteFile(handle, 1, &byte, &number) == 0 &&
      Fat_ReadFileEx(handle, 0, 1, &byte, &number) == 0 && Fat_WriteFileEx(handle, 0, 1, &byte, &number) == 0 &&
      Fat_GetFileOffset(handle, &number) == 0 && Fat_SetFileOffset(handle, 1, 0) == 0 && Fat_IsDir(handle) == 0 &&
      Fat_GetFileAttribute(handle, &data) == 0 && Fat_SetFileAttribute(handle, &data) == 0 &&
      Fat_DeleteFile(CPath("x")) == 0 && Fat_RenameFile(CPath("x"), CPath("y")) == 0 &&
      Fat_MoveFile(CPath("x\\y"), nullptr) == 0 && Fat_CreateDir(CPath("x"), 0) == 0 &&
      Fat_FindFirstFile(CPath("x"), &data) == -1 && Fat_FindNextFile(0, &data) == 0 && Fat_CloseFindHandle(0) == 0;
  Use(operation.Volume);
  return refused || Fail("a function worked without a file system");
}

// ---------------------------------------------------------------------------------------------- the end of a run

bool CModelRun::Finish() {
  if (!m_Failure.empty()) return false;
  for (std::size_t volume = 0; volume < m_Volumes.size(); ++volume) {
    if (!Remount(volume)) return false;
    // Dead handles make room for the calls below.
    for (int handle = 0; handle < CTwin::MAX_FILES; ++handle) {
      const bool closed = m_Twin.ObjectOf(handle) == nullptr && m_Twin.CloseFile(handle);
      if (closed && Fat_CloseFile(handle) != 1) return Fail("a dead handle could not be closed");
    }
    for (int handle = 0; volume + 1 == m_Volumes.size() && handle < CTwin::MAX_SEARCHES; ++handle) {
      const bool closed = m_Twin.CloseFindHandle(handle);
      if (closed && Fat_CloseFindHandle(handle) != 1) return Fail("a search could not be closed");
    }
  }
  for (std::size_t volume = 0; volume < m_Volumes.size(); ++volume) {
    Use(volume);
    for (const NODE_PTR& node : m_Twin.Volume(volume).Nodes()) {
      const NAME path = CTwinVolume::PathOf(*node);
      NAME normal;
      if (!Normalise(path, normal)) continue;  // moved to where its path is too long
      OPERATION readBack;
      readBack.Volume = static_cast<unsigned int>(volume);
      if (!(node->Dir ? ListAll(volume, path) : ReadBack(readBack, path))) return Fail("in " + Text(path));
    }
  }
  for (std::size_t volume = 0; volume < m_Volumes.size(); ++volume) {
    if (!UnmountVolume(volume) || (m_Config.Fsck && !CheckWithFsck(volume))) return false;
  }
  return true;
}

// ---------------------------------------------------------------------------------------------- a mess

void CModelRun::CloseAll() {
  for (int handle = 0; handle < CTwin::MAX_FILES; ++handle) static_cast<void>(Fat_CloseFile(handle));
  for (int handle = 0; handle < CTwin::MAX_SEARCHES; ++handle) static_cast<void>(Fat_CloseFindHandle(handle));
}

bool CModelRun::StepIntoMess(const OPERATION& operation) {
  Tick();
  if (!m_bMess) {
    try {
      if (!RunOnce(operation)) return false;
      for (std::size_t i = 0; i < m_Volumes.size(); ++i) m_bMess = m_bMess || m_Twin.Volume(i).NeedsRemount();
      return true;
    } catch (const AVOID&) {
      m_bMess = true;
    }
  }
  CallLibrary(operation);
  return true;
}

// The twin is of no more use, but as a source of names.
void CModelRun::CallLibrary(const OPERATION& operation) {
  constexpr std::size_t VARIABLES = 20;
  CMounted& volume = *m_Volumes[operation.Volume];
  if (volume.FileSystem() == nullptr) return;  // it could not be mounted any more
  Use(operation.Volume);
  if (volume.Medium() != nullptr && operation.Seed % 97 == 0)
    volume.Medium()->FailAt(1 + operation.Seed % 7, FAULT_ONCE);
  int& handle = m_FileHandles[operation.Seed % VARIABLES];
  int& search = m_FindHandles[operation.Seed % VARIABLES];
  WIN_FIND_DATA data{};
  CPath path = ToPath(Resolved(operation.Path));
  CPath path2 = ToPath(operation.Path2);
  switch (operation.Kind) {
    case OP::Open:
    case OP::Create:
    case OP::ReadBack:
      static_cast<void>(Fat_CloseFile(handle));
      handle = operation.Kind == OP::Create ? Fat_CreateFile(path, operation.Number, operation.Attributes)
                                            : Fat_OpenFile(path);
      break;
    case OP::FindFirst:
    case OP::List:
      static_cast<void>(Fat_CloseFindHandle(search));
      search = Fat_FindFirstFile(path, &data);
      for (unsigned int i = operation.Seed % 50; i > 0 && Fat_FindNextFile(search, &data) == 1;) --i;
      break;
    case OP::FindNext:
      static_cast<void>(Fat_FindNextFile(search, &data));
      break;
    case OP::FindClose:
      static_cast<void>(Fat_CloseFindHandle(search));
      break;
    case OP::Delete:
      static_cast<void>(Fat_DeleteFile(path));
      break;
    case OP::Rename:
      static_cast<void>(Fat_RenameFile(path, path2));
      break;
    case OP::Move:
      static_cast<void>(Fat_MoveFile(path, operation.ToRoot ? nullptr : path2.Get()));
      break;
    case OP::CreateDir:
      static_cast<void>(Fat_CreateDir(path, operation.Attributes));
      break;
    case OP::Remount:
      static_cast<void>(volume.Unmount());
      static_cast<void>(volume.Mount());
      break;
    default:
      CallOnHandle(operation, handle);
      break;
  }
}

void CModelRun::CallOnHandle(const OPERATION& operation, int handle) {
  constexpr unsigned int ROOM = 0x48000;
  const unsigned int count = operation.Number % ROOM;
  std::vector<unsigned char> buffer = BytesOf(operation.Seed, count);
  unsigned int done = 0;
  unsigned int size = 0;
  WIN_FIND_DATA data{};
  switch (operation.Kind) {
    case OP::Close:
      static_cast<void>(Fat_CloseFile(handle));
      break;
    case OP::Read:
      static_cast<void>(Fat_ReadFile(handle, count, buffer.data(), &done));
      break;
    case OP::Write:
      static_cast<void>(Fat_WriteFile(handle, count, buffer.data(), &done));
      break;
    case OP::ReadEx:
      static_cast<void>(Fat_ReadFileEx(handle, operation.Offset, count, buffer.data(), &done));
      break;
    case OP::WriteEx:
      static_cast<void>(Fat_WriteFileEx(handle, operation.Offset, count, buffer.data(), &done));
      break;
    case OP::Seek:
      static_cast<void>(Fat_SetFileOffset(handle, operation.Number, operation.Attributes));
      break;
    case OP::SetSize:
      // Directories too, and smaller ones.
      static_cast<void>(Fat_GetFileSize(handle, &size));
      static_cast<void>(Fat_SetFileSize(handle, operation.Seed % 3 == 0 ? size / 2 : operation.Number));
      break;
    default:
      data.dwFileAttributes = operation.Seed % 2 == 0 ? operation.Attributes : operation.Seed / 2 % 256;
      static_cast<void>(Fat_GetFileAttribute(handle, &data));
      static_cast<void>(Fat_SetFileAttribute(handle, &data));
      break;
  }
}

// Lists and reads what is below a directory, as far as its names can be spelt.
void CModelRun::Wander(const NAME& path, unsigned int depth, unsigned int& calls) {
  WIN_FIND_DATA data{};
  std::vector<NAME> names;
  const int search = Fat_FindFirstFile(ToPath(path), &data);
  for (bool more = search >= 0; more && names.size() < 200; more = Fat_FindNextFile(search, &data) == 1) {
    NAME name = FromZ(data.cFileName, 260);
    if (name.empty()) name = FromZ(data.cAlternateFileName, 14);
    names.push_back(path + u"\\" + name);
  }
  static_cast<void>(Fat_CloseFindHandle(search));
  std::vector<unsigned char> buffer(0x40000);
  for (const NAME& name : names) {
    if (++calls > 2000) return;
    const int handle = Fat_OpenFile(ToPath(name));
    unsigned int done = 0;
    for (long long at = 0; at < 0x100000; at += 0x40000) {
      if (Fat_ReadFileEx(handle, at, 0x40000, buffer.data(), &done) != 1) break;
    }
    const bool dir = Fat_IsDir(handle) == 1;
    static_cast<void>(Fat_CloseFile(handle));
    if (dir && depth < 5) Wander(name, depth + 1, calls);
  }
}

void CModelRun::FinishMess() {
  for (const std::unique_ptr<CMounted>& volume : m_Volumes) {
    if (volume->Medium() != nullptr) volume->Medium()->Heal();
    for (unsigned int round = 0; round < 2 && volume->FileSystem() != nullptr; ++round) {
      SetCurrentFileSystem(volume->FileSystem());
      CloseAll();
      unsigned int calls = 0;
      for (const NODE_PTR& node : m_Twin.Volume(0).Nodes()) Wander(CTwinVolume::PathOf(*node), 0, calls);
      static_cast<void>(volume->Unmount());
      if (round == 0) static_cast<void>(volume->Mount());
    }
  }
}

// ---------------------------------------------------------------------------------------------- seeds and shrinking

namespace {

// After a failure nobody knows what the library has still open.
void EnsureLibrary(const MODEL_CONFIG& config, std::unique_ptr<CLibrary>& library) {
  if (library != nullptr && library->Pool() == config.Pool) return;
  library.reset();
  library = std::make_unique<CLibrary>(config.Pool);
}

}  // namespace

SEED_RESULT RunSeed(const MODEL_CONFIG& config, std::unique_ptr<CLibrary>& library, unsigned int seed,
                    unsigned int operations) {
  EnsureLibrary(config, library);
  SEED_RESULT result;
  {
    unsigned int maxFileBytes = 0xFFFFFFFFu;
    for (const MODEL_VOLUME& volume : config.Volumes) maxFileBytes = std::min(maxFileBytes, volume.MaxFileBytes);
    CGenerator generator(seed, maxFileBytes);
    CModelRun run(config, *library);
    while (run.Failure().empty() && result.Operations.size() < operations) {
      result.Operations.push_back(generator.Next(run));
      NoteRunning(std::string("model: ") + config.Volumes.front().Name + ", seed " + std::to_string(seed) + ", call " +
                  std::to_string(result.Operations.size()) + ": " + ToText(result.Operations.back()));
      static_cast<void>(run.Step(result.Operations.back()));
    }
    run.Finish();
    result.Failure = run.Failure();
    result.LeftOut = run.LeftOut();
    result.Remounts = run.Remounts();
  }
  NoteRunning("");
  if (!result.Failure.empty()) library.reset();
  return result;
}

std::string Replay(const MODEL_CONFIG& config, std::unique_ptr<CLibrary>& library,
                   const std::vector<OPERATION>& operations) {
  EnsureLibrary(config, library);
  std::string failure;
  {
    CModelRun run(config, *library);
    for (const OPERATION& operation : operations) {
      if (!run.Step(operation)) break;
    }
    run.Finish();
    failure = run.Failure();
  }
  if (!failure.empty()) library.reset();
  return failure;
}

std::vector<OPERATION> Shrink(std::vector<OPERATION> operations, unsigned int maxTries,
                              const std::function<bool(const std::vector<OPERATION>&)>& fails) {
  unsigned int tries = 0;
  std::size_t part = (operations.size() + 1) / 2;
  while (part != 0 && tries < maxTries) {
    bool shorter = false;
    // From the end: what is there is needed least by the rest.
    for (std::size_t end = operations.size(); end > 0 && tries < maxTries; end -= std::min(end, part)) {
      const std::size_t begin = end - std::min(end, part);
      std::vector<OPERATION> rest(operations.begin(), operations.begin() + static_cast<std::ptrdiff_t>(begin));
      rest.insert(rest.end(), operations.begin() + static_cast<std::ptrdiff_t>(end), operations.end());
      ++tries;
      if (!fails(rest)) continue;
      operations = std::move(rest);
      shorter = true;
    }
    if (!shorter) part /= 2;
    part = std::min(part, operations.size());
  }
  return operations;
}

std::string ToText(const std::vector<OPERATION>& operations) {
  std::string text;
  for (const OPERATION& operation : operations) text += "  " + ToText(operation) + "\n";
  return text;
}
