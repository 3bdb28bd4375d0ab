/// @file CopyItem.h
/// What a copy is made of: the files and directories of its source, each parent before what is in it.

#ifndef FATIMG_COPYITEM_H
#define FATIMG_COPYITEM_H

#include <fatlib/Volume.h>

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

namespace fatimg {

/// One file or directory of the source.
struct CopyItem {
  std::string place;                 ///< where it is, for opening it on the host and for messages
  fatlib::Volume* volume = nullptr;  ///< null for something of the host
  fatlib::Path image;                ///< where it is in the volume
  fatlib::Path relative;  ///< where it goes, below the destination; the root: it becomes the destination itself
  bool directory = false;
  std::uint64_t size = 0;       ///< bytes, of a file
  std::uint8_t attributes = 0;  ///< of an image's entry
  std::timespec modified{};     ///< since 1970-01-01 UTC
};

/// Why a directory is not copied when that was not asked for.
constexpr char NEEDS_RECURSION[] = "is a directory; --recursive copies it with all that is in it";

/// Something that cannot be copied, or could not be.
struct FailedItem {
  std::string place;
  std::error_code error;
  std::string reason;  ///< a phrase; the message of `error` when empty
};

/// The bytes of one file, from its first to its last.
class ByteSource {
 public:
  virtual ~ByteSource() = default;
  /// @param done  out: bytes read; fewer than `size` only at the end
  [[nodiscard]] virtual std::error_code Read(void* buffer, std::size_t size, std::size_t* done) = 0;
};

/// Where the items' bytes come from.
class CopySource {
 public:
  virtual ~CopySource() = default;
  [[nodiscard]] virtual std::error_code Open(const CopyItem& item, std::unique_ptr<ByteSource>* bytes) = 0;
};

}  // namespace fatimg

#endif  // FATIMG_COPYITEM_H
