/// @file XStorageTest.cpp
/// The storage objects: the checks of the boot sector, the life of a storage object, and the transfers. Whatever both
/// back-ends promise is tested by one body that runs on each, for every sector size.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "storage/FatMpb.h"
#include "storage/XStorage.h"
#include "support/DiskImage.h"
#include "support/ImageBuilder.h"
#include "support/MemHooks.h"
#include "support/Process.h"

namespace {

using BYTES = std::vector<unsigned char>;

constexpr int Status(std::uint32_t bits) { return static_cast<int>(bits); }
constexpr int NO_MEMORY = Status(0xC0000017u);
constexpr int INVALID_PARAMETER = Status(0xC000000Du);
constexpr int OPEN_FAILED = Status(0xC0000136u);
constexpr int UNRECOGNIZED = Status(0xC000014Fu);
constexpr int IO_ERROR = Status(0xC0000185u);

// ---------------------------------------------------------------- boot sectors

constexpr std::size_t DBR_BYTES = 2048;

/// The bytes [begin, end).
BYTES Slice(const BYTES& bytes, std::size_t begin, std::size_t end) {
  return BYTES(bytes.data() + begin, bytes.data() + end);
}

void Paste(BYTES& to, std::size_t at, const BYTES& bytes) { std::copy(bytes.begin(), bytes.end(), to.data() + at); }

void Put8(BYTES& bytes, std::size_t offset, unsigned int value) {
  bytes.at(offset) = static_cast<unsigned char>(value);
}

void Put16(BYTES& bytes, std::size_t offset, unsigned int value) {
  Put8(bytes, offset, value);
  Put8(bytes, offset + 1, value >> 8);
}

void Put32(BYTES& bytes, std::size_t offset, std::uint32_t value) {
  Put16(bytes, offset, value & 0xFFFFu);
  Put16(bytes, offset + 2, value >> 16);
}

std::uint32_t Get32(const BYTES& bytes, std::size_t offset) {
  std::uint32_t value = 0;
  for (std::size_t i = 4; i-- > 0;) value = value << 8 | bytes.at(offset + i);
  return value;
}

/// A FAT16 boot sector that passes every check, and the 1536 bytes behind it.
BYTES Fat16Boot() {
  BYTES boot(DBR_BYTES);
  Put8(boot, 0, 0xEB);
  Put16(boot, 11, 512);    // bytes per sector
  Put8(boot, 13, 4);       // sectors per cluster
  Put16(boot, 14, 1);      // reserved sectors
  Put8(boot, 16, 2);       // FATs
  Put16(boot, 17, 512);    // root entries
  Put16(boot, 19, 40000);  // sectors
  Put8(boot, 21, 0xF8);    // media
  Put16(boot, 22, 40);     // sectors per FAT
  Put16(boot, 510, 0xAA55);
  return boot;
}

/// The same for FAT32.
BYTES Fat32Boot() {
  BYTES boot = Fat16Boot();
  Put16(boot, 14, 32);
  Put16(boot, 17, 0);
  Put16(boot, 19, 0);
  Put16(boot, 22, 0);
  Put32(boot, 32, 600000);  // sectors
  Put32(boot, 36, 1200);    // sectors per FAT
  Put32(boot, 44, 2);       // root cluster
  Put16(boot, 48, 1);       // FSInfo sector
  return boot;
}

bool Accepts(BYTES boot) {
  CFatMemory storage;
  return storage.IsDbrOk(boot.data());
}

/// What Open says of a medium that starts with these bytes.
int StatusOfOpen(BYTES medium) {
  CFatMemory storage;
  const int status = storage.Open(medium.data());
  if (status >= 0) storage.Close();
  return status;
}

/// True when the check accepts the boot sector and Open does, false when both refuse it.
bool Opens(const BYTES& boot) {
  const bool accepted = Accepts(boot);
  EXPECT_EQ(StatusOfOpen(boot), accepted ? 0 : UNRECOGNIZED);
  return accepted;
}

bool Opens(BYTES boot, const std::function<void(BYTES&)>& change) {
  change(boot);
  return Opens(boot);
}

/// The byte values at an offset with which the boot sector is accepted.
std::set<unsigned int> AcceptedBytes(BYTES boot, std::size_t offset) {
  std::set<unsigned int> accepted;
  for (unsigned int value = 0; value < 256; ++value) {
    Put8(boot, offset, value);
    if (Accepts(boot)) accepted.insert(value);
  }
  return accepted;
}

TEST(BootSector, ValidFat16AndFat32_AreAccepted) {
  EXPECT_TRUE(Opens(Fat16Boot()));
  EXPECT_TRUE(Opens(Fat32Boot()));
}

TEST(BootSector, WrongSignature_IsRefused) {
  for (const unsigned int signature : {0x0000u, 0xAA54u, 0xAB55u, 0x55AAu, 0xFFFFu}) {
    EXPECT_FALSE(Opens(Fat16Boot(), [=](BYTES& b) { Put16(b, 510, signature); })) << signature;
  }
}

TEST(BootSector, JumpByte_IsOneOfThreeIncluding49) {
  EXPECT_TRUE(Opens(Fat16Boot(), [](BYTES& b) { Put8(b, 0, 0x49); }));
  EXPECT_FALSE(Opens(Fat16Boot(), [](BYTES& b) { Put8(b, 0, 0x00); }));
  EXPECT_EQ(AcceptedBytes(Fat16Boot(), 0), (std::set<unsigned int>{0x49, 0xE9, 0xEB}));
  EXPECT_EQ(AcceptedBytes(Fat32Boot(), 0), (std::set<unsigned int>{0x49, 0xE9, 0xEB}));
}

TEST(BootSector, BytesPerSector_IsAPowerOfTwoFrom128To4096) {
  BYTES boot = Fat16Boot();
  std::set<unsigned int> accepted;
  for (unsigned int bytes = 0; bytes < 0x10000; ++bytes) {
    Put16(boot, 11, bytes);
    if (Accepts(boot)) accepted.insert(bytes);
  }
  EXPECT_EQ(accepted, (std::set<unsigned int>{128, 256, 512, 1024, 2048, 4096}));
}

TEST(BootSector, Sector4096AndCluster128_AreAccepted8192And96And0AreRefused) {
  EXPECT_TRUE(Opens(Fat16Boot(), [](BYTES& b) { Put16(b, 11, 4096), Put8(b, 13, 128); }));
  EXPECT_FALSE(Opens(Fat16Boot(), [](BYTES& b) { Put16(b, 11, 8192); }));
  EXPECT_FALSE(Opens(Fat16Boot(), [](BYTES& b) { Put16(b, 11, 96); }));
  EXPECT_FALSE(Opens(Fat16Boot(), [](BYTES& b) { Put8(b, 13, 0); }));  // what 256 sectors per cluster would be
}

TEST(BootSector, SectorsPerCluster_IsAPowerOfTwoUpTo128) {
  EXPECT_EQ(AcceptedBytes(Fat16Boot(), 13), (std::set<unsigned int>{1, 2, 4, 8, 16, 32, 64, 128}));
}

TEST(BootSector, NoReservedSector_IsRefused) {
  EXPECT_FALSE(Opens(Fat16Boot(), [](BYTES& b) { Put16(b, 14, 0); }));
  EXPECT_TRUE(Opens(Fat16Boot(), [](BYTES& b) { Put16(b, 14, 0x100); }));
  EXPECT_TRUE(Opens(Fat16Boot(), [](BYTES& b) { Put16(b, 14, 0xFFFF); }));
}

TEST(BootSector, NoFat_IsRefusedAnyOtherNumberIsAccepted) {
  EXPECT_FALSE(Opens(Fat16Boot(), [](BYTES& b) { Put8(b, 16, 0); }));
  EXPECT_EQ(AcceptedBytes(Fat16Boot(), 16).size(), 255u);
}

TEST(BootSector, BothTotalsZero_IsRefusedEitherAloneIsEnough) {
  EXPECT_FALSE(Opens(Fat16Boot(), [](BYTES& b) { Put16(b, 19, 0); }));
  EXPECT_FALSE(Opens(Fat32Boot(), [](BYTES& b) { Put32(b, 32, 0); }));
  for (unsigned int bit = 0; bit < 16; ++bit) {
    EXPECT_TRUE(Opens(Fat16Boot(), [=](BYTES& b) { Put16(b, 19, 1u << bit); })) << bit;
  }
  for (unsigned int bit = 0; bit < 32; ++bit) {
    EXPECT_TRUE(Opens(Fat16Boot(), [=](BYTES& b) { Put16(b, 19, 0), Put32(b, 32, 1u << bit); })) << bit;
  }
}

TEST(BootSector, Fat32WithoutFatSize_IsRefused) {
  EXPECT_FALSE(Opens(Fat32Boot(), [](BYTES& b) { Put32(b, 36, 0); }));
  EXPECT_TRUE(Opens(Fat32Boot(), [](BYTES& b) { Put32(b, 36, 0x01000000); }));
  EXPECT_TRUE(Opens(Fat16Boot(), [](BYTES& b) { Put32(b, 36, 0); }));  // no field of a FAT16 boot sector
}

TEST(BootSector, Fat32Version_MustBeZero) {
  for (unsigned int bit = 0; bit < 16; ++bit) {
    EXPECT_FALSE(Opens(Fat32Boot(), [=](BYTES& b) { Put16(b, 42, 1u << bit); })) << bit;
  }
  EXPECT_TRUE(Opens(Fat16Boot(), [](BYTES& b) { Put16(b, 42, 0xFFFF); }));
}

TEST(BootSector, MediaByte_IsOneOfEightAndFAIsNot) {
  EXPECT_FALSE(Opens(Fat16Boot(), [](BYTES& b) { Put8(b, 21, 0xFA); }));
  EXPECT_EQ(AcceptedBytes(Fat16Boot(), 21), (std::set<unsigned int>{0xF0, 0xF8, 0xF9, 0xFB, 0xFC, 0xFD, 0xFE, 0xFF}));
  EXPECT_EQ(AcceptedBytes(Fat32Boot(), 21), (std::set<unsigned int>{0xF0, 0xF8, 0xF9, 0xFB, 0xFC, 0xFD, 0xFE, 0xFF}));
}

TEST(BootSector, FujitsuFlagSet_AdmitsThreeMoreMediaBytes) {
  std::set<unsigned int> accepted;
  for (unsigned int media = 0; media < 256; ++media) {
    BYTES boot = Fat16Boot();
    Put8(boot, 21, media);
    BOOT_SECTOR sector;
    std::memcpy(&sector, boot.data(), sizeof sector);
    if (IsFatBootSector(sector, true)) accepted.insert(media);
  }
  EXPECT_EQ(accepted, (std::set<unsigned int>{0x00, 0x01, 0xF0, 0xF8, 0xF9, 0xFA, 0xFB, 0xFC, 0xFD, 0xFE, 0xFF}));
}

TEST(BootSector, FixedRootWithoutEntries_IsRefusedOnFat16Only) {
  EXPECT_FALSE(Opens(Fat16Boot(), [](BYTES& b) { Put16(b, 17, 0); }));
  EXPECT_TRUE(Opens(Fat16Boot(), [](BYTES& b) { Put16(b, 17, 0x100); }));
  EXPECT_TRUE(Opens(Fat32Boot(), [](BYTES& b) { Put16(b, 17, 512); }));
}

TEST(BootSector, Fat32WithMirroringOff_IsRefused) {
  EXPECT_FALSE(Opens(Fat32Boot(), [](BYTES& b) { Put16(b, 40, 0x0080); }));
  EXPECT_FALSE(Opens(Fat32Boot(), [](BYTES& b) { Put16(b, 40, 0xFFFF); }));
  EXPECT_TRUE(Opens(Fat32Boot(), [](BYTES& b) { Put16(b, 40, 0xFF7F); }));
  EXPECT_TRUE(Opens(Fat16Boot(), [](BYTES& b) { Put16(b, 40, 0x0080); }));
}

TEST(BootSector, BothTotalsGiven_The32BitOneIsClearedInTheBufferOnly) {
  BYTES boot = Fat16Boot();
  Put32(boot, 32, 0x12345678);
  const BYTES medium = boot;
  BYTES image = boot;
  CFatMemory storage;
  EXPECT_TRUE(storage.IsDbrOk(boot.data()));
  BYTES expected = medium;
  Put32(expected, 32, 0);
  EXPECT_EQ(boot, expected);
  ASSERT_EQ(storage.Open(image.data()), 0);
  storage.Close();
  EXPECT_EQ(image, medium);
}

TEST(BootSector, Only32BitTotal_StaysInTheBuffer) {
  BYTES boot = Fat32Boot();
  const BYTES before = boot;
  CFatMemory storage;
  EXPECT_TRUE(storage.IsDbrOk(boot.data()));
  EXPECT_EQ(boot, before);
}

TEST(BootSector, TotalIsClearedBehindTheSignatureCheckAndBeforeTheOthers) {
  BYTES wrongSignature = Fat16Boot();
  Put32(wrongSignature, 32, 77);
  Put16(wrongSignature, 510, 0);
  BYTES wrongJump = Fat16Boot();
  Put32(wrongJump, 32, 77);
  Put8(wrongJump, 0, 0);
  CFatMemory storage;
  EXPECT_FALSE(storage.IsDbrOk(wrongSignature.data()));
  EXPECT_EQ(Get32(wrongSignature, 32), 77u);
  EXPECT_FALSE(storage.IsDbrOk(wrongJump.data()));
  EXPECT_EQ(Get32(wrongJump, 32), 0u);
}

TEST(BootSector, EveryOtherByteInverted_IsStillAccepted) {
  for (const bool fat32 : {false, true}) {
    const BYTES boot = fat32 ? Fat32Boot() : Fat16Boot();
    for (std::size_t offset = 1; offset < DBR_BYTES; ++offset) {
      if (offset >= 11 && offset < 24) continue;
      if (offset >= 36 && offset < 44 && fat32) continue;
      if (offset == 510 || offset == 511) continue;
      BYTES changed = boot;
      changed[offset] ^= 0xFFu;
      EXPECT_TRUE(Accepts(changed)) << (fat32 ? "FAT32, offset " : "FAT16, offset ") << offset;
    }
  }
}

TEST(BootSector, GetBytesPerSector_IsTheWordAtOffset11) {
  BYTES boot(DBR_BYTES);
  Put16(boot, 11, 0xA1B2);
  CFatMemory storage;
  EXPECT_EQ(storage.GetBytesPerSector(boot.data()), 0xA1B2u);
}

// ---------------------------------------------------------------- the volume parameter block

/// A boot sector whose fields all differ, whether they mean anything or not.
BYTES NumberedBoot(unsigned int sectorsPerFat16) {
  BYTES boot(DBR_BYTES);
  for (std::size_t i = 0; i < boot.size(); ++i) Put8(boot, i, static_cast<unsigned int>(i) | 0x80u);
  Put16(boot, 22, sectorsPerFat16);
  return boot;
}

FAT_MPB MpbOf(BYTES boot) {
  FAT_MPB mpb;
  std::memset(&mpb, 0xEE, sizeof mpb);
  CFatStorage::_GetMpb(boot.data(), &mpb);
  return mpb;
}

void ExpectCommonFields(const FAT_MPB& mpb) {
  EXPECT_EQ(mpb.BytesPerSector, 0x8C8Bu);
  EXPECT_EQ(mpb.SectorsPerCluster, 0x8Du);
  EXPECT_EQ(mpb.ReservedSectors, 0x8F8Eu);
  EXPECT_EQ(mpb.NumberOfFats, 0x90u);
  EXPECT_EQ(mpb.RootEntries, 0x9291u);
  EXPECT_EQ(mpb.TotalSectors16, 0x9493u);
  EXPECT_EQ(mpb.TotalSectors32, 0xA3A2A1A0u);
}

TEST(VolumeParameterBlock, Fat16BootSector_LeavesTheFat32FieldsZero) {
  const FAT_MPB mpb = MpbOf(NumberedBoot(0x1234));
  ExpectCommonFields(mpb);
  EXPECT_EQ(mpb.SectorsPerFat16, 0x1234u);
  EXPECT_EQ(mpb.SectorsPerFat32, 0u);
  EXPECT_EQ(mpb.RootDirCluster, 0u);
  EXPECT_EQ(mpb.FsInfoSector, 0u);
}

TEST(VolumeParameterBlock, Fat32BootSector_FillsEveryField) {
  const FAT_MPB mpb = MpbOf(NumberedBoot(0));
  ExpectCommonFields(mpb);
  EXPECT_EQ(mpb.SectorsPerFat16, 0u);
  EXPECT_EQ(mpb.SectorsPerFat32, 0xA7A6A5A4u);
  EXPECT_EQ(mpb.RootDirCluster, 0xAFAEADACu);
  EXPECT_EQ(mpb.FsInfoSector, 0xB1B0u);  // 16 bits, widened
}

TEST(VolumeParameterBlock, BothTotalsGiven_IsSizedByThe16BitOne) {
  BYTES boot = Fat16Boot();
  Put32(boot, 32, 600000);
  CFatMemory storage;
  ASSERT_EQ(storage.Open(boot.data()), 0);
  FAT_MPB mpb;
  storage.GetMpb(&mpb);
  storage.Close();
  EXPECT_EQ(mpb.TotalSectors16, 40000u);
  EXPECT_EQ(mpb.TotalSectors32, 0u);
  EXPECT_EQ(mpb.TotalSectors(), 40000u);
}

// ---------------------------------------------------------------- the classes

TEST(StorageClasses, FormOneLineWithoutVirtualDestructor) {
  EXPECT_TRUE((std::is_base_of_v<CVolumeStorage, CFatStorage>));
  EXPECT_TRUE((std::is_base_of_v<CFatStorage, CFatMemory>));
  EXPECT_TRUE((std::is_base_of_v<CFatStorage, CFatPartition>));
  EXPECT_TRUE(std::is_abstract_v<CVolumeStorage>);
  EXPECT_TRUE(std::is_abstract_v<CFatStorage>);
  EXPECT_FALSE(std::is_abstract_v<CFatMemory>);
  EXPECT_FALSE(std::is_abstract_v<CFatPartition>);
  EXPECT_FALSE(std::has_virtual_destructor_v<CVolumeStorage>);
  EXPECT_FALSE(std::has_virtual_destructor_v<CFatPartition>);
}

/// The slot of a virtual operation in its class's table, as compiled code finds it (Itanium ABI: one more than the
/// slot's byte offset).
template <class OPERATION>
std::size_t SlotOf(OPERATION operation) {
  std::uintptr_t words[2];
  static_assert(sizeof operation == sizeof words, "a pointer to member takes two words");
  std::memcpy(words, &operation, sizeof words);
  return words[0] / sizeof(void*);
}

template <class STORAGE>
void ExpectSlotOrder() {
  EXPECT_EQ(SlotOf(&STORAGE::OpenDevice), 0u);
  EXPECT_EQ(SlotOf(&STORAGE::CloseDevice), 1u);
  EXPECT_EQ(SlotOf(&STORAGE::IsDbrOk), 2u);
  EXPECT_EQ(SlotOf(&STORAGE::GetBytesPerSector), 3u);
  EXPECT_EQ(SlotOf(&STORAGE::HookIoFunctions), 4u);
}

TEST(StorageClasses, VirtualOperations_HaveTheSameFiveSlotsEverywhere) {
  ExpectSlotOrder<CVolumeStorage>();
  ExpectSlotOrder<CFatStorage>();
  ExpectSlotOrder<CFatMemory>();
  ExpectSlotOrder<CFatPartition>();
}

// ---------------------------------------------------------------- the life of a storage object

/// Opens up what is protected.
template <class BASE>
class CExposed : public BASE {
 public:
  using BASE::m_hDevice;
  using BASE::m_nBytesPerSector;
  using BASE::m_nSectorShift;
  using BASE::m_pDbrBuf;
  using BASE::m_pfnGetMpb;
  using BASE::m_pfnReadBytes;
  using BASE::m_pfnReadBytesAligned;
  using BASE::m_pfnReadSectors;
  using BASE::m_pfnWriteBytes;
  using BASE::m_pfnWriteBytesAligned;
  using BASE::m_pfnWriteSectors;
};

/// A storage that writes down which of its operations were called, with what, and fails where it is told to.
class CProbe : public CExposed<CFatStorage> {
 public:
  struct SETTINGS {
    int OpenResult = 0;
    int ReadResult = 0;
    bool DbrOk = true;
    unsigned int BytesPerSector = 512;
  };

