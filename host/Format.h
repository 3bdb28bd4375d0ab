/// @file Format.h
/// Makes an empty FAT volume.

#ifndef FATLIB_FORMAT_H
#define FATLIB_FORMAT_H

#include <cstdint>
#include <string>
#include <system_error>

#include "Device.h"
#include "Medium.h"

namespace fatlib {

struct FormatOptions {
  int bits = 0;                        ///< 12, 16 or 32; 0: what the size suggests
  std::uint64_t bytes = 0;             ///< of the volume; 0: all of the device. Rounded down to sectors
  std::uint32_t bytesPerSector = 512;  ///< 512, 1024, 2048 or 4096
  std::uint32_t bytesPerCluster = 0;   ///< a power of two, up to 128 sectors and 256 KiB; 0: what type and size suggest
  std::uint32_t rootEntries = 0;       ///< FAT12 and FAT16; 0: 512 (224 up to 2.88 MiB)
  std::uint32_t alignment = 0;         ///< bytes to which the first cluster is aligned, by reserved sectors; 0: none
  std::uint32_t hiddenSectors = 0;     ///< sectors before the volume on its disk, as written into the boot sector
  std::u16string label;                ///< up to 11 characters of code page 437; empty: none
  std::uint32_t volumeId = 0;
  Stamp created;  ///< of the label's entry
};

/// What would be written, without writing. @return InvalidParameter when no volume can be made with these options: too
/// few or too many clusters for the type (4085 and 4086 are never made), sizes out of range, a label that cannot be
/// stored.
[[nodiscard]] std::error_code PlanFormat(std::uint64_t deviceBytes, const FormatOptions& options, Geometry* geometry);

/// Writes boot sectors, FSInfo, two FATs and the root directory; the device's other bytes stay. What is written is
/// zeroed first, so that the same options give the same bytes.
[[nodiscard]] std::error_code Format(Device* device, const FormatOptions& options);

}  // namespace fatlib

#endif  // FATLIB_FORMAT_H
