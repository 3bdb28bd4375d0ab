/// @file Harness.cpp

#include "Harness.h"

#include <fcntl.h>
#include <malloc.h>
#include <sanitizer/asan_interface.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/Platform.h"
#include "storage/FatMpb.h"

// The defaults that the runs need; a user's own setting in the environment comes on top.
extern "C" const char* __asan_default_options() {
  // The library takes large blocks at each mount. Held back after their release they would only fill the memory, and
  // the small ones, where a late access is more likely, fit in this. The harness counts the library's memory itself: at
  // the end of a run it holds what is only released at its termination, which a search for leaks after each run would
  // stumble over.
  return "quarantine_size_mb=32:allocator_may_return_null=1:detect_leaks=0:malloc_context_size=8";
}
extern "C" const char* __ubsan_default_options() { return "print_stacktrace=1"; }

namespace {

constexpr unsigned int MAX_FILES = 160;
constexpr unsigned int MAX_SEARCHES = 32;
constexpr unsigned int RUNS_PER_LIBRARY = 1000;  // runs between two initialisations
constexpr std::size_t MAX_LIBRARY_BYTES = 512u << 20;
constexpr std::time_t NOW = 1767225600;  // the library's clock stands still: 2026-01-01

// ---------------------------------------------------------------------------------------------- memory of the library

OS_SERVICES s_System;
std::size_t s_nBlocks = 0;
std::size_t s_nBytes = 0;
std::size_t s_nPeakBytes = 0;
std::uint32_t s_nAllocationsToFailure = 0;  // 0: none fails
bool s_bNoMemoryForGood = false;

bool Refuses(std::size_t size) {
  // The library's memory is what this limit leaves it: what asks for more has to do without. A boot sector may state a
  // FAT of 4 GiB, which is read into one buffer when the volume is unmounted.
  if (size > MAX_LIBRARY_BYTES || s_nBytes > MAX_LIBRARY_BYTES - size) return true;
  if (s_nAllocationsToFailure == 0) return false;
  if (s_nAllocationsToFailure == 1) {
    if (!s_bNoMemoryForGood) s_nAllocationsToFailure = 0;
    return true;
  }
  --s_nAllocationsToFailure;
  return false;
}

void* Enter(void* memory) {
  if (memory == nullptr) return nullptr;
  ++s_nBlocks;
  s_nBytes += malloc_usable_size(memory);
  if (s_nBytes > s_nPeakBytes) s_nPeakBytes = s_nBytes;
  return memory;
}

void Leave(void* memory) {
  if (memory == nullptr) return;
  --s_nBlocks;
  s_nBytes -= malloc_usable_size(memory);
}

void* HookedMalloc(std::size_t size) { return Refuses(size) ? nullptr : Enter(s_System.pfnMalloc(size)); }
void* HookedCalloc(std::size_t count, std::size_t size) {
  return Refuses(count * size) ? nullptr : Enter(s_System.pfnCalloc(count, size));
}
void* HookedRealloc(void* memory, std::size_t size) {
  if (Refuses(size)) return nullptr;
  const std::size_t before = memory == nullptr ? 0 : malloc_usable_size(memory);
  void* changed = s_System.pfnRealloc(memory, size);
  if (changed == nullptr) return nullptr;
  if (memory != nullptr) {
    --s_nBlocks;
    s_nBytes -= before;
  }
  return Enter(changed);
}
void HookedFree(void* memory) {
  Leave(memory);
  s_System.pfnFree(memory);
}
std::time_t HookedTime(std::time_t* out) {
  if (out != nullptr) *out = NOW;
  return NOW;
}

// ---------------------------------------------------------------------------------------------- the medium

constexpr std::uint32_t PAGE_BYTES = 4096;

unsigned char* s_pMedium = nullptr;  // MAX_BYTES
std::uint32_t s_nSize = 0;
std::uint8_t s_Touched[CMedium::MAX_BYTES / PAGE_BYTES];  // pages that may not be zero
std::uint32_t s_nTransfersToFailure = 0;
unsigned int s_nOptions = 0;
int s_nMediumFile = -1;  // the medium as a file without a name
char s_MediumPath[64];
std::uint64_t s_nBeyondLeft = 0;  // bytes behind the end that may still be read
int s_nOpenDevices = 0;           // opened and not closed yet

void Touch(std::uint32_t offset, std::uint32_t count) {
  if (count == 0) return;
  for (std::uint32_t page = offset / PAGE_BYTES; page <= (offset + count - 1) / PAGE_BYTES; ++page) s_Touched[page] = 1;
}

bool FailsNow() {
  if (s_nTransfersToFailure == 0) return false;
  if (s_nTransfersToFailure == 1) {
    if ((s_nOptions & SPARSE_IMAGE::FAIL_FOR_GOOD) == 0) s_nTransfersToFailure = 0;
    return true;
  }
  --s_nTransfersToFailure;
  return false;
}

// A boot sector may claim a FAT of a gigabyte where there is nothing, and mounting reads all of it. Once in a while is
// enough: the other inputs get this much of it, then errors.
constexpr std::uint64_t MAX_BEYOND = 8u << 20;

bool ReadsTooFar(long long position, unsigned long long count) {
  if ((s_nOptions & SPARSE_IMAGE::LARGE_CLAIMS) != 0) return false;
  const unsigned long long there = position < s_nSize ? s_nSize - static_cast<unsigned long long>(position) : 0;
  const unsigned long long beyond = count > there ? count - there : 0;
  if (beyond > s_nBeyondLeft) return true;
  s_nBeyondLeft -= beyond;
  return false;
}

/// A device as the library sees one through the kernel: reads behind its end give zeros, writes there are lost; or both
/// are errors. Transfers fail or are cut short as the input says.
class CModelStorage : public CFatStorage {
 public:
  int OpenDevice(void*) override {
    ++s_nOpenDevices;
    return 0;
  }
  int CloseDevice() override {
    --s_nOpenDevices;
    return 1;
  }
  void HookIoFunctions() override {
    m_pfnGetMpb = &CFatStorage::_GetMpb;
    m_pfnReadBytes = m_pfnReadBytesAligned = &Bytes<false>;
    m_pfnWriteBytes = m_pfnWriteBytesAligned = &Bytes<true>;
    m_pfnReadSectors = &Sectors<false>;
    m_pfnWriteSectors = &Sectors<true>;
  }

