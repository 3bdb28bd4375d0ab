/// @file CheckBoot.cpp
/// The sectors in front of the FAT, and the sizes that they give.

#include "BootSector.h"
#include "CheckParts.h"

namespace fatlib {

namespace {

constexpr std::uint8_t DIRTY_MOUNTED = 0x01;
constexpr std::uint8_t DIRTY_ERRORS = 0x02;

// The first 512 bytes of a sector. @return false when they cannot be read, which is told
template <class RECORD>
bool ReadSector(const Medium& medium, std::uint32_t sector, DefectList* defects, RECORD* record) {
  static_assert(sizeof(RECORD) == 512);
  const std::uint64_t position = std::uint64_t{sector} * medium.Layout().bytesPerSector;
  if (!medium.Base()->Read(position, record, sizeof(RECORD))) return true;
  defects->Add(Defect::Unreadable, position);
  return false;
}

void CheckSizes(const Medium& medium, DefectList* defects) {
  const Geometry& geometry = medium.Layout();
  if (geometry.ambiguous) defects->Add(Defect::AmbiguousType, geometry.clusters);
  const std::uint64_t claimed = geometry.totalSectors * geometry.bytesPerSector;
  const std::uint64_t deviceBytes = medium.Base()->Size();
  if (claimed > deviceBytes) defects->Add(Defect::VolumeTooLarge, claimed, deviceBytes);
  const std::uint64_t fatBytes = std::uint64_t{geometry.sectorsPerFat} * geometry.bytesPerSector;
  const std::uint64_t entries = fatBytes * 8 / static_cast<unsigned int>(geometry.type);
  if (entries < geometry.clusters + std::uint64_t{2}) {
    defects->Add(Defect::FatTooSmall, geometry.clusters, entries < 2 ? 0 : entries - 2);
  }
}

// FAT12 has no other place for the mark; systems differ in which of the two places they use on the other types.
unsigned int MarksInBoot(const BootSector& boot) {
  return HasLabel(IdentityOf(boot)) ? IdentityOf(boot).dirty & (DIRTY_MOUNTED | DIRTY_ERRORS) : 0u;
}

// In FAT entry 1 a cleared bit is the mark.
unsigned int MarksInFat(Medium* medium) {
  std::uint32_t entry = 0;
  if (medium->Layout().type == FatType::Fat12 || medium->FatEntry(1, &entry)) return 0;
  const unsigned int top = medium->Layout().type == FatType::Fat16 ? entry >> 14 : entry >> 26;
  return ((top & 2) == 0 ? DIRTY_MOUNTED : 0u) | ((top & 1) == 0 ? DIRTY_ERRORS : 0u);
}

void CheckMarks(Medium* medium, const BootSector& boot, DefectList* defects) {
  const unsigned int marks = MarksInBoot(boot) | MarksInFat(medium);
  if (marks != 0) defects->Add(Defect::NotCleanlyUnmounted, marks);
}

// But for the mark of a mounted volume, which is set and cleared in the first alone.
void CheckBackup(const Medium& medium, const BootSector& boot, DefectList* defects) {
  const Geometry& geometry = medium.Layout();
  BootSector backup;
  if (geometry.type != FatType::Fat32 || geometry.backupBootSector == 0) return;
  if (!ReadSector(medium, geometry.backupBootSector, defects, &backup)) return;
  backup.fat32.identity.dirty = boot.fat32.identity.dirty;
  const auto* const first = reinterpret_cast<const unsigned char*>(&boot);
  const auto* const second = reinterpret_cast<const unsigned char*>(&backup);
  std::uint64_t firstByte = 0;
  std::uint64_t differ = 0;
  for (std::size_t i = sizeof boot; i-- != 0;) {
    if (first[i] == second[i]) continue;
    firstByte = i;
    ++differ;
  }
  if (differ != 0) defects->Add(Defect::BootSectorsDiffer, firstByte, differ);
}

void CheckFsInfo(const Medium& medium, DefectList* defects) {
  const Geometry& geometry = medium.Layout();
  FsInfoSector info;
  if (!geometry.HasFsInfo()) return;
  if (!ReadSector(medium, geometry.fsInfoSector, defects, &info)) return;
  if (geometry.fsInfoSector >= geometry.reservedSectors || !info.IsValid()) {
    defects->Add(Defect::FsInfoInvalid, geometry.fsInfoSector);
  }
}

}  // namespace

void CheckBoot(Medium* medium, DefectList* defects) {
  CheckSizes(*medium, defects);
  CheckFsInfo(*medium, defects);
  BootSector boot;
  if (!ReadSector(*medium, 0, defects, &boot)) return;
  CheckMarks(medium, boot, defects);
  CheckBackup(*medium, boot, defects);
}

}  // namespace fatlib