  static inline std::vector<std::string> s_Calls;

  explicit CProbe(const SETTINGS& settings) : m_Settings(settings) { s_Calls.clear(); }

  int OpenDevice(void* device) override {
    m_hDevice = 1;
    Note("OpenDevice", device == this ? 1 : 0, m_nBytesPerSector);
    return m_Settings.OpenResult;
  }
  int CloseDevice() override {
    Note("CloseDevice");
    return 42;
  }
  bool IsDbrOk(void* dbr) override {
    Note("IsDbrOk", dbr == m_pDbrBuf ? 1 : 0);
    return m_Settings.DbrOk;
  }
  unsigned int GetBytesPerSector(void* dbr) override {
    Note("GetBytesPerSector", dbr == m_pDbrBuf ? 1 : 0);
    return m_Settings.BytesPerSector;
  }
  void HookIoFunctions() override {
    Note("HookIoFunctions");
    m_pfnGetMpb = &CFatStorage::_GetMpb;
    m_pfnReadBytes = [](CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
      CProbe& self = *static_cast<CProbe*>(storage);
      Note("ReadBytes", position, count, self.m_nBytesPerSector);
      std::memset(buffer, 0, count);
      return self.m_Settings.ReadResult;
    };
    m_pfnWriteBytes = &Noting<1>;
    m_pfnReadBytesAligned = &Noting<2>;
    m_pfnWriteBytesAligned = &Noting<3>;
    m_pfnReadSectors = &Noting<4>;
    m_pfnWriteSectors = &Noting<5>;
  }

