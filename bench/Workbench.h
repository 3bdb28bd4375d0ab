/// @file Workbench.h
/// What the workloads share: CPU time, medians, images on the disk, a mounted library, and the raw calls that a
/// workload is compared with.

#ifndef FATLIB_BENCH_WORKBENCH_H
#define FATLIB_BENCH_WORKBENCH_H

#include <fatlib/FatLibIntf.h>
#include <fatlib/XStorage.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// CPU seconds (user and system) that this process has used.
double CpuSeconds();
/// CPU seconds that `work` takes.
double Measure(const std::function<void()>& work);
double Median(std::vector<double> values);
/// Prints a message and ends the program with status 1.
[[noreturn]] void Fail(const std::string& message);
void Require(bool condition, const char* what);

/// A page-aligned buffer filled with bytes that are not zero.
class CBuffer {
 public:
  explicit CBuffer(std::size_t size);
  ~CBuffer();
  CBuffer(const CBuffer&) = delete;
  CBuffer& operator=(const CBuffer&) = delete;
  unsigned char* Data() { return m_pData; }
  std::size_t Size() const { return m_nSize; }

 private:
  unsigned char* m_pData;
  std::size_t m_nSize;
};

/// A FAT image made with mkfs.fat, removed at the end.
class CImage {
 public:
  /// @param options  of mkfs.fat, such as "-F 32 -s 8"
  CImage(const std::string& directory, unsigned long long bytes, const std::string& options);
  ~CImage();
  CImage(const CImage&) = delete;
  CImage& operator=(const CImage&) = delete;
  const std::string& Path() const { return m_Path; }

 private:
  std::string m_Path;
};

/// The image opened with plain calls.
class CRawFile {
 public:
  explicit CRawFile(const std::string& path);
  ~CRawFile();
  CRawFile(const CRawFile&) = delete;
  CRawFile& operator=(const CRawFile&) = delete;
  void Read(unsigned char* buffer, std::size_t count, unsigned long long offset) const;
  void Write(const unsigned char* buffer, std::size_t count, unsigned long long offset) const;

 private:
  int m_nDescriptor;
};

/// The library, up with one image mounted; unmounted at the end at the latest.
class CMounted {
 public:
  explicit CMounted(const CImage& image);
  ~CMounted();
  CMounted(const CMounted&) = delete;
  CMounted& operator=(const CMounted&) = delete;
  void Unmount();

 private:
  CVolumeStorage* m_pStorage;
  CFatFileSystem* m_pFileSystem;
};

/// A path of plain ASCII text as the library takes it.
class CPath {
 public:
  explicit CPath(const std::string& text) : m_Units(text.begin(), text.end()) { m_Units.push_back(0); }
  unsigned short* Get() { return m_Units.data(); }

 private:
  std::vector<unsigned short> m_Units;
};

#endif  // FATLIB_BENCH_WORKBENCH_H
