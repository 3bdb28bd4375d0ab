/// @file FaultStorage.h
/// A storage back-end that counts, traces and fails transfers. It stands where a CFatPartition or CFatMemory would.
///
/// The library frees a storage object whose mount failed with operator delete and runs no destructor. So CFaultStorage
/// holds nothing but a pointer to a CMedium, which the test owns and looks at afterwards:
///
///     CMedium medium(builder.Image());
///     medium.FailAt(3, FAULT_ONCE);
///     CFatFileSystem* fileSystem = Fat_Mount(new CFaultStorage(medium), nullptr);
///     EXPECT_EQ(fileSystem, nullptr);
///     EXPECT_EQ(medium.Writes(), 0u);

#ifndef FATLIB_TESTS_FAULTSTORAGE_H
#define FATLIB_TESTS_FAULTSTORAGE_H

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "storage/XStorage.h"
#include "support/DiskImage.h"

/// Which of the six transfer functions was called.
enum class IO_KIND { ReadBytes, WriteBytes, ReadBytesAligned, WriteBytesAligned, ReadSectors, WriteSectors };
constexpr bool IsRead(IO_KIND kind) {
  return kind == IO_KIND::ReadBytes || kind == IO_KIND::ReadBytesAligned || kind == IO_KIND::ReadSectors;
}

/// One transfer as it was asked for. Offset and length are in bytes for all six kinds.
struct IO_RECORD {
  IO_KIND Kind;
  long long Offset;
  unsigned long long Length;
  int Result;

  bool Read() const { return IsRead(Kind); }
  bool Failed() const { return Result < 0; }
  /// True when the transfer has a byte in common with `count` bytes from `offset` on.
  bool Touches(long long offset, unsigned long long count) const;
};
/// Two records are equal when the same was asked for; the results are not compared.
bool operator==(const IO_RECORD& a, const IO_RECORD& b);
std::ostream& operator<<(std::ostream& out, const IO_RECORD& record);

/// What one write stored.
struct MEDIUM_WRITE {
  std::uint64_t Offset;
  std::vector<unsigned char> Bytes;
};

enum FAULT_DURATION {
  FAULT_ONCE,      // the one transfer
  FAULT_FOR_GOOD,  // that transfer and all after it, until Heal
};
/// Which transfers a fault counts and hits.
enum class IO_FILTER { All, Reads, Writes };

/// The state behind a CFaultStorage: the image, the trace and the faults to come.
class CMedium {
 public:
  static constexpr int IO_ERROR = static_cast<int>(0xC0000185u);

  explicit CMedium(CDiskImage image);
  CMedium(const CMedium&) = delete;
  CMedium& operator=(const CMedium&) = delete;

  CDiskImage& Image() { return m_Image; }
  const CDiskImage& Image() const { return m_Image; }

  // ---- what happened since the start or the last ClearTrace
  const std::vector<IO_RECORD>& Trace() const { return m_Trace; }
  std::vector<IO_RECORD> ReadTrace() const;
  std::vector<IO_RECORD> WriteTrace() const;
  unsigned int Transfers() const { return m_nReads + m_nWrites; }
  unsigned int Reads() const { return m_nReads; }
  unsigned int Writes() const { return m_nWrites; }
  unsigned long long BytesRead() const { return m_nBytesRead; }
  unsigned long long BytesWritten() const { return m_nBytesWritten; }
  /// Transfers that passed the end of the image (or began before its start), refused or not.
  unsigned int OutOfRange() const { return m_nOutOfRange; }
  unsigned int OpenCalls() const { return m_nOpenCalls; }
  unsigned int CloseCalls() const { return m_nCloseCalls; }
  /// Transfers made while the device was not open.
  unsigned int TransfersWhileClosed() const { return m_nWhileClosed; }
  /// The trace, one line each, for failure messages.
  std::string TraceText() const;
  /// From now on the bytes of each write are kept too.
  void RecordWrites() { m_bRecordWrites = true; }
  /// What the writes since then have stored, whole or shortened; one that failed has stored nothing.
  const std::vector<MEDIUM_WRITE>& RecordedWrites() const { return m_RecordedWrites; }
  /// Forgets the trace and all counts; faults stay armed.
  void ClearTrace();
  /// With false only the counts are kept: for long runs.
  void KeepTrace(bool keep) { m_bKeepTrace = keep; }

