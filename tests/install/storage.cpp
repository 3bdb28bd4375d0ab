/// @file storage.cpp
/// A host with storage classes of its own, built against the installed library: one derived from CFatMemory, one from
/// CFatStorage. It needs of the library what such hosts need: virtual tables, type information, protected members, and
/// the static transfer functions.

#include <fatlib/FatLibIntf.h>
#include <fatlib/XStorage.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <new>
#include <typeinfo>
#include <vector>

namespace {

using BYTES = std::vector<unsigned char>;

// A memory image given as a vector; it counts how often it is opened and closed.
class CVectorMemory : public CFatMemory {
 public:
  int OpenDevice(void* parameter) override {
    ++s_nOpened;
    return CFatMemory::OpenDevice(static_cast<BYTES*>(parameter)->data());
  }
  int CloseDevice() override {
    ++s_nClosed;
    return CFatMemory::CloseDevice();
  }
  void HookIoFunctions() override {
    CFatMemory::HookIoFunctions();
    m_pfnReadSectors = CountedReadSectors;
  }
  static int s_nOpened, s_nClosed, s_nReads;

 private:
  static int CountedReadSectors(CVolumeStorage* storage, unsigned char* buffer, long long position,
                                unsigned int count) {
    ++s_nReads;
    return CFatMemory::_ReadSectors(storage, buffer, position, count);
  }
};
int CVectorMemory::s_nOpened = 0;
int CVectorMemory::s_nClosed = 0;
int CVectorMemory::s_nReads = 0;

// A medium of its own, with transfers made from nothing of the library: bytes in a vector, every access bounded.
class CVectorStorage : public CFatStorage {
 public:
  int OpenDevice(void* parameter) override {
    m_hDevice = reinterpret_cast<std::intptr_t>(parameter);
    return 0;
  }
  int CloseDevice() override { return 1; }
  void HookIoFunctions() override {
    m_pfnGetMpb = &CFatStorage::_GetMpb;
    m_pfnReadBytes = m_pfnReadBytesAligned = ReadAt;
    m_pfnWriteBytes = m_pfnWriteBytesAligned = WriteAt;
    m_pfnReadSectors = [](CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
      const unsigned int shift = Self(storage)->m_nSectorShift;
      return ReadAt(storage, buffer, position << shift, count << shift);
    };
    m_pfnWriteSectors = [](CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
      const unsigned int shift = Self(storage)->m_nSectorShift;
      return WriteAt(storage, buffer, position << shift, count << shift);
    };
  }

 private:
  static CVectorStorage* Self(CVolumeStorage* storage) { return static_cast<CVectorStorage*>(storage); }
  static BYTES& Bytes(CVolumeStorage* storage) { return *reinterpret_cast<BYTES*>(Self(storage)->m_hDevice); }
  static bool Fits(const BYTES& bytes, long long position, unsigned int count) {
    return position >= 0 && static_cast<unsigned long long>(position) <= bytes.size() &&
           count <= bytes.size() - static_cast<std::size_t>(position);
  }
  static int ReadAt(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
    const BYTES& bytes = Bytes(storage);
    if (!Fits(bytes, position, count)) return -1;
    if (count != 0) std::memcpy(buffer, bytes.data() + position, count);
    return 0;
  }
  static int WriteAt(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
    BYTES& bytes = Bytes(storage);
    if (!Fits(bytes, position, count)) return -1;
    if (count != 0) std::memcpy(bytes.data() + position, buffer, count);
    return 0;
  }
};

bool PrintFile(const char* asciiPath) {
  std::vector<unsigned short> path(asciiPath, asciiPath + std::strlen(asciiPath) + 1);
  const int file = Fat_OpenFile(path.data());
  unsigned int size = 0;
  if (file == -1 || Fat_GetFileSize(file, &size) == 0) return false;
  BYTES bytes(size);
  unsigned int reported = 0;
  const bool ok = Fat_ReadFile(file, size, bytes.data(), &reported) != 0;
  std::printf("%s: %u bytes: %.*s", asciiPath, size, static_cast<int>(size), reinterpret_cast<char*>(bytes.data()));
  return Fat_CloseFile(file) != 0 && ok;
}

// Reads the file on the volume held in `image` by a storage object of class STORAGE.
template <class STORAGE>
bool ReadThrough(const char* title, BYTES image) {
  std::printf("%s\n", title);
  CVolumeStorage* storage = new STORAGE;
  // The type information of the library's classes and of ours must be one and the same on both sides.
  if (typeid(*storage) != typeid(STORAGE)) return false;
  if (dynamic_cast<CFatStorage*>(storage) == nullptr || dynamic_cast<CFatPartition*>(storage) != nullptr) return false;
  CFatFileSystem* volume = Fat_Mount(storage, &image);
  if (volume == nullptr) return false;  // the library has released the storage object
  const bool ok = PrintFile("DIR\\HELLO.TXT");
  const bool unmounted = Fat_Unmount(volume) != 0;
  ::operator delete(storage);
  return ok && unmounted;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  std::ifstream file(argv[1], std::ios::binary);
  const BYTES image{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};

  Fat_LibInitialize();
  bool ok = ReadThrough<CVectorMemory>("derived from CFatMemory", image);
  std::printf("opened %d, closed %d, read through the hook: %s\n", CVectorMemory::s_nOpened, CVectorMemory::s_nClosed,
              CVectorMemory::s_nReads > 0 ? "yes" : "no");
  ok = ReadThrough<CVectorStorage>("derived from CFatStorage", image) && ok;

  // The ready-made back-end, on the file itself.
  CFatPartition* device = new CFatPartition;
  std::printf("CFatPartition\n");
  if (CFatFileSystem* volume = Fat_Mount(device, argv[1])) {
    ok = PrintFile("DIR\\HELLO.TXT") && ok;
    ok = Fat_Unmount(volume) != 0 && ok;
    ::operator delete(device);
  } else {
    ok = false;
  }
  ok = Fat_LibTerminate() != 0 && ok;
  std::printf("%s\n", ok ? "ok" : "FAILED");
  return ok ? 0 : 1;
}
