/// @file LibFixture.cpp
/// Mounts images for tests and looks after what the interface leaves to the host.

#include "support/LibFixture.h"

#include <algorithm>
#include <utility>

namespace {

constexpr unsigned int BLOCK_BYTES = 0x40000;

std::vector<unsigned char> ReadBySize(int handle, unsigned int size, unsigned int step) {
  std::vector<unsigned char> bytes(size);
  for (unsigned int offset = 0; offset < size;) {
    const unsigned int part = std::min(step, size - offset);
    unsigned int reported = 0;
    if (Fat_ReadFileEx(handle, offset, part, bytes.data() + offset, &reported) != 1) {
      ADD_FAILURE() << "read of " << part << " bytes at " << offset << " failed";
      return {};
    }
    // Within one block that a transfer starts, the count is exact.
    if (offset % BLOCK_BYTES == 0 && part <= BLOCK_BYTES) {
      EXPECT_EQ(reported, part) << "at " << offset;
    }
    offset += part;
  }
  return bytes;
}

}  // namespace

std::string BackendName(BACKEND backend) {
  switch (backend) {
    case BACKEND::Memory:
      return "Memory";
    case BACKEND::File:
      return "File";
    case BACKEND::Medium:
      return "Medium";
  }
  return "Unknown";
}

void CLibFixture::SetUp() {
  m_pMemory = std::make_unique<CMemHooks>();
  Fat_LibInitialize();
}

void CLibFixture::TearDown() {
  m_pMemory->Heal();
  if (m_bTerminated) {
    for (MOUNTED& mounted : m_Mounted) Release(mounted);
    m_Mounted.clear();
  }
  while (!m_Mounted.empty()) Unmount(m_Mounted.back().FileSystem);
  SetCurrentFileSystem(nullptr);
  if (!m_bTerminated) {
    EXPECT_EQ(Fat_LibTerminate(), 1u) << "a handle was left open";
  }
  EXPECT_EQ(m_pMemory->Outstanding(), 0u) << m_pMemory->OutstandingBytes() << " bytes not freed";
  EXPECT_EQ(m_pMemory->UnknownFrees(), 0u) << "freed twice, or never allocated";
  m_pMemory.reset();
  m_pTempDir.reset();
}

const CTempDir& CLibFixture::TempDir() {
  if (m_pTempDir == nullptr) m_pTempDir = std::make_unique<CTempDir>();
  return *m_pTempDir;
}

CFatFileSystem* CLibFixture::Register(MOUNTED mounted, void* parameter) {
  mounted.FileSystem = Fat_Mount(mounted.Storage, parameter);
  if (mounted.FileSystem == nullptr) return nullptr;  // the storage object went with it
  m_Mounted.push_back(std::move(mounted));
  return m_Mounted.back().FileSystem;
}

CFatFileSystem* CLibFixture::Mount(BACKEND backend, CDiskImage* image) { return MountCopy(backend, *image, image); }

CFatFileSystem* CLibFixture::Mount(BACKEND backend, const CDiskImage& image) {
  return MountCopy(backend, image, nullptr);
}

CFatFileSystem* CLibFixture::MountCopy(BACKEND backend, const CDiskImage& image, CDiskImage* target) {
  MOUNTED mounted;
  mounted.Target = target;
  if (backend == BACKEND::Memory) {
    mounted.Bytes = std::make_shared<std::vector<unsigned char>>(image.ToVector());
    mounted.Storage = new CFatMemory;
    void* address = mounted.Bytes->data();
    return Register(std::move(mounted), address);
  }
  if (backend == BACKEND::File) {
    mounted.Path = TempDir() / ("image" + std::to_string(m_nFiles++));
    image.ToFile(mounted.Path);
    mounted.Storage = new CFatPartition;
    std::string path = mounted.Path;
    return Register(std::move(mounted), path.data());
  }
  mounted.Medium = std::make_shared<CMedium>(image);
  mounted.Storage = new CFaultStorage(*mounted.Medium);
  return Register(std::move(mounted), nullptr);
}

CFatFileSystem* CLibFixture::MountMemory(std::vector<unsigned char>& image) {
  MOUNTED mounted;
  mounted.Storage = new CFatMemory;
  return Register(std::move(mounted), image.data());
}

CFatFileSystem* CLibFixture::MountFile(const std::string& path) {
  MOUNTED mounted;
  mounted.Storage = new CFatPartition;
  std::string writable = path;
  return Register(std::move(mounted), writable.data());
}