  static void Note(const std::string& name) { s_Calls.push_back(name); }
  template <class... NUMBERS>
  static void Note(const std::string& name, NUMBERS... numbers) {
    std::string text = name;
    ((text += " " + std::to_string(numbers)), ...);
    s_Calls.push_back(text);
  }

 private:
  template <int NUMBER>
  static int Noting(CVolumeStorage*, unsigned char* buffer, long long position, unsigned int count) {
    Note("function", NUMBER, static_cast<unsigned int>(*buffer), position, count);
    return 1000 + NUMBER;
  }

  SETTINGS m_Settings;
};

template <class STORAGE>
void ExpectMemberOrder() {
  CExposed<STORAGE> storage;
  const std::vector<const void*> members{&storage.m_hDevice,
                                         &storage.m_pDbrBuf,
                                         &storage.m_nSectorShift,
                                         &storage.m_nBytesPerSector,
                                         &storage.m_pfnGetMpb,
                                         &storage.m_pfnReadBytes,
                                         &storage.m_pfnWriteBytes,
                                         &storage.m_pfnReadBytesAligned,
                                         &storage.m_pfnWriteBytesAligned,
                                         &storage.m_pfnReadSectors,
                                         &storage.m_pfnWriteSectors};
  EXPECT_TRUE(std::is_sorted(members.begin(), members.end(), std::less<const void*>()));
}

TEST(StorageClasses, Members_LieInTheStatedOrder) {
  ExpectMemberOrder<CFatMemory>();
  ExpectMemberOrder<CFatPartition>();
}

/// Expects every block that the library took to be freed again.
class StorageLife : public ::testing::Test {
 protected:
  void TearDown() override {
    EXPECT_EQ(m_Memory.Outstanding(), 0u);
    EXPECT_EQ(m_Memory.UnknownFrees(), 0u);
  }
  CMemHooks m_Memory;
};

using CALLS = std::vector<std::string>;

TEST_F(StorageLife, Open_TakesItsStepsInOrder) {
  CProbe probe({});
  ASSERT_EQ(probe.Open(&probe), 0);
  // While the boot sector is read, a sector has 2048 bytes.
  EXPECT_EQ(CProbe::s_Calls, (CALLS{"OpenDevice 1 2048", "HookIoFunctions", "ReadBytes 0 2048 2048", "IsDbrOk 1",
                                    "GetBytesPerSector 1"}));
  EXPECT_EQ(probe.m_nBytesPerSector, 512u);
  EXPECT_EQ(probe.m_nSectorShift, 9u);
  CProbe::s_Calls.clear();
  EXPECT_EQ(probe.Close(), 42);
  EXPECT_EQ(CProbe::s_Calls, CALLS{"CloseDevice"});
  EXPECT_EQ(probe.m_pDbrBuf, nullptr);
}

TEST_F(StorageLife, OpenDeviceFails_ItsResultIsReturnedAndNothingElseDone) {
  for (const int failure : {-1, -77, IO_ERROR, INT_MIN}) {
    CProbe::SETTINGS settings;
    settings.OpenResult = failure;
    CProbe probe(settings);
    EXPECT_EQ(probe.Open(&probe), failure);
    EXPECT_EQ(CProbe::s_Calls, CALLS{"OpenDevice 1 2048"});
    EXPECT_EQ(m_Memory.Outstanding(), 0u);
  }
}

TEST_F(StorageLife, OpenDeviceAndReadGivePositiveResults_OpenSucceedsWithZero) {
  CProbe::SETTINGS settings;
  settings.OpenResult = 5;
  settings.ReadResult = 2048;
  CProbe probe(settings);
  EXPECT_EQ(probe.Open(&probe), 0);
  probe.Close();
}

TEST_F(StorageLife, NoMemoryForTheBuffer_DeviceStaysOpen) {
  CProbe probe({});
  m_Memory.FailAt(1, CMemHooks::ONCE);
  EXPECT_EQ(probe.Open(&probe), NO_MEMORY);
  EXPECT_EQ(CProbe::s_Calls, CALLS{"OpenDevice 1 2048"});
}

TEST_F(StorageLife, BootSectorReadFails_ItsStatusIsReturnedAndTheDeviceStaysOpen) {
  for (const int failure : {-1, IO_ERROR, -1234}) {
    CProbe::SETTINGS settings;
    settings.ReadResult = failure;
    CProbe probe(settings);
    EXPECT_EQ(probe.Open(&probe), failure);
    EXPECT_EQ(CProbe::s_Calls.back(), "ReadBytes 0 2048 2048");
    EXPECT_EQ(m_Memory.Outstanding(), 0u);
  }
}

TEST_F(StorageLife, BootSectorIsRefused_DeviceStaysOpen) {
  CProbe::SETTINGS settings;
  settings.DbrOk = false;
  CProbe probe(settings);
  EXPECT_EQ(probe.Open(&probe), UNRECOGNIZED);
  EXPECT_EQ(CProbe::s_Calls.back(), "IsDbrOk 1");
}

TEST_F(StorageLife, DerivedCheckAcceptsAnImpossibleSectorSize_OpenRefusesIt) {
  for (const unsigned int bytes : {0u, 500u, 8192u, 0x80000000u}) {
    CProbe::SETTINGS settings;
    settings.BytesPerSector = bytes;
    CProbe probe(settings);
    EXPECT_EQ(probe.Open(&probe), UNRECOGNIZED) << bytes;
  }
}

TEST_F(StorageLife, ObjectFullOfGarbage_OpenSetsEveryMember) {
  BYTES image = Fat16Boot();
  alignas(CExposed<CFatMemory>) unsigned char raw[sizeof(CExposed<CFatMemory>)];
  std::memset(raw, 0xA5, sizeof raw);
  CExposed<CFatMemory>* storage = new (raw) CExposed<CFatMemory>;
  ASSERT_EQ(storage->Open(image.data()), 0);
  BYTES sector(512);
  EXPECT_EQ(storage->ReadSectors(sector.data(), 0, 1), 0);
  EXPECT_EQ(sector, Slice(image, 0, 512));
  EXPECT_EQ(storage->Close(), 1);
}

TEST_F(StorageLife, ClosedStorage_OpensAgain) {
  BYTES first = Fat16Boot();
  BYTES second = Fat16Boot();
  Put16(second, 11, 1024);
  CExposed<CFatMemory> storage;
  ASSERT_EQ(storage.Open(first.data()), 0);
  EXPECT_EQ(storage.m_nBytesPerSector, 512u);
  storage.Close();
  ASSERT_EQ(storage.Open(second.data()), 0);
  EXPECT_EQ(storage.m_nBytesPerSector, 1024u);
  EXPECT_EQ(storage.m_nSectorShift, 10u);
  storage.Close();
}

TEST_F(StorageLife, CaclSectorShift_KeepsTheSizeAndItsLogarithm) {
  CExposed<CFatMemory> storage;
  for (unsigned int shift = 0; shift < 32; ++shift) {
    storage.CaclSectorShift(1u << shift);
    EXPECT_EQ(storage.m_nBytesPerSector, 1u << shift);
    EXPECT_EQ(storage.m_nSectorShift, shift);
  }
}

TEST_F(StorageLife, ReadDbr_Reads2048BytesFromTheStart) {
  CProbe probe({});
  ASSERT_EQ(probe.Open(&probe), 0);
  CProbe::s_Calls.clear();
  BYTES buffer(DBR_BYTES);
  EXPECT_EQ(probe.ReadDbr(buffer.data()), 0);
  EXPECT_EQ(CProbe::s_Calls, CALLS{"ReadBytes 0 2048 512"});
  probe.Close();
}

TEST_F(StorageLife, SixTransfers_AreHandedOnUnchanged) {
  CProbe probe({});
  ASSERT_EQ(probe.Open(&probe), 0);
  CProbe::s_Calls.clear();
  unsigned char byte = 7;
  EXPECT_EQ(probe.WriteBytes(&byte, -3, 0xFFFFFFFFu), 1001);
  EXPECT_EQ(probe.ReadBytesAligned(&byte, 0x123456789ABCLL, 2), 1002);
  EXPECT_EQ(probe.WriteBytesAligned(&byte, LLONG_MIN, 3), 1003);
  EXPECT_EQ(probe.ReadSectors(&byte, LLONG_MAX, 4), 1004);
  EXPECT_EQ(probe.WriteSectors(&byte, 0, 0), 1005);
  EXPECT_EQ(probe.ReadBytes(&byte, 9, 1), 0);
  EXPECT_EQ(CProbe::s_Calls,
            (CALLS{"function 1 7 -3 4294967295", "function 2 7 20015998343868 2", "function 3 7 -9223372036854775808 3",
                   "function 4 7 9223372036854775807 4", "function 5 7 0 0", "ReadBytes 9 1 512"}));
  probe.Close();
}

TEST_F(StorageLife, GetMpb_CallsTheHookedFunctionWithTheBootSectorThatOpenRead) {
  class CHooked : public CExposed<CFatMemory> {
   public:
    void HookIoFunctions() override {
      CFatMemory::HookIoFunctions();
      m_pfnGetMpb = [](void* bootSector, void* mpb) {
        static_cast<FAT_MPB*>(mpb)->RootEntries = static_cast<unsigned char*>(bootSector)[13];
      };
    }
  };
  BYTES image = Fat16Boot();
  CHooked storage;
  ASSERT_EQ(storage.Open(image.data()), 0);
  FAT_MPB mpb{};
  storage.GetMpb(&mpb);
  EXPECT_EQ(mpb.RootEntries, 4u);
  storage.Close();
}

template <class STORAGE>
void ExpectFunctionsInstalled() {
  CExposed<STORAGE> storage;
  std::memset(&storage.m_pfnGetMpb, 0, sizeof storage.m_pfnGetMpb);
  storage.HookIoFunctions();
  EXPECT_TRUE(storage.m_pfnGetMpb == &CFatStorage::_GetMpb);
  const std::set<CVolumeStorage::IO_FUNCTION> functions{storage.m_pfnReadBytes,        storage.m_pfnWriteBytes,
                                                        storage.m_pfnReadBytesAligned, storage.m_pfnWriteBytesAligned,
                                                        storage.m_pfnReadSectors,      storage.m_pfnWriteSectors};
  EXPECT_EQ(functions.count(nullptr), 0u);
}

TEST_F(StorageLife, HookIoFunctions_InstallsTheCommonMpbFunctionAndSixTransfers) {
  ExpectFunctionsInstalled<CFatMemory>();
  ExpectFunctionsInstalled<CFatPartition>();
}

// ---------------------------------------------------------------- opening and closing memory

TEST_F(StorageLife, MemoryWithoutAddress_IsAnInvalidParameter) {
  CFatMemory storage;
  EXPECT_EQ(storage.OpenDevice(nullptr), INVALID_PARAMETER);
  EXPECT_EQ(storage.Open(nullptr), INVALID_PARAMETER);
}

TEST_F(StorageLife, MemoryDevice_IsTheImagesAddressAndClosesToOne) {
  BYTES image(16);
  CExposed<CFatMemory> storage;
  EXPECT_EQ(storage.OpenDevice(image.data()), 0);
  EXPECT_EQ(reinterpret_cast<unsigned char*>(storage.m_hDevice), image.data());
  EXPECT_EQ(storage.CloseDevice(), 1);
}

TEST_F(StorageLife, MemoryImageShorterThanTheFirstRead_IsReadUpToItsEnd) {
  // Three sectors: boot sector, FAT and root. The vector has no byte more, which the address sanitizer watches.
  BYTES image = Fat16Boot();
  image.resize(3 * 512);
  image.shrink_to_fit();
  image.back() = 0x5A;
  Put16(image, 19, 3);
  CExposed<CFatMemory> storage;
  ASSERT_EQ(storage.Open(image.data()), 0);
  EXPECT_EQ(BYTES(storage.m_pDbrBuf, storage.m_pDbrBuf + 3 * 512), image);
  EXPECT_EQ(BYTES(storage.m_pDbrBuf + 3 * 512, storage.m_pDbrBuf + DBR_BYTES), BYTES(512));
  storage.Close();
}

TEST_F(StorageLife, MemoryImageOf512BytesThatIsNoVolume_IsRefusedWithoutReadingOn) {
  BYTES image(512);
  EXPECT_EQ(StatusOfOpen(image), UNRECOGNIZED);
  Put16(image, 510, 0xAA55);
  EXPECT_EQ(StatusOfOpen(image), UNRECOGNIZED);
  Put16(image, 11, 128);
  Put32(image, 32, 1);
  EXPECT_EQ(StatusOfOpen(image), UNRECOGNIZED);
}

// ---------------------------------------------------------------- opening and closing files

bool IsOpenDescriptor(std::intptr_t descriptor) { return fcntl(static_cast<int>(descriptor), F_GETFD) != -1; }

/// The parameter that CFatPartition takes.
void* Parameter(const std::string& path) { return const_cast<char*>(path.c_str()); }

class FileLife : public StorageLife {
 protected:
  std::string Path(const BYTES& content) const {
    const std::string path = m_Directory / "image";
    WriteHostFile(path, content);
    return path;
  }
  CTempDir m_Directory;
};

TEST_F(FileLife, ImageOpened_CloseClosesTheDescriptor) {
  const std::string path = Path(Fat16Boot());
  CExposed<CFatPartition> storage;
  ASSERT_EQ(storage.Open(Parameter(path)), 0);
  const std::intptr_t descriptor = storage.m_hDevice;
  EXPECT_GT(descriptor, 0);
  EXPECT_EQ(fcntl(static_cast<int>(descriptor), F_GETFL) & O_ACCMODE, O_RDWR);
  EXPECT_EQ(storage.Close(), 1);
  EXPECT_FALSE(IsOpenDescriptor(descriptor));
  EXPECT_EQ(storage.m_hDevice, descriptor);  // it is not forgotten
  EXPECT_EQ(ReadHostFile(path), Fat16Boot());
}

TEST_F(FileLife, PathThatCannotBeOpened_FailsAndMakesNoFile) {
  const std::string missing = m_Directory / "missing";
  CFatPartition storage;
  EXPECT_EQ(storage.Open(Parameter(missing)), OPEN_FAILED);
  EXPECT_NE(access(missing.c_str(), F_OK), 0);
  EXPECT_EQ(storage.Open(Parameter(m_Directory.Path())), OPEN_FAILED);  // a directory cannot be opened for writing
  EXPECT_EQ(storage.Open(nullptr), OPEN_FAILED);
}

TEST_F(FileLife, DescriptorZero_IsAFailedOpen) {
  const std::string path = Path(Fat16Boot());
  const int saved = dup(0);
  close(0);
  CExposed<CFatPartition> storage;
  const int status = storage.OpenDevice(Parameter(path));
  const bool leftOpen = IsOpenDescriptor(0);
  if (saved >= 0) {
    dup2(saved, 0);
    close(saved);
  }
  EXPECT_EQ(status, OPEN_FAILED);
  EXPECT_FALSE(leftOpen);
}

TEST_F(FileLife, CloseDeviceWithoutDescriptor_ReturnsOneAndClosesNothing) {
  const int standIn = IsOpenDescriptor(0) ? -1 : open("/dev/null", O_RDWR);  // becomes descriptor 0
  CExposed<CFatPartition> storage;
  for (const std::intptr_t device : {0, -1}) {
    storage.m_hDevice = device;
    EXPECT_EQ(storage.CloseDevice(), 1);
  }
  EXPECT_TRUE(IsOpenDescriptor(0));
  if (standIn >= 0) close(standIn);
}

TEST_F(FileLife, RefusedBootSector_DeviceStaysOpen) {
  const std::string path = Path(BYTES(DBR_BYTES));
  CExposed<CFatPartition> storage;
  EXPECT_EQ(storage.Open(Parameter(path)), UNRECOGNIZED);
  EXPECT_TRUE(IsOpenDescriptor(storage.m_hDevice));
  EXPECT_EQ(m_Memory.Outstanding(), 0u);
  storage.CloseDevice();
}

TEST_F(FileLife, ImageOf512Bytes_OpensAsIfZerosFollowed) {
  const BYTES boot = Fat16Boot();
  const std::string path = Path(Slice(boot, 0, 512));
  CFatPartition storage;
  ASSERT_EQ(storage.Open(Parameter(path)), 0);
  storage.Close();
}

TEST_F(FileLife, EmptyImage_IsRefused) {
  const std::string path = Path({});
  CExposed<CFatPartition> storage;
  EXPECT_EQ(storage.Open(Parameter(path)), UNRECOGNIZED);
  storage.CloseDevice();
}

TEST_F(FileLife, FifoThatCannotSeek_OpenFailsWithTheTransferStatus) {
  const std::string path = m_Directory / "fifo";
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  CExposed<CFatPartition> storage;
  EXPECT_EQ(storage.Open(Parameter(path)), IO_ERROR);
  EXPECT_TRUE(IsOpenDescriptor(storage.m_hDevice));
  storage.CloseDevice();
}

// ---------------------------------------------------------------- transfers on both back-ends

constexpr unsigned int IMAGE_BYTES = 0x10000;

/// A volume's bytes that pass the boot-sector checks, with everything behind the boot sector different from place to
/// place.
BYTES PatternImage(unsigned int bytesPerSector, unsigned int seed) {
  BYTES image = CImageBuilder::Pattern(IMAGE_BYTES, seed);
  const BYTES boot = Fat16Boot();
  Paste(image, 0, Slice(boot, 0, 512));
  Put16(image, 11, bytesPerSector);
  Put16(image, 19, IMAGE_BYTES / bytesPerSector);
  return image;
}

/// A back-end with an open image, and what the image must hold.
class CTarget {
 public:
  virtual ~CTarget() = default;
  virtual CVolumeStorage& Storage() = 0;
  virtual BYTES Content() const = 0;
};

class CMemoryTarget final : public CTarget {
 public:
  explicit CMemoryTarget(const BYTES& image) : m_Image(image) { EXPECT_EQ(m_Storage.Open(m_Image.data()), 0); }
  ~CMemoryTarget() override { m_Storage.Close(); }
  CVolumeStorage& Storage() override { return m_Storage; }
  BYTES Content() const override { return m_Image; }