 private:
  template <bool WRITE>
  static int Bytes(CVolumeStorage*, unsigned char* buffer, long long position, unsigned int count) {
    return Move(WRITE, buffer, position, count);
  }
  template <bool WRITE>
  static int Sectors(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
    const CModelStorage& self = *static_cast<CModelStorage*>(storage);
    const unsigned long long bytes = static_cast<unsigned long long>(count) << self.m_nSectorShift;
    if (bytes > UINT32_MAX || position < 0 || position > INT64_MAX >> self.m_nSectorShift) return -1;
    return Move(WRITE, buffer, position << self.m_nSectorShift, static_cast<unsigned int>(bytes));
  }
  static int Move(bool write, unsigned char* buffer, long long position, unsigned int count) {
    if (position < 0) return -1;
    std::uint32_t there = 0;
    if (position < s_nSize) {
      const std::uint32_t offset = static_cast<std::uint32_t>(position);
      there = count < s_nSize - offset ? count : s_nSize - offset;
    }
    if (there < count && (s_nOptions & SPARSE_IMAGE::END_IS_ERROR) != 0) return -1;
    if (!write && ReadsTooFar(position, count)) return -1;
    int status = static_cast<int>(there);
    if (FailsNow()) {
      there /= 2;
      status = (s_nOptions & SPARSE_IMAGE::SHORT_TRANSFERS) != 0 ? static_cast<int>(there) : -1;
    }
    if (there != 0) {
      const std::uint32_t offset = static_cast<std::uint32_t>(position);
      if (write) {
        std::memcpy(s_pMedium + offset, buffer, there);
        Touch(offset, there);
      } else {
        std::memcpy(buffer, s_pMedium + offset, there);
      }
    }
    if (!write) std::memset(buffer + there, 0, count - there);
    return status;
  }
};

/// The library's own back-end for images in memory, whose end the address sanitizer guards.
class CFuzzMemory : public CFatMemory {
 public:
  int OpenDevice(void* device) override {
    ++s_nOpenDevices;
    return CFatMemory::OpenDevice(device);
  }
  int CloseDevice() override {
    --s_nOpenDevices;
    return CFatMemory::CloseDevice();
  }
  void HookIoFunctions() override {
    CFatMemory::HookIoFunctions();
    m_pfnWriteBytes = m_pfnWriteBytesAligned = &Write;
    m_pfnWriteSectors = &WriteSectors;
  }

