/// @file Orphan.cpp

#include "Orphan.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <vector>

namespace fatmount {

namespace {

constexpr std::uint64_t SMALL = std::uint64_t{4} * 1024 * 1024;
constexpr std::size_t PIECE = std::size_t{256} * 1024;

std::error_code LastError() { return {errno, std::generic_category()}; }

int MakeNamelessFile(std::uint64_t size) {
  if (size <= SMALL) {
    const int descriptor = memfd_create("fatmount-removed", MFD_CLOEXEC);
    if (descriptor >= 0) return descriptor;
  }
  const char* const folder = std::getenv("TMPDIR");
  if (folder != nullptr && *folder != 0) {
    const int descriptor = open(folder, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (descriptor >= 0) return descriptor;
  }
  return open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
}

}  // namespace

std::error_code Orphan::Copy(fatlib::File* file, const fatlib::Entry& entry, std::unique_ptr<Orphan>* orphan) {
  const std::uint64_t size = file->Size();
  const int descriptor = MakeNamelessFile(size);
  if (descriptor < 0) return LastError();
  std::unique_ptr<Orphan> copy(new Orphan(descriptor, entry));
  std::vector<unsigned char> buffer(static_cast<std::size_t>(std::min<std::uint64_t>(size, PIECE)));
  for (std::uint64_t offset = 0; offset < size;) {
    std::size_t done = 0;
    if (const std::error_code error = file->Read(offset, buffer.data(), buffer.size(), &done)) return error;
    if (done == 0) break;
    if (const std::error_code error = copy->Write(offset, buffer.data(), done)) return error;
    offset += done;
  }
  *orphan = std::move(copy);
  return {};
}

Orphan::~Orphan() { close(m_hFile); }

std::uint64_t Orphan::Size() const {
  struct stat status {};
  return fstat(m_hFile, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

std::error_code Orphan::Read(std::uint64_t offset, void* buffer, std::size_t size, std::size_t* done) const {
  *done = 0;
  while (*done < size) {
    const ssize_t count =
        pread(m_hFile, static_cast<char*>(buffer) + *done, size - *done, static_cast<off_t>(offset + *done));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return LastError();
    if (count == 0) break;
    *done += static_cast<std::size_t>(count);
  }
  return {};
}

std::error_code Orphan::Write(std::uint64_t offset, const void* buffer, std::size_t size) const {
  for (std::size_t done = 0; done < size;) {
    const ssize_t count =
        pwrite(m_hFile, static_cast<const char*>(buffer) + done, size - done, static_cast<off_t>(offset + done));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return LastError();
    done += static_cast<std::size_t>(count);
  }
  return {};
}

std::error_code Orphan::Resize(std::uint64_t size) const {
  return ftruncate(m_hFile, static_cast<off_t>(size)) == 0 ? std::error_code() : LastError();
}

}  // namespace fatmount
