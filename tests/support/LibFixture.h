/// @file LibFixture.h
/// The frame of every test that goes through the interface: brings the library up, mounts images, and checks afterwards
/// that no handle and no allocation is left.

#ifndef FATLIB_TESTS_LIBFIXTURE_H
#define FATLIB_TESTS_LIBFIXTURE_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "interface/FatLibIntf.h"
#include "storage/XStorage.h"
#include "support/DiskImage.h"
#include "support/FaultStorage.h"
#include "support/ImageBuilder.h"
#include "support/MemHooks.h"
#include "support/Process.h"
#include "support/Utf16.h"

/// Where a mounted image lives.
enum class BACKEND { Memory, File, Medium };
/// "Memory", "File" or "Medium": for the names of parametrised tests.
std::string BackendName(BACKEND backend);

/// One entry of a listing, names as UTF-8.
struct LISTED {
  std::string LongName;   ///< empty when the entry has none
  std::string ShortName;  ///< BASE.EXT
  unsigned int Attributes = 0;
  unsigned int Size = 0;

  bool IsDir() const { return (Attributes & 0x10) != 0; }
  const std::string& Name() const { return LongName.empty() ? ShortName : LongName; }
};

class CLibFixture : public ::testing::Test {
 protected:
  /// Hooks the memory, then Fat_LibInitialize.
  void SetUp() override;
  /// Unmounts what is still mounted, then expects Fat_LibTerminate to find no open handle, no allocation to be out, and
  /// no block to have been freed twice. A test that has terminated the library itself says so with Terminated().
  void TearDown() override;

  /// Mounts a copy of the image on the back-end. @return null when the mount failed; nothing is left to free then.
  /// Unmount copies what is then on the back-end to `*image` unless that is null or the image was given by value.
  CFatFileSystem* Mount(BACKEND backend, CDiskImage* image);
  CFatFileSystem* Mount(BACKEND backend, const CDiskImage& image);
  /// Mounts the very memory. It must stay until the unmount.
  CFatFileSystem* MountMemory(std::vector<unsigned char>& image);
  /// Mounts the very file.
  CFatFileSystem* MountFile(const std::string& path);
  /// Mounts a medium with its counts and faults. It must stay until the unmount.
  CFatFileSystem* MountMedium(CMedium& medium);
  /// Fat_Unmount, then frees the storage object, after closing it where a failed unmount has not.
  /// @return what Fat_Unmount returned
  bool Unmount(CFatFileSystem* fileSystem);
  /// Says that the test called Fat_LibTerminate itself: volumes still mounted are dead, only their storage is freed.
  void Terminated() { m_bTerminated = true; }

  // ---- shorthands; every one adds a test failure only where it says so
  /// Bytes of an open file by its size, read in steps of `step` bytes from the start with Fat_ReadFileEx. Fails the
  /// test when a read does. 256 KiB steps are aligned with the library's blocks.
  static std::vector<unsigned char> ReadAll(int handle, unsigned int step = 0x40000);
  /// Bytes [offset, offset + count), count cut to the file's end by the library.
  static std::vector<unsigned char> ReadAt(int handle, long long offset, unsigned int count);
  /// Opens, reads and closes. Fails the test when the path cannot be opened.
  static std::vector<unsigned char> ReadPath(const std::string& path, unsigned int step = 0x40000);
  /// Makes a file with this content. @return false when any step failed.
  static bool WritePath(const std::string& path, const std::vector<unsigned char>& content,
                        unsigned int attributes = 0);
  /// Every entry of a directory, "." and ".." only on demand. Empty also when it cannot be opened.
  static std::vector<LISTED> List(const std::string& path, bool withDots = false);
  /// True when the path opens.
  static bool Exists(const std::string& path);
  static LISTED ToListed(const WIN_FIND_DATA& data);

  CMemHooks& Memory() { return *m_pMemory; }
  /// A directory for the test's files, made on first use, removed afterwards.
  const CTempDir& TempDir();

 private:
  struct MOUNTED {
    CFatFileSystem* FileSystem = nullptr;
    CVolumeStorage* Storage = nullptr;
    CDiskImage* Target = nullptr;                       // where the image goes at unmount, or null
    std::shared_ptr<std::vector<unsigned char>> Bytes;  // of a memory image made here
    std::shared_ptr<CMedium> Medium;                    // made here
    std::string Path;                                   // of a file made here
  };

  CFatFileSystem* MountCopy(BACKEND backend, const CDiskImage& image, CDiskImage* target);
  CFatFileSystem* Register(MOUNTED mounted, void* parameter);
  void Release(MOUNTED& mounted);

  std::unique_ptr<CMemHooks> m_pMemory;
  std::unique_ptr<CTempDir> m_pTempDir;
  std::vector<MOUNTED> m_Mounted;
  unsigned int m_nFiles = 0;
  bool m_bTerminated = false;
};

#endif  // FATLIB_TESTS_LIBFIXTURE_H
