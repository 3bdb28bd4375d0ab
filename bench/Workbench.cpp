/// @file Workbench.cpp

#include "Workbench.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

double Seconds(const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6; }

double CpuSecondsOf(int who) {
  rusage usage = {};
  getrusage(who, &usage);
  return Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
}

/// A back-end that counts what the library asks of it.
template <class BASE>
class CCounted final : public BASE {
 public:
  explicit CCounted(TRAFFIC* traffic) : m_pTraffic(traffic) {}

  void HookIoFunctions() override {
    BASE::HookIoFunctions();
    if (m_pTraffic == nullptr) return;
    m_pfnRead = this->m_pfnReadBytes;
    m_pfnWrite = this->m_pfnWriteBytes;
    m_pfnReadAligned = this->m_pfnReadBytesAligned;
    m_pfnWriteAligned = this->m_pfnWriteBytesAligned;
    m_pfnSectorRead = this->m_pfnReadSectors;
    m_pfnSectorWrite = this->m_pfnWriteSectors;
    this->m_pfnReadBytes = &Read<&CCounted::m_pfnRead, false>;
    this->m_pfnReadBytesAligned = &Read<&CCounted::m_pfnReadAligned, false>;
    this->m_pfnReadSectors = &Read<&CCounted::m_pfnSectorRead, true>;
    this->m_pfnWriteBytes = &Write<&CCounted::m_pfnWrite, false>;
    this->m_pfnWriteBytesAligned = &Write<&CCounted::m_pfnWriteAligned, false>;
    this->m_pfnWriteSectors = &Write<&CCounted::m_pfnSectorWrite, true>;
  }

 private:
  using IO_FUNCTION = CVolumeStorage::IO_FUNCTION;

  template <IO_FUNCTION CCounted::*NEXT, bool IN_SECTORS>
  static int Read(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
    CCounted& self = *static_cast<CCounted*>(storage);
    const unsigned int shift = IN_SECTORS ? self.m_nSectorShift : 0;
    TRAFFIC& traffic = *self.m_pTraffic;
    ++traffic.Reads;
    traffic.BytesRead += static_cast<unsigned long long>(count) << shift;
    if (traffic.ReadOffsets != nullptr) {
      traffic.ReadOffsets->push_back(static_cast<unsigned long long>(position) << shift);
    }
    return (self.*NEXT)(storage, buffer, position, count);
  }

  template <IO_FUNCTION CCounted::*NEXT, bool IN_SECTORS>
  static int Write(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
    CCounted& self = *static_cast<CCounted*>(storage);
    ++self.m_pTraffic->Writes;
    self.m_pTraffic->BytesWritten += static_cast<unsigned long long>(count) << (IN_SECTORS ? self.m_nSectorShift : 0);
    return (self.*NEXT)(storage, buffer, position, count);
  }

  TRAFFIC* m_pTraffic;
  IO_FUNCTION m_pfnRead = nullptr;
  IO_FUNCTION m_pfnWrite = nullptr;
  IO_FUNCTION m_pfnReadAligned = nullptr;
  IO_FUNCTION m_pfnWriteAligned = nullptr;
  IO_FUNCTION m_pfnSectorRead = nullptr;
  IO_FUNCTION m_pfnSectorWrite = nullptr;
};

}  // namespace

double CpuSeconds() { return CpuSecondsOf(RUSAGE_SELF) + CpuSecondsOf(RUSAGE_CHILDREN); }