 private:
  static int Write(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
    const int status = CFatMemory::_WriteBytes(storage, buffer, position, count);
    if (status >= 0) Touch(static_cast<std::uint32_t>(position), count);
    return status;
  }
  static int WriteSectors(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
    const int status = CFatMemory::_WriteSectors(storage, buffer, position, count);
    const unsigned int shift = static_cast<CFuzzMemory*>(storage)->m_nSectorShift;
    if (status >= 0) Touch(static_cast<std::uint32_t>(position << shift), count << shift);
    return status;
  }
};

/// The library's own back-end for image files. Writes far behind the end of the medium fail, as on a full disk.
class CFuzzFile : public CFatPartition {
 public:
  int OpenDevice(void* device) override {
    const int status = CFatPartition::OpenDevice(device);
    if (status >= 0) {
      ++s_nOpenDevices;
      s_nDescriptor = static_cast<int>(m_hDevice);
    }
    return status;
  }
  int CloseDevice() override {
    --s_nOpenDevices;
    s_nDescriptor = -1;
    return CFatPartition::CloseDevice();
  }
  void HookIoFunctions() override {
    CFatPartition::HookIoFunctions();
    m_pfnWriteBytes = &Write<&CFatPartition::_WriteBytes>;
    m_pfnWriteBytesAligned = &Write<&CFatPartition::_WriteBytesAligned>;
    m_pfnReadSectors = &ReadSectors;
    m_pfnWriteSectors = &WriteSectors;
  }
  /// After a mount that was refused: the device stays open then.
  static void CloseLeftOpen() {
    if (s_nDescriptor < 0) return;
    close(s_nDescriptor);
    s_nDescriptor = -1;
    --s_nOpenDevices;
  }
  static int s_nDescriptor;  // opened last and not closed

