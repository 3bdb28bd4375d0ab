/// @file XStorage.cpp
/// The storage back-ends and the boot-sector checks.

#include "storage/XStorage.h"

#include <fcntl.h>
#include <unistd.h>

#include "platform/ListEntry.h"
#include "platform/Platform.h"
#include "storage/FatMpb.h"

namespace {

constexpr unsigned int DBR_BYTES = 2048;  // what Open reads of the medium, whatever its sector size
constexpr unsigned int MIN_BYTES_PER_SECTOR = 128;
constexpr unsigned int MAX_BYTES_PER_SECTOR = 4096;
constexpr unsigned int MAX_SECTORS_PER_CLUSTER = 128;
constexpr unsigned long long VOLUME_BYTES_UNKNOWN = ~0ULL;
constexpr unsigned long long MAX_TRANSFER_BYTES = 0x7FFFF000;  // the most that one read or write of the kernel moves

// Admits the media bytes of the Fujitsu FM R boot sector. Nothing sets it; Open clears it.
bool s_bFATFujitsuFMR = false;

bool IsMediaByte(unsigned char media, bool fujitsuFmr) {
  switch (media) {
    case 0xF0:
    case 0xF8:
    case 0xF9:
    case 0xFB:
    case 0xFC:
    case 0xFD:
    case 0xFE:
    case 0xFF:
      return true;
    case 0x00:
    case 0x01:
    case 0xFA:  // not in the common list, on purpose
      return fujitsuFmr;
    default:
      return false;
  }
}

}  // namespace

bool IsFatBootSector(BOOT_SECTOR& boot, bool fujitsuFmr) {
  if (boot.Signature.Load() != 0xAA55) return false;
  if (boot.TotalSectors16.Load() != 0) boot.TotalSectors32.Store(0);
  if (boot.Jump[0] != 0xE9 && boot.Jump[0] != 0xEB && boot.Jump[0] != 0x49) return false;
  const unsigned int bytesPerSector = boot.BytesPerSector.Load();
  if (bytesPerSector < MIN_BYTES_PER_SECTOR || bytesPerSector > MAX_BYTES_PER_SECTOR) return false;
  if (!IsPowerOfTwo(bytesPerSector)) return false;
  if (boot.SectorsPerCluster > MAX_SECTORS_PER_CLUSTER || !IsPowerOfTwo(boot.SectorsPerCluster)) return false;
  if (boot.ReservedSectors.Load() == 0) return false;
  if (boot.NumberOfFats == 0) return false;
  if (boot.TotalSectors16.Load() == 0 && boot.TotalSectors32.Load() == 0) return false;
  const bool fat32 = boot.SectorsPerFat16.Load() == 0;
  if (fat32 && (boot.SectorsPerFat32.Load() == 0 || boot.Version.Load() != 0)) return false;
  if (!IsMediaByte(boot.Media, fujitsuFmr)) return false;
  if (!fat32 && boot.RootEntries.Load() == 0) return false;
  if (fat32 && (boot.ExtFlags.Load() & 0x80) != 0) return false;  // mirroring off: only one FAT would be right
  return true;
}

// ---------------------------------------------------------------------------------------------- CVolumeStorage

int CVolumeStorage::Open(void* device) {
  m_pDbrBuf = nullptr;
  m_nVolumeBytes = VOLUME_BYTES_UNKNOWN;
  CaclSectorShift(DBR_BYTES);
  int status = OpenDevice(device);
  if (status < 0) return status;
  // The buffer becomes the one-sector scratch buffer of unaligned transfers, so it must hold the largest sector.
  m_pDbrBuf = static_cast<unsigned char*>(osMemAllocZeroed(MAX_BYTES_PER_SECTOR));
  if (m_pDbrBuf == nullptr) return STATUS_NO_MEMORY;
  s_bFATFujitsuFMR = false;
  HookIoFunctions();
  status = ReadDbr(m_pDbrBuf);
  if (status >= 0) {
    const bool dbrOk = IsDbrOk(m_pDbrBuf);
    const unsigned int bytesPerSector = dbrOk ? GetBytesPerSector(m_pDbrBuf) : 0;
    // A derived IsDbrOk may be more tolerant than the scratch buffer is large.
    if (IsPowerOfTwo(bytesPerSector) && bytesPerSector <= MAX_BYTES_PER_SECTOR) {
      FAT_MPB mpb = FAT_MPB();
      GetMpb(&mpb);
      CaclSectorShift(bytesPerSector);
      m_nVolumeBytes = static_cast<unsigned long long>(mpb.TotalSectors()) << m_nSectorShift;
      return STATUS_SUCCESS;
    }
    status = STATUS_UNRECOGNIZED_VOLUME;
  }
  osMemFree(m_pDbrBuf);
  m_pDbrBuf = nullptr;
  return status;
}

