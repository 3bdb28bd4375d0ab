/// @file Layout.h
/// The records of a FAT volume as they lie on the medium. Everything is little-endian, has alignment 1 and no padding,
/// so that a record can be laid over the bytes that were read. Not part of the face for hosts.

#ifndef FATLIB_LAYOUT_H
#define FATLIB_LAYOUT_H

#include <array>
#include <cstddef>
#include <cstdint>

namespace fatlib {

struct Le16 {
  std::uint8_t bytes[2];
  std::uint16_t Load() const { return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8); }
  void Store(std::uint32_t value) {
    bytes[0] = static_cast<std::uint8_t>(value);
    bytes[1] = static_cast<std::uint8_t>(value >> 8);
  }
};

struct Le32 {
  std::uint8_t bytes[4];
  std::uint32_t Load() const {
    return bytes[0] | std::uint32_t{bytes[1]} << 8 | std::uint32_t{bytes[2]} << 16 | std::uint32_t{bytes[3]} << 24;
  }
  void Store(std::uint32_t value) {
    for (unsigned i = 0; i < 4; ++i) bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
  }
};

/// A short name, or a label: 11 bytes padded with spaces.
using ShortName11 = std::array<std::uint8_t, 11>;
/// Stands for a first byte E5, which would mark a deleted entry.
inline constexpr std::uint8_t STORED_E5 = 0x05;
inline constexpr ShortName11 DOT_NAME = {'.', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};
inline constexpr ShortName11 DOT_DOT_NAME = {'.', '.', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};

/// The part of the boot sector that says what the volume is called. FAT12 and FAT16 have it at 0x024, FAT32 at 0x040.
struct BootIdentity {
  std::uint8_t drive;    // 0x00  80: a fixed disk
  std::uint8_t dirty;    // 0x01  bit 0: not unmounted; bit 1: a surface test is due
  std::uint8_t mark;     // 0x02  29: the three fields below are there
  Le32 volumeId;         // 0x03
  ShortName11 label;     // 0x07  "NO NAME    " for none
  std::uint8_t type[8];  // 0x12  "FAT16   ": for people, no reader goes by it
};
static_assert(sizeof(BootIdentity) == 26 && alignof(BootIdentity) == 1);

/// What FAT12 and FAT16 have behind the common fields.
struct BootFat16 {
  BootIdentity identity;   // 0x024
  std::uint8_t code[448];  // 0x03E
};

/// What FAT32 has there.
struct BootFat32 {
  Le32 sectorsPerFat;         // 0x024
  Le16 flags;                 // 0x028  bit 7: mirroring is off, and bits 0 to 3 name the FAT in use
  Le16 version;               // 0x02A  0
  Le32 rootCluster;           // 0x02C
  Le16 fsInfoSector;          // 0x030
  Le16 backupBootSector;      // 0x032
  std::uint8_t reserved[12];  // 0x034
  BootIdentity identity;      // 0x040
  std::uint8_t code[420];     // 0x05A
};
static_assert(sizeof(BootFat16) == sizeof(BootFat32));

/// The boot sector's first 512 bytes, whatever the sector size.
struct BootSector {
  std::uint8_t jump[3];            // 0x000
  std::uint8_t oemName[8];         // 0x003
  Le16 bytesPerSector;             // 0x00B
  std::uint8_t sectorsPerCluster;  // 0x00D
  Le16 reservedSectors;            // 0x00E
  std::uint8_t fats;               // 0x010
  Le16 rootEntries;                // 0x011  0 on FAT32
  Le16 totalSectors16;             // 0x013  0: see totalSectors32
  std::uint8_t media;              // 0x015
  Le16 sectorsPerFat16;            // 0x016  0 marks a FAT32 volume
  Le16 sectorsPerTrack;            // 0x018
  Le16 heads;                      // 0x01A
  Le32 hiddenSectors;              // 0x01C
  Le32 totalSectors32;             // 0x020
  union {
    BootFat16 fat16;  // 0x024
    BootFat32 fat32;  // 0x024
  };
  Le16 signature;  // 0x1FE  AA55
};
static_assert(sizeof(BootSector) == 512 && alignof(BootSector) == 1);
static_assert(offsetof(BootSector, totalSectors16) == 0x13 && offsetof(BootSector, totalSectors32) == 0x20 &&
              offsetof(BootSector, fat16) == 0x24 && offsetof(BootSector, signature) == 0x1FE);