  // ---- faults. One is armed at a time; arming another replaces it. `nth` counts from this call on: 1 is the next
  //      transfer that passes the filter.
  /// The transfer fails with `status`: nothing is read or written.
  void FailAt(unsigned int nth, FAULT_DURATION duration, IO_FILTER filter = IO_FILTER::All, int status = IO_ERROR);
  /// Every transfer (that passes the filter) with a byte in the range fails.
  void FailRange(long long offset, unsigned long long count, IO_FILTER filter = IO_FILTER::All, int status = IO_ERROR);
  /// The read delivers its first `bytes` bytes and zeros after them, and succeeds.
  void ShortenReadAt(unsigned int nth, unsigned long long bytes, FAULT_DURATION duration = FAULT_ONCE);
  /// The write stores its first `bytes` bytes only, and succeeds.
  void ShortenWriteAt(unsigned int nth, unsigned long long bytes, FAULT_DURATION duration = FAULT_ONCE);
  /// True when an armed fault has hit a transfer since it was armed.
  bool Fired() const { return m_bFired; }
  /// Disarms the fault. Fired() keeps its value until the next fault is armed.
  void Heal() { m_Fault = FAULT::None; }

  // ---- standing behaviour
  /// With true, transfers that pass the end of the image fail with 0xC0000185 and touch nothing. Otherwise, as with an
  /// image file, such a read gets zeros and such a write makes the image larger.
  void RefuseOutOfRange(bool refuse) { m_bRefuseOutOfRange = refuse; }
  /// OpenDevice returns this from now on (0: success).
  void SetOpenResult(int status) { m_nOpenResult = status; }
  /// The aligned and sector forms return the bytes transferred, as a device does; with false they return 0, as memory.
  void ReturnCounts(bool counts) { m_bReturnCounts = counts; }

  // ---- called by CFaultStorage
  int Open();
  int Close();
  int Transfer(IO_KIND kind, unsigned char* buffer, long long offset, unsigned long long count);

 private:
  enum class FAULT { None, Fail, FailRange, ShortRead, ShortWrite };

  void Arm(FAULT fault, unsigned int nth, FAULT_DURATION duration, IO_FILTER filter);
  bool FaultHits(IO_KIND kind, long long offset, unsigned long long count);
  int Perform(IO_KIND kind, unsigned char* buffer, long long offset, unsigned long long count);

  CDiskImage m_Image;
  std::vector<IO_RECORD> m_Trace;
  unsigned int m_nReads = 0;
  unsigned int m_nWrites = 0;
  unsigned long long m_nBytesRead = 0;
  unsigned long long m_nBytesWritten = 0;
  unsigned int m_nOutOfRange = 0;
  unsigned int m_nOpenCalls = 0;
  unsigned int m_nCloseCalls = 0;
  unsigned int m_nWhileClosed = 0;
  int m_nOpenDevices = 0;
  bool m_bKeepTrace = true;
  bool m_bRecordWrites = false;
  std::vector<MEDIUM_WRITE> m_RecordedWrites;

  FAULT m_Fault = FAULT::None;
  unsigned int m_nCountdown = 0;  // transfers that pass the filter until the fault hits
  FAULT_DURATION m_Duration = FAULT_ONCE;
  IO_FILTER m_Filter = IO_FILTER::All;
  int m_nFaultStatus = IO_ERROR;
  unsigned long long m_nFaultBytes = 0;  // bytes that a shortened transfer still moves, or the length of the range
  long long m_nFaultOffset = 0;          // start of the range
  bool m_bFired = false;

  bool m_bRefuseOutOfRange = false;
  int m_nOpenResult = 0;
  bool m_bReturnCounts = true;
};

/// The storage object for Fat_Mount; its open parameter is ignored. Several may stand on one medium, one after another.
class CFaultStorage final : public CFatStorage {
 public:
  explicit CFaultStorage(CMedium& medium) : m_pMedium(&medium) {}

  int OpenDevice(void* device) override;
  int CloseDevice() override;
  void HookIoFunctions() override;

 private:
  static int _ReadBytes(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count);
  static int _WriteBytes(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count);
  static int _ReadBytesAligned(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count);
  static int _WriteBytesAligned(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count);
  static int _ReadSectors(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count);
  static int _WriteSectors(CVolumeStorage* storage, unsigned char* buffer, long long position, unsigned int count);
  static int TransferBytes(CVolumeStorage* storage, IO_KIND kind, unsigned char* buffer, long long position,
                           unsigned int count);
  static int TransferSectors(CVolumeStorage* storage, IO_KIND kind, unsigned char* buffer, long long position,
                             unsigned int count);

  CMedium* m_pMedium;  // owned by the test
};

#endif  // FATLIB_TESTS_FAULTSTORAGE_H
