/// @file Volume.h
/// A mounted FAT volume for C++ hosts: paths in UTF-8 or UTF-16, reasons for failures, the root's entries, stored
/// times, exact byte counts. It owns the rules that a careful host of the library's C functions has to follow, so that
/// none is left to follow:
///
///  - transfers are cut into pieces that lie in one block of 256 KiB, so that byte counts are exact;
///  - a file gets its size before it is written, and what it gains reads as zeros;
///  - a directory grows by clusters before a creation that would make the library slide its entries together; one that
///    cannot grow is mounted anew after that;
///  - what the library remembers under an old path is dropped after a rename or move, before it could be used again;
///  - no path leads through a file;
///  - names are kept as they were written: one of 8.3 form that has lower-case letters, which the library would store
///  in
///    upper case, gets a long name, and its upper case as short name;
///  - short names are unique in their directory, and made in the C locale;
///  - one library handle for each open file, however often the host opens it, and never more than the library can have;
///  - failed writes are counted where they happen, and reported by Sync and Close;
///  - the volume is left as fsck.fat likes it: times, the FSInfo counts, and ".." of directories moved into the root
///    come once the library has written everything. A volume on which nothing was changed is left bit for bit.
///
/// Looking needs no mount: directories are read from the medium, kept in memory, and changed there along with each
/// change.
///
/// One thread at a time for all volumes of a process. A host that uses this face leaves Fat_LibInitialize,
/// Fat_LibTerminate and SetCurrentFileSystem alone; volumes bring the library up and down.

#ifndef FATLIB_VOLUME_H
#define FATLIB_VOLUME_H

#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "Device.h"
#include "Error.h"
#include "Medium.h"
#include "Path.h"
#include "Time.h"

namespace fatlib {

class VolumeState;  // of host/VolumeState.h
class FileNode;

/// What is known of a file or directory.
struct Entry {
  std::u16string name;       ///< as it was written: the long name, or the short one; empty for the root
  std::u16string shortName;  ///< as BASE.EXT
  std::uint8_t attributes = 0;
  std::uint32_t size = 0;  ///< bytes; 0 for a directory
  Times times;
  bool reachable = true;  ///< false: no path of the library leads there (such an entry can be read, but not changed)

  bool IsDirectory() const { return (attributes & DIRECTORY) != 0; }
  std::string Utf8Name() const;
};

/// An open file. Closed by its destructor; closing and flushing are different things, see Volume::Sync. Objects of one
/// file share its bytes and its size. It must not outlive its Volume's Close, but may: every function then fails with
/// Refused.
class File {
 public:
  enum class Fill { Zeros, Nothing };

  File() = default;
  File(File&&) noexcept;
  File& operator=(File&&) noexcept;
  ~File();

  bool IsOpen() const { return m_pNode != nullptr; }
  std::uint32_t Size() const;
  /// @param done  out: bytes read, exactly; fewer than `size` only at the end of the file, or on failure
  [[nodiscard]] std::error_code Read(std::uint64_t offset, void* buffer, std::size_t size, std::size_t* done);
  /// Writes all of it. The file grows when it has to, and a gap between its old end and `offset` reads as zeros.
  /// @return DiskFull or FileTooLarge before anything is written
  [[nodiscard]] std::error_code Write(std::uint64_t offset, const void* buffer, std::size_t size);
  /// @param fill  what new bytes read as: zeros, or what the disk held (for a host that writes them all now)
  [[nodiscard]] std::error_code Resize(std::uint64_t size, Fill fill = Fill::Zeros);
  /// Volume::Sync: everything of the volume is written.
  [[nodiscard]] std::error_code Flush();
  void Close();

 private:
  friend class Volume;
  std::shared_ptr<VolumeState> m_pState;
  std::shared_ptr<FileNode> m_pNode;
  bool m_bWritable = false;
};

/// The entries of one directory, as they were when it was read, in the order in which they lie on the medium; without
/// "." and ".." and labels. For use in a range for.
class Directory {
 public:
  std::vector<Entry>::const_iterator begin() const { return m_Entries.begin(); }
  std::vector<Entry>::const_iterator end() const { return m_Entries.end(); }
  std::size_t size() const { return m_Entries.size(); }
  bool empty() const { return m_Entries.empty(); }

 private:
  friend class Volume;
  std::vector<Entry> m_Entries;
};

/// How a volume is worked on.
struct VolumeOptions {
  bool force = false;  ///< write also to volumes that that harms (one FAT; 4085 or 4086 clusters)
  Zone zone = Zone::Local;
  /// The time given to what is created and changed; the system's clock when empty.
  std::function<std::timespec()> clock;
  /// That time.
  std::timespec Now() const;
  bool times = true;  ///< keep modification times true, and write them at Sync; false: those of the library
};

class Volume {
 public:
  Volume();
  Volume(Volume&&) noexcept;
  Volume& operator=(Volume&&) noexcept;
  /// Closes; a failure then goes unnoticed.
  ~Volume();

