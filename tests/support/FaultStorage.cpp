/// @file FaultStorage.cpp
/// Transfers against an image in memory, with faults.

#include "support/FaultStorage.h"

#include <algorithm>
#include <cstring>
#include <ostream>
#include <sstream>
#include <utility>

namespace {

const char* KindName(IO_KIND kind) {
  switch (kind) {
    case IO_KIND::ReadBytes:
      return "ReadBytes";
    case IO_KIND::WriteBytes:
      return "WriteBytes";
    case IO_KIND::ReadBytesAligned:
      return "ReadBytesAligned";
    case IO_KIND::WriteBytesAligned:
      return "WriteBytesAligned";
    case IO_KIND::ReadSectors:
      return "ReadSectors";
    case IO_KIND::WriteSectors:
      return "WriteSectors";
  }
  return "?";
}

// The two ranges share a byte. Neither end is computed where it could overflow.
bool Overlap(long long aOffset, unsigned long long aCount, long long bOffset, unsigned long long bCount) {
  if (aCount == 0 || bCount == 0) return false;
  if (aOffset <= bOffset)
    return static_cast<unsigned long long>(bOffset) - static_cast<unsigned long long>(aOffset) < aCount;
  return static_cast<unsigned long long>(aOffset) - static_cast<unsigned long long>(bOffset) < bCount;
}

}  // namespace

bool IO_RECORD::Touches(long long offset, unsigned long long count) const {
  return Overlap(Offset, Length, offset, count);
}

bool operator==(const IO_RECORD& a, const IO_RECORD& b) {
  return a.Kind == b.Kind && a.Offset == b.Offset && a.Length == b.Length;
}

std::ostream& operator<<(std::ostream& out, const IO_RECORD& record) {
  out << KindName(record.Kind) << " " << record.Length << " bytes at " << record.Offset;
  if (record.Failed()) out << " FAILED";
  return out;
}

// ---------------------------------------------------------------- CMedium

CMedium::CMedium(CDiskImage image) : m_Image(std::move(image)) {}

std::vector<IO_RECORD> CMedium::ReadTrace() const {
  std::vector<IO_RECORD> reads;
  for (const IO_RECORD& record : m_Trace) {
    if (record.Read()) reads.push_back(record);
  }
  return reads;
}

std::vector<IO_RECORD> CMedium::WriteTrace() const {
  std::vector<IO_RECORD> writes;
  for (const IO_RECORD& record : m_Trace) {
    if (!record.Read()) writes.push_back(record);
  }
  return writes;
}

std::string CMedium::TraceText() const {
  std::ostringstream text;
  for (const IO_RECORD& record : m_Trace) text << record << "\n";
  return text.str();
}

void CMedium::ClearTrace() {
  m_Trace.clear();
  m_nReads = m_nWrites = m_nOutOfRange = m_nOpenCalls = m_nCloseCalls = m_nWhileClosed = 0;
  m_nBytesRead = m_nBytesWritten = 0;
}

void CMedium::Arm(FAULT fault, unsigned int nth, FAULT_DURATION duration, IO_FILTER filter) {
  m_Fault = nth == 0 ? FAULT::None : fault;
  m_nCountdown = nth;
  m_Duration = duration;
  m_Filter = filter;
  m_bFired = false;
}

void CMedium::FailAt(unsigned int nth, FAULT_DURATION duration, IO_FILTER filter, int status) {
  Arm(FAULT::Fail, nth, duration, filter);
  m_nFaultStatus = status;
}

void CMedium::FailRange(long long offset, unsigned long long count, IO_FILTER filter, int status) {
  Arm(FAULT::FailRange, 1, FAULT_FOR_GOOD, filter);
  m_nFaultStatus = status;
  m_nFaultOffset = offset;
  m_nFaultBytes = count;
}

void CMedium::ShortenReadAt(unsigned int nth, unsigned long long bytes, FAULT_DURATION duration) {
  Arm(FAULT::ShortRead, nth, duration, IO_FILTER::Reads);
  m_nFaultBytes = bytes;
}

void CMedium::ShortenWriteAt(unsigned int nth, unsigned long long bytes, FAULT_DURATION duration) {
  Arm(FAULT::ShortWrite, nth, duration, IO_FILTER::Writes);
  m_nFaultBytes = bytes;
}

int CMedium::Open() {
  ++m_nOpenCalls;
  if (m_nOpenResult >= 0) ++m_nOpenDevices;
  return m_nOpenResult;
}

int CMedium::Close() {
  ++m_nCloseCalls;
  --m_nOpenDevices;
  return 1;
}

bool CMedium::FaultHits(IO_KIND kind, long long offset, unsigned long long count) {
  if (m_Fault == FAULT::None) return false;
  if (m_Filter == IO_FILTER::Reads && !IsRead(kind)) return false;
  if (m_Filter == IO_FILTER::Writes && IsRead(kind)) return false;
  if (m_Fault == FAULT::FailRange) {
    if (!Overlap(offset, count, m_nFaultOffset, m_nFaultBytes)) return false;
    m_bFired = true;
    return true;
  }
  if (m_nCountdown > 1) {
    --m_nCountdown;
    return false;
  }
  if (m_bFired && m_Duration == FAULT_ONCE) return false;
  m_bFired = true;
  return true;
}

