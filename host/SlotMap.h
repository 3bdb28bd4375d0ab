/// @file SlotMap.h
/// Which slots of a directory are in use. It finds room as the library does, so that what the library will do with a
/// new name is known before. Not part of the face for hosts.

#ifndef FATLIB_SLOTMAP_H
#define FATLIB_SLOTMAP_H

#include <cstdint>
#include <vector>

namespace fatlib {

class SlotMap {
 public:
  static constexpr std::uint32_t NONE = UINT32_MAX;

  SlotMap() = default;
  explicit SlotMap(const std::vector<bool>& used);

  std::uint32_t Total() const { return m_nTotal; }
  std::uint32_t Free() const { return m_nTotal - m_nUsed; }
  /// The first of the lowest `count` free slots in a row, or NONE.
  std::uint32_t FindRun(std::uint32_t count) const;
  /// Free slots at the end.
  std::uint32_t FreeAtEnd() const;
  /// Slots that are in use already, or that the directory does not have, are passed over.
  void Take(std::uint32_t first, std::uint32_t count);
  void Release(std::uint32_t first, std::uint32_t count);
  /// Adds free slots at the end.
  void Grow(std::uint32_t count);

 private:
  static constexpr std::uint32_t BITS = 64;

  bool IsUsed(std::uint32_t slot) const { return (m_Words[slot / BITS] >> slot % BITS & 1) != 0; }

  std::vector<std::uint64_t> m_Words;  // a set bit is a slot in use
  std::uint32_t m_nTotal = 0;
  std::uint32_t m_nUsed = 0;
  std::uint32_t m_nHint = 0;  // no slot below is free
};

}  // namespace fatlib

#endif  // FATLIB_SLOTMAP_H
