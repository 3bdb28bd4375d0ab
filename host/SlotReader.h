/// @file SlotReader.h
/// The slots of a directory one after the other, read in large pieces. Not part of the face for hosts.

#ifndef FATLIB_SLOTREADER_H
#define FATLIB_SLOTREADER_H

#include <cstdint>
#include <system_error>
#include <vector>

#include "Device.h"
#include "Layout.h"

namespace fatlib {

/// Bytes of a device that lie together.
struct ByteRun {
  std::uint64_t position = 0;
  std::uint64_t bytes = 0;
};

class SlotReader {
 public:
  SlotReader(Device* device, std::vector<ByteRun> runs) : m_pDevice(device), m_Runs(std::move(runs)) {}

  /// Steps to the next slot. @return false behind the last one, at the first that was never used, and after a failure
  bool Next();
  /// What ended it, when it was a failure.
  std::error_code Error() const { return m_Error; }

  std::uint32_t Slot() const { return m_nSlot; }
  /// Valid until the next Next.
  const ShortEntry& Entry() const { return *reinterpret_cast<const ShortEntry*>(m_Bytes.data() + m_nAt); }
  const LongEntry& AsLong() const { return *reinterpret_cast<const LongEntry*>(m_Bytes.data() + m_nAt); }
  bool IsDeleted() const { return Entry().name[0] == DELETED; }
  bool IsLong() const { return !IsDeleted() && Entry().attributes == LongEntry::ATTRIBUTES; }
  bool IsShort() const { return !IsDeleted() && Entry().attributes != LongEntry::ATTRIBUTES; }

  static constexpr std::uint8_t NEVER_USED = 0x00;
  static constexpr std::uint8_t DELETED = 0xE5;

 private:
  bool Fill();

  Device* m_pDevice;
  std::vector<ByteRun> m_Runs;
  std::size_t m_nRun = 0;
  std::uint64_t m_nDone = 0;  // bytes of the run that were read
  std::size_t m_nPieceBytes = 4096;
  std::vector<unsigned char> m_Bytes;
  std::size_t m_nAt = 0;
  std::uint32_t m_nSlot = UINT32_MAX;
  std::error_code m_Error;
};

}  // namespace fatlib

#endif  // FATLIB_SLOTREADER_H
