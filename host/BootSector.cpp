/// @file BootSector.cpp

#include "BootSector.h"

#include <algorithm>
#include <iterator>

#include "Error.h"
#include "Narrow.h"

namespace fatlib {

namespace {

constexpr std::uint16_t SIGNATURE = 0xAA55;
constexpr std::uint32_t MIN_BYTES_PER_SECTOR = 128;
constexpr std::uint32_t MAX_BYTES_PER_SECTOR = 4096;
constexpr std::uint32_t MAX_SECTORS_PER_CLUSTER = 128;
// The library's bounds. Other systems have two clusters less on a FAT12, hence Geometry::ambiguous.
constexpr std::uint32_t MAX_FAT12_CLUSTERS = 4086;
constexpr std::uint32_t OTHERS_MAX_FAT12_CLUSTERS = 4084;
constexpr std::uint32_t MAX_FAT16_CLUSTERS = 0xFFF6;
constexpr std::uint32_t MAX_FAT32_CLUSTERS = 0x0FFFFFF6;
constexpr std::uint32_t MIRRORING_OFF = 0x80;
constexpr std::uint16_t NO_SECTOR = 0xFFFF;

bool IsMedia(std::uint8_t media) { return media == 0xF0 || (media >= 0xF8 && media != 0xFA); }

bool IsFat32(const BootSector& boot) { return boot.sectorsPerFat16.Load() == 0; }

bool IsBootSector(const BootSector& boot) {
  if (boot.signature.Load() != SIGNATURE) return false;
  if (boot.jump[0] != 0xE9 && boot.jump[0] != 0xEB && boot.jump[0] != 0x49) return false;
  const std::uint32_t bytesPerSector = boot.bytesPerSector.Load();
  if (!IsPowerOfTwo(bytesPerSector) || bytesPerSector < MIN_BYTES_PER_SECTOR || bytesPerSector > MAX_BYTES_PER_SECTOR) {
    return false;
  }
  if (!IsPowerOfTwo(boot.sectorsPerCluster) || boot.sectorsPerCluster > MAX_SECTORS_PER_CLUSTER) return false;
  if (boot.reservedSectors.Load() == 0 || boot.fats == 0 || !IsMedia(boot.media)) return false;
  if (boot.totalSectors16.Load() == 0 && boot.totalSectors32.Load() == 0) return false;
  if (!IsFat32(boot)) return boot.rootEntries.Load() != 0;
  return boot.fat32.sectorsPerFat.Load() != 0 && boot.fat32.version.Load() == 0 &&
         (boot.fat32.flags.Load() & MIRRORING_OFF) == 0;
}

std::uint32_t SectorOrNone(const Le16& sector) { return sector.Load() == NO_SECTOR ? 0u : sector.Load(); }

void ReadIdentity(const BootSector& boot, Geometry* geometry) {
  geometry->oemName.assign(std::begin(boot.oemName), std::end(boot.oemName));
  const BootIdentity& identity = IdentityOf(boot);
  constexpr std::uint8_t VOLUME_ID_ONLY = 0x28;
  if (HasLabel(identity) || identity.mark == VOLUME_ID_ONLY) geometry->volumeId = identity.volumeId.Load();
  if (!HasLabel(identity)) return;
  std::string& label = geometry->bootLabel;
  label.assign(identity.label.begin(), identity.label.end());
  label.erase(label.find_last_not_of(' ') + 1);
  if (label == "NO NAME") label.clear();
}

}  // namespace

BootIdentity& IdentityOf(BootSector& boot) { return IsFat32(boot) ? boot.fat32.identity : boot.fat16.identity; }

const BootIdentity& IdentityOf(const BootSector& boot) {
  return IsFat32(boot) ? boot.fat32.identity : boot.fat16.identity;
}

bool HasLabel(const BootIdentity& identity) { return identity.mark == 0x29; }

std::error_code ReadBootSector(const BootSector& boot, Geometry* geometry) {
  if (!IsBootSector(boot)) return Status::NotAVolume;
  const bool fat32 = IsFat32(boot);
  Geometry out;
  out.bytesPerSector = boot.bytesPerSector.Load();
  out.sectorsPerCluster = boot.sectorsPerCluster;
  out.bytesPerCluster = out.bytesPerSector * out.sectorsPerCluster;
  out.reservedSectors = boot.reservedSectors.Load();
  out.fats = boot.fats;
  out.sectorsPerFat = fat32 ? boot.fat32.sectorsPerFat.Load() : boot.sectorsPerFat16.Load();
  out.totalSectors = boot.totalSectors16.Load() != 0 ? boot.totalSectors16.Load() : boot.totalSectors32.Load();
  out.media = boot.media;
  if (fat32) {
    out.rootCluster = boot.fat32.rootCluster.Load();
    out.fsInfoSector = SectorOrNone(boot.fat32.fsInfoSector);
    out.backupBootSector = SectorOrNone(boot.fat32.backupBootSector);
  } else {
    out.rootEntries = boot.rootEntries.Load();
  }

  const std::uint64_t rootStart = out.reservedSectors + std::uint64_t{out.fats} * out.sectorsPerFat;
  const std::uint32_t rootBytes = out.rootEntries * std::uint32_t{sizeof(ShortEntry)};
  out.firstDataSector = rootStart + (rootBytes + out.bytesPerSector - 1) / out.bytesPerSector;
  // A root area that ends inside a sector counts one sector less than it takes: so does the library.
  const std::uint64_t overhead = rootStart + rootBytes / out.bytesPerSector;
  if (overhead > out.totalSectors) return Status::NotAVolume;
  out.clusters = static_cast<std::uint32_t>((out.totalSectors - overhead) / out.sectorsPerCluster);
  if (out.clusters > (fat32 ? MAX_FAT32_CLUSTERS : MAX_FAT16_CLUSTERS)) return Status::NotAVolume;
  out.type = fat32 ? FatType::Fat32 : out.clusters <= MAX_FAT12_CLUSTERS ? FatType::Fat12 : FatType::Fat16;
  out.ambiguous = out.type == FatType::Fat12 && out.clusters > OTHERS_MAX_FAT12_CLUSTERS;
  ReadIdentity(boot, &out);
  *geometry = std::move(out);
  return {};
}

}  // namespace fatlib
