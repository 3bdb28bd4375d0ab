/// @file Pump.h
/// Moves the bytes of a file in large pieces.

#ifndef FATIMG_PUMP_H
#define FATIMG_PUMP_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <system_error>

#include "CopyItem.h"

namespace fatimg {

/// Told the bytes of each piece; false stops.
using Advance = std::function<bool(std::size_t bytes)>;
using WritePiece = std::function<std::error_code(std::uint64_t offset, const void* buffer, std::size_t size)>;

/// Keeps one buffer for all files. It is aligned for transfers that bypass caches, and its size is a multiple of the
/// library's blocks of 256 KiB.
class Pump {
 public:
  static constexpr std::size_t PIECE_BYTES = std::size_t{1} << 20;
  static constexpr std::size_t ALIGNMENT = 4096;

  /// Reads up to `size` bytes and writes them at the same offsets.
  /// @param moved  out: bytes written, also after a failure; fewer than `size` when the source ends before
  [[nodiscard]] std::error_code Run(ByteSource* source, std::uint64_t size, const WritePiece& write,
                                    const Advance& advance, std::uint64_t* moved);

 private:
  struct Free {
    void operator()(void* memory) const;
  };
  std::unique_ptr<void, Free> m_pBuffer;
};

}  // namespace fatimg

#endif  // FATIMG_PUMP_H
