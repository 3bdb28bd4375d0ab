/// @file DiskImage.h
/// Volume images for tests: one in memory, kept as 4 KiB pages so that an image of many gigabytes costs only the pages
/// written, and one in a file. Both read as zero where nothing was written.

#ifndef FATLIB_TESTS_DISKIMAGE_H
#define FATLIB_TESTS_DISKIMAGE_H

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

/// Narrows a size that is known to fit in memory. (A cast of std::uint64_t itself is useless where both are 64 bits.)
constexpr std::size_t ToSize(unsigned long long size) { return static_cast<std::size_t>(size); }

/// Something that holds the bytes of a volume. Positions are bytes from the boot sector on.
class CByteStore {
 public:
  CByteStore() = default;
  CByteStore(const CByteStore&) = default;
  CByteStore& operator=(const CByteStore&) = default;
  CByteStore(CByteStore&&) = default;
  CByteStore& operator=(CByteStore&&) = default;
  virtual ~CByteStore() = default;

  virtual std::uint64_t Size() const = 0;
  /// Bytes past the end read as zero.
  virtual void Read(std::uint64_t offset, void* buffer, std::size_t count) const = 0;
  /// A write past the end makes the store larger.
  virtual void Write(std::uint64_t offset, const void* buffer, std::size_t count) = 0;

  std::vector<unsigned char> ReadBytes(std::uint64_t offset, std::size_t count) const;
  void WriteBytes(std::uint64_t offset, const std::vector<unsigned char>& bytes);
  void Fill(std::uint64_t offset, std::uint64_t count, unsigned char value);

  // Little-endian integers at a byte position.
  std::uint8_t Get8(std::uint64_t offset) const;
  std::uint16_t Get16(std::uint64_t offset) const;
  std::uint32_t Get32(std::uint64_t offset) const;
  void Set8(std::uint64_t offset, unsigned int value);
  void Set16(std::uint64_t offset, unsigned int value);
  void Set32(std::uint64_t offset, std::uint32_t value);
};

/// An image in memory. Copying is cheap: copies share their pages until one of them is written.
class CDiskImage final : public CByteStore {
 public:
  static constexpr std::size_t PAGE_BYTES = 4096;

  explicit CDiskImage(std::uint64_t size = 0) : m_nSize(size) {}
  explicit CDiskImage(const std::vector<unsigned char>& bytes);
  /// Loads a file; its holes stay holes.
  static CDiskImage FromFile(const std::string& path);

  std::uint64_t Size() const override { return m_nSize; }
  void Read(std::uint64_t offset, void* buffer, std::size_t count) const override;
  void Write(std::uint64_t offset, const void* buffer, std::size_t count) override;

  /// Cuts the image, or extends it by zeros.
  void Resize(std::uint64_t size);
  /// The whole image as one block of memory, for CFatMemory.
  std::vector<unsigned char> ToVector() const;
  /// Writes the image to a new file; pages never written become holes.
  void ToFile(const std::string& path) const;

  /// Offsets of the bytes that differ, ascending, at most `limit` of them. A difference in size counts as differing
  /// bytes where the longer image is not zero.
  static std::vector<std::uint64_t> Differences(const CDiskImage& a, const CDiskImage& b, std::size_t limit = 64);
  friend bool operator==(const CDiskImage& a, const CDiskImage& b) {
    return a.m_nSize == b.m_nSize && Differences(a, b, 1).empty();
  }
  friend bool operator!=(const CDiskImage& a, const CDiskImage& b) { return !(a == b); }

 private:
  using PAGE = std::array<unsigned char, PAGE_BYTES>;

  const PAGE* FindPage(std::uint64_t number) const;

  std::uint64_t m_nSize;
  std::unordered_map<std::uint64_t, std::shared_ptr<PAGE>> m_Pages;
};

/// An existing file, opened for reading and writing. Every failure of the host throws std::runtime_error.
class CFileImage final : public CByteStore {
 public:
  explicit CFileImage(const std::string& path);
  ~CFileImage() override;
  CFileImage(const CFileImage&) = delete;
  CFileImage& operator=(const CFileImage&) = delete;

  std::uint64_t Size() const override;
  void Read(std::uint64_t offset, void* buffer, std::size_t count) const override;
  void Write(std::uint64_t offset, const void* buffer, std::size_t count) override;

 private:
  int m_nDescriptor;
};

#endif  // FATLIB_TESTS_DISKIMAGE_H
