/// @file Error.h
/// Why something failed. The library's functions only say that they failed; this face finds out why, and says it with
/// the library's own status values, in a category of std::error_code whose messages are sentences for people.

#ifndef FATLIB_ERROR_H
#define FATLIB_ERROR_H

#include <system_error>

namespace fatlib {

/// The values are the 32-bit status values of the library, which are negative numbers as an int.
enum class Status : int {
  Success = 0,
  InvalidParameter = static_cast<int>(0xC000000Du),  ///< an argument that no volume could accept
  NoMemory = static_cast<int>(0xC0000017u),
  DiskCorrupt = static_cast<int>(0xC0000032u),  ///< a broken cluster chain or directory
  InvalidName = static_cast<int>(0xC0000033u),  ///< a name that FAT or the library cannot hold
  Locked = static_cast<int>(0xC0000043u),       ///< another program works on the image
  DiskFull = static_cast<int>(0xC000007Fu),     ///< no free cluster, or no room in a directory
  Refused = static_cast<int>(0xC0000098u),      ///< not possible with these objects, as moving a directory into itself
  WriteProtected = static_cast<int>(0xC00000A2u),  ///< a change on a volume that is open for reading only
  IsADirectory = static_cast<int>(0xC00000BAu),
  NotEmpty = static_cast<int>(0xC0000101u),       ///< a directory that is to be removed has entries
  NotADirectory = static_cast<int>(0xC0000103u),  ///< a path leads through a file
  NameTooLong = static_cast<int>(0xC0000106u),    ///< a name over 255 units, or a path over 259
  Cancelled = static_cast<int>(0xC0000120u),      ///< the progress callback said so
  OpenFailed = static_cast<int>(0xC0000136u),     ///< the image or device could not be opened
  NotAVolume = static_cast<int>(0xC000014Fu),     ///< the boot sector is that of no FAT volume
  NameExists = static_cast<int>(0xC0000183u),
  IoError = static_cast<int>(0xC0000185u),  ///< the medium could not be read or written
  NotFound = static_cast<int>(0xC0000225u),
  FileTooLarge = static_cast<int>(0xC0000904u),  ///< over the 2^32 - 1 bytes less than a cluster that a file can have
  UnsafeVolume =
      static_cast<int>(0xC0000905u),  ///< writing would harm this volume: one FAT, or a type others see otherwise
  Unreachable = static_cast<int>(0xC0000906u),  ///< an entry that can be read, but that no path of the library leads to
};

/// The category "fatlib". Its default_error_condition maps each status to the std::errc that a system call would give
/// (NotFound is ENOENT, DiskFull ENOSPC, FileTooLarge EFBIG, ...), so that `error ==
/// std::errc::no_such_file_or_directory` holds and `error.default_error_condition().value()` is an errno.
const std::error_category& StatusCategory() noexcept;

inline std::error_code make_error_code(Status status) noexcept {
  return std::error_code(static_cast<int>(status), StatusCategory());
}

}  // namespace fatlib

template <>
struct std::is_error_code_enum<fatlib::Status> : std::true_type {};

#endif  // FATLIB_ERROR_H
