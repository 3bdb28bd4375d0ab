/// @file ImageFile.cpp

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Device.h"
#include "Error.h"
#include "Narrow.h"

namespace fatlib {

namespace {

constexpr std::uint64_t MAX_FILE_BYTES = INT64_MAX;
constexpr std::size_t MAX_TRANSFER_BYTES = 0x40000000;  // less than one system call moves at most
constexpr mode_t NEW_FILE_MODE = 0666;                  // less the umask

std::error_code LastError() { return {errno, std::generic_category()}; }

int Descriptor(const std::string& path, int flags) {
  int descriptor;
  do {
    descriptor = open64(path.c_str(), flags | O_CLOEXEC, NEW_FILE_MODE);
  } while (descriptor < 0 && errno == EINTR);
  return descriptor;
}

std::error_code Lock(int descriptor, Access access) {
  const int operation = (access == Access::ReadOnly ? LOCK_SH : LOCK_EX) | LOCK_NB;
  while (flock(descriptor, operation) != 0) {
    if (errno == EWOULDBLOCK) return Status::Locked;
    if (errno != EINTR) return LastError();
  }
  return {};
}

/// @param bytes    out: of the file or block device
/// @param regular  out: a file, which can become longer
std::error_code Measure(int descriptor, std::uint64_t* bytes, bool* regular) {
  struct stat64 about = {};
  if (fstat64(descriptor, &about) != 0) return LastError();
  if (S_ISDIR(about.st_mode)) return {EISDIR, std::generic_category()};
  if (!S_ISREG(about.st_mode) && !S_ISBLK(about.st_mode)) return Status::OpenFailed;
  const off64_t end = lseek64(descriptor, 0, SEEK_END);  // also the size of a block device
  if (end < 0) return LastError();
  *bytes = static_cast<std::uint64_t>(end);
  *regular = S_ISREG(about.st_mode);
  return {};
}

/// Closes a descriptor unless it has been taken.
class CDescriptor {
 public:
  explicit CDescriptor(int descriptor) : m_hFile(descriptor) {}
  ~CDescriptor() {
    if (m_hFile >= 0) close(m_hFile);
  }
  CDescriptor(const CDescriptor&) = delete;
  CDescriptor& operator=(const CDescriptor&) = delete;

  int Get() const { return m_hFile; }
  int Take() {
    const int taken = m_hFile;
    m_hFile = -1;
    return taken;
  }

 private:
  int m_hFile;
};

std::error_code EmptyAndSize(int descriptor, std::uint64_t bytes) {
  if (bytes > MAX_FILE_BYTES) return {EFBIG, std::generic_category()};
  // To nothing first: what the file held before is no part of the new one.
  if (ftruncate64(descriptor, 0) != 0 || ftruncate64(descriptor, static_cast<off64_t>(bytes)) != 0) return LastError();
  return {};
}

}  // namespace

std::error_code ImageFile::Open(const std::string& path, const Options& options, std::unique_ptr<ImageFile>* device) {
  // Not to be kept waiting by a pipe that nobody writes to.
  CDescriptor file(Descriptor(path, (options.access == Access::ReadOnly ? O_RDONLY : O_RDWR) | O_NONBLOCK));
  if (file.Get() < 0) return LastError();
  std::uint64_t bytes = 0;
  bool regular = false;
  if (const std::error_code error = Measure(file.Get(), &bytes, &regular)) return error;
  if (options.lock) {
    if (const std::error_code error = Lock(file.Get(), options.access)) return error;
  }
  if (options.offset > bytes || options.length > bytes - options.offset) return Status::InvalidParameter;
  const std::uint64_t size = options.length != 0 ? options.length : bytes - options.offset;
  const bool growing = regular && options.length == 0;
  device->reset(new ImageFile(file.Get(), options.offset, size, options.access, growing));
  (void)file.Take();
  return {};
}

std::error_code ImageFile::Create(const std::string& path, std::uint64_t bytes, std::unique_ptr<ImageFile>* device) {
  CDescriptor file(Descriptor(path, O_RDWR | O_CREAT | O_EXCL));
  const bool made = file.Get() >= 0;
  CDescriptor existing(made || errno != EEXIST ? -1 : Descriptor(path, O_RDWR | O_CREAT | O_NONBLOCK));
  const int descriptor = made ? file.Get() : existing.Get();
  if (descriptor < 0) return LastError();
  // Nothing of the file is lost before it is sure that nobody else works on it.
  std::error_code error = Lock(descriptor, Access::ReadWrite);
  if (!error) error = EmptyAndSize(descriptor, bytes);
  if (error) {
    if (made) (void)unlink(path.c_str());  // the failure to report is the first one
    return error;
  }
  device->reset(new ImageFile(descriptor, 0, bytes, Access::ReadWrite, false));
  (void)(made ? file : existing).Take();
  return {};
}

ImageFile::ImageFile(int descriptor, std::uint64_t offset, std::uint64_t size, Access access, bool growing)
    : m_hFile(descriptor), m_nOffset(offset), m_nSize(size), m_Access(access), m_bGrowing(growing) {}

ImageFile::~ImageFile() { close(m_hFile); }

std::error_code ImageFile::Read(std::uint64_t position, void* buffer, std::size_t size) {
  auto* out = static_cast<unsigned char*>(buffer);
  std::uint64_t held = position < m_nSize ? m_nSize - position : 0;
  while (size != 0 && held != 0) {
    const auto wanted = ToSize(std::min<std::uint64_t>(std::min(size, MAX_TRANSFER_BYTES), held));
    const ssize_t moved = pread64(m_hFile, out, wanted, static_cast<off64_t>(m_nOffset + position));
    if (moved < 0) {
      if (errno == EINTR) continue;
      return LastError();
    }
    if (moved == 0) break;  // the file has become shorter
    const auto bytes = static_cast<std::size_t>(moved);
    out += bytes;
    position += bytes;
    size -= bytes;
    held -= bytes;
  }
  if (size != 0) std::memset(out, 0, size);
  return {};
}

std::error_code ImageFile::Write(std::uint64_t position, const void* buffer, std::size_t size) {
  if (m_Access == Access::ReadOnly) return Status::WriteProtected;
  const std::uint64_t limit = m_bGrowing ? MAX_FILE_BYTES - m_nOffset : m_nSize;
  if (position > limit || size > limit - position) return Status::IoError;
  const auto* in = static_cast<const unsigned char*>(buffer);
  while (size != 0) {
    const ssize_t moved =
        pwrite64(m_hFile, in, std::min(size, MAX_TRANSFER_BYTES), static_cast<off64_t>(m_nOffset + position));
    if (moved < 0) {
      if (errno == EINTR) continue;
      return LastError();
    }
    if (moved == 0) return Status::IoError;
    const auto bytes = static_cast<std::size_t>(moved);
    in += bytes;
    position += bytes;
    size -= bytes;
    m_nSize = std::max(m_nSize, position);
  }
  return {};
}

std::error_code ImageFile::Flush() {
  if (m_Access == Access::ReadOnly) return {};
  while (fdatasync(m_hFile) != 0) {
    if (errno != EINTR) return LastError();
  }
  return {};
}

}  // namespace fatlib
