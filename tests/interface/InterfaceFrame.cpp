/// @file InterfaceFrame.cpp

#include "InterfaceFrame.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#if defined(__SANITIZE_ADDRESS__)
// The sanitizer brings this function, but no header for it is installed.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*mallocHook)(const volatile void*, std::size_t),
                                                         void (*freeHook)(const volatile void*));
#else
// What the C++ library does, and a look at what is freed.
void operator delete(void* memory) noexcept {
  interfacetest::CFreeWatch::Note(memory);
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  interfacetest::CFreeWatch::Note(memory);
  std::free(memory);
}
#endif

namespace interfacetest {

// ---------------------------------------------------------------------------------------------- watching memory

const void* CFreeWatch::s_pWatched = nullptr;
bool CFreeWatch::s_bFreed = false;

void CFreeWatch::Note(const volatile void* memory) {
  if (memory == nullptr || memory != s_pWatched) return;
  s_bFreed = true;
  s_pWatched = nullptr;  // the address may be given out again
}

#if defined(__SANITIZE_ADDRESS__)

CFreeWatch::CFreeWatch(const void* object) {
  static const int s_nInstalled =
      __sanitizer_install_malloc_and_free_hooks([](const volatile void*, std::size_t) {}, &CFreeWatch::Note);
  EXPECT_NE(s_nInstalled, 0);
  s_bFreed = false;
  s_pWatched = object;
}

#else

CFreeWatch::CFreeWatch(const void* object) {
  s_bFreed = false;
  s_pWatched = object;
}

#endif

// ---------------------------------------------------------------------------------------------- the volume

FAT_GEOMETRY Geometry(unsigned int bits) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = bits;
  return geometry;
}

CDiskImage MakeVolume(unsigned int bits) {
  CImageBuilder builder(Geometry(bits));
  constexpr CImageBuilder::DIRECTORY ROOT = CImageBuilder::Root();
  builder.AddFile(ROOT, "README.TXT", ContentOf("README.TXT"));
  ENTRY_OPTIONS options;
  options.ShortName = "LONGNA~1BIN";
  builder.AddFile(ROOT, "Long name.bin", ContentOf("Long name.bin"), {30, 20, 25}, options);
  builder.AddFile(ROOT, "TEN", ContentOf("TEN"));
  const CImageBuilder::DIRECTORY dir = builder.AddDir(ROOT, "DIR");
  builder.AddFile(dir, "IN.TXT", ContentOf("DIR\\IN.TXT"));
  const CImageBuilder::DIRECTORY sub = builder.AddDir(dir, "Sub directory");
  builder.AddFile(sub, "deep.txt", ContentOf(DEEP));
  return builder.Image();
}

BYTES ContentOf(const std::string& path) {
  for (const FILE_ON_VOLUME& file : FILES_ON_VOLUME) {
    if (file.Path == path) return file.Content();
  }
  ADD_FAILURE() << path << " is not on the volume";
  return {};
}

std::string Harmed(const CByteStore& image, const std::vector<std::string>& but) {
  const CVolumeReader reader(image);
  std::string harmed;
  for (const FILE_ON_VOLUME& file : FILES_ON_VOLUME) {
    if (std::find(but.begin(), but.end(), file.Path) != but.end()) continue;
    const VOLUME_NODE* node = reader.Find(file.Path);
    if (node == nullptr) {
      harmed += std::string(file.Path) + " is gone; ";
    } else if (reader.Content(*node) != file.Content()) {
      harmed += std::string(file.Path) + " has other bytes; ";
    }
  }
  return harmed;
}

std::vector<std::uint64_t> Changed(const CMedium& medium, unsigned int bits) {
  return CDiskImage::Differences(medium.Image(), MakeVolume(bits));
}

std::string PartOf(const IO_RECORD& transfer, const CDiskImage& volume) {
  CDiskImage image = volume;
  const CImageBuilder builder(image);
  const auto in = [&](std::uint64_t offset, std::uint64_t count) {
    return transfer.Touches(static_cast<long long>(offset), count);
  };
  const std::string way = transfer.Read() ? "read " : "write ";
  if (builder.Geometry().FatBits == 32 && in(builder.FsInfoOffset(), 512)) return way + "FSInfo";
  if (in(builder.FatOffset(0), builder.FatBytes())) return way + "FAT1";
  if (in(builder.FatOffset(1), builder.FatBytes())) return way + "FAT2";
  for (const std::uint32_t cluster : builder.Chain(builder.Geometry().FatBits == 32 ? 2 : 0)) {
    if (in(builder.ClusterOffset(cluster), builder.ClusterBytes())) return way + "root";
  }
  if (builder.Geometry().FatBits != 32 && in(builder.RootOffset(), builder.DataOffset() - builder.RootOffset())) {
    return way + "root";
  }
  const CVolumeReader reader(image);
  for (const auto& [path, node] : reader.Tree()) {
    for (const std::uint32_t cluster : node.Clusters) {
      if (in(builder.ClusterOffset(cluster), builder.ClusterBytes())) return way + path;
    }
  }
  return way + "nothing known";
}