 private:
  BYTES m_Image;
  CFatMemory m_Storage;
};

class CFileTarget final : public CTarget {
 public:
  explicit CFileTarget(const BYTES& image) : m_Path(m_Directory / "image") {
    WriteHostFile(m_Path, image);
    EXPECT_EQ(m_Storage.Open(Parameter(m_Path)), 0);
  }
  ~CFileTarget() override { m_Storage.Close(); }
  CVolumeStorage& Storage() override { return m_Storage; }
  BYTES Content() const override { return ReadHostFile(m_Path); }

 private:
  CTempDir m_Directory;
  std::string m_Path;
  CFatPartition m_Storage;
};

/// (0 for memory, 1 for a file; bytes per sector)
using TRANSFER_CASE = std::tuple<int, unsigned int>;

class Transfers : public ::testing::TestWithParam<TRANSFER_CASE> {
 protected:
  static constexpr unsigned int GUARD = 64;
  static constexpr unsigned char GUARD_BYTE = 0xC3;

  void SetUp() override {
    m_Twin = PatternImage(SectorBytes(), 5);
    if (IsFile()) {
      m_pTarget = std::make_unique<CFileTarget>(m_Twin);
    } else {
      m_pTarget = std::make_unique<CMemoryTarget>(m_Twin);
    }
  }
  bool IsFile() const { return std::get<0>(GetParam()) == 1; }
  unsigned int SectorBytes() const { return std::get<1>(GetParam()); }
  unsigned int Sectors() const { return IMAGE_BYTES / SectorBytes(); }
  CVolumeStorage& Storage() { return m_pTarget->Storage(); }

  /// What a transfer of whole sectors returns.
  int ExpectedCount(unsigned int bytes) const { return IsFile() ? static_cast<int>(bytes) : 0; }

  BYTES TwinBytes(unsigned int position, unsigned int count) const { return Slice(m_Twin, position, position + count); }
  void ChangeTwin(unsigned int position, const BYTES& bytes) { Paste(m_Twin, position, bytes); }

