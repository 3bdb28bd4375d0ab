/// @file FatMpb.h
/// The boot sector as it lies on the medium, and the volume parameter block made from it.

#ifndef FATLIB_FATMPB_H
#define FATLIB_FATMPB_H

#include "platform/stdafx.h"

/// The fields of a FAT boot sector that the library reads. Offsets from the first byte of the medium.
struct BOOT_SECTOR {
  std::uint8_t Jump[3];            // 0x000  first byte 0xE9, 0xEB or 0x49
  std::uint8_t OemName[8];         // 0x003
  le16 BytesPerSector;             // 0x00B  power of two, 128 to 4096
  std::uint8_t SectorsPerCluster;  // 0x00D  power of two, 1 to 128
  le16 ReservedSectors;            // 0x00E  sectors before the first FAT, not 0
  std::uint8_t NumberOfFats;       // 0x010  not 0
  le16 RootEntries;                // 0x011  entries of the fixed root directory; 0 on FAT32
  le16 TotalSectors16;             // 0x013  0: see TotalSectors32
  std::uint8_t Media;              // 0x015
  le16 SectorsPerFat16;            // 0x016  0 marks a FAT32 volume
  std::uint8_t Geometry[8];        // 0x018  sectors per track, heads, hidden sectors: not used
  le32 TotalSectors32;             // 0x020
  le32 SectorsPerFat32;            // 0x024  this field and those below: FAT32 only
  le16 ExtFlags;                   // 0x028  bit 7: mirroring is off
  le16 Version;                    // 0x02A  must be 0
  le32 RootCluster;                // 0x02C
  le16 FsInfoSector;               // 0x030
  std::uint8_t Rest[460];          // 0x032
  le16 Signature;                  // 0x1FE  0xAA55
};
static_assert(sizeof(BOOT_SECTOR) == 512 && alignof(BOOT_SECTOR) == 1, "one 512-byte sector");
static_assert(offsetof(BOOT_SECTOR, BytesPerSector) == 11 && offsetof(BOOT_SECTOR, SectorsPerCluster) == 13 &&
                  offsetof(BOOT_SECTOR, ReservedSectors) == 14 && offsetof(BOOT_SECTOR, NumberOfFats) == 16 &&
                  offsetof(BOOT_SECTOR, RootEntries) == 17 && offsetof(BOOT_SECTOR, TotalSectors16) == 19 &&
                  offsetof(BOOT_SECTOR, Media) == 21 && offsetof(BOOT_SECTOR, SectorsPerFat16) == 22 &&
                  offsetof(BOOT_SECTOR, TotalSectors32) == 32 && offsetof(BOOT_SECTOR, SectorsPerFat32) == 36 &&
                  offsetof(BOOT_SECTOR, ExtFlags) == 40 && offsetof(BOOT_SECTOR, Version) == 42 &&
                  offsetof(BOOT_SECTOR, RootCluster) == 44 && offsetof(BOOT_SECTOR, FsInfoSector) == 48 &&
                  offsetof(BOOT_SECTOR, Signature) == 510,
              "the layout is fixed by the medium");

/// The volume parameter block. The last four fields are 0 on FAT12 and FAT16, but for TotalSectors32.
struct FAT_MPB {
  std::uint8_t NumberOfFats;
  std::uint8_t SectorsPerCluster;
  std::uint16_t TotalSectors16;  // 0 when the volume has 65536 sectors or more
  std::uint16_t RootEntries;
  std::uint16_t SectorsPerFat16;  // 0 marks a FAT32 volume
  std::uint16_t BytesPerSector;
  std::uint16_t ReservedSectors;
  std::uint32_t FsInfoSector;
  std::uint32_t TotalSectors32;  // valid when TotalSectors16 is 0
  std::uint32_t SectorsPerFat32;
  std::uint32_t RootDirCluster;

  std::uint32_t TotalSectors() const { return TotalSectors16 != 0 ? TotalSectors16 : TotalSectors32; }
  std::uint32_t SectorsPerFat() const { return SectorsPerFat16 != 0 ? SectorsPerFat16 : SectorsPerFat32; }
};

/// Width of a FAT entry in bits.
enum FAT_IDX_BITS : std::uint32_t { FAT_BITS_12 = 12, FAT_BITS_16 = 16, FAT_BITS_32 = 32 };

/// The checks of CFatStorage::IsDbrOk.
/// @param boot       clears TotalSectors32 in it when TotalSectors16 is given
/// @param fujitsuFmr accept also the media bytes 0x00, 0x01 and 0xFA
bool IsFatBootSector(BOOT_SECTOR& boot, bool fujitsuFmr);

#endif  // FATLIB_FATMPB_H