int CVolumeStorage::Close() {
  osMemFree(m_pDbrBuf);
  m_pDbrBuf = nullptr;
  return CloseDevice();
}

void CVolumeStorage::CaclSectorShift(unsigned int bytes) {
  m_nBytesPerSector = bytes;
  m_nSectorShift = gGetLog2Of(bytes);
}

int CVolumeStorage::ReadDbr(void* buffer) { return ReadBytes(static_cast<unsigned char*>(buffer), 0, DBR_BYTES); }

void CVolumeStorage::GetMpb(void* mpb) { m_pfnGetMpb(m_pDbrBuf, mpb); }

int CVolumeStorage::ReadBytes(unsigned char* buffer, long long position, unsigned int count) {
  return m_pfnReadBytes(this, buffer, position, count);
}

int CVolumeStorage::WriteBytes(unsigned char* buffer, long long position, unsigned int count) {
  return m_pfnWriteBytes(this, buffer, position, count);
}

int CVolumeStorage::ReadBytesAligned(unsigned char* buffer, long long position, unsigned int count) {
  return m_pfnReadBytesAligned(this, buffer, position, count);
}

int CVolumeStorage::WriteBytesAligned(unsigned char* buffer, long long position, unsigned int count) {
  return m_pfnWriteBytesAligned(this, buffer, position, count);
}

int CVolumeStorage::ReadSectors(unsigned char* buffer, long long position, unsigned int count) {
  return m_pfnReadSectors(this, buffer, position, count);
}

int CVolumeStorage::WriteSectors(unsigned char* buffer, long long position, unsigned int count) {
  return m_pfnWriteSectors(this, buffer, position, count);
}

// ---------------------------------------------------------------------------------------------- CFatStorage

bool CFatStorage::IsDbrOk(void* dbr) { return IsFatBootSector(*static_cast<BOOT_SECTOR*>(dbr), s_bFATFujitsuFMR); }

unsigned int CFatStorage::GetBytesPerSector(void* dbr) { return static_cast<BOOT_SECTOR*>(dbr)->BytesPerSector.Load(); }

void CFatStorage::_GetMpb(void* dbr, void* mpb) {
  const BOOT_SECTOR& boot = *static_cast<const BOOT_SECTOR*>(dbr);
  FAT_MPB& out = *static_cast<FAT_MPB*>(mpb);
  out = FAT_MPB();
  out.NumberOfFats = boot.NumberOfFats;
  out.SectorsPerCluster = boot.SectorsPerCluster;
  out.TotalSectors16 = boot.TotalSectors16.Load();
  out.RootEntries = boot.RootEntries.Load();
  out.SectorsPerFat16 = boot.SectorsPerFat16.Load();
  out.BytesPerSector = boot.BytesPerSector.Load();
  out.ReservedSectors = boot.ReservedSectors.Load();
  out.TotalSectors32 = boot.TotalSectors32.Load();
  if (out.SectorsPerFat16 == 0) {
    out.FsInfoSector = boot.FsInfoSector.Load();
    out.SectorsPerFat32 = boot.SectorsPerFat32.Load();
    out.RootDirCluster = boot.RootCluster.Load();
  }
}

// ---------------------------------------------------------------------------------------------- CFatMemory

int CFatMemory::OpenDevice(void* device) {
  if (device == nullptr) return STATUS_INVALID_PARAMETER;
  m_hDevice = reinterpret_cast<std::intptr_t>(device);
  return STATUS_SUCCESS;
}

int CFatMemory::CloseDevice() { return 1; }

void CFatMemory::HookIoFunctions() {
  m_pfnGetMpb = &CFatStorage::_GetMpb;
  m_pfnReadBytes = &CFatMemory::_ReadBytes;
  m_pfnWriteBytes = &CFatMemory::_WriteBytes;
  m_pfnReadBytesAligned = &CFatMemory::_ReadBytesAligned;
  m_pfnWriteBytesAligned = &CFatMemory::_WriteBytesAligned;
  m_pfnReadSectors = &CFatMemory::_ReadSectors;
  m_pfnWriteSectors = &CFatMemory::_WriteSectors;
}

unsigned char* CFatMemory::ImageAt(long long position, unsigned int count) const {
  if (position < 0) return nullptr;
  const unsigned long long offset = static_cast<unsigned long long>(position);
  if (offset > m_nVolumeBytes || count > m_nVolumeBytes - offset) return nullptr;
  const std::uintptr_t image = static_cast<std::uintptr_t>(m_hDevice);
  if (offset > UINTPTR_MAX - image || count > UINTPTR_MAX - image - offset) return nullptr;
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the image of a memory back-end is given as a number
  return reinterpret_cast<unsigned char*>(image + static_cast<std::uintptr_t>(offset));
}