int CMedium::Transfer(IO_KIND kind, unsigned char* buffer, long long offset, unsigned long long count) {
  const int result = Perform(kind, buffer, offset, count);
  if (IsRead(kind)) {
    ++m_nReads;
    if (result >= 0) m_nBytesRead += count;
  } else {
    ++m_nWrites;
    if (result >= 0) m_nBytesWritten += count;
  }
  if (m_nOpenDevices <= 0) ++m_nWhileClosed;
  if (m_bKeepTrace) m_Trace.push_back({kind, offset, count, result});
  return result;
}

int CMedium::Perform(IO_KIND kind, unsigned char* buffer, long long offset, unsigned long long count) {
  const bool faulty = FaultHits(kind, offset, count);
  if (faulty && (m_Fault == FAULT::Fail || m_Fault == FAULT::FailRange)) return m_nFaultStatus;

  const unsigned long long size = m_Image.Size();
  const bool outside = offset < 0 || static_cast<unsigned long long>(offset) > size ||
                       count > size - static_cast<unsigned long long>(offset);
  if (outside) ++m_nOutOfRange;
  if (offset < 0 || (outside && m_bRefuseOutOfRange)) return IO_ERROR;

  const std::uint64_t position = static_cast<std::uint64_t>(offset);
  // An image file ends a read at its end.
  unsigned long long moved = count;
  if (IsRead(kind) && outside) moved = position < size ? size - position : 0;
  if (faulty) moved = std::min(moved, m_nFaultBytes);
  if (IsRead(kind)) {
    m_Image.Read(position, buffer, static_cast<std::size_t>(moved));
    std::memset(buffer + moved, 0, static_cast<std::size_t>(count - moved));
  } else {
    m_Image.Write(position, buffer, static_cast<std::size_t>(moved));
    if (m_bRecordWrites) m_RecordedWrites.push_back({position, {buffer, buffer + moved}});
  }
  const bool bytesForm = kind == IO_KIND::ReadBytes || kind == IO_KIND::WriteBytes;
  if (bytesForm || !m_bReturnCounts) return 0;
  return static_cast<int>(std::min<unsigned long long>(moved, 0x7FFFFFFF));
}

// ---------------------------------------------------------------- CFaultStorage

int CFaultStorage::OpenDevice(void* device) {
  static_cast<void>(device);
  m_hDevice = 0;
  return m_pMedium->Open();
}

int CFaultStorage::CloseDevice() { return m_pMedium->Close(); }

void CFaultStorage::HookIoFunctions() {
  m_pfnGetMpb = &CFatStorage::_GetMpb;
  m_pfnReadBytes = &CFaultStorage::_ReadBytes;
  m_pfnWriteBytes = &CFaultStorage::_WriteBytes;
  m_pfnReadBytesAligned = &CFaultStorage::_ReadBytesAligned;
  m_pfnWriteBytesAligned = &CFaultStorage::_WriteBytesAligned;
  m_pfnReadSectors = &CFaultStorage::_ReadSectors;
  m_pfnWriteSectors = &CFaultStorage::_WriteSectors;
}

int CFaultStorage::TransferBytes(CVolumeStorage* storage, IO_KIND kind, unsigned char* buffer, long long position,
                                 unsigned int count) {
  return static_cast<CFaultStorage*>(storage)->m_pMedium->Transfer(kind, buffer, position, count);
}

int CFaultStorage::TransferSectors(CVolumeStorage* storage, IO_KIND kind, unsigned char* buffer, long long position,
                                   unsigned int count) {
  CFaultStorage* self = static_cast<CFaultStorage*>(storage);
  return self->m_pMedium->Transfer(kind, buffer, position * static_cast<long long>(self->m_nBytesPerSector),
                                   static_cast<unsigned long long>(count) * self->m_nBytesPerSector);
}

int CFaultStorage::_ReadBytes(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
  return TransferBytes(storage, IO_KIND::ReadBytes, buffer, position, count);
}

int CFaultStorage::_WriteBytes(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count) {
  return TransferBytes(storage, IO_KIND::WriteBytes, buffer, position, count);
}

int CFaultStorage::_ReadBytesAligned(CVolumeStorage* storage, unsigned char* buffer, long long position,
                                     unsigned int count) {
  return TransferBytes(storage, IO_KIND::ReadBytesAligned, buffer, position, count);
}

int CFaultStorage::_WriteBytesAligned(CVolumeStorage* storage, unsigned char* buffer, long long position,
                                      unsigned int count) {
  return TransferBytes(storage, IO_KIND::WriteBytesAligned, buffer, position, count);
}

int CFaultStorage::_ReadSectors(CVolumeStorage* storage, unsigned char* buffer, long long position,
                                unsigned int count) {
  return TransferSectors(storage, IO_KIND::ReadSectors, buffer, position, count);
}

int CFaultStorage::_WriteSectors(CVolumeStorage* storage, unsigned char* buffer, long long position,
                                 unsigned int count) {
  return TransferSectors(storage, IO_KIND::WriteSectors, buffer, position, count);
}
