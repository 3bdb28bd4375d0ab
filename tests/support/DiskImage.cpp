/// @file DiskImage.cpp
/// The page map of images in memory, and plain file access.

#include "support/DiskImage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <stdexcept>

namespace {

using PAGE_BYTES = std::array<unsigned char, CDiskImage::PAGE_BYTES>;
constexpr PAGE_BYTES s_ZeroPage{};

[[noreturn]] void Fail(const std::string& what) { throw std::runtime_error(what); }

// The part of [offset, offset + count) that lies in the page of `offset`.
std::size_t InPage(std::uint64_t offset, std::size_t count) {
  return std::min(count, CDiskImage::PAGE_BYTES - ToSize(offset % CDiskImage::PAGE_BYTES));
}

}  // namespace

std::vector<unsigned char> CByteStore::ReadBytes(std::uint64_t offset, std::size_t count) const {
  std::vector<unsigned char> bytes(count);
  Read(offset, bytes.data(), count);
  return bytes;
}

void CByteStore::WriteBytes(std::uint64_t offset, const std::vector<unsigned char>& bytes) {
  Write(offset, bytes.data(), bytes.size());
}

void CByteStore::Fill(std::uint64_t offset, std::uint64_t count, unsigned char value) {
  const std::vector<unsigned char> block(ToSize(std::min<std::uint64_t>(count, 1u << 20)), value);
  while (count != 0) {
    const std::size_t part = ToSize(std::min<std::uint64_t>(count, block.size()));
    Write(offset, block.data(), part);
    offset += part;
    count -= part;
  }
}

std::uint8_t CByteStore::Get8(std::uint64_t offset) const {
  unsigned char byte = 0;
  Read(offset, &byte, 1);
  return byte;
}

std::uint16_t CByteStore::Get16(std::uint64_t offset) const {
  unsigned char bytes[2] = {};
  Read(offset, bytes, 2);
  return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
}

std::uint32_t CByteStore::Get32(std::uint64_t offset) const {
  return Get16(offset) | static_cast<std::uint32_t>(Get16(offset + 2)) << 16;
}

void CByteStore::Set8(std::uint64_t offset, unsigned int value) {
  const unsigned char byte = static_cast<unsigned char>(value);
  Write(offset, &byte, 1);
}

void CByteStore::Set16(std::uint64_t offset, unsigned int value) {
  const unsigned char bytes[2] = {static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8)};
  Write(offset, bytes, 2);
}

void CByteStore::Set32(std::uint64_t offset, std::uint32_t value) {
  Set16(offset, value & 0xFFFFu);
  Set16(offset + 2, value >> 16);
}

// ---------------------------------------------------------------- in memory

CDiskImage::CDiskImage(const std::vector<unsigned char>& bytes) : m_nSize(bytes.size()) {
  for (std::size_t offset = 0; offset < bytes.size(); offset += PAGE_BYTES) {
    const std::size_t part = std::min(bytes.size() - offset, PAGE_BYTES);
    if (std::memcmp(bytes.data() + offset, s_ZeroPage.data(), part) != 0) Write(offset, bytes.data() + offset, part);
  }
}

CDiskImage CDiskImage::FromFile(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat status {};
  if (descriptor < 0 || ::fstat(descriptor, &status) != 0) Fail("cannot open " + path);
  CDiskImage image(static_cast<std::uint64_t>(status.st_size));
  std::vector<unsigned char> buffer(1u << 20);
  for (off_t offset = 0; (offset = ::lseek(descriptor, offset, SEEK_DATA)) >= 0;) {
    offset -= offset % static_cast<off_t>(PAGE_BYTES);
    const ssize_t got = ::pread(descriptor, buffer.data(), buffer.size(), offset);
    if (got <= 0) break;
    for (std::size_t done = 0; done < static_cast<std::size_t>(got); done += PAGE_BYTES) {
      const std::size_t part = std::min(static_cast<std::size_t>(got) - done, PAGE_BYTES);
      if (std::memcmp(buffer.data() + done, s_ZeroPage.data(), part) == 0) continue;
      image.Write(static_cast<std::uint64_t>(offset) + done, buffer.data() + done, part);
    }
    offset += got;
  }
  ::close(descriptor);
  return image;
}

const CDiskImage::PAGE* CDiskImage::FindPage(std::uint64_t number) const {
  const auto found = m_Pages.find(number);
  return found == m_Pages.end() ? nullptr : found->second.get();
}

void CDiskImage::Read(std::uint64_t offset, void* buffer, std::size_t count) const {
  unsigned char* to = static_cast<unsigned char*>(buffer);
  while (count != 0) {
    const std::size_t part = InPage(offset, count);
    const PAGE* page = FindPage(offset / PAGE_BYTES);
    if (page == nullptr) {
      std::memset(to, 0, part);
    } else {
      std::memcpy(to, page->data() + offset % PAGE_BYTES, part);
    }
    to += part;
    offset += part;
    count -= part;
  }
}

