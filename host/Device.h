/// @file Device.h
/// What a volume lies on. Position 0 is the first byte of the volume, wherever that is in an image file or on a disk.

#ifndef FATLIB_DEVICE_H
#define FATLIB_DEVICE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

namespace fatlib {

enum class Access { ReadOnly, ReadWrite };

/// Called by long operations with the bytes done so far and in total; false stops them, and they fail with Cancelled.
using Progress = std::function<bool(std::uint64_t done, std::uint64_t total)>;

/// Bytes that can be read and written. A host can bring its own. Used from one thread at a time.
class Device {
 public:
  virtual ~Device() = default;
  /// Reads all `size` bytes; what lies behind the end of the device reads as zeros.
  [[nodiscard]] virtual std::error_code Read(std::uint64_t position, void* buffer, std::size_t size) = 0;
  /// Writes all `size` bytes, or fails; after a failure some of them may be written.
  [[nodiscard]] virtual std::error_code Write(std::uint64_t position, const void* buffer, std::size_t size) = 0;
  /// When it returns without an error, everything written before is on the medium itself.
  [[nodiscard]] virtual std::error_code Flush() = 0;
  /// Bytes from position 0 to the end.
  virtual std::uint64_t Size() const = 0;
  /// ReadOnly: every Write fails with WriteProtected.
  virtual Access Mode() const = 0;
};

/// An image file or block device, or a part of one. A failed transfer is reported as the system gives it
/// (std::generic_category), one outside the part as IoError. A file that is opened for writing without a length becomes
/// longer where a Write reaches behind its end: an image may have been cut off behind its last used byte.
class ImageFile : public Device {
 public:
  struct Options {
    Access access = Access::ReadWrite;
    std::uint64_t offset = 0;  ///< byte of the file that is position 0
    std::uint64_t length = 0;  ///< bytes of the part; 0: up to the end of the file
    bool lock = true;  ///< take an advisory lock (flock): a shared one for reading, an exclusive one for writing
  };
  /// @param device  out: unchanged on failure
  /// @return OpenFailed's reason as the system gave it (std::generic_category), Locked when another program holds the
  /// lock,
  ///         InvalidParameter when the part does not lie inside the file
  [[nodiscard]] static std::error_code Open(const std::string& path, const Options& options,
                                            std::unique_ptr<ImageFile>* device);
  /// Makes a file of `bytes` zeros (sparse), or makes an existing one that size and empties it, open for writing and
  /// locked.
  [[nodiscard]] static std::error_code Create(const std::string& path, std::uint64_t bytes,
                                              std::unique_ptr<ImageFile>* device);
  ~ImageFile() override;
  ImageFile(const ImageFile&) = delete;
  ImageFile& operator=(const ImageFile&) = delete;

  std::error_code Read(std::uint64_t position, void* buffer, std::size_t size) override;
  std::error_code Write(std::uint64_t position, const void* buffer, std::size_t size) override;
  std::error_code Flush() override;
  std::uint64_t Size() const override { return m_nSize; }
  Access Mode() const override { return m_Access; }

 private:
  ImageFile(int descriptor, std::uint64_t offset, std::uint64_t size, Access access, bool growing);
  int m_hFile;
  std::uint64_t m_nOffset;
  std::uint64_t m_nSize;
  Access m_Access;
  bool m_bGrowing;  // a Write behind the end makes the file longer
};

/// An image in memory that belongs to the device. Its size is fixed: a Write that reaches behind its end fails with
/// IoError.
class MemoryImage : public Device {
 public:
  explicit MemoryImage(std::vector<unsigned char> bytes) : m_Bytes(std::move(bytes)) {}
  std::vector<unsigned char>& Bytes() { return m_Bytes; }

  std::error_code Read(std::uint64_t position, void* buffer, std::size_t size) override;
  std::error_code Write(std::uint64_t position, const void* buffer, std::size_t size) override;
  std::error_code Flush() override;
  std::uint64_t Size() const override { return m_Bytes.size(); }
  Access Mode() const override { return Access::ReadWrite; }

 private:
  std::vector<unsigned char> m_Bytes;
};

/// Another device with changes that only this object knows: trying something out leaves the other device as it is.
/// Memory grows with what is written, in pieces of 4 KiB. What is written behind the other device's end is kept too.
class Overlay : public Device {
 public:
  /// @param base  not null
  explicit Overlay(std::unique_ptr<Device> base) : m_pBase(std::move(base)) {}

  std::error_code Read(std::uint64_t position, void* buffer, std::size_t size) override;
  std::error_code Write(std::uint64_t position, const void* buffer, std::size_t size) override;
  std::error_code Flush() override;
  std::uint64_t Size() const override;
  Access Mode() const override { return Access::ReadWrite; }

 private:
  std::unique_ptr<Device> m_pBase;
  std::uint64_t m_nEnd = 0;                                      // of what was written
  std::map<std::uint64_t, std::vector<unsigned char>> m_Pieces;  // by position / 4096
};

}  // namespace fatlib

#endif  // FATLIB_DEVICE_H
