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
  std::uint32_t rootEntries = 0;       ///< FAT12 and FAT16, rounded up to sectors; 0: 512, or what a floppy disk has
  std::uint32_t alignment = 0;  ///< bytes, a multiple of a sector, to which the first cluster is aligned by reserved
                                ///< sectors; 0: none
  std::uint32_t hiddenSectors = 0;  ///< sectors before the volume on its disk, as written into the boot sector
  std::u16string label;             ///< up to 11 characters of code page 437, made upper case; empty: none
  std::uint32_t volumeId = 0;
  Stamp created;  ///< of the label's entry
};

/// What would be written, without writing. No count of clusters comes within 16 of those at which systems change from
/// one FAT type to the next, since they do not agree on them: further reserved sectors take away what is too much.
/// @param deviceBytes  size of the device
/// @param geometry     out: unchanged on failure
/// @return InvalidParameter when no volume can be made with these options: too few or too many clusters for the type,
/// sizes out of range, a label that cannot be stored
[[nodiscard]] std::error_code PlanFormat(std::uint64_t deviceBytes, const FormatOptions& options, Geometry* geometry);

/// Writes everything in front of the first file's cluster: boot sectors, FSInfo, two FATs and the root directory, so
/// that the same options give the same bytes there. The device's other bytes stay. The boot sector is the first to go
/// and the last to come: what a failure leaves is no volume. Zeros are not written where there are some, so that a
/// sparse image stays sparse.
/// @return InvalidParameter as PlanFormat, with nothing written; or what the device returned
[[nodiscard]] std::error_code Format(Device* device, const FormatOptions& options);

}  // namespace fatlib

#endif  // FATLIB_FORMAT_H
