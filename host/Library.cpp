/// @file Library.cpp

#include "Library.h"

#include <fatlib/XStorage.h>

#include <array>
#include <new>
#include <string>

#include "Error.h"
#include "Layout.h"

namespace fatlib {

namespace {

constexpr unsigned int MOUNTS_UNTIL_RESTART = 256;

std::u16string TextOf(const unsigned short* units) {
  std::u16string text;
  for (; *units != 0; ++units) text += static_cast<char16_t>(*units);
  return text;
}

/// A FAT12 volume in memory on which names are given and taken back, so that the number in them moves on without a
/// trace on any other volume.
class ScratchVolume {
 public:
  bool Mount() {
    if (m_pVolume != nullptr) return true;
    Format();
    m_pStorage = new (std::nothrow) CFatMemory;
    if (m_pStorage != nullptr) m_pVolume = Fat_Mount(m_pStorage, m_Image.data());
    return m_pVolume != nullptr;  // a failed mount has released the storage object
  }

  void Unmount() {
    if (m_pVolume == nullptr) return;
    (void)Fat_Unmount(m_pVolume);  // it cannot fail in memory, and nothing of it is kept
    ::operator delete(m_pStorage);
    m_pVolume = nullptr;
  }

  /// Gives one name. @param shortName  out: the one that was invented for it
  bool GiveName(std::u16string* shortName) {
    unsigned short name[] = {'+', 0};
    SetCurrentFileSystem(m_pVolume);
    const int handle = Fat_CreateFile(name, 0, 0);
    if (handle < 0) return false;
    WIN_FIND_DATA data;
    const bool known = Fat_GetFileAttribute(handle, &data) != 0;
    if (known) *shortName = TextOf(data.cAlternateFileName);
    (void)Fat_CloseFile(handle);
    return Fat_DeleteFile(name) != 0 && known;
  }

 private:
  static constexpr std::uint32_t SECTOR = 512;
  static constexpr std::uint32_t SECTORS = 8;  // boot sector, two FATs, root, four clusters

  void Format() {
    m_Image.fill(0);
    BootSector& boot = *reinterpret_cast<BootSector*>(m_Image.data());
    boot.jump[0] = 0xEB;
    boot.bytesPerSector.Store(SECTOR);
    boot.sectorsPerCluster = 1;
    boot.reservedSectors.Store(1);
    boot.fats = 2;
    boot.rootEntries.Store(SECTOR / sizeof(ShortEntry));
    boot.totalSectors16.Store(SECTORS);
    boot.media = 0xF8;
    boot.sectorsPerFat16.Store(1);
    boot.signature.Store(0xAA55);
    for (const std::size_t fat : {SECTOR, 2 * SECTOR}) {
      m_Image[fat] = 0xF8;
      m_Image[fat + 1] = m_Image[fat + 2] = 0xFF;
    }
  }

  alignas(16) std::array<unsigned char, std::size_t{SECTORS} * SECTOR> m_Image{};
  CFatMemory* m_pStorage = nullptr;
  CFatFileSystem* m_pVolume = nullptr;
};

struct LibraryState {
  unsigned int users = 0;
  unsigned int mounted = 0;
  unsigned int mountsSinceStart = 0;
  ScratchVolume scratch;
};

/// Never destroyed: a volume may be, later than any static object of ours.
LibraryState& State() {
  static LibraryState* const state = new LibraryState;
  return *state;
}

void Start() {
  const std::string before = std::setlocale(LC_ALL, nullptr);
  Fat_LibInitialize();
  (void)std::setlocale(LC_ALL, before.c_str());  // it was the locale until now
  State().mountsSinceStart = 0;
}

void End() {
  State().scratch.Unmount();
  (void)Fat_LibTerminate();  // no handle is open
}

}  // namespace

CLocaleScope::CLocaleScope() {
  static const locale_t c = newlocale(LC_ALL_MASK, "C", nullptr);
  m_Before = uselocale(c);
}

CLocaleScope::~CLocaleScope() { (void)uselocale(m_Before); }

LibraryUse::LibraryUse() {
  if (State().users++ == 0) Start();
}

LibraryUse::~LibraryUse() {
  if (--State().users == 0) End();
}

void LibraryUse::BeforeMount() {
  LibraryState& state = State();
  if (state.mounted == 0 && state.mountsSinceStart >= MOUNTS_UNTIL_RESTART) {
    End();
    Start();
  }
  ++state.mountsSinceStart;
  ++state.mounted;
}

void LibraryUse::Unmounted() { --State().mounted; }

ShortNameNumber& LibraryUse::Number() {
  static ShortNameNumber number;  // as the library begins
  return number;
}

std::error_code LibraryUse::SkipNumber() {
  const CLocaleScope locale;
  std::u16string shortName;
  if (!State().scratch.Mount() || !State().scratch.GiveName(&shortName)) return Status::NoMemory;
  return Number().GoOnFrom(shortName) ? Status::Success : Status::NoMemory;
}

}  // namespace fatlib