 private:
  static bool IsBeyond(long long position, unsigned long long count) {
    return position > 2ll * CMedium::MAX_BYTES || count > CMedium::MAX_BYTES;
  }
  template <IO_FUNCTION FUNCTION>
  static int Write(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
    return IsBeyond(position, count) ? -1 : FUNCTION(storage, buffer, position, count);
  }
  static int ReadSectors(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
    const unsigned int shift = static_cast<CFuzzFile*>(storage)->m_nSectorShift;
    if (position < 0 || position > INT64_MAX >> shift) return -1;
    if (ReadsTooFar(position << shift, static_cast<unsigned long long>(count) << shift)) return -1;
    return CFatPartition::_ReadSectors(storage, buffer, position, count);
  }
  static int WriteSectors(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
    const CFuzzFile& self = *static_cast<CFuzzFile*>(storage);
    if (position > CMedium::MAX_BYTES ||
        IsBeyond(position << self.m_nSectorShift, static_cast<unsigned long long>(count) << self.m_nSectorShift)) {
      return -1;
    }
    return CFatPartition::_WriteSectors(storage, buffer, position, count);
  }
};
int CFuzzFile::s_nDescriptor = -1;

// A host must not give CFatMemory an image shorter than its boot sector says.
bool FitsInMemory() {
  if (s_nSize < sizeof(BOOT_SECTOR)) return false;
  const BOOT_SECTOR& boot = *reinterpret_cast<const BOOT_SECTOR*>(s_pMedium);
  const std::uint32_t total = boot.TotalSectors16.Load() != 0 ? boot.TotalSectors16.Load() : boot.TotalSectors32.Load();
  return static_cast<std::uint64_t>(total) * boot.BytesPerSector.Load() <= s_nSize;
}

void CopyMediumToFile() {
  const auto failed = [] { Finding("the harness cannot write its own image file"); };
  if (ftruncate(s_nMediumFile, 0) != 0 || ftruncate(s_nMediumFile, s_nSize) != 0) failed();
  for (std::uint32_t page = 0; page * PAGE_BYTES < s_nSize; ++page) {
    if (s_Touched[page] == 0) continue;
    const std::uint32_t offset = page * PAGE_BYTES;
    const std::uint32_t count = s_nSize - offset < PAGE_BYTES ? s_nSize - offset : PAGE_BYTES;
    if (pwrite(s_nMediumFile, s_pMedium + offset, count, offset) != static_cast<ssize_t>(count)) failed();
  }
}

// ---------------------------------------------------------------------------------------------- time

double s_Seconds = 2.0;
constexpr double BUSY_SECONDS = 0.4;
double s_Started = 0;

double ProcessorSeconds() {
  timespec now = {};
  (void)clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

void OutOfTime(int) { Finding("a run took too much processor time"); }

void LimitTime(double seconds) {
  itimerval timer = {};
  timer.it_value.tv_sec = static_cast<time_t>(seconds);
  timer.it_value.tv_usec = static_cast<suseconds_t>((seconds - static_cast<double>(timer.it_value.tv_sec)) * 1e6);
  (void)setitimer(ITIMER_PROF, &timer, nullptr);
}

// ---------------------------------------------------------------------------------------------- the library's life

bool s_bInitialised = false;
bool s_bCheckEachRun = false;
unsigned int s_nRuns = 0;

void StopLibrary() {
  if (!s_bInitialised) return;
  if (Fat_LibTerminate() != 1) Finding("handles are left open");
  s_bInitialised = false;
  ExpectNoLibraryMemory();
}

// Flags of the fuzzer that every run of these targets wants, in front of the user's own, which may overrule them.
void AddFlags(int* argc, char*** argv) {
  static char s_Flags[][32] = {
      "-detect_leaks=0",  // see __asan_default_options
      // By the clock, by which a busy machine makes any run long. The harness limits processor time.
      "-timeout=1200",
      "-report_slow_units=1200",
      "-rss_limit_mb=2800",  // the library's own limit, with what the sanitizers add to each small block
      "-print_final_stats=1",
  };
  static std::vector<char*> s_Arguments;
  s_Arguments.assign(*argv, *argv + 1);
  for (char(&flag)[32] : s_Flags) s_Arguments.push_back(flag);
  s_Arguments.insert(s_Arguments.end(), *argv + 1, *argv + *argc);
  *argc = static_cast<int>(s_Arguments.size());
  s_Arguments.push_back(nullptr);
  *argv = s_Arguments.data();
}

void PrintPeak() {
  std::fprintf(stderr, "stat::library_peak_bytes:       %llu\n", static_cast<unsigned long long>(s_nPeakBytes));
}

}  // namespace

void Finding(const char* what) {
  static const char BEGIN[] = "FINDING: ";
  (void)!write(STDERR_FILENO, BEGIN, sizeof(BEGIN) - 1);
  (void)!write(STDERR_FILENO, what, std::strlen(what));
  (void)!write(STDERR_FILENO, "\n", 1);
  std::abort();
}

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  // The library asks for huge pages. Clearing 2 MiB for each mount would take longer than a run.
  (void)prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0);
  (void)setenv("LC_ALL", "C.UTF-8", 1);  // the library takes its locale from the environment
  s_System = g_OsServices;
  g_OsServices = {HookedMalloc, HookedCalloc, HookedRealloc, HookedFree, HookedTime};
  s_pMedium = static_cast<unsigned char*>(std::calloc(CMedium::MAX_BYTES, 1));
  s_nMediumFile = memfd_create("medium", MFD_CLOEXEC);
  if (s_pMedium == nullptr || s_nMediumFile < 0) Finding("the harness has no memory");
  std::snprintf(s_MediumPath, sizeof(s_MediumPath), "/proc/self/fd/%d", s_nMediumFile);
  const char* seconds = std::getenv("FATLIB_FUZZ_SECONDS");
  if (seconds != nullptr) s_Seconds = std::atof(seconds);
  std::signal(SIGPROF, OutOfTime);
  // A single input that is run again has to answer for itself.
  for (int i = 1; i < *argc; ++i) {
    struct stat status;
    if ((*argv)[i][0] != '-' && stat((*argv)[i], &status) == 0 && S_ISREG(status.st_mode)) s_bCheckEachRun = true;
  }
  (void)std::atexit(PrintPeak);
  AddFlags(argc, argv);
  return 0;
}