CFatFileSystem* CLibFixture::MountMedium(CMedium& medium) {
  MOUNTED mounted;
  mounted.Storage = new CFaultStorage(medium);
  return Register(std::move(mounted), nullptr);
}

bool CLibFixture::Unmount(CFatFileSystem* fileSystem) {
  const auto found = std::find_if(m_Mounted.begin(), m_Mounted.end(),
                                  [fileSystem](const MOUNTED& mounted) { return mounted.FileSystem == fileSystem; });
  if (found == m_Mounted.end()) return Fat_Unmount(fileSystem) == 1;
  const bool unmounted = Fat_Unmount(fileSystem) == 1;
  MOUNTED mounted = std::move(*found);
  m_Mounted.erase(found);
  // After a failed unmount the storage is still open, and nothing else will close it.
  if (!unmounted) static_cast<void>(mounted.Storage->Close());
  if (mounted.Target != nullptr) {
    if (mounted.Bytes != nullptr) {
      *mounted.Target = CDiskImage(*mounted.Bytes);
    } else if (mounted.Medium != nullptr) {
      *mounted.Target = mounted.Medium->Image();
    } else {
      *mounted.Target = CDiskImage::FromFile(mounted.Path);
    }
  }
  ::operator delete(static_cast<void*>(mounted.Storage));
  return unmounted;
}

void CLibFixture::Release(MOUNTED& mounted) {
  static_cast<void>(mounted.Storage->Close());
  ::operator delete(static_cast<void*>(mounted.Storage));
}

// ---------------------------------------------------------------- shorthands

std::vector<unsigned char> CLibFixture::ReadAll(int handle, unsigned int step) {
  unsigned int size = 0;
  EXPECT_EQ(Fat_GetFileSize(handle, &size), 1u);
  return ReadBySize(handle, size, step);
}

std::vector<unsigned char> CLibFixture::ReadAt(int handle, long long offset, unsigned int count) {
  unsigned int size = 0;
  EXPECT_EQ(Fat_GetFileSize(handle, &size), 1u);
  if (offset < 0 || offset >= static_cast<long long>(size)) return {};
  const unsigned int part = std::min(count, size - static_cast<unsigned int>(offset));
  std::vector<unsigned char> bytes(part);
  unsigned int reported = 0;
  EXPECT_EQ(Fat_ReadFileEx(handle, offset, count, bytes.data(), &reported), 1u) << "at " << offset;
  return bytes;
}

std::vector<unsigned char> CLibFixture::ReadPath(const std::string& path, unsigned int step) {
  const int handle = Fat_OpenFile(CPath(path));
  if (handle < 0) {
    ADD_FAILURE() << "cannot open " << path;
    return {};
  }
  std::vector<unsigned char> bytes = ReadAll(handle, step);
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
  return bytes;
}

bool CLibFixture::WritePath(const std::string& path, const std::vector<unsigned char>& content,
                            unsigned int attributes) {
  const int handle = Fat_CreateFile(CPath(path), static_cast<unsigned int>(content.size()), attributes);
  if (handle < 0) return false;
  std::vector<unsigned char> copy = content;
  unsigned int reported = 0;
  const bool written = content.empty() ||
                       Fat_WriteFileEx(handle, 0, static_cast<unsigned int>(copy.size()), copy.data(), &reported) == 1;
  return (Fat_CloseFile(handle) == 1) && written;
}

LISTED CLibFixture::ToListed(const WIN_FIND_DATA& data) {
  LISTED listed;
  listed.LongName = ToUtf8Z(data.cFileName, 260);
  listed.ShortName = ToUtf8Z(data.cAlternateFileName, 14);
  listed.Attributes = data.dwFileAttributes;
  listed.Size = data.nFileSizeLow;
  return listed;
}

std::vector<LISTED> CLibFixture::List(const std::string& path, bool withDots) {
  std::vector<LISTED> entries;
  WIN_FIND_DATA data{};
  const int handle = Fat_FindFirstFile(CPath(path), &data);
  if (handle < 0) return entries;
  do {
    LISTED listed = ToListed(data);
    const bool dots = listed.LongName.empty() && (listed.ShortName == "." || listed.ShortName == "..");
    if (withDots || !dots) entries.push_back(std::move(listed));
  } while (Fat_FindNextFile(handle, &data) == 1);
  EXPECT_EQ(Fat_CloseFindHandle(handle), 1u);
  return entries;
}

bool CLibFixture::Exists(const std::string& path) {
  const int handle = Fat_OpenFile(CPath(path));
  if (handle < 0) return false;
  EXPECT_EQ(Fat_CloseFile(handle), 1u);
  return true;
}