  /// Reads by `transfer` into a buffer of `bytes` with a guard behind it, and compares with the twin at `position`.
  void ExpectRead(const std::function<int(unsigned char*)>& transfer, int result, unsigned int position,
                  unsigned int bytes) {
    BYTES buffer(bytes + GUARD, GUARD_BYTE);
    EXPECT_EQ(transfer(buffer.data()), result);
    EXPECT_EQ(Slice(buffer, 0, bytes), TwinBytes(position, bytes));
    EXPECT_EQ(Slice(buffer, bytes, bytes + GUARD), BYTES(GUARD, GUARD_BYTE));
  }
  void ExpectReadBytes(unsigned int position, unsigned int count) {
    SCOPED_TRACE("position " + std::to_string(position) + " count " + std::to_string(count));
    ExpectRead([&](unsigned char* buffer) { return Storage().ReadBytes(buffer, position, count); }, 0, position, count);
  }
  void WriteBytesToBoth(unsigned int position, unsigned int count, unsigned int seed) {
    SCOPED_TRACE("position " + std::to_string(position) + " count " + std::to_string(count));
    BYTES bytes = CImageBuilder::Pattern(count + 1, seed);  // never without an address
    bytes.pop_back();
    EXPECT_EQ(Storage().WriteBytes(bytes.data(), position, count), 0);
    ChangeTwin(position, bytes);
  }

  /// Positions and counts around the ends of sectors.
  std::vector<unsigned int> Corners() const {
    const unsigned int s = SectorBytes();
    return {0, 1, 31, s / 2, s - 1, s, s + 1, 2 * s - 1, 2 * s, 2 * s + 5, 3 * s};
  }

  BYTES m_Twin;
  std::unique_ptr<CTarget> m_pTarget;
};

TEST_P(Transfers, ReadSectors_DeliversTheSectorsAskedFor) {
  const unsigned int s = SectorBytes();
  for (const auto& [sector, count] : std::vector<std::pair<unsigned int, unsigned int>>{
           {0, 1}, {1, 1}, {3, 2}, {0, Sectors()}, {Sectors() - 1, 1}, {2, Sectors() - 2}}) {
    ExpectRead([&, sector = sector,
                count = count](unsigned char* buffer) { return Storage().ReadSectors(buffer, sector, count); },
               ExpectedCount(count * s), sector * s, count * s);
  }
}

TEST_P(Transfers, WriteSectors_ChangesThoseSectorsAndNothingElse) {
  const unsigned int s = SectorBytes();
  for (const auto& [sector, count] :
       std::vector<std::pair<unsigned int, unsigned int>>{{1, 1}, {5, 3}, {Sectors() - 2, 2}}) {
    BYTES bytes = CImageBuilder::Pattern(count * s, sector);
    EXPECT_EQ(Storage().WriteSectors(bytes.data(), sector, count), ExpectedCount(count * s));
    ChangeTwin(sector * s, bytes);
    EXPECT_EQ(m_pTarget->Content(), m_Twin);
  }
}

TEST_P(Transfers, AlignedBytes_AreTheSectorsThere) {
  const unsigned int s = SectorBytes();
  ExpectRead([&](unsigned char* buffer) { return Storage().ReadBytesAligned(buffer, 4 * s, 3 * s); },
             ExpectedCount(3 * s), 4 * s, 3 * s);
  BYTES bytes = CImageBuilder::Pattern(2 * s, 9);
  EXPECT_EQ(Storage().WriteBytesAligned(bytes.data(), 7 * s, 2 * s), ExpectedCount(2 * s));
  ChangeTwin(7 * s, bytes);
  EXPECT_EQ(m_pTarget->Content(), m_Twin);
}

TEST_P(Transfers, BytesReadFromAnyPosition_AreThoseBytesOnly) {
  for (const unsigned int position : Corners()) {
    for (const unsigned int count : Corners()) ExpectReadBytes(position, count);
  }
  ExpectReadBytes(0, IMAGE_BYTES);
  ExpectReadBytes(1, IMAGE_BYTES - 1);
  ExpectReadBytes(IMAGE_BYTES - 1, 1);
  EXPECT_EQ(m_pTarget->Content(), m_Twin);  // nothing is written by reading
}

TEST_P(Transfers, BytesWrittenToAnyPosition_ChangeThoseBytesOnly) {
  unsigned int seed = 100;
  for (const unsigned int position : Corners()) {
    for (const unsigned int count : Corners()) {
      WriteBytesToBoth(position, count, ++seed);
      ASSERT_EQ(m_pTarget->Content(), m_Twin) << "position " << position << " count " << count;
    }
  }
  WriteBytesToBoth(3, IMAGE_BYTES - 3, ++seed);
  EXPECT_EQ(m_pTarget->Content(), m_Twin);
}

TEST_P(Transfers, RandomReadsAndWrites_AgreeWithAPlainCopy) {
  std::mt19937 random(SectorBytes());
  const auto upTo = [&random](unsigned int n) { return static_cast<unsigned int>(random() % (n + 1)); };
  for (unsigned int i = 0; i < 300; ++i) {
    const unsigned int position = upTo(IMAGE_BYTES);
    const unsigned int count = upTo(std::min(IMAGE_BYTES - position, 5 * SectorBytes()));
    if (random() % 2 == 0) {
      ExpectReadBytes(position, count);
    } else {
      WriteBytesToBoth(position, count, i);
    }
  }
  EXPECT_EQ(m_pTarget->Content(), m_Twin);
}

TEST_P(Transfers, ZeroBytes_SucceedAndTouchNothing) {
  for (const unsigned int position : {0u, 1u, SectorBytes(), SectorBytes() + 7}) {
    ExpectReadBytes(position, 0);
    unsigned char byte = 0x77;
    EXPECT_EQ(Storage().WriteBytes(&byte, position, 0), 0);
  }
  EXPECT_EQ(m_pTarget->Content(), m_Twin);
}

TEST_P(Transfers, ZeroSectors_AreInvalidOnADeviceAndNothingInMemory) {
  const int expected = IsFile() ? INVALID_PARAMETER : 0;
  BYTES buffer(SectorBytes(), 0x77);
  EXPECT_EQ(Storage().ReadSectors(buffer.data(), 1, 0), expected);
  EXPECT_EQ(Storage().WriteSectors(buffer.data(), 1, 0), expected);
  EXPECT_EQ(Storage().ReadBytesAligned(buffer.data(), SectorBytes(), 0), expected);
  EXPECT_EQ(Storage().WriteBytesAligned(buffer.data(), SectorBytes(), 0), expected);
  EXPECT_EQ(buffer, BYTES(SectorBytes(), 0x77));
  EXPECT_EQ(m_pTarget->Content(), m_Twin);
}

TEST_P(Transfers, WildPositions_FailAndTouchNothing) {
  BYTES buffer(4 * SectorBytes(), 0x77);
  for (const long long position : {-1LL, -4096LL, LLONG_MIN}) {
    EXPECT_EQ(Storage().ReadSectors(buffer.data(), position, 1), IO_ERROR) << position;
    EXPECT_EQ(Storage().WriteSectors(buffer.data(), position, 1), IO_ERROR) << position;
    EXPECT_EQ(Storage().ReadBytes(buffer.data(), position, SectorBytes()), IO_ERROR) << position;
    EXPECT_EQ(Storage().WriteBytes(buffer.data(), position, SectorBytes()), IO_ERROR) << position;
  }
  for (const long long sector : {LLONG_MAX, LLONG_MAX / SectorBytes() + 1}) {
    EXPECT_EQ(Storage().ReadSectors(buffer.data(), sector, 1), IO_ERROR) << sector;
    EXPECT_EQ(Storage().WriteSectors(buffer.data(), sector, 1), IO_ERROR) << sector;
  }
  EXPECT_EQ(buffer, BYTES(4 * SectorBytes(), 0x77));
  EXPECT_EQ(m_pTarget->Content(), m_Twin);
}

std::string TransferCaseName(const ::testing::TestParamInfo<TRANSFER_CASE>& info) {
  return (std::get<0>(info.param) == 1 ? "File" : "Memory") + std::to_string(std::get<1>(info.param));
}

INSTANTIATE_TEST_SUITE_P(BothBackEnds, Transfers,
                         ::testing::Combine(::testing::Values(0, 1),
                                            ::testing::Values(128u, 256u, 512u, 1024u, 2048u, 4096u)),
                         TransferCaseName);

// ---------------------------------------------------------------- the end of a memory image

class MemoryBound : public StorageLife {
 protected:
  static constexpr unsigned int SECTOR = 512;
  static constexpr unsigned int BYTES_OF_VOLUME = 10 * SECTOR;

  /// The vector is exactly as long as the volume: an access beyond it shows under the address sanitizer.
  void SetUp() override {
    m_Image = PatternImage(SECTOR, 3);
    m_Image.resize(BYTES_OF_VOLUME);
    m_Image.shrink_to_fit();
    Put16(m_Image, 19, BYTES_OF_VOLUME / SECTOR);
    ASSERT_EQ(m_Storage.Open(m_Image.data()), 0);
    m_Before = m_Image;
  }
  void TearDown() override {
    m_Storage.Close();
    StorageLife::TearDown();
  }
  void ExpectRefused(long long position, unsigned int count) {
    BYTES buffer(4 * BYTES_OF_VOLUME, 0x77);
    const BYTES untouched = buffer;
    EXPECT_EQ(m_Storage.ReadBytes(buffer.data(), position, count), IO_ERROR) << position << "+" << count;
    EXPECT_EQ(m_Storage.ReadBytesAligned(buffer.data(), position, count), IO_ERROR) << position << "+" << count;
    EXPECT_EQ(m_Storage.WriteBytes(buffer.data(), position, count), IO_ERROR) << position << "+" << count;
    EXPECT_EQ(m_Storage.WriteBytesAligned(buffer.data(), position, count), IO_ERROR) << position << "+" << count;
    EXPECT_EQ(buffer, untouched);
    EXPECT_EQ(m_Image, m_Before);
  }
  void ExpectSectorsRefused(long long sector, unsigned int count) {
    BYTES buffer(4 * BYTES_OF_VOLUME, 0x77);
    const BYTES untouched = buffer;
    EXPECT_EQ(m_Storage.ReadSectors(buffer.data(), sector, count), IO_ERROR) << sector << "+" << count;
    EXPECT_EQ(m_Storage.WriteSectors(buffer.data(), sector, count), IO_ERROR) << sector << "+" << count;
    EXPECT_EQ(buffer, untouched);
    EXPECT_EQ(m_Image, m_Before);
  }

