/// @file Mounted.h
/// Real mounts by the built fatmount, on images made by mkfs.fat.

#ifndef FATLIB_TESTS_MOUNTED_H
#define FATLIB_TESTS_MOUNTED_H

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "support/DiskImage.h"
#include "support/Process.h"
#include "support/VolumeReader.h"

namespace fatmount_test {

/// fatmount at work in the foreground.
class Mount {
 public:
  /// Waits until the volume stands, or fatmount has ended.
  /// @param before  what a shell does before it becomes fatmount
  Mount(const std::string& image, const std::string& folder, const std::vector<std::string>& options = {},
        const std::string& before = ":");
  /// Leaves no mount and no process.
  ~Mount();
  Mount(const Mount&) = delete;
  Mount& operator=(const Mount&) = delete;

  bool Stands() const;
  /// Sends a signal, and waits for the end. @return as Unmount
  int Kill(int signal);
  /// Waits until everything is written. @return the exit status, 128 + n for signal n, -1 when it did not end
  int Unmount();
  /// What it has printed until now on both streams.
  std::string Printed() const;
  pid_t Process() const { return m_nProcess; }

 private:
  int WaitForEnd();

  CTempDir m_Directory;
  std::string m_Folder;
  pid_t m_nProcess = -1;
  int m_nStatus = -1;
};

/// What fsck.fat finds, without the lines that it always prints: empty for a volume without a defect.
std::string FsckFindings(const std::string& image);
/// A volume with these arguments of mkfs.fat, of so many KiB.
void MakeVolume(const std::string& image, unsigned int kibibytes, const std::vector<std::string>& arguments);
/// The bytes of a file, read by mtools from an image.
std::string OnImage(const std::string& image, const std::string& path);

// System calls as tests need them.

/// @return the errno of a call that returned -1, else 0
int ErrnoOf(long result);
void WriteFile(const std::string& path, const std::string& bytes);
std::string ReadFile(const std::string& path);
std::vector<std::string> ListOf(const std::string& folder);  ///< sorted, with "." and ".."
struct stat StatOf(const std::string& path);
bool Exists(const std::string& path);

/// An open file.
class Descriptor {
 public:
  Descriptor(const std::string& path, int flags);
  ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int Get() const { return m_nDescriptor; }
  std::string Read(off_t offset, std::size_t size) const;
  bool Write(off_t offset, const std::string& bytes) const;
  struct stat Stat() const;

 private:
  int m_nDescriptor;
};

/// Memory shared with a file.
class Mapping {
 public:
  Mapping(const Descriptor& file, std::size_t size);
  ~Mapping();
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  char* Bytes() const { return static_cast<char*>(m_pBytes); }
  bool Flush() const;

 private:
  void* m_pBytes;
  std::size_t m_nSize;
};

/// A volume of each type. A test begins with it mounted and empty, and ends with a volume without a defect.
class Volume : public testing::TestWithParam<int> {
 protected:
  explicit Volume(std::vector<std::string> options = {});
  void TearDown() override;
  /// The path of something on the volume.
  std::string operator/(const std::string& name) const { return m_Folder + "/" + name; }
  /// What an independent reader finds in the image, once all is written.
  CVolumeReader Unmounted();

  CTempDir m_Directory;
  std::string m_Image = m_Directory / "volume.img";
  std::string m_Folder = m_Directory / "mounted";
  CFileImage m_Store;
  std::unique_ptr<Mount> m_pMount;
};

/// Shows parameters as FAT12 and so on.
std::string NameOfType(const testing::TestParamInfo<int>& info);

/// For tests that make their own mounts.
class Images : public testing::Test {
 protected:
  Images();

  CTempDir m_Directory;
  std::string m_Image = m_Directory / "volume.img";
  std::string m_Folder = m_Directory / "mounted";
};

}  // namespace fatmount_test

#define FOR_ALL_TYPES(Fixture) \
  INSTANTIATE_TEST_SUITE_P(Types, Fixture, testing::Values(12, 16, 32), fatmount_test::NameOfType)

#endif  // FATLIB_TESTS_MOUNTED_H
