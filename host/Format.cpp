/// @file Format.cpp
/// Writes what FormatPlan.cpp has laid out.

#include "Format.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "Label.h"
#include "Layout.h"
#include "Narrow.h"

namespace fatlib {

namespace {

constexpr std::uint64_t MIB = std::uint64_t{1024} * 1024;
constexpr std::size_t WIPE_BYTES = std::size_t{256} * 1024;
constexpr std::uint32_t CHS_SECTORS = 63;

// For who starts the volume: asks the firmware for the next device, and stops.
constexpr std::uint8_t BOOT_CODE[] = {
    0xCD, 0x18,  // int 18h
    0xF4,        // halt: hlt
    0xEB, 0xFD,  // jmp halt
};

template <std::size_t COUNT>
void StoreText(std::uint8_t (&field)[COUNT], std::string_view text) {
  std::memset(field, ' ', COUNT);
  std::memcpy(field, text.data(), std::min(COUNT, text.size()));
}

class Formatter {
 public:
  Formatter(Device* device, const Geometry& geometry, const FormatOptions& options)
      : m_pDevice(device), m_Geometry(geometry), m_Options(options) {
    (void)EncodeLabel(options.label, &m_Label);  // the plan has done it too
  }

  std::error_code Run() {
    std::error_code error = Wipe();
    if (!error) error = WriteFats();
    if (!error) error = WriteLabel();
    if (!error && IsFat32()) error = WriteFsInfo();
    if (!error && IsFat32()) error = WriteBootSector(m_Geometry.backupBootSector);
    if (!error) error = m_pDevice->Flush();
    if (!error) error = WriteBootSector(0);
    if (!error) error = m_pDevice->Flush();
    return error;
  }

 private:
  bool IsFat32() const { return m_Geometry.type == FatType::Fat32; }

  // From the boot sector to the end of the root directory.
  std::error_code Wipe() {
    const std::uint64_t end =
        m_Geometry.firstDataSector * m_Geometry.bytesPerSector + (IsFat32() ? m_Geometry.bytesPerCluster : 0);
    const std::vector<unsigned char> zeros(WIPE_BYTES);
    std::vector<unsigned char> old(WIPE_BYTES);
    std::size_t size = 0;
    for (std::uint64_t position = 0; position < end; position += size) {
      size = ToSize(std::min<std::uint64_t>(WIPE_BYTES, end - position));
      std::error_code error = m_pDevice->Read(position, old.data(), size);
      if (!error && std::memcmp(old.data(), zeros.data(), size) != 0) {
        error = m_pDevice->Write(position, zeros.data(), size);
      }
      if (error) return error;
    }
    return {};
  }

  // Entries 0 and 1, and the end of the root's chain.
  std::error_code WriteFats() {
    std::vector<unsigned char> bytes;
    if (m_Geometry.type == FatType::Fat12) {
      bytes = {m_Geometry.media, 0xFF, 0xFF};
    } else if (m_Geometry.type == FatType::Fat16) {
      bytes = {m_Geometry.media, 0xFF, 0xFF, 0xFF};
    } else {
      bytes = {m_Geometry.media, 0xFF, 0xFF, 0x0F, 0xFF, 0xFF, 0xFF, 0x0F, 0xFF, 0xFF, 0xFF, 0x0F};
    }
    bytes.resize(m_Geometry.bytesPerSector);
    std::error_code error;
    for (std::uint32_t copy = 0; !error && copy < m_Geometry.fats; ++copy) {
      error = m_pDevice->Write(m_Geometry.FatPosition(copy), bytes.data(), bytes.size());
    }
    return error;
  }

  std::error_code WriteLabel() {
    if (m_Geometry.bootLabel.empty()) return {};
    ShortEntry entry{};
    entry.name = m_Label;
    entry.attributes = LABEL;
    entry.createdTenMilliseconds = m_Options.created.tenMilliseconds;
    entry.createdTime.Store(m_Options.created.time);
    entry.createdDate.Store(m_Options.created.date);
    entry.accessedDate.Store(m_Options.created.date);
    entry.modifiedTime.Store(m_Options.created.time);
    entry.modifiedDate.Store(m_Options.created.date);
    const std::uint64_t root =
        IsFat32() ? m_Geometry.ClusterPosition(m_Geometry.rootCluster) : m_Geometry.RootPosition();
    return WriteSector(root, &entry, sizeof entry);
  }

