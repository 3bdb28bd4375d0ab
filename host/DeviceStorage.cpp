/// @file DeviceStorage.cpp

#include "DeviceStorage.h"

#include <cstring>

#include "Error.h"

namespace fatlib {

namespace {

constexpr int FAILED = -1;

DeviceStorage* Self(CVolumeStorage* storage) { return static_cast<DeviceStorage*>(storage); }

}  // namespace

int DeviceStorage::OpenDevice(void* log) {
  m_pLog = static_cast<TransferLog*>(log);
  return 0;
}

int DeviceStorage::CloseDevice() { return 1; }

void DeviceStorage::HookIoFunctions() {
  m_pfnGetMpb = &CFatStorage::_GetMpb;
  m_pfnReadBytes = m_pfnReadBytesAligned = ReadBytesOf;
  m_pfnWriteBytes = m_pfnWriteBytesAligned = WriteBytesOf;
  m_pfnReadSectors = ReadSectorsOf;
  m_pfnWriteSectors = WriteSectorsOf;
}

int DeviceStorage::Transferred(const std::error_code& error, bool write) const {
  if (!error) return 0;
  ++m_pLog->failures;
  m_pLog->last = error;
  if (write && !m_pLog->firstWrite) m_pLog->firstWrite = error;
  return FAILED;
}

int DeviceStorage::ReadBytesOf(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
  const DeviceStorage* self = Self(storage);
  if (position < 0) return self->Transferred(Status::IoError, false);
  return self->Transferred(self->m_pLog->device->Read(static_cast<std::uint64_t>(position), buffer, count), false);
}

int DeviceStorage::WriteBytesOf(CVolumeStorage* storage, unsigned char* buffer, long long position,
                                unsigned int count) {
  const DeviceStorage* self = Self(storage);
  if (self->m_pLog->dropWrites) return 0;
  // What follows the volume on its device is not ours.
  const std::uint64_t end = static_cast<std::uint64_t>(position) + count;
  if (position < 0 || end > self->m_nVolumeBytes) return self->Transferred(Status::IoError, true);
  return self->Transferred(self->m_pLog->device->Write(static_cast<std::uint64_t>(position), buffer, count), true);
}

int DeviceStorage::ReadSectorsOf(CVolumeStorage* storage, unsigned char* buffer, long long sector, unsigned int count) {
  const unsigned int bytes = Self(storage)->m_nBytesPerSector;
  return ReadBytesOf(storage, buffer, sector * bytes, count * bytes);
}

int DeviceStorage::WriteSectorsOf(CVolumeStorage* storage, unsigned char* buffer, long long sector,
                                  unsigned int count) {
  const DeviceStorage* self = Self(storage);
  const unsigned int bytes = self->m_nBytesPerSector;
  // Only FATs are written by the sector. Behind the one FAT that there is lie files.
  if (sector * bytes >= 0 && static_cast<std::uint64_t>(sector * bytes) >= self->m_pLog->onlyFatEnd) return 0;
  return WriteBytesOf(storage, buffer, sector * bytes, count * bytes);
}

}  // namespace fatlib
