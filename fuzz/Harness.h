/// @file Harness.h
/// The frame of every fuzz target: keeps the library initialised over many runs, puts the input's image on a medium,
/// mounts it, and judges each run. Found are, beside what the sanitizers find:
///   - memory that is not given back, handles that cannot be closed, a storage that is not closed;
///   - a run of more than 2 seconds of processor time (FATLIB_FUZZ_SECONDS in the environment changes that).
/// The library gets 512 MiB of memory at one time, and null beyond.
/// Each stops the program with a line that begins with "FINDING:".

#ifndef FATLIB_FUZZ_HARNESS_H
#define FATLIB_FUZZ_HARNESS_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "SparseImage.h"
#include "interface/FatLibIntf.h"
#include "storage/XStorage.h"

/// Stops with a message; what was found is no memory error that a sanitizer reports.
[[noreturn]] void Finding(const char* what);

/// Ends the program when the run that it is part of takes too long.
class CTimedRun {
 public:
  /// @param parts  how many times the limit of a run it may take
  explicit CTimedRun(unsigned int parts = 1);
  ~CTimedRun();
  CTimedRun(const CTimedRun&) = delete;
  CTimedRun& operator=(const CTimedRun&) = delete;

  /// Whether this run has taken so long that no more calls should be made: what must end in time is each call, and the
  /// unmounting, not a list of calls however long.
  static bool IsLong();
};

/// For a target that initialises and terminates the library itself: stops unless it has given all memory back.
void ExpectNoLibraryMemory();

/// One run of a target. At its end all handles are closed, all volumes unmounted, and the library's memory is counted.
class CFuzzRun : public CTimedRun {
 public:
  CFuzzRun();
  ~CFuzzRun();

  /// Puts an image on the medium and mounts it. @return null when it is refused
  CFatFileSystem* Mount(const SPARSE_IMAGE& image);
  /// Mounts what is on the medium, with another storage object and without failures to come.
  CFatFileSystem* MountAgain();
  /// Unmounts; a null or unmounted one too.
  void Unmount(CFatFileSystem* fileSystem);
  /// Stops the library with whatever is open and mounted, and starts it again.
  void RestartLibrary();

  static void CloseAllHandles();

 private:
  struct MOUNTED {
    CFatFileSystem* FileSystem;
    CVolumeStorage* Storage;
  };

  CFatFileSystem* MountMedium();

  std::vector<MOUNTED> m_Mounted;
  std::size_t m_nBlocksBefore;
  std::size_t m_nMounts = 0;
  unsigned int m_nStorageKind = 0;
};

/// The bytes of the medium, for targets that build a volume themselves; valid from Size 0 on. Taken over by MountAgain.
class CMedium {
 public:
  static constexpr std::uint32_t MAX_BYTES = SPARSE_IMAGE::MAX_BYTES;

  /// Zeros, `size` bytes of them; nothing fails.
  static void Reset(std::uint32_t size);
  static void Put(std::uint32_t offset, const void* bytes, std::uint32_t count);
  static void Put8(std::uint32_t offset, unsigned int value);
  static void Put16(std::uint32_t offset, unsigned int value);
  static void Put32(std::uint32_t offset, std::uint32_t value);
};

/// A path or name in memory of exactly its size, so that a read behind its end is noticed.
class CExactPath {
 public:
  explicit CExactPath(const std::vector<unsigned short>& units) : m_pUnits(new unsigned short[units.size() + 1]) {
    for (std::size_t i = 0; i < units.size(); ++i) m_pUnits[i] = units[i];
    m_pUnits[units.size()] = 0;
  }
  ~CExactPath() { delete[] m_pUnits; }
  CExactPath(const CExactPath&) = delete;
  CExactPath& operator=(const CExactPath&) = delete;
  operator unsigned short*() const { return m_pUnits; }

 private:
  unsigned short* m_pUnits;
};

/// A buffer of exactly its size.
class CExactBuffer {
 public:
  explicit CExactBuffer(std::size_t size) : m_pBytes(new unsigned char[size]) {}
  ~CExactBuffer() { delete[] m_pBytes; }
  CExactBuffer(const CExactBuffer&) = delete;
  CExactBuffer& operator=(const CExactBuffer&) = delete;
  unsigned char* Get() const { return m_pBytes; }

 private:
  unsigned char* m_pBytes;
};

#endif  // FATLIB_FUZZ_HARNESS_H