int CFatMemory::_ReadBytes(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
  const CFatMemory& self = *static_cast<CFatMemory*>(storage);
  const unsigned char* from = self.ImageAt(position, count);
  if (from == nullptr) return STATUS_IO_ERROR;
  unsigned int n = count;
  constexpr unsigned int BOOT_BYTES = sizeof(BOOT_SECTOR);
  if (self.m_nVolumeBytes == VOLUME_BYTES_UNKNOWN && position == 0 && count > BOOT_BYTES) {
    // The boot sector is being read: the image of a small volume may end before the bytes asked for.
    const BOOT_SECTOR& boot = *reinterpret_cast<const BOOT_SECTOR*>(from);
    const unsigned int total =
        boot.TotalSectors16.Load() != 0 ? boot.TotalSectors16.Load() : boot.TotalSectors32.Load();
    const unsigned long long bytes = static_cast<unsigned long long>(total) * boot.BytesPerSector.Load();
    if (bytes < n) n = bytes < BOOT_BYTES ? BOOT_BYTES : static_cast<unsigned int>(bytes);
    std::memset(buffer + n, 0, count - n);
  }
  if (n != 0) osMemCpyLarge(buffer, from, n);
  return STATUS_SUCCESS;
}

int CFatMemory::_WriteBytes(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
  unsigned char* to = static_cast<CFatMemory*>(storage)->ImageAt(position, count);
  if (to == nullptr) return STATUS_IO_ERROR;
  if (count != 0) osMemCpyLarge(to, buffer, count);
  return STATUS_SUCCESS;
}

int CFatMemory::_ReadBytesAligned(CVolumeStorage* storage, unsigned char* buffer, long long position,
                                  unsigned int count) {
  return _ReadBytes(storage, buffer, position, count);
}

int CFatMemory::_WriteBytesAligned(CVolumeStorage* storage, unsigned char* buffer, long long position,
                                   unsigned int count) {
  return _WriteBytes(storage, buffer, position, count);
}

int CFatMemory::_ReadSectors(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
  const unsigned int shift = static_cast<CFatMemory*>(storage)->m_nSectorShift;
  if (count > UINT32_MAX >> shift || position < 0 || position > INT64_MAX >> shift) return STATUS_IO_ERROR;
  return _ReadBytes(storage, buffer, position << shift, count << shift);
}

int CFatMemory::_WriteSectors(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
  const unsigned int shift = static_cast<CFatMemory*>(storage)->m_nSectorShift;
  if (count > UINT32_MAX >> shift || position < 0 || position > INT64_MAX >> shift) return STATUS_IO_ERROR;
  return _WriteBytes(storage, buffer, position << shift, count << shift);
}

// ---------------------------------------------------------------------------------------------- CFatPartition

int CFatPartition::OpenDevice(void* device) {
  if (device == nullptr) return STATUS_OPEN_FAILED;
  const int descriptor = open(static_cast<const char*>(device), O_RDWR);
  if (descriptor < 1) {
    // Descriptor 0 counts as a failure (CloseDevice takes 0 for "not open"), so it must not stay behind.
    if (descriptor == 0) close(descriptor);
    return STATUS_OPEN_FAILED;
  }
  m_hDevice = descriptor;
  return STATUS_SUCCESS;
}

int CFatPartition::CloseDevice() {
  if (m_hDevice > 0) close(static_cast<int>(m_hDevice));
  return 1;
}

void CFatPartition::HookIoFunctions() {
  m_pfnGetMpb = &CFatStorage::_GetMpb;
  m_pfnReadBytes = &CFatPartition::_ReadBytes;
  m_pfnWriteBytes = &CFatPartition::_WriteBytes;
  m_pfnReadBytesAligned = &CFatPartition::_ReadBytesAligned;
  m_pfnWriteBytesAligned = &CFatPartition::_WriteBytesAligned;
  m_pfnReadSectors = &CFatPartition::_ReadSectors;
  m_pfnWriteSectors = &CFatPartition::_WriteSectors;
}

int CFatPartition::Transfer(bool write, unsigned char* buffer, long long sector, unsigned int count) const {
  if (count == 0) return STATUS_INVALID_PARAMETER;
  const unsigned long long bytes = static_cast<unsigned long long>(count) << m_nSectorShift;
  if (bytes > SIZE_MAX || sector < 0 || sector > INT64_MAX >> m_nSectorShift) return STATUS_IO_ERROR;
  const int descriptor = static_cast<int>(m_hDevice);
  if (lseek64(descriptor, sector << m_nSectorShift, SEEK_SET) == -1) return STATUS_IO_ERROR;
  unsigned long long moved = 0;
  for (;;) {
    const unsigned long long rest = bytes - moved;
    const std::size_t piece = static_cast<std::size_t>(rest < MAX_TRANSFER_BYTES ? rest : MAX_TRANSFER_BYTES);
    const ssize_t result =
        write ? ::write(descriptor, buffer + moved, piece) : ::read(descriptor, buffer + moved, piece);
    if (result < 0) return -1;
    moved += static_cast<unsigned long long>(result);
    // Only what the kernel cannot move in one call is moved in several. A piece cut short ends the transfer.
    if (moved == bytes || static_cast<std::size_t>(result) < piece) break;
  }
  if (!write && moved < bytes) std::memset(buffer + moved, 0, static_cast<std::size_t>(bytes - moved));
  return moved < INT32_MAX ? static_cast<int>(moved) : INT32_MAX;
}

