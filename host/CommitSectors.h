/// @file CommitSectors.h
/// Sectors in memory in front of a device: what is to be written, and not yet. Not part of the face for hosts.

#ifndef FATLIB_COMMITSECTORS_H
#define FATLIB_COMMITSECTORS_H

#include <cstdint>
#include <map>
#include <vector>

#include "Device.h"

namespace fatlib {

/// Bytes that one write brings to a device: whole sectors.
struct CommitWrite {
  std::uint64_t position = 0;
  std::vector<unsigned char> bytes;
};

/// A device's bytes with changes that are kept in memory. Flush does nothing, and nothing is written to the device
/// below. What allocates may throw std::bad_alloc; the object is usable then, and the bytes asked for may be changed in
/// part.
class CommitSectors final : public Device {
 public:
  using SECTORS = std::map<std::uint64_t, std::vector<unsigned char>>;  // by number

  /// @param base            must live as long as the object
  /// @param bytesPerSector  a power of two
  CommitSectors(Device* base, std::uint32_t bytesPerSector);

  std::error_code Read(std::uint64_t position, void* buffer, std::size_t size) override;
  /// Keeps the bytes. A sector that becomes what the device below holds is not kept any longer.
  std::error_code Write(std::uint64_t position, const void* buffer, std::size_t size) override;
  std::error_code Flush() override { return {}; }
  std::uint64_t Size() const override { return m_pBase->Size(); }
  Access Mode() const override { return m_pBase->Mode(); }

  /// Keeps the bytes without comparing them.
  [[nodiscard]] std::error_code Put(std::uint64_t position, const void* buffer, std::size_t size);
  /// Keeps the sectors that a transfer touches as they are now, whatever becomes of the device below.
  [[nodiscard]] std::error_code Keep(std::uint64_t position, std::size_t size) { return Each(position, nullptr, size); }
  const SECTORS& Sectors() const { return m_Sectors; }
  bool Holds(std::uint64_t position, std::uint64_t size) const;
  void Clear() { m_Sectors.clear(); }
  std::uint64_t SectorOf(std::uint64_t position) const { return position >> m_nShift; }
  std::uint64_t PositionOf(std::uint64_t sector) const { return sector << m_nShift; }
  std::uint32_t BytesPerSector() const { return 1u << m_nShift; }

 private:
  std::error_code Each(std::uint64_t position, const unsigned char* bytes, std::size_t size);
  std::error_code WritePiece(std::uint64_t position, const unsigned char* bytes, std::size_t size);

  Device* m_pBase;
  unsigned m_nShift = 0;
  SECTORS m_Sectors;
  std::vector<unsigned char> m_Piece;  // what the device holds, for comparing
};

}  // namespace fatlib

#endif  // FATLIB_COMMITSECTORS_H