// ---------------------------------------------------------------------------------------------- CMedium

void CMedium::Reset(std::uint32_t size) {
  ASAN_UNPOISON_MEMORY_REGION(s_pMedium, MAX_BYTES);
  for (std::uint32_t page = 0; page < sizeof(s_Touched); ++page) {
    if (s_Touched[page] == 0) continue;
    std::memset(s_pMedium + page * PAGE_BYTES, 0, PAGE_BYTES);
    s_Touched[page] = 0;
  }
  s_nSize = size < MAX_BYTES ? size : MAX_BYTES;
  s_nTransfersToFailure = 0;
  s_nAllocationsToFailure = 0;
  s_nOptions = 0;
  s_nBeyondLeft = MAX_BEYOND;
}

void CMedium::Put(std::uint32_t offset, const void* bytes, std::uint32_t count) {
  if (offset > s_nSize || count > s_nSize - offset || count == 0) return;
  std::memcpy(s_pMedium + offset, bytes, count);
  Touch(offset, count);
}

void CMedium::Put8(std::uint32_t offset, unsigned int value) {
  const std::uint8_t byte = static_cast<std::uint8_t>(value);
  Put(offset, &byte, 1);
}

void CMedium::Put16(std::uint32_t offset, unsigned int value) {
  Put8(offset, value & 0xFF);
  Put8(offset + 1, value >> 8 & 0xFF);
}

void CMedium::Put32(std::uint32_t offset, std::uint32_t value) {
  Put16(offset, value & 0xFFFF);
  Put16(offset + 2, value >> 16);
}

// ---------------------------------------------------------------------------------------------- CTimedRun

CTimedRun::CTimedRun(unsigned int parts) {
  s_Started = ProcessorSeconds();
  LimitTime(s_Seconds * parts);
}

CTimedRun::~CTimedRun() { LimitTime(0); }

bool CTimedRun::IsLong() { return ProcessorSeconds() - s_Started > BUSY_SECONDS; }

void ExpectNoLibraryMemory() {
  if (s_nBlocks != 0 || s_nBytes != 0) Finding("memory of the library is left after its termination");
}

// ---------------------------------------------------------------------------------------------- CFuzzRun

CFuzzRun::CFuzzRun() {
  if (!s_bInitialised) {
    Fat_LibInitialize();
    s_bInitialised = true;
  }
  m_nBlocksBefore = s_nBlocks;
}

CFuzzRun::~CFuzzRun() {
  CloseAllHandles();
  while (!m_Mounted.empty()) Unmount(m_Mounted.back().FileSystem);
  s_nAllocationsToFailure = 0;
  if (s_nOpenDevices != 0) Finding("a storage was opened and not closed, or closed twice");
  // What a run leaves is an unmounted file system for each mount, until the library is terminated. Its lists of free
  // blocks may have grown too; only a termination tells those from a leak.
  ++s_nRuns;
  const bool suspect = s_nBlocks > m_nBlocksBefore + m_nMounts;
  if (suspect || s_bCheckEachRun || s_nRuns % RUNS_PER_LIBRARY == 0) StopLibrary();
}