  /// @param device  taken over, also on failure. A ReadOnly one is never written, and every change fails with
  /// WriteProtected.
  /// @return NotAVolume; UnsafeVolume for a ReadWrite device and a volume that writing harms, unless forced
  [[nodiscard]] std::error_code Open(std::unique_ptr<Device> device, const VolumeOptions& options = {});
  /// Open files become unusable. Everything is written and flushed. A second call does nothing.
  /// @return the first failure, that of a write since the last Sync included; the volume is closed all the same
  [[nodiscard]] std::error_code Close();
  /// Brings everything to the medium: unmounts, sets times and counts, flushes the device. Open files stay open.
  /// @return the first failure, that of a write since the last Sync included
  [[nodiscard]] std::error_code Sync();
  bool IsOpen() const { return m_pState != nullptr; }
  /// Whether something was changed since the last Sync.
  bool IsDirty() const;

  // ---- looking

  const Geometry& Layout() const;
  Access Mode() const;
  [[nodiscard]] std::error_code FreeClusters(std::uint32_t* clusters);
  [[nodiscard]] std::error_code Label(std::u16string* label);
  /// Of the root: name empty, attributes DIRECTORY.
  [[nodiscard]] std::error_code Stat(const Path& path, Entry* entry);
  [[nodiscard]] std::error_code List(const Path& path, Directory* directory);
  /// Syncs, and gives the bytes themselves until the next other call. What the host changes there is seen afterwards.
  [[nodiscard]] std::error_code Raw(Medium** medium);
  /// Of a file or directory, on the medium, after a Sync. The root of FAT12 and FAT16 has none.
  [[nodiscard]] std::error_code Clusters(const Path& path, std::vector<Extent>* extents);

  // ---- files

  /// @return NotFound, IsADirectory, NotADirectory, ...
  [[nodiscard]] std::error_code OpenFile(const Path& path, Access access, File* file);
  /// Makes a file that must not exist in a directory that must. A file without size takes no cluster.
  /// @param attributes  of READ_ONLY HIDDEN SYSTEM ARCHIVE
  [[nodiscard]] std::error_code CreateFile(const Path& path, std::uint32_t size, File::Fill fill,
                                           std::uint8_t attributes, File* file);
  /// All bytes of a file at once.
  /// @param bytes  out: replaced; after a failure what was read before
  [[nodiscard]] std::error_code ReadAll(const Path& path, std::vector<unsigned char>* bytes,
                                        const Progress& progress = {});
  /// Makes a file, or gives an existing one these bytes and nothing else. After a failure a file that was made is gone
  /// again; one that existed has its new size, and may have any of its old and new bytes.
  [[nodiscard]] std::error_code WriteAll(const Path& path, const void* bytes, std::size_t size,
                                         const Progress& progress = {});

  // ---- names

  [[nodiscard]] std::error_code CreateDirectory(const Path& path, std::uint8_t attributes = 0);
  /// Parents too; one that exists is no failure, a file in its place is NotADirectory.
  [[nodiscard]] std::error_code CreateDirectories(const Path& path);
  /// A file, or an empty directory. Open File objects of it fail with NotFound from then on.
  [[nodiscard]] std::error_code Remove(const Path& path);
  /// With all that is below; of the root, all that is below. Stops at the first failure.
  /// @param removed  out, unless null: files and directories
  [[nodiscard]] std::error_code RemoveAll(const Path& path, std::uint64_t* removed = nullptr);
  /// Gives a file or directory another path: another name, another directory, both, or the same name in other case.
  /// Open File objects stay usable. What is below a directory can end up under a path of more than 259 units: it is
  /// then not reachable until the directory has a shorter path again.
  /// @param replace  a file that has the new path goes, and an empty directory when a directory is renamed
  /// @return Refused for the root and for a directory into itself; NameExists, IsADirectory, NotADirectory, NotEmpty
  /// for what is in
  ///         the way. After a failure the entry has its old path, but for an IoError.
  [[nodiscard]] std::error_code Rename(const Path& from, const Path& to, bool replace = false);
  /// @param attributes  of READ_ONLY HIDDEN SYSTEM ARCHIVE; the others are kept
  [[nodiscard]] std::error_code SetAttributes(const Path& path, std::uint8_t attributes);
  /// Stored at the next Sync, shown by Stat and List at once.
  [[nodiscard]] std::error_code SetTimes(const Path& path, const Times& times);
  [[nodiscard]] std::error_code SetLabel(const std::u16string& label);

 private:
  std::shared_ptr<VolumeState> m_pState;
};

}  // namespace fatlib

#endif  // FATLIB_VOLUME_H