// ---------------------------------------------------------------------------------------------- calls

namespace {

/// The outputs of a call that is to fail, and the names of the calls that did not, or wrote one.
struct REFUSALS {
  unsigned int Number = SENTINEL;
  unsigned char Buffer[16];
  WIN_FIND_DATA Data;
  std::string Names;

  REFUSALS() {
    std::memset(Buffer, 0xA5, sizeof Buffer);
    std::memset(&Data, 0xA5, sizeof Data);
  }
  bool Untouched() const {
    const REFUSALS fresh;
    return Number == SENTINEL && std::memcmp(Buffer, fresh.Buffer, sizeof Buffer) == 0 &&
           std::memcmp(&Data, &fresh.Data, sizeof Data) == 0;
  }
  void Expect(const char* name, bool refused) {
    if (!refused || !Untouched()) Names += std::string(name) + " ";
  }
  void Handle(const char* name, int result) { Expect(name, result == NO_HANDLE); }
  void Boolean(const char* name, unsigned int result) { Expect(name, result == 0); }
};

}  // namespace

std::string HandleCallsNotRefused(int file, int search, CLOSING closing) {
  REFUSALS r;
  r.Boolean("GetFileSize", Fat_GetFileSize(file, &r.Number));
  r.Boolean("SetFileSize", Fat_SetFileSize(file, 5));
  r.Boolean("ReadFileEx", Fat_ReadFileEx(file, 0, 4, r.Buffer, &r.Number));
  r.Boolean("WriteFileEx", Fat_WriteFileEx(file, 0, 4, r.Buffer, &r.Number));
  r.Boolean("GetFileOffset", Fat_GetFileOffset(file, &r.Number));
  r.Boolean("SetFileOffset", Fat_SetFileOffset(file, 1, 0));
  r.Boolean("ReadFile", Fat_ReadFile(file, 4, r.Buffer, &r.Number));
  r.Boolean("WriteFile", Fat_WriteFile(file, 4, r.Buffer, &r.Number));
  r.Boolean("IsDir", Fat_IsDir(file));
  r.Boolean("GetFileAttribute", Fat_GetFileAttribute(file, &r.Data));
  r.Boolean("SetFileAttribute", Fat_SetFileAttribute(file, &r.Data));
  r.Boolean("FindNextFile", Fat_FindNextFile(search, &r.Data));
  if (closing == WITH_CLOSING) {
    r.Boolean("CloseFile", Fat_CloseFile(file));
    r.Boolean("CloseFindHandle", Fat_CloseFindHandle(search));
  }
  return r.Names;
}

std::string PathCallsNotRefused() {
  REFUSALS r;
  r.Handle("OpenFile", Fat_OpenFile(CPath("README.TXT")));
  r.Handle("CreateFile", Fat_CreateFile(CPath("NEW.TXT"), 10, 0));
  r.Boolean("DeleteFile", Fat_DeleteFile(CPath("README.TXT")));
  r.Boolean("RenameFile", Fat_RenameFile(CPath("README.TXT"), CPath("OTHER.TXT")));
  r.Boolean("MoveFile", Fat_MoveFile(CPath("README.TXT"), CPath("DIR")));
  r.Boolean("MoveFile", Fat_MoveFile(CPath("README.TXT"), nullptr));  // nothing to do, were there a file system
  r.Boolean("CreateDir", Fat_CreateDir(CPath("NEWDIR"), 0));
  r.Handle("FindFirstFile", Fat_FindFirstFile(CPath("DIR"), &r.Data));
  return r.Names;
}

int FindFirst(const std::string& path) {
  WIN_FIND_DATA data{};
  return Fat_FindFirstFile(CPath(path), &data);
}

long long WriteAt(int handle, long long offset, BYTES bytes) {
  unsigned int done = SENTINEL;
  const unsigned int count = static_cast<unsigned int>(bytes.size());
  return Fat_WriteFileEx(handle, offset, count, bytes.data(), &done) == 1 ? static_cast<long long>(done) : -1;
}

unsigned int OffsetOf(int handle) {
  unsigned int offset = SENTINEL;
  EXPECT_EQ(Fat_GetFileOffset(handle, &offset), 1u);
  return offset;
}

unsigned int SizeOf(int handle) {
  unsigned int size = SENTINEL;
  EXPECT_EQ(Fat_GetFileSize(handle, &size), 1u);
  return size;
}

}  // namespace interfacetest
