/// @file InterfaceFrame.h
/// What the tests of the exported functions share: a volume with known files, a list of all functions to be refused,
/// and fixtures with media that count.

#ifndef FATLIB_TESTS_INTERFACEFRAME_H
#define FATLIB_TESTS_INTERFACEFRAME_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "filesystem/FatFileSystem.h"
#include "interface/FatLibIntf.h"
#include "support/LibFixture.h"
#include "support/VolumeReader.h"

namespace interfacetest {

using BYTES = std::vector<unsigned char>;

constexpr int NO_HANDLE = -1;
/// A value that no function gives.
constexpr unsigned int SENTINEL = 0xA5A5A5A5;

/// Notes whether one object on the heap is freed. One may exist at a time.
class CFreeWatch {
 public:
  explicit CFreeWatch(const void* object);
  ~CFreeWatch() { s_pWatched = nullptr; }
  CFreeWatch(const CFreeWatch&) = delete;
  CFreeWatch& operator=(const CFreeWatch&) = delete;

  bool Freed() const { return s_bFreed; }
  /// Called with everything that is freed.
  static void Note(const volatile void* memory);

 private:
  static const void* s_pWatched;
  static bool s_bFreed;
};

// ---------------------------------------------------------------------------------------------- the volume

FAT_GEOMETRY Geometry(unsigned int bits);
/// The files below, in a root directory and two more, one inside the other.
CDiskImage MakeVolume(unsigned int bits);

struct FILE_ON_VOLUME {
  const char* Path;
  unsigned int Size;
  unsigned int Seed;  // of its pattern
  BYTES Content() const { return CImageBuilder::Pattern(Size, Seed); }
};
constexpr FILE_ON_VOLUME FILES_ON_VOLUME[] = {{"README.TXT", 700, 1},
                                              {"Long name.bin", 1300, 2},
                                              {"TEN", 10, 3},
                                              {"DIR\\IN.TXT", 600, 4},
                                              {"DIR\\Sub directory\\deep.txt", 100, 5}};
constexpr const char* DEEP = "DIR\\Sub directory\\deep.txt";
BYTES ContentOf(const std::string& path);

/// The files above that are not on the medium as they were made, in words; those named in `but` are not looked at.
std::string Harmed(const CByteStore& image, const std::vector<std::string>& but = {});
/// The bytes that differ from MakeVolume.
std::vector<std::uint64_t> Changed(const CMedium& medium, unsigned int bits);
/// What a transfer touches, in words: "read FAT1", "write DIR\\IN.TXT", ...
/// @param image  the volume as it is at the end
std::string PartOf(const IO_RECORD& transfer, const CDiskImage& image);

// ---------------------------------------------------------------------------------------------- calls

enum CLOSING { WITH_CLOSING, WITHOUT_CLOSING };

/// Call every function of a kind, and name those that did not fail, or wrote an output.
std::string HandleCallsNotRefused(int file, int search, CLOSING closing = WITH_CLOSING);
std::string PathCallsNotRefused();
inline std::string NotRefused(int file, int search, CLOSING closing = WITH_CLOSING) {
  return HandleCallsNotRefused(file, search, closing) + PathCallsNotRefused();
}

int FindFirst(const std::string& path);
/// Writes at an offset. @return the bytes reported, or -1
long long WriteAt(int handle, long long offset, BYTES bytes);
unsigned int OffsetOf(int handle);
unsigned int SizeOf(int handle);

// ---------------------------------------------------------------------------------------------- fixtures

/// Media that outlive the unmount at the end of a test.
class Interface : public CLibFixture {
 protected:
  CMedium& NewMedium(const CDiskImage& image) {
    m_Media.push_back(std::make_unique<CMedium>(image));
    return *m_Media.back();
  }
  static void Close(const std::vector<int>& handles) {
    for (const int handle : handles) EXPECT_EQ(Fat_CloseFile(handle), 1u) << handle;
  }

 private:
  std::vector<std::unique_ptr<CMedium>> m_Media;
};

/// One FAT16 volume, mounted, on a medium that counts.
class InterfaceOnOneVolume : public Interface {
 protected:
  static constexpr unsigned int BITS = 16;

  void SetUp() override {
    Interface::SetUp();
    m_pMedium = &NewMedium(MakeVolume(BITS));
    m_pFileSystem = MountMedium(*m_pMedium);
    ASSERT_NE(m_pFileSystem, nullptr);
    m_pMedium->ClearTrace();
  }

  CMedium* m_pMedium = nullptr;
  CFatFileSystem* m_pFileSystem = nullptr;
};

inline std::string WidthName(const ::testing::TestParamInfo<unsigned int>& bits) {
  return "Fat" + std::to_string(bits.param);
}

}  // namespace interfacetest

#endif  // FATLIB_TESTS_INTERFACEFRAME_H