int CFatPartition::TransferScratch(bool write, long long sector) const { return Transfer(write, m_pDbrBuf, sector, 1); }

int CFatPartition::_ReadSectors(CVolumeStorage* storage, unsigned char* buffer, long long position,
                                unsigned int count) {
  return static_cast<CFatPartition*>(storage)->Transfer(false, buffer, position, count);
}

int CFatPartition::_WriteSectors(CVolumeStorage* storage, unsigned char* buffer, long long position,
                                 unsigned int count) {
  return static_cast<CFatPartition*>(storage)->Transfer(true, buffer, position, count);
}

int CFatPartition::_ReadBytesAligned(CVolumeStorage* storage, unsigned char* buffer, long long position,
                                     unsigned int count) {
  const CFatPartition& self = *static_cast<CFatPartition*>(storage);
  return self.Transfer(false, buffer, position >> self.m_nSectorShift, count >> self.m_nSectorShift);
}

int CFatPartition::_WriteBytesAligned(CVolumeStorage* storage, unsigned char* buffer, long long position,
                                      unsigned int count) {
  const CFatPartition& self = *static_cast<CFatPartition*>(storage);
  return self.Transfer(true, buffer, position >> self.m_nSectorShift, count >> self.m_nSectorShift);
}

// A byte transfer has up to three phases: the rest of a sector it starts in, whole sectors straight from or to the
// caller's buffer, and the beginning of a last sector. The partial sectors go through the scratch buffer; when writing,
// they are read, changed and written back.

int CFatPartition::_ReadBytes(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
  const CFatPartition& self = *static_cast<CFatPartition*>(storage);
  long long sector = position >> self.m_nSectorShift;
  const unsigned int head = static_cast<unsigned int>(position) & (self.m_nBytesPerSector - 1);
  if (head != 0) {
    const int status = self.TransferScratch(false, sector);
    if (status < 0) return status;
    const unsigned int rest = self.m_nBytesPerSector - head;
    const unsigned int n = count < rest ? count : rest;
    osMemCpy(buffer, self.m_pDbrBuf + head, n);
    buffer += n;
    count -= n;
    ++sector;
  }
  const unsigned int nSectors = count >> self.m_nSectorShift;
  if (nSectors != 0) {
    const int status = self.Transfer(false, buffer, sector, nSectors);
    if (status < 0) return status;
    buffer += nSectors << self.m_nSectorShift;
    count &= self.m_nBytesPerSector - 1;
    sector += nSectors;
  }
  if (count != 0) {
    const int status = self.TransferScratch(false, sector);
    if (status < 0) return status;
    osMemCpy(buffer, self.m_pDbrBuf, count);
  }
  return STATUS_SUCCESS;
}

int CFatPartition::_WriteBytes(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
  const CFatPartition& self = *static_cast<CFatPartition*>(storage);
  long long sector = position >> self.m_nSectorShift;
  const unsigned int head = static_cast<unsigned int>(position) & (self.m_nBytesPerSector - 1);
  if (head != 0) {
    int status = self.TransferScratch(false, sector);
    if (status < 0) return status;
    const unsigned int rest = self.m_nBytesPerSector - head;
    const unsigned int n = count < rest ? count : rest;
    osMemCpy(self.m_pDbrBuf + head, buffer, n);
    status = self.TransferScratch(true, sector);
    if (status < 0) return status;
    buffer += n;
    count -= n;
    ++sector;
  }
  const unsigned int nSectors = count >> self.m_nSectorShift;
  if (nSectors != 0) {
    const int status = self.Transfer(true, buffer, sector, nSectors);
    if (status < 0) return status;
    buffer += nSectors << self.m_nSectorShift;
    count &= self.m_nBytesPerSector - 1;
    sector += nSectors;
  }
  if (count != 0) {
    int status = self.TransferScratch(false, sector);
    if (status < 0) return status;
    osMemCpy(self.m_pDbrBuf, buffer, count);
    status = self.TransferScratch(true, sector);
    if (status < 0) return status;
  }
  return STATUS_SUCCESS;
}