double Measure(const std::function<void()>& work) {
  const double start = CpuSeconds();
  work();
  return CpuSeconds() - start;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void Fail(const std::string& message) {
  std::fprintf(stderr, "fatlib_bench: %s\n", message.c_str());
  std::exit(1);
}

void Require(bool condition, const char* what) {
  if (!condition) Fail(std::string("failed: ") + what);
}

void CChecksum::Add(const void* bytes, std::size_t count) {
  const unsigned char* at = static_cast<const unsigned char*>(bytes);
  for (; count > 0;) {
    std::uint64_t word = 0;
    const std::size_t n = std::min(count, sizeof(word));
    std::memcpy(&word, at, n);
    m_nValue = (m_nValue ^ word) * 0x100000001B3ULL;
    at += n;
    count -= n;
  }
}

std::uint32_t CRandom::Below(std::uint32_t limit) {
  m_nState = m_nState * 6364136223846793005ULL + 1442695040888963407ULL;
  return static_cast<std::uint32_t>(((m_nState >> 32) * limit) >> 32);
}

std::vector<std::uint32_t> CRandom::Order(std::uint32_t count) {
  std::vector<std::uint32_t> order(count);
  for (std::uint32_t i = 0; i < count; ++i) order[i] = i;
  for (std::uint32_t i = count; i > 1; --i) std::swap(order[i - 1], order[Below(i)]);
  return order;
}

CBuffer::CBuffer(std::size_t size) : m_pData(nullptr), m_nSize(size) {
  void* memory = nullptr;
  if (posix_memalign(&memory, 4096, size) != 0) Fail("out of memory");
  m_pData = static_cast<unsigned char*>(memory);
  for (std::size_t i = 0; i < size; ++i) m_pData[i] = static_cast<unsigned char>(i % 251 + 1);
}

CBuffer::~CBuffer() { std::free(m_pData); }

std::string VOLUME::Name() const {
  return "FAT" + std::to_string(FatBits) + (Backend == BACKEND::File ? " file" : " memory");
}

CMedium::CMedium(const std::string& directory, const VOLUME& volume)
    : m_Path(directory + "/fatlib-bench-XXXXXX"), m_nBytes(volume.Bytes) {
  m_nDescriptor = mkstemp(m_Path.data());
  if (m_nDescriptor < 0) Fail("cannot make a file in " + directory);
  const bool sized = ftruncate(m_nDescriptor, static_cast<off_t>(m_nBytes)) == 0;
  const std::string command = "PATH=$PATH:/usr/sbin:/sbin mkfs.fat -F " + std::to_string(volume.FatBits) + " -s " +
                              std::to_string(volume.SectorsPerCluster) + " " + m_Path + " >/dev/null";
  if (!sized || std::system(command.c_str()) != 0) {
    unlink(m_Path.c_str());
    Fail("cannot make an image in " + directory + " (is there room, is mkfs.fat installed?)");
  }
  ReadGeometry();
  if (volume.Backend == BACKEND::File) return;
  // Private pages: the file is only where the image comes from.
  void* image =
      mmap(nullptr, static_cast<std::size_t>(m_nBytes), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (image == MAP_FAILED) Fail("no memory for an image");
  const unsigned long long metadata = m_nFatOffset + 2 * m_nFatBytes + MIB;
  Read(static_cast<unsigned char*>(image), static_cast<std::size_t>(std::min(metadata, m_nBytes)), 0);
  close(m_nDescriptor);
  unlink(m_Path.c_str());
  m_nDescriptor = -1;
  m_pImage = static_cast<unsigned char*>(image);
}

CMedium::~CMedium() {
  if (m_pImage != nullptr) {
    munmap(m_pImage, static_cast<std::size_t>(m_nBytes));
  } else {
    close(m_nDescriptor);
    unlink(m_Path.c_str());
  }
}

void CMedium::Read(unsigned char* buffer, std::size_t count, unsigned long long offset) {
  if (m_pImage != nullptr) {
    std::memcpy(buffer, m_pImage + offset, count);
  } else {
    Require(pread(m_nDescriptor, buffer, count, static_cast<off_t>(offset)) == static_cast<ssize_t>(count), "pread");
  }
}

void CMedium::Write(const unsigned char* buffer, std::size_t count, unsigned long long offset) {
  if (m_pImage != nullptr) {
    std::memcpy(m_pImage + offset, buffer, count);
  } else {
    Require(pwrite(m_nDescriptor, buffer, count, static_cast<off_t>(offset)) == static_cast<ssize_t>(count), "pwrite");
  }
}

void CMedium::ReadGeometry() {
  unsigned char boot[512];
  Read(boot, sizeof(boot), 0);
  const auto le16 = [&boot](unsigned int at) { return boot[at] + 256ULL * boot[at + 1]; };
  const unsigned long long sector = le16(11);
  const unsigned long long fatSectors = le16(22) != 0 ? le16(22) : le16(36) + 65536 * le16(38);
  m_nFatOffset = le16(14) * sector;
  m_nFatBytes = fatSectors * sector;
}

CMounted::CMounted(CMedium& medium, TRAFFIC* traffic) : m_pStorage(nullptr), m_pFileSystem(nullptr) {
  if (medium.InMemory()) {
    m_pStorage = new CCounted<CFatMemory>(traffic);
    m_pFileSystem = Fat_Mount(m_pStorage, medium.Image());
  } else {
    std::string path = medium.Path();
    m_pStorage = new CCounted<CFatPartition>(traffic);
    m_pFileSystem = Fat_Mount(m_pStorage, path.data());
  }
  Require(m_pFileSystem != nullptr, "mount");
}

CMounted::~CMounted() { Unmount(); }

void CMounted::Unmount() {
  if (m_pFileSystem == nullptr) return;
  Require(Fat_Unmount(m_pFileSystem) == 1, "unmount");
  m_pFileSystem = nullptr;
  ::operator delete(m_pStorage);
}

CHandle::CHandle(int handle) : m_nHandle(handle) { Require(handle >= 0, "open or create"); }

CHandle::~CHandle() { Fat_CloseFile(m_nHandle); }

int CHandle::Open(const std::string& path) { return Fat_OpenFile(CPath(path).Get()); }

int CHandle::Create(const std::string& path, unsigned int bytes) {
  return Fat_CreateFile(CPath(path).Get(), bytes, 0x20);
}

void CHandle::Read(unsigned long long offset, unsigned int count, unsigned char* buffer) const {
  unsigned int done = 0;
  Require(Fat_ReadFileEx(m_nHandle, static_cast<long long>(offset), count, buffer, &done) == 1, "read");
}

void CHandle::Write(unsigned long long offset, unsigned int count, unsigned char* buffer) const {
  unsigned int done = 0;
  Require(Fat_WriteFileEx(m_nHandle, static_cast<long long>(offset), count, buffer, &done) == 1, "write");
}

void CHandle::SetSize(unsigned int bytes) const { Require(Fat_SetFileSize(m_nHandle, bytes) == 1, "size"); }

double RawCallSeconds(CMedium& medium) {
  constexpr unsigned int CALLS = 200000;
  unsigned char bytes[64];
  std::memset(bytes, 0x55, sizeof(bytes));
  const unsigned long long base = medium.Bytes() / 2;
  return Measure([&] {
           for (unsigned int i = 0; i < CALLS; ++i) medium.Write(bytes, sizeof(bytes), base + i % 1024 * 64ULL);
         }) /
         CALLS;
}