  std::error_code WriteFsInfo() {
    FsInfoSector info{};
    info.lead.Store(FsInfoSector::LEAD);
    info.structure.Store(FsInfoSector::STRUCT);
    info.trail.Store(FsInfoSector::TRAIL);
    info.freeClusters.Store(m_Geometry.clusters - 1);
    info.nextFree.Store(m_Geometry.rootCluster + 1);
    const std::uint64_t first = m_Geometry.FsInfoPosition();
    const std::uint64_t backup = std::uint64_t{m_Geometry.backupBootSector} * m_Geometry.bytesPerSector;
    const std::error_code error = WriteSector(first, &info, sizeof info);
    return error ? error : WriteSector(backup + first, &info, sizeof info);
  }

  std::error_code WriteBootSector(std::uint32_t sector) {
    BootSector boot{};
    FillCommon(&boot);
    if (IsFat32()) {
      boot.fat32 = BootFat32();
      BootFat32& fat32 = boot.fat32;
      boot.jump[1] = 0x58;  // to the code
      fat32.sectorsPerFat.Store(m_Geometry.sectorsPerFat);
      fat32.rootCluster.Store(m_Geometry.rootCluster);
      fat32.fsInfoSector.Store(m_Geometry.fsInfoSector);
      fat32.backupBootSector.Store(m_Geometry.backupBootSector);
      FillIdentity(&fat32.identity);
      std::memcpy(fat32.code, BOOT_CODE, sizeof BOOT_CODE);
    } else {
      boot.jump[1] = 0x3C;
      boot.sectorsPerFat16.Store(m_Geometry.sectorsPerFat);
      FillIdentity(&boot.fat16.identity);
      std::memcpy(boot.fat16.code, BOOT_CODE, sizeof BOOT_CODE);
    }
    return WriteSector(std::uint64_t{sector} * m_Geometry.bytesPerSector, &boot, sizeof boot);
  }

  void FillCommon(BootSector* boot) const {
    boot->jump[0] = 0xEB;
    boot->jump[2] = 0x90;
    StoreText(boot->oemName, m_Geometry.oemName);
    boot->bytesPerSector.Store(m_Geometry.bytesPerSector);
    boot->sectorsPerCluster = static_cast<std::uint8_t>(m_Geometry.sectorsPerCluster);
    boot->reservedSectors.Store(m_Geometry.reservedSectors);
    boot->fats = static_cast<std::uint8_t>(m_Geometry.fats);
    boot->rootEntries.Store(m_Geometry.rootEntries);
    boot->media = m_Geometry.media;
    boot->hiddenSectors.Store(m_Options.hiddenSectors);
    const std::uint32_t sectors = static_cast<std::uint32_t>(m_Geometry.totalSectors);
    if (!IsFat32() && sectors <= 0xFFFF) {
      boot->totalSectors16.Store(sectors);
    } else {
      boot->totalSectors32.Store(sectors);
    }
    FillTracks(boot);
    boot->signature.Store(0xAA55);
  }

  bool IsFloppy() const { return m_Geometry.media != 0xF8; }

  // Of a floppy disk those it has; of others what firmware makes up for a disk of that size.
  void FillTracks(BootSector* boot) const {
    const std::uint64_t bytes = m_Geometry.totalSectors * m_Geometry.bytesPerSector;
    if (IsFloppy()) {
      const std::uint64_t perTrack = m_Geometry.totalSectors / (bytes > MIB / 2 ? 160 : 80);
      boot->sectorsPerTrack.Store(static_cast<std::uint32_t>(perTrack));
      boot->heads.Store(2);
      return;
    }
    std::uint32_t heads = 16;
    while (heads < 128 && bytes > heads * (504 * MIB / 16)) heads *= 2;
    if (bytes > 128 * (504 * MIB / 16)) heads = 255;
    boot->sectorsPerTrack.Store(CHS_SECTORS);
    boot->heads.Store(heads);
  }

  void FillIdentity(BootIdentity* identity) const {
    identity->drive = IsFloppy() ? 0x00 : 0x80;
    identity->mark = 0x29;
    identity->volumeId.Store(m_Geometry.volumeId);
    identity->label = m_Label;
    StoreText(identity->type, m_Geometry.TypeText());
  }

  std::error_code WriteSector(std::uint64_t position, const void* record, std::size_t size) {
    std::vector<unsigned char> sector(m_Geometry.bytesPerSector);
    std::memcpy(sector.data(), record, size);
    return m_pDevice->Write(position, sector.data(), sector.size());
  }

  Device* m_pDevice;
  const Geometry& m_Geometry;
  const FormatOptions& m_Options;
  ShortName11 m_Label{};
};

}  // namespace

std::error_code Format(Device* device, const FormatOptions& options) {
  Geometry geometry;
  const std::error_code error = PlanFormat(device->Size(), options, &geometry);
  return error ? error : Formatter(device, geometry, options).Run();
}

}  // namespace fatlib