void CDiskImage::Write(std::uint64_t offset, const void* buffer, std::size_t count) {
  const unsigned char* from = static_cast<const unsigned char*>(buffer);
  m_nSize = std::max(m_nSize, offset + count);
  while (count != 0) {
    const std::size_t part = InPage(offset, count);
    std::shared_ptr<PAGE>& page = m_Pages[offset / PAGE_BYTES];
    if (page == nullptr) {
      page = std::make_shared<PAGE>(s_ZeroPage);
    } else if (page.use_count() > 1) {
      page = std::make_shared<PAGE>(*page);  // shared with a copy of this image
    }
    std::memcpy(page->data() + offset % PAGE_BYTES, from, part);
    from += part;
    offset += part;
    count -= part;
  }
}

void CDiskImage::Resize(std::uint64_t size) {
  if (size < m_nSize) {
    for (auto page = m_Pages.begin(); page != m_Pages.end();) {
      page = page->first * PAGE_BYTES >= size ? m_Pages.erase(page) : std::next(page);
    }
    // The cut page must read as zero if the image grows again.
    if (size % PAGE_BYTES != 0 && FindPage(size / PAGE_BYTES) != nullptr) {
      const std::size_t rest = PAGE_BYTES - ToSize(size % PAGE_BYTES);
      Write(size, s_ZeroPage.data(), rest);
    }
  }
  m_nSize = size;
}

std::vector<unsigned char> CDiskImage::ToVector() const {
  if (m_nSize > 1u << 30) Fail("image too large for one block of memory");
  return ReadBytes(0, ToSize(m_nSize));
}

void CDiskImage::ToFile(const std::string& path) const {
  const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (descriptor < 0 || ::ftruncate(descriptor, static_cast<off_t>(m_nSize)) != 0) Fail("cannot make " + path);
  for (const auto& [number, page] : m_Pages) {
    const std::uint64_t offset = number * PAGE_BYTES;
    if (offset >= m_nSize) continue;
    const std::size_t part = ToSize(std::min<std::uint64_t>(PAGE_BYTES, m_nSize - offset));
    if (::pwrite(descriptor, page->data(), part, static_cast<off_t>(offset)) != static_cast<ssize_t>(part)) {
      ::close(descriptor);
      Fail("cannot write " + path);
    }
  }
  ::close(descriptor);
}

std::vector<std::uint64_t> CDiskImage::Differences(const CDiskImage& a, const CDiskImage& b, std::size_t limit) {
  std::set<std::uint64_t> numbers;
  for (const CDiskImage* image : {&a, &b}) {
    for (const auto& page : image->m_Pages) {
      if (a.FindPage(page.first) != b.FindPage(page.first)) numbers.insert(page.first);
    }
  }
  std::vector<std::uint64_t> offsets;
  for (const std::uint64_t number : numbers) {
    const PAGE* left = a.FindPage(number);
    const PAGE* right = b.FindPage(number);
    for (std::size_t i = 0; i < PAGE_BYTES; ++i) {
      if ((left == nullptr ? 0 : (*left)[i]) == (right == nullptr ? 0 : (*right)[i])) continue;
      if (offsets.size() == limit) return offsets;
      offsets.push_back(number * PAGE_BYTES + i);
    }
  }
  return offsets;
}

// ---------------------------------------------------------------- in a file

CFileImage::CFileImage(const std::string& path) : m_nDescriptor(::open(path.c_str(), O_RDWR | O_CLOEXEC)) {
  if (m_nDescriptor < 0) Fail("cannot open " + path);
}

CFileImage::~CFileImage() { ::close(m_nDescriptor); }

std::uint64_t CFileImage::Size() const {
  struct stat status {};
  if (::fstat(m_nDescriptor, &status) != 0) Fail("cannot stat an image");
  return static_cast<std::uint64_t>(status.st_size);
}

void CFileImage::Read(std::uint64_t offset, void* buffer, std::size_t count) const {
  unsigned char* to = static_cast<unsigned char*>(buffer);
  while (count != 0) {
    const ssize_t got = ::pread(m_nDescriptor, to, count, static_cast<off_t>(offset));
    if (got < 0) Fail("cannot read an image");
    if (got == 0) {
      std::memset(to, 0, count);
      return;
    }
    to += got;
    offset += static_cast<std::uint64_t>(got);
    count -= static_cast<std::size_t>(got);
  }
}

void CFileImage::Write(std::uint64_t offset, const void* buffer, std::size_t count) {
  const unsigned char* from = static_cast<const unsigned char*>(buffer);
  while (count != 0) {
    const ssize_t put = ::pwrite(m_nDescriptor, from, count, static_cast<off_t>(offset));
    if (put <= 0) Fail("cannot write an image");
    from += put;
    offset += static_cast<std::uint64_t>(put);
    count -= static_cast<std::size_t>(put);
  }
}
