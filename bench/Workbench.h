/// @file Workbench.h
/// What the workloads share: CPU time, medians, checksums, volumes on both back-ends whose transfers are counted, and
/// the raw media that a workload is compared with.

#ifndef FATLIB_BENCH_WORKBENCH_H
#define FATLIB_BENCH_WORKBENCH_H

#include <fatlib/FatLibIntf.h>
#include <fatlib/XStorage.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

constexpr unsigned int KIB = 1024;
constexpr unsigned int MIB = 1024 * 1024;
/// Rounds in which the library and its baseline take turns.
constexpr unsigned int ROUNDS = 3;

/// CPU seconds (user and system) that this process and the programs it has waited for have used.
double CpuSeconds();
/// CPU seconds that `work` takes.
double Measure(const std::function<void()>& work);
double Median(std::vector<double> values);
/// Prints a message and ends the program with status 1.
[[noreturn]] void Fail(const std::string& message);
void Require(bool condition, const char* what);

/// A checksum (FNV-1a over 64-bit words) that proves what was read or done. Never part of what is measured.
class CChecksum {
 public:
  void Add(const void* bytes, std::size_t count);
  void Add(unsigned long long value) { Add(&value, sizeof(value)); }
  unsigned long long Value() const { return m_nValue; }

 private:
  unsigned long long m_nValue = 0xCBF29CE484222325ULL;
};

/// Numbers that look random and are the same in every run.
class CRandom {
 public:
  explicit CRandom(std::uint64_t seed) : m_nState(seed) {}
  std::uint32_t Below(std::uint32_t limit);
  /// 0 to count - 1 in random order.
  std::vector<std::uint32_t> Order(std::uint32_t count);

 private:
  std::uint64_t m_nState;
};

/// A page-aligned buffer filled with bytes that are not zero, none of them the same as its neighbours: text, to the
/// library, which looks through the bytes of a file that is opened until it finds a zero at the start of 32 of them.
class CBuffer {
 public:
  explicit CBuffer(std::size_t size);
  ~CBuffer();
  CBuffer(const CBuffer&) = delete;
  CBuffer& operator=(const CBuffer&) = delete;
  unsigned char* Data() { return m_pData; }
  std::size_t Size() const { return m_nSize; }
  /// Makes the first byte zero: a file that begins so is opened by reading its first block only.
  void MakeBinary() { m_pData[0] = 0; }

 private:
  unsigned char* m_pData;
  std::size_t m_nSize;
};

enum class BACKEND { File, Memory };

/// As much memory as the library's cache has, taken in turn: what raw calls move ends there, as it does in the library.
class CRing {
 public:
  static constexpr unsigned int SIZE = 64 * MIB;

  CRing() : m_Buffer(SIZE) {}
  /// The next `count` bytes; a power of two up to the size.
  unsigned char* Next(std::size_t count) {
    m_nAt = (m_nAt + count) % SIZE;
    return m_Buffer.Data() + m_nAt;
  }

 private:
  CBuffer m_Buffer;
  std::size_t m_nAt = 0;
};

/// How a volume is made.
struct VOLUME {
  unsigned int FatBits;  ///< 16 or 32
  BACKEND Backend;
  unsigned long long Bytes;
  unsigned int SectorsPerCluster;

  /// "FAT32 file"
  std::string Name() const;
};

/// What went between library and storage object.
struct TRAFFIC {
  unsigned long long Reads = 0;
  unsigned long long Writes = 0;
  unsigned long long BytesRead = 0;
  unsigned long long BytesWritten = 0;
  std::vector<unsigned long long>* ReadOffsets = nullptr;  ///< where each read starts, in bytes; null: not wanted
};

/// The bytes of a volume, in a file or in memory, for raw calls: pread and pwrite, or memcpy.
class CMedium {
 public:
  /// Formats it with mkfs.fat.
  CMedium(const std::string& directory, const VOLUME& volume);
  ~CMedium();
  CMedium(const CMedium&) = delete;
  CMedium& operator=(const CMedium&) = delete;

  void Read(unsigned char* buffer, std::size_t count, unsigned long long offset);
  void Write(const unsigned char* buffer, std::size_t count, unsigned long long offset);
  bool InMemory() const { return m_pImage != nullptr; }
  unsigned char* Image() { return m_pImage; }
  const std::string& Path() const { return m_Path; }  ///< of a file
  unsigned long long Bytes() const { return m_nBytes; }
  unsigned long long FatOffset() const { return m_nFatOffset; }  ///< of the first FAT
  unsigned long long FatBytes() const { return m_nFatBytes; }    ///< of one FAT

 private:
  void ReadGeometry();

  std::string m_Path;
  int m_nDescriptor = -1;
  unsigned char* m_pImage = nullptr;
  unsigned long long m_nBytes;
  unsigned long long m_nFatOffset = 0;
  unsigned long long m_nFatBytes = 0;
};

/// A medium mounted by the library, through a storage object that counts; unmounted at the end at the latest.
class CMounted {
 public:
  /// @param traffic  counted up from here to the unmount, null: of no interest
  explicit CMounted(CMedium& medium, TRAFFIC* traffic = nullptr);
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

/// An open file or directory, closed at the end. Fails the benchmark when it cannot be opened or made.
class CHandle {
 public:
  explicit CHandle(int handle);
  ~CHandle();
  CHandle(const CHandle&) = delete;
  CHandle& operator=(const CHandle&) = delete;
  static int Open(const std::string& path);
  static int Create(const std::string& path, unsigned int bytes);

  void Read(unsigned long long offset, unsigned int count, unsigned char* buffer) const;
  void Write(unsigned long long offset, unsigned int count, unsigned char* buffer) const;
  void SetSize(unsigned int bytes) const;

 private:
  int m_nHandle;
};

/// CPU seconds of one raw 64-byte write on the medium.
double RawCallSeconds(CMedium& medium);

#endif  // FATLIB_BENCH_WORKBENCH_H