  BYTES m_Image;
  BYTES m_Before;
  CFatMemory m_Storage;
};

TEST_F(MemoryBound, TransferUpToTheLastByte_Succeeds) {
  BYTES buffer(BYTES_OF_VOLUME);
  EXPECT_EQ(m_Storage.ReadBytes(buffer.data(), 0, BYTES_OF_VOLUME), 0);
  EXPECT_EQ(buffer, m_Before);
  EXPECT_EQ(m_Storage.ReadBytes(buffer.data(), BYTES_OF_VOLUME - 1, 1), 0);
  EXPECT_EQ(m_Storage.ReadSectors(buffer.data(), 9, 1), 0);
  EXPECT_EQ(m_Storage.ReadBytes(buffer.data(), BYTES_OF_VOLUME, 0), 0);
  EXPECT_EQ(m_Storage.WriteSectors(buffer.data(), 9, 1), 0);
}

TEST_F(MemoryBound, TransferBeyondTheVolumesSectors_FailsAndTouchesNothing) {
  ExpectRefused(0, BYTES_OF_VOLUME + 1);
  ExpectRefused(BYTES_OF_VOLUME - 1, 2);
  ExpectRefused(BYTES_OF_VOLUME, 1);
  ExpectRefused(BYTES_OF_VOLUME + SECTOR, SECTOR);
  ExpectRefused(1LL << 32, SECTOR);
  ExpectRefused((1LL << 32) + SECTOR, SECTOR);
  ExpectRefused(LLONG_MAX, 0xFFFFFFFFu);
  ExpectRefused(SECTOR, 0xFFFFFFFFu);
  ExpectSectorsRefused(9, 2);
  ExpectSectorsRefused(10, 1);
  ExpectSectorsRefused(0, 0x00800000u);  // 4 GiB: 0 in 32 bits
  ExpectSectorsRefused(1, 0xFFFFFFFFu);
  ExpectSectorsRefused(1LL << 32, 1);
  ExpectSectorsRefused(1LL << 55, 1);  // 2^64 bytes: 0 in 64 bits
}

TEST_F(MemoryBound, BothTotalsGiven_The16BitOneIsTheBound) {
  m_Storage.Close();
  Put32(m_Image, 32, 100000);
  m_Before = m_Image;
  ASSERT_EQ(m_Storage.Open(m_Image.data()), 0);
  ExpectRefused(BYTES_OF_VOLUME, 1);
}

TEST_F(MemoryBound, Only32BitTotal_IsTheBound) {
  m_Storage.Close();
  Put16(m_Image, 19, 0);
  Put32(m_Image, 32, 7);
  m_Before = m_Image;
  ASSERT_EQ(m_Storage.Open(m_Image.data()), 0);
  BYTES buffer(SECTOR);
  EXPECT_EQ(m_Storage.ReadSectors(buffer.data(), 6, 1), 0);
  ExpectSectorsRefused(7, 1);
}

TEST_F(MemoryBound, VolumeSaidToBeLargerThanTheAddressSpace_WildPositionsStillFail) {
  m_Storage.Close();
  Put16(m_Image, 19, 0);
  Put16(m_Image, 11, 4096);
  Put32(m_Image, 32, 0xFFFFFFFFu);  // 16 TiB
  m_Before = m_Image;
  ASSERT_EQ(m_Storage.Open(m_Image.data()), 0);
  ExpectRefused(1LL << 45, 1);
  if (sizeof(void*) == 4) {
    ExpectRefused(1LL << 32, 1);  // would be the image's first byte if the position were cut to 32 bits
    ExpectRefused(0xFFFFFFF0LL, 0x20);
  }
}

#if UINTPTR_MAX > 0xFFFFFFFFu
TEST_F(MemoryBound, PositionBeyondFourGiB_IsReachedInFullOrRefusedWhereMemoryEnds) {
  const std::size_t bytes = std::size_t{5} << 30;
  void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  unsigned char* image = static_cast<unsigned char*>(memory);
  BYTES boot = Fat32Boot();
  Put32(boot, 32, static_cast<std::uint32_t>(bytes / SECTOR));
  std::copy(boot.begin(), boot.end(), image);
  m_Storage.Close();
  ASSERT_EQ(m_Storage.Open(image), 0);
  BYTES written = CImageBuilder::Pattern(SECTOR, 8);
  const long long position = (1LL << 32) + SECTOR;
  EXPECT_EQ(m_Storage.WriteSectors(written.data(), position / SECTOR, 1), 0);
  EXPECT_EQ(BYTES(image + position, image + position + SECTOR), written);
  EXPECT_EQ(BYTES(image + SECTOR, image + 2 * SECTOR), Slice(boot, SECTOR, 2 * SECTOR));
  BYTES read(SECTOR);
  EXPECT_EQ(m_Storage.ReadBytes(read.data(), position, SECTOR), 0);
  EXPECT_EQ(read, written);
  munmap(memory, bytes);
}
#else
TEST_F(MemoryBound, PositionBeyondFourGiB_IsReachedInFullOrRefusedWhereMemoryEnds) {
  m_Storage.Close();
  Put16(m_Image, 19, 0);
  Put32(m_Image, 32, (5ull << 30) / SECTOR);
  m_Before = m_Image;
  ASSERT_EQ(m_Storage.Open(m_Image.data()), 0);
  ExpectRefused((1LL << 32) + SECTOR, SECTOR);
  ExpectSectorsRefused((1LL << 32) / SECTOR + 1, 1);
}
#endif

// ---------------------------------------------------------------- how the device back-end transfers

class DeviceTransfers : public FileLife {
 protected:
  static constexpr unsigned int SECTOR = 512;

  void Open(const BYTES& image) {
    m_Path = Path(image);
    ASSERT_EQ(m_Storage.Open(Parameter(m_Path)), 0);
    m_bOpen = true;
  }
  void TearDown() override {
    if (m_bOpen) m_Storage.Close();
    FileLife::TearDown();
  }
  BYTES SectorOf(const BYTES& image, unsigned int sector) const {
    return Slice(image, sector * SECTOR, (sector + 1) * SECTOR);
  }
  BYTES Scratch() const { return BYTES(m_Storage.m_pDbrBuf, m_Storage.m_pDbrBuf + SECTOR); }
  /// Where the last transfer ended.
  long long FilePosition() const { return lseek(static_cast<int>(m_Storage.m_hDevice), 0, SEEK_CUR); }
  /// Lets the storage work on another descriptor until the end of the scope.
  class COtherDevice {
   public:
    COtherDevice(CExposed<CFatPartition>& storage, int descriptor)
        : m_Storage(storage), m_nSaved(storage.m_hDevice), m_nDescriptor(descriptor) {
      m_Storage.m_hDevice = descriptor;
    }
    ~COtherDevice() {
      m_Storage.m_hDevice = m_nSaved;
      if (m_nDescriptor >= 0) close(m_nDescriptor);
    }
    COtherDevice(const COtherDevice&) = delete;
    COtherDevice& operator=(const COtherDevice&) = delete;

   private:
    CExposed<CFatPartition>& m_Storage;
    std::intptr_t m_nSaved;
    int m_nDescriptor;
  };

  std::string m_Path;
  CExposed<CFatPartition> m_Storage;
  bool m_bOpen = false;
};

TEST_F(DeviceTransfers, UnalignedReadOf1000BytesAt100_TakesHeadMiddleAndTail) {
  const BYTES image = PatternImage(SECTOR, 1);
  Open(image);
  BYTES buffer(1000);
  // The head alone: sector 0 through the scratch buffer.
  EXPECT_EQ(m_Storage.ReadBytes(buffer.data(), 100, 412), 0);
  EXPECT_EQ(Scratch(), SectorOf(image, 0));
  EXPECT_EQ(FilePosition(), 512);
  // Head and middle: one whole sector more, which does not pass through the scratch buffer.
  EXPECT_EQ(m_Storage.ReadBytes(buffer.data(), 100, 412 + 512), 0);
  EXPECT_EQ(Scratch(), SectorOf(image, 0));
  EXPECT_EQ(FilePosition(), 1024);
  // All three: the last 76 bytes come from sector 2, read whole into the scratch buffer.
  EXPECT_EQ(m_Storage.ReadBytes(buffer.data(), 100, 1000), 0);
  EXPECT_EQ(Scratch(), SectorOf(image, 2));
  EXPECT_EQ(FilePosition(), 1536);
  EXPECT_EQ(buffer, Slice(image, 100, 1100));
}

TEST_F(DeviceTransfers, UnalignedWriteOf1000BytesAt100_RewritesThePartialSectors) {
  BYTES image = PatternImage(SECTOR, 1);
  Open(image);
  BYTES bytes = CImageBuilder::Pattern(1000, 2);
  EXPECT_EQ(m_Storage.WriteBytes(bytes.data(), 100, 1000), 0);
  Paste(image, 100, bytes);
  EXPECT_EQ(ReadHostFile(m_Path), image);
  EXPECT_EQ(Scratch(), SectorOf(image, 2));
  EXPECT_EQ(FilePosition(), 1536);
}

/// The reads and writes that the kernel has done for this process.
struct SYSTEM_CALLS {
  unsigned long long Reads = 0;
  unsigned long long Writes = 0;

