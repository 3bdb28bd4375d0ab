/// @file Workbench.cpp

#include "Workbench.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <new>

double CpuSeconds() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

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

CBuffer::CBuffer(std::size_t size) : m_pData(nullptr), m_nSize(size) {
  void* memory = nullptr;
  if (posix_memalign(&memory, 4096, size) != 0) Fail("out of memory");
  m_pData = static_cast<unsigned char*>(memory);
  for (std::size_t i = 0; i < size; ++i) m_pData[i] = static_cast<unsigned char>(i % 251 + 1);
}

CBuffer::~CBuffer() { std::free(m_pData); }

CImage::CImage(const std::string& directory, unsigned long long bytes, const std::string& options)
    : m_Path(directory + "/fatlib-bench-XXXXXX") {
  const int descriptor = mkstemp(m_Path.data());
  if (descriptor < 0) Fail("cannot make a file in " + directory);
  const bool sized = ftruncate(descriptor, static_cast<off_t>(bytes)) == 0;
  close(descriptor);
  const std::string command = "PATH=$PATH:/usr/sbin:/sbin mkfs.fat " + options + " " + m_Path + " >/dev/null";
  if (!sized || std::system(command.c_str()) != 0) {
    unlink(m_Path.c_str());
    Fail("cannot make an image in " + directory + " (is there room, is mkfs.fat installed?)");
  }
}

CImage::~CImage() { unlink(m_Path.c_str()); }

CRawFile::CRawFile(const std::string& path) : m_nDescriptor(open(path.c_str(), O_RDWR)) {
  Require(m_nDescriptor >= 0, "open of the image");
}

CRawFile::~CRawFile() { close(m_nDescriptor); }

void CRawFile::Read(unsigned char* buffer, std::size_t count, unsigned long long offset) const {
  Require(pread(m_nDescriptor, buffer, count, static_cast<off_t>(offset)) == static_cast<ssize_t>(count), "pread");
}

void CRawFile::Write(const unsigned char* buffer, std::size_t count, unsigned long long offset) const {
  Require(pwrite(m_nDescriptor, buffer, count, static_cast<off_t>(offset)) == static_cast<ssize_t>(count), "pwrite");
}

CMounted::CMounted(const CImage& image) : m_pStorage(new CFatPartition), m_pFileSystem(nullptr) {
  std::string path = image.Path();
  m_pFileSystem = Fat_Mount(m_pStorage, path.data());
  Require(m_pFileSystem != nullptr, "mount");
}

CMounted::~CMounted() { Unmount(); }

void CMounted::Unmount() {
  if (m_pFileSystem == nullptr) return;
  Require(Fat_Unmount(m_pFileSystem) == 1, "unmount");
  m_pFileSystem = nullptr;
  ::operator delete(m_pStorage);
}