CFatFileSystem* CFuzzRun::Mount(const SPARSE_IMAGE& image) {
  CMedium::Reset(image.Size());
  image.Place(
      [](std::uint32_t offset, const std::uint8_t* bytes, std::uint32_t count) { CMedium::Put(offset, bytes, count); });
  s_nOptions = image.Options;
  s_nTransfersToFailure = image.FailTransfer;
  s_nAllocationsToFailure = image.FailAllocation;
  s_bNoMemoryForGood = (image.Options & SPARSE_IMAGE::NO_MEMORY_FOR_GOOD) != 0;
  m_nStorageKind = image.Options & SPARSE_IMAGE::STORAGE_MASK;
  if (m_nStorageKind == 1 && !FitsInMemory()) m_nStorageKind = 0;
  if (m_nStorageKind == 2) CopyMediumToFile();
  return MountMedium();
}

CFatFileSystem* CFuzzRun::MountAgain() {
  s_nTransfersToFailure = 0;
  s_nAllocationsToFailure = 0;
  if (m_nStorageKind == 1 && !FitsInMemory()) m_nStorageKind = 0;  // the boot sector was written over
  return MountMedium();
}

CFatFileSystem* CFuzzRun::MountMedium() {
  CVolumeStorage* storage;
  void* parameter;
  if (m_nStorageKind == 1) {
    ASAN_POISON_MEMORY_REGION(s_pMedium + s_nSize, CMedium::MAX_BYTES - s_nSize);
    storage = new CFuzzMemory;
    parameter = s_pMedium;
  } else if (m_nStorageKind == 2) {
    CFuzzFile::s_nDescriptor = -1;
    storage = new CFuzzFile;
    parameter = s_MediumPath;
  } else {
    storage = new CModelStorage;
    parameter = nullptr;
  }
  const int openBefore = s_nOpenDevices;
  CFatFileSystem* fileSystem = Fat_Mount(storage, parameter);
  if (fileSystem == nullptr) {
    // The storage object is gone. A refused boot sector leaves its device open, any other failure does not.
    if (m_nStorageKind == 2) {
      CFuzzFile::CloseLeftOpen();
    } else if (s_nOpenDevices == openBefore + 1) {
      --s_nOpenDevices;
    }
    if (s_nOpenDevices != openBefore) Finding("a failed mount closed a device that was not open");
    return nullptr;
  }
  ++m_nMounts;
  m_Mounted.push_back({fileSystem, storage});
  return fileSystem;
}

void CFuzzRun::Unmount(CFatFileSystem* fileSystem) {
  for (std::size_t i = 0; i < m_Mounted.size(); ++i) {
    if (m_Mounted[i].FileSystem != fileSystem) continue;
    CVolumeStorage* storage = m_Mounted[i].Storage;
    const int openBefore = s_nOpenDevices;
    const bool unmounted = Fat_Unmount(fileSystem) != 0;
    if (unmounted != (s_nOpenDevices == openBefore - 1))
      Finding("the storage is not closed when the volume is unmounted");
    if (!unmounted) (void)storage->Close();
    if (Fat_Unmount(fileSystem) != 0) Finding("a volume was unmounted twice");
    ::operator delete(static_cast<void*>(storage));
    m_Mounted.erase(m_Mounted.begin() + static_cast<std::ptrdiff_t>(i));
    return;
  }
  if (Fat_Unmount(fileSystem) != 0) Finding("what is no mounted volume was unmounted");
}

void CFuzzRun::RestartLibrary() {
  (void)Fat_LibTerminate();
  for (const MOUNTED& mounted : m_Mounted) {
    (void)mounted.Storage->Close();
    ::operator delete(static_cast<void*>(mounted.Storage));
  }
  m_Mounted.clear();
  Fat_LibInitialize();
  m_nMounts = 0;
  m_nBlocksBefore = s_nBlocks;
}

void CFuzzRun::CloseAllHandles() {
  // Closing wants a current file system; which one does not matter.
  alignas(16) static unsigned char s_Any;
  SetCurrentFileSystem(reinterpret_cast<CFatFileSystem*>(&s_Any));
  for (unsigned int handle = 0; handle < MAX_SEARCHES; ++handle) (void)Fat_CloseFindHandle(static_cast<int>(handle));
  for (unsigned int handle = 0; handle < MAX_FILES; ++handle) (void)Fat_CloseFile(static_cast<int>(handle));
}