  static SYSTEM_CALLS Now() {
    const BYTES bytes = ReadHostFile("/proc/self/io");
    const std::string text(bytes.begin(), bytes.end());
    SYSTEM_CALLS calls;
    EXPECT_EQ(std::sscanf(text.c_str(), "%*s %*u %*s %*u %*s %llu %*s %llu", &calls.Reads, &calls.Writes), 2) << text;
    return calls;
  }
};

TEST_F(DeviceTransfers, EachSectorTransfer_IsOneCallOfTheKernel) {
  Open(PatternImage(SECTOR, 1));
  BYTES buffer(IMAGE_BYTES);
  const SYSTEM_CALLS start = SYSTEM_CALLS::Now();
  const SYSTEM_CALLS idle = SYSTEM_CALLS::Now();  // looking makes calls itself
  const auto callsOf = [&](const std::function<int()>& transfer) {
    const SYSTEM_CALLS before = SYSTEM_CALLS::Now();
    EXPECT_GE(transfer(), 0);
    const SYSTEM_CALLS after = SYSTEM_CALLS::Now();
    return std::make_pair(after.Reads - before.Reads - (idle.Reads - start.Reads),
                          after.Writes - before.Writes - (idle.Writes - start.Writes));
  };
  using CALLS_MADE = std::pair<unsigned long long, unsigned long long>;
  unsigned char* bytes = buffer.data();
  EXPECT_EQ(callsOf([&] { return m_Storage.ReadSectors(bytes, 0, IMAGE_BYTES / SECTOR); }), (CALLS_MADE{1, 0}));
  EXPECT_EQ(callsOf([&] { return m_Storage.WriteSectors(bytes, 1, 100); }), (CALLS_MADE{0, 1}));
  EXPECT_EQ(callsOf([&] { return m_Storage.ReadBytesAligned(bytes, 0, 8192); }), (CALLS_MADE{1, 0}));
  EXPECT_EQ(callsOf([&] { return m_Storage.WriteBytesAligned(bytes, 512, 8192); }), (CALLS_MADE{0, 1}));
  EXPECT_EQ(callsOf([&] { return m_Storage.ReadBytes(bytes, 512, 8192); }), (CALLS_MADE{1, 0}));
  EXPECT_EQ(callsOf([&] { return m_Storage.WriteBytes(bytes, 512, 8192); }), (CALLS_MADE{0, 1}));
  // Head, middle and tail; each partial sector that is written is read first.
  EXPECT_EQ(callsOf([&] { return m_Storage.ReadBytes(bytes, 100, 1000); }), (CALLS_MADE{3, 0}));
  EXPECT_EQ(callsOf([&] { return m_Storage.WriteBytes(bytes, 100, 1000); }), (CALLS_MADE{2, 3}));
  EXPECT_EQ(callsOf([&] { return m_Storage.ReadBytes(bytes, 100, 20000); }), (CALLS_MADE{3, 0}));
  EXPECT_EQ(callsOf([&] { return m_Storage.WriteBytes(bytes, 100, 20000); }), (CALLS_MADE{2, 3}));
  EXPECT_EQ(callsOf([&] { return m_Storage.WriteBytes(bytes, 100, 412); }), (CALLS_MADE{1, 1}));
  EXPECT_EQ(callsOf([&] { return m_Storage.WriteBytes(bytes, 512, 10); }), (CALLS_MADE{1, 1}));
}

TEST_F(DeviceTransfers, AlignedRead_LeavesTheScratchBufferAlone) {
  const BYTES image = PatternImage(SECTOR, 1);
  Open(image);
  BYTES buffer(1024);
  const BYTES scratch = Scratch();
  EXPECT_EQ(m_Storage.ReadBytes(buffer.data(), 2048, 1024), 0);
  EXPECT_EQ(m_Storage.ReadSectors(buffer.data(), 8, 2), 1024);
  EXPECT_EQ(m_Storage.ReadBytesAligned(buffer.data(), 8192, 1024), 1024);
  EXPECT_EQ(Scratch(), scratch);
}

TEST_F(DeviceTransfers, AlignedBytesWithARemainder_DropIt) {
  const BYTES image = PatternImage(SECTOR, 1);
  Open(image);
  BYTES buffer(3 * SECTOR, 0x77);
  EXPECT_EQ(m_Storage.ReadBytesAligned(buffer.data(), 4 * SECTOR + 3, 2 * SECTOR + 511), 1024);
  BYTES expected = Slice(image, 4 * SECTOR, 6 * SECTOR);
  expected.resize(3 * SECTOR, 0x77);
  EXPECT_EQ(buffer, expected);
  EXPECT_EQ(m_Storage.ReadBytesAligned(buffer.data(), 0, SECTOR - 1), INVALID_PARAMETER);
  EXPECT_EQ(m_Storage.WriteBytesAligned(buffer.data(), 0, SECTOR - 1), INVALID_PARAMETER);
  EXPECT_EQ(ReadHostFile(m_Path), image);
}

TEST_F(DeviceTransfers, ReadAcrossTheEndOfTheFile_ReturnsWhatThereIsAndZeroesTheRest) {
  BYTES image = PatternImage(SECTOR, 1);
  image.resize(10 * SECTOR + 100);
  Open(image);
  BYTES buffer(4 * SECTOR, 0x77);
  EXPECT_EQ(m_Storage.ReadSectors(buffer.data(), 9, 4), 612);
  BYTES expected = Slice(image, 9 * SECTOR, image.size());
  expected.resize(4 * SECTOR);
  EXPECT_EQ(buffer, expected);
  buffer.assign(4 * SECTOR, 0x77);
  EXPECT_EQ(m_Storage.ReadBytesAligned(buffer.data(), 10 * SECTOR, SECTOR), 100);
  EXPECT_EQ(Slice(buffer, 100, SECTOR), BYTES(SECTOR - 100));
  EXPECT_EQ(buffer[SECTOR], 0x77);
}

TEST_F(DeviceTransfers, ReadBeyondTheEndOfTheFile_ReturnsZeroAndZeroes) {
  BYTES image = PatternImage(SECTOR, 1);
  image.resize(10 * SECTOR);
  Open(image);
  BYTES buffer(2 * SECTOR, 0x77);
  EXPECT_EQ(m_Storage.ReadSectors(buffer.data(), 50, 2), 0);
  EXPECT_EQ(buffer, BYTES(2 * SECTOR));
  buffer.assign(2 * SECTOR, 0x77);
  EXPECT_EQ(m_Storage.ReadBytes(buffer.data(), 50 * SECTOR + 7, 1000), 0);
  EXPECT_EQ(Slice(buffer, 0, 1000), BYTES(1000));
  EXPECT_EQ(buffer[1000], 0x77);
}

TEST_F(DeviceTransfers, UnalignedReadThatEndsInTheLastSectorsMissingPart_GetsZeros) {
  BYTES image = PatternImage(SECTOR, 1);
  image.resize(10 * SECTOR + 100);
  Open(image);
  BYTES buffer(300, 0x77);
  EXPECT_EQ(m_Storage.ReadBytes(buffer.data(), 10 * SECTOR + 50, 300), 0);
  BYTES expected = Slice(image, 10 * SECTOR + 50, image.size());
  expected.resize(300);
  EXPECT_EQ(buffer, expected);
}

TEST_F(DeviceTransfers, UnalignedWriteBeyondTheEnd_FillsItsSectorWithZeros) {
  BYTES image = PatternImage(SECTOR, 1);
  image.resize(10 * SECTOR);
  Open(image);
  BYTES bytes = CImageBuilder::Pattern(10, 4);
  EXPECT_EQ(m_Storage.WriteBytes(bytes.data(), 12 * SECTOR, 10), 0);
  image.resize(12 * SECTOR);
  image.insert(image.end(), bytes.begin(), bytes.end());
  image.resize(13 * SECTOR);
  EXPECT_EQ(ReadHostFile(m_Path), image);
}

TEST_F(DeviceTransfers, ReadThatTheKernelCutsShort_IsNotContinued) {
  Open(PatternImage(4096, 1));
  // The kernel makes this text up page by page, and delivers no more than about one page to a call.
  const int text = open("/proc/self/smaps", O_RDONLY);
  ASSERT_GT(text, 0);
  BYTES buffer(64 * 1024, 0x77);
  std::size_t length = 0;
  for (ssize_t got; (got = read(text, buffer.data(), buffer.size())) > 0;) length += static_cast<std::size_t>(got);
  ASSERT_GT(length, 8192u);

  const COtherDevice other(m_Storage, text);
  buffer.assign(buffer.size(), 0x77);
  const int result = m_Storage.ReadSectors(buffer.data(), 0, 2);
  EXPECT_GT(result, 0);
  ASSERT_LT(result, 8192);
  EXPECT_EQ(Slice(buffer, static_cast<unsigned int>(result), 8192), BYTES(8192u - static_cast<unsigned int>(result)));
  EXPECT_EQ(buffer[8192], 0x77);
}

/// Lets no file of this process grow beyond some bytes, as a full disk would.
class CFileSizeLimit {
 public:
  explicit CFileSizeLimit(rlim_t bytes) : m_Limit(), m_pfnSaved(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &m_Limit);
    rlimit limit = m_Limit;
    limit.rlim_cur = bytes;
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  }
  ~CFileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &m_Limit);
    std::signal(SIGXFSZ, m_pfnSaved);
  }
  CFileSizeLimit(const CFileSizeLimit&) = delete;
  CFileSizeLimit& operator=(const CFileSizeLimit&) = delete;

 private:
  rlimit m_Limit;
  void (*m_pfnSaved)(int);
};

TEST_F(DeviceTransfers, ShortWrite_ReturnsItsCountAndIsASuccess) {
  BYTES image = PatternImage(SECTOR, 1);
  Open(image);
  BYTES bytes = CImageBuilder::Pattern(4 * SECTOR, 2);
  int result;
  {
    const CFileSizeLimit limit(IMAGE_BYTES + 700);
    result = m_Storage.WriteSectors(bytes.data(), IMAGE_BYTES / SECTOR, 4);
  }
  EXPECT_EQ(result, 700);
  image.insert(image.end(), bytes.begin(), bytes.begin() + 700);
  EXPECT_EQ(ReadHostFile(m_Path), image);
}

TEST_F(DeviceTransfers, FailedWrite_IsMinusOne) {
  const BYTES image = PatternImage(SECTOR, 1);
  Open(image);
  BYTES bytes(SECTOR);
  int result;
  {
    const CFileSizeLimit limit(IMAGE_BYTES);
    result = m_Storage.WriteSectors(bytes.data(), IMAGE_BYTES / SECTOR, 1);
  }
  EXPECT_EQ(result, -1);
  EXPECT_EQ(ReadHostFile(m_Path), image);
}

TEST_F(DeviceTransfers, TailOfAnUnalignedWriteFails_HeadAndMiddleAreWritten) {
  BYTES image = PatternImage(SECTOR, 1);
  Open(image);
  BYTES bytes = CImageBuilder::Pattern(2 * SECTOR, 2);
  int result;
  {
    const CFileSizeLimit limit(IMAGE_BYTES);
    result = m_Storage.WriteBytes(bytes.data(), IMAGE_BYTES - SECTOR - 100, 100 + SECTOR + 50);
  }
  EXPECT_EQ(result, -1);
  Paste(image, IMAGE_BYTES - SECTOR - 100, Slice(bytes, 0, 100 + SECTOR));
  EXPECT_EQ(ReadHostFile(m_Path), image);
}

TEST_F(DeviceTransfers, DescriptorThatCannotWrite_EveryPhaseOfAWriteFails) {
  const BYTES image = PatternImage(SECTOR, 1);
  Open(image);
  const COtherDevice other(m_Storage, open(m_Path.c_str(), O_RDONLY));
  BYTES bytes(4 * SECTOR);
  EXPECT_EQ(m_Storage.WriteSectors(bytes.data(), 1, 1), -1);
  EXPECT_EQ(m_Storage.WriteBytesAligned(bytes.data(), SECTOR, SECTOR), -1);
  EXPECT_EQ(m_Storage.WriteBytes(bytes.data(), 100, 2000), -1);
  EXPECT_EQ(m_Storage.WriteBytes(bytes.data(), SECTOR, SECTOR), -1);
  EXPECT_EQ(m_Storage.WriteBytes(bytes.data(), SECTOR, 10), -1);
  EXPECT_EQ(ReadHostFile(m_Path), image);
}

TEST_F(DeviceTransfers, DescriptorOfADirectory_ReadFailsWithMinusOne) {
  Open(PatternImage(SECTOR, 1));
  const COtherDevice other(m_Storage, open(m_Directory.Path().c_str(), O_RDONLY | O_DIRECTORY));
  BYTES buffer(4 * SECTOR);
  EXPECT_EQ(m_Storage.ReadSectors(buffer.data(), 0, 1), -1);
  EXPECT_EQ(m_Storage.ReadBytesAligned(buffer.data(), 0, SECTOR), -1);
  EXPECT_EQ(m_Storage.ReadBytes(buffer.data(), 100, 1000), -1);
  EXPECT_EQ(m_Storage.ReadBytes(buffer.data(), 0, SECTOR), -1);
  EXPECT_EQ(m_Storage.ReadBytes(buffer.data(), 0, 10), -1);
  EXPECT_EQ(m_Storage.WriteBytes(buffer.data(), 0, 10), -1);  // what is to be changed cannot be read
}

