/// @file DeviceStorage.h
/// The storage object through which the library works on a Device. Not part of the face for hosts.
///
/// The library reports few failed transfers: not those of data that it writes back later, not those of the second FAT.
/// So each one is noted here, where it happens.

#ifndef FATLIB_DEVICESTORAGE_H
#define FATLIB_DEVICESTORAGE_H

#include <fatlib/XStorage.h>

#include <cstdint>
#include <system_error>

#include "Device.h"

namespace fatlib {

/// What became of the transfers of one volume. It outlives the storage objects, which the library may free itself.
struct TransferLog {
  Device* device = nullptr;
  bool dropWrites = false;                ///< writes succeed, and nothing is written
  std::uint64_t onlyFatEnd = UINT64_MAX;  ///< on a volume with one FAT: the byte behind it. What the library would
                                          ///< write there as the second FAT is dropped
  std::uint64_t failures = 0;             ///< transfers that failed since the volume was opened
  std::error_code last;                   ///< why the last of them did
  std::error_code firstWrite;             ///< why the first write since TakeFirstWrite did

  std::error_code TakeFirstWrite() {
    const std::error_code first = firstWrite;
    firstWrite = {};
    return first;
  }
};

/// Made with plain new and freed with operator delete: nothing in it needs a destructor. The parameter of Fat_Mount is
/// the log.
class DeviceStorage final : public CFatPartition {
 public:
  int OpenDevice(void* log) override;
  int CloseDevice() override;
  void HookIoFunctions() override;

 private:
  static int ReadBytesOf(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count);
  static int WriteBytesOf(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count);
  static int ReadSectorsOf(CVolumeStorage* storage, unsigned char* buffer, long long sector, unsigned int count);
  static int WriteSectorsOf(CVolumeStorage* storage, unsigned char* buffer, long long sector, unsigned int count);
  int Transferred(const std::error_code& error, bool write) const;

  TransferLog* m_pLog = nullptr;
};

}  // namespace fatlib

#endif  // FATLIB_DEVICESTORAGE_H