static_assert(offsetof(BootFat16, code) == 0x3E - 0x24 && offsetof(BootFat32, rootCluster) == 0x2C - 0x24 &&
              offsetof(BootFat32, identity) == 0x40 - 0x24 && offsetof(BootFat32, code) == 0x5A - 0x24);

/// The FSInfo sector's first 512 bytes.
struct FsInfoSector {
  static constexpr std::uint32_t LEAD = 0x41615252;
  static constexpr std::uint32_t STRUCT = 0x61417272;
  static constexpr std::uint32_t TRAIL = 0xAA550000;
  static constexpr std::uint32_t UNKNOWN = 0xFFFFFFFF;

  Le32 lead;                    // 0x000
  std::uint8_t reserved1[480];  // 0x004
  Le32 structure;               // 0x1E4
  Le32 freeClusters;            // 0x1E8  or UNKNOWN
  Le32 nextFree;                // 0x1EC  where to look first; or UNKNOWN
  std::uint8_t reserved2[12];   // 0x1F0
  Le32 trail;                   // 0x1FC

  bool IsValid() const { return lead.Load() == LEAD && structure.Load() == STRUCT && trail.Load() == TRAIL; }
};
static_assert(sizeof(FsInfoSector) == 512 && alignof(FsInfoSector) == 1);
static_assert(offsetof(FsInfoSector, structure) == 0x1E4 && offsetof(FsInfoSector, freeClusters) == 0x1E8);

/// The short entry of a file, directory or label.
struct ShortEntry {
  ShortName11 name;         // 0x00  first byte 00: here and behind nothing was ever used; E5: deleted; 05: E5 is meant
  std::uint8_t attributes;  // 0x0B
  std::uint8_t caseFlags;   // 0x0C
  std::uint8_t createdTenMilliseconds;  // 0x0D
  Le16 createdTime;                     // 0x0E
  Le16 createdDate;                     // 0x10
  Le16 accessedDate;                    // 0x12
  Le16 clusterHigh;                     // 0x14
  Le16 modifiedTime;                    // 0x16
  Le16 modifiedDate;                    // 0x18
  Le16 clusterLow;                      // 0x1A
  Le32 size;                            // 0x1C
};
static_assert(sizeof(ShortEntry) == 32 && alignof(ShortEntry) == 1);
static_assert(offsetof(ShortEntry, clusterHigh) == 0x14 && offsetof(ShortEntry, size) == 0x1C);

/// A piece of a long name.
struct LongEntry {
  static constexpr std::uint8_t ATTRIBUTES = 0x0F;
  static constexpr std::uint8_t LAST = 0x40;
  static constexpr std::uint8_t ORDINAL = 0x3F;
  static constexpr std::uint32_t UNITS = 13;

  std::uint8_t ordinal;     // 0x00  1 to 20; with LAST for the name's last piece, which is stored first
  Le16 units1[5];           // 0x01
  std::uint8_t attributes;  // 0x0B
  std::uint8_t type;        // 0x0C  0
  std::uint8_t checksum;    // 0x0D  of the short name
  Le16 units2[6];           // 0x0E
  Le16 cluster;             // 0x1A  0
  Le16 units3[2];           // 0x1C
};
static_assert(sizeof(LongEntry) == 32 && alignof(LongEntry) == 1);
static_assert(offsetof(LongEntry, units2) == 0x0E && offsetof(LongEntry, units3) == 0x1C);

}  // namespace fatlib

#endif  // FATLIB_LAYOUT_H