TEST_F(DeviceTransfers, DescriptorThatCannotSeek_IsAnIoErrorInEveryPhase) {
  Open(PatternImage(SECTOR, 1));
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[1]);
  BYTES buffer(4 * SECTOR, 0x77);
  {
    const COtherDevice other(m_Storage, ends[0]);
    EXPECT_EQ(m_Storage.ReadSectors(buffer.data(), 0, 1), IO_ERROR);
    EXPECT_EQ(m_Storage.WriteSectors(buffer.data(), 0, 1), IO_ERROR);
    EXPECT_EQ(m_Storage.ReadBytes(buffer.data(), 100, 1000), IO_ERROR);
    EXPECT_EQ(m_Storage.ReadBytes(buffer.data(), 0, SECTOR), IO_ERROR);
    EXPECT_EQ(m_Storage.ReadBytes(buffer.data(), 0, 10), IO_ERROR);
    EXPECT_EQ(m_Storage.WriteBytes(buffer.data(), 100, 1000), IO_ERROR);
  }
  EXPECT_EQ(buffer, BYTES(4 * SECTOR, 0x77));
  // The descriptor is closed now.
  const COtherDevice closed(m_Storage, ends[0]);
  EXPECT_EQ(m_Storage.ReadSectors(buffer.data(), 0, 1), IO_ERROR);
}

TEST_F(DeviceTransfers, ImageBeyondFourGiB_IsReadAndWrittenAtItsFullPosition) {
  CDiskImage image(6ull << 30);
  image.WriteBytes(0, Fat32Boot());
  m_Path = m_Directory / "large";
  image.ToFile(m_Path);
  ASSERT_EQ(m_Storage.Open(Parameter(m_Path)), 0);
  m_bOpen = true;
  const CFileImage file(m_Path);
  unsigned int seed = 0;
  for (const long long position : {(2LL << 30) - SECTOR, 2LL << 30, 3LL << 30, 4LL << 30, (5LL << 30) + SECTOR}) {
    BYTES bytes = CImageBuilder::Pattern(2 * SECTOR, ++seed);
    EXPECT_EQ(m_Storage.WriteSectors(bytes.data(), position / SECTOR, 2), 1024);
    EXPECT_EQ(file.ReadBytes(static_cast<std::uint64_t>(position), 1024), bytes) << position;
    BYTES read(700);
    EXPECT_EQ(m_Storage.ReadBytes(read.data(), position + 100, 700), 0);
    EXPECT_EQ(read, Slice(bytes, 100, 800)) << position;
  }
  EXPECT_EQ(file.ReadBytes(SECTOR, 1024), BYTES(1024));  // nothing wrapped to the start
  EXPECT_EQ(file.Size(), 6ull << 30);
}

#if UINTPTR_MAX > 0xFFFFFFFFu
/// More bytes than one call of the kernel moves, backed by a few that repeat.
class CHugeBuffer {
 public:
  explicit CHugeBuffer(std::size_t bytes) : m_nBytes((bytes + PIECE - 1) / PIECE * PIECE) {
    const int memory = memfd_create("piece", 0);
    EXPECT_EQ(ftruncate(memory, static_cast<off_t>(PIECE)), 0);
    void* start = mmap(nullptr, m_nBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    m_pStart = static_cast<unsigned char*>(start);
    for (std::size_t at = 0; at < m_nBytes; at += PIECE) {
      EXPECT_NE(mmap(m_pStart + at, PIECE, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, memory, 0), MAP_FAILED);
    }
    close(memory);
  }
  ~CHugeBuffer() { munmap(m_pStart, m_nBytes); }
  CHugeBuffer(const CHugeBuffer&) = delete;
  CHugeBuffer& operator=(const CHugeBuffer&) = delete;
  unsigned char* Data() { return m_pStart; }

 private:
  static constexpr std::size_t PIECE = 32u << 20;
  std::size_t m_nBytes;
  unsigned char* m_pStart;
};

constexpr unsigned int HUGE_SECTORS = 0x80001;  // of 4096 bytes: 8 KiB more than one call moves
constexpr std::size_t HUGE_BYTES = std::size_t{HUGE_SECTORS} * 4096;

TEST_F(DeviceTransfers, ReadOfMoreThanOneCallMoves_IsWholeOrRefusedWhereMemoryEnds) {
  Open(PatternImage(4096, 1));
  const int sparse = memfd_create("sparse", 0);
  ASSERT_EQ(ftruncate(sparse, static_cast<off_t>(HUGE_BYTES)), 0);
  const BYTES end = CImageBuilder::Pattern(8192, 6);
  ASSERT_EQ(pwrite(sparse, end.data(), end.size(), static_cast<off_t>(HUGE_BYTES - end.size())), 8192);
  CHugeBuffer buffer(HUGE_BYTES);
  const COtherDevice other(m_Storage, sparse);
  EXPECT_EQ(m_Storage.ReadSectors(buffer.Data(), 0, HUGE_SECTORS), 0x7FFFFFFF);
  EXPECT_EQ(BYTES(buffer.Data() + HUGE_BYTES - end.size(), buffer.Data() + HUGE_BYTES), end);
  EXPECT_EQ(FilePosition(), static_cast<long long>(HUGE_BYTES));
}

TEST_F(DeviceTransfers, WriteOfMoreThanOneCallMoves_IsWholeOrRefusedWhereMemoryEnds) {
  Open(PatternImage(4096, 1));
  CHugeBuffer buffer(HUGE_BYTES);
  const COtherDevice other(m_Storage, open("/dev/null", O_RDWR));
  EXPECT_EQ(m_Storage.WriteSectors(buffer.Data(), 0, HUGE_SECTORS), 0x7FFFFFFF);
  EXPECT_EQ(m_Storage.WriteSectors(buffer.Data(), 0, 0x7FFFF), 0x7FFFF000);
}
#else
TEST_F(DeviceTransfers, ReadOfMoreThanOneCallMoves_IsWholeOrRefusedWhereMemoryEnds) {
  Open(PatternImage(4096, 1));
  unsigned char byte = 0x77;
  EXPECT_EQ(m_Storage.ReadSectors(&byte, 0, 0x00100000u), IO_ERROR);  // 4 GiB: 0 in 32 bits
  EXPECT_EQ(m_Storage.ReadSectors(&byte, 0, 0xFFFFFFFFu), IO_ERROR);
  EXPECT_EQ(byte, 0x77);
}

TEST_F(DeviceTransfers, WriteOfMoreThanOneCallMoves_IsWholeOrRefusedWhereMemoryEnds) {
  const BYTES image = PatternImage(4096, 1);
  Open(image);
  unsigned char byte = 0x77;
  EXPECT_EQ(m_Storage.WriteSectors(&byte, 0, 0x00100000u), IO_ERROR);
  EXPECT_EQ(m_Storage.WriteSectors(&byte, 0, 0xFFFFFFFFu), IO_ERROR);
  EXPECT_EQ(ReadHostFile(m_Path), image);
}
#endif

// ---------------------------------------------------------------- back-ends of a host

/// Counts every transfer and hands it on to the back-end that it derives from.
template <class BASE>
class CCounting : public BASE {
 public:
  std::array<unsigned int, 6> m_Counts{};

  void HookIoFunctions() override {
    BASE::HookIoFunctions();
    this->m_pfnReadBytes = &Counted<0>;
    this->m_pfnWriteBytes = &Counted<1>;
    this->m_pfnReadBytesAligned = &Counted<2>;
    this->m_pfnWriteBytesAligned = &Counted<3>;
    this->m_pfnReadSectors = &Counted<4>;
    this->m_pfnWriteSectors = &Counted<5>;
  }
  unsigned int SectorBytes() const { return 1u << this->m_nSectorShift; }

 private:
  template <int KIND>
  static int Counted(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
    constexpr CVolumeStorage::IO_FUNCTION functions[6] = {&CCounting::_ReadBytes,        &CCounting::_WriteBytes,
                                                          &CCounting::_ReadBytesAligned, &CCounting::_WriteBytesAligned,
                                                          &CCounting::_ReadSectors,      &CCounting::_WriteSectors};
    ++std::get<KIND>(static_cast<CCounting*>(storage)->m_Counts);
    return functions[KIND](storage, buffer, position, count);
  }
};

template <class STORAGE>
void UseSixTransfers(STORAGE& storage, const BYTES& image) {
  EXPECT_EQ(storage.SectorBytes(), 512u);
  BYTES buffer(1024);
  EXPECT_GE(storage.ReadBytes(buffer.data(), 1111, 1000), 0);
  EXPECT_EQ(Slice(buffer, 0, 1000), Slice(image, 1111, 2111));
  EXPECT_GE(storage.WriteBytes(buffer.data(), 1111, 1000), 0);
  EXPECT_GE(storage.ReadBytesAligned(buffer.data(), 2048, 1024), 0);
  EXPECT_EQ(buffer, Slice(image, 2048, 3072));
  EXPECT_GE(storage.WriteBytesAligned(buffer.data(), 2048, 1024), 0);
  EXPECT_GE(storage.ReadSectors(buffer.data(), 20, 2), 0);
  EXPECT_EQ(buffer, Slice(image, 20 * 512, 22 * 512));
  EXPECT_GE(storage.WriteSectors(buffer.data(), 20, 2), 0);
  // One more read: the boot sector. The back-end's own functions do not call each other through the hooks.
  EXPECT_EQ(storage.m_Counts, (std::array<unsigned int, 6>{2, 1, 1, 1, 1, 1}));
}

TEST_F(FileLife, BackEndDerivedFromMemory_CallsTheTransfersOfItsBase) {
  const BYTES image = PatternImage(512, 1);
  BYTES memory = image;
  CCounting<CFatMemory> storage;
  ASSERT_EQ(storage.Open(memory.data()), 0);
  UseSixTransfers(storage, image);
  EXPECT_EQ(storage.Close(), 1);
  EXPECT_EQ(memory, image);
}

TEST_F(FileLife, BackEndDerivedFromPartition_CallsTheTransfersOfItsBase) {
  const BYTES image = PatternImage(512, 1);
  const std::string path = Path(image);
  CCounting<CFatPartition> storage;
  ASSERT_EQ(storage.Open(Parameter(path)), 0);
  UseSixTransfers(storage, image);
  EXPECT_EQ(storage.Close(), 1);
  EXPECT_EQ(ReadHostFile(path), image);
}

}  // namespace
