/// @file Device.cpp
/// The devices that live in memory.

#include "Device.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "Error.h"
#include "Narrow.h"

namespace fatlib {

// ---------------------------------------------------------------------------------------------- MemoryImage

std::error_code MemoryImage::Read(std::uint64_t position, void* buffer, std::size_t size) {
  auto* out = static_cast<unsigned char*>(buffer);
  std::size_t held = 0;
  if (position < m_Bytes.size()) {
    const auto from = ToSize(position);
    held = std::min(size, m_Bytes.size() - from);
    std::copy_n(m_Bytes.data() + from, held, out);
  }
  std::fill_n(out + held, size - held, static_cast<unsigned char>(0));
  return {};
}

std::error_code MemoryImage::Write(std::uint64_t position, const void* buffer, std::size_t size) {
  if (size == 0) return {};
  if (position > m_Bytes.size() || size > m_Bytes.size() - ToSize(position)) return Status::IoError;
  std::memcpy(m_Bytes.data() + ToSize(position), buffer, size);
  return {};
}

std::error_code MemoryImage::Flush() { return {}; }

// ---------------------------------------------------------------------------------------------- Overlay

namespace {

constexpr std::size_t PIECE_BYTES = 4096;

/// The part of a transfer that lies in one piece.
struct PIECE_PART {
  std::uint64_t number;
  std::size_t offset;
  std::size_t bytes;
};

PIECE_PART PartAt(std::uint64_t position, std::size_t size) {
  const auto offset = ToSize(position % PIECE_BYTES);
  return {position / PIECE_BYTES, offset, std::min(size, PIECE_BYTES - offset)};
}

}  // namespace

std::error_code Overlay::Read(std::uint64_t position, void* buffer, std::size_t size) {
  if (const std::error_code error = m_pBase->Read(position, buffer, size)) return error;
  // Only the pieces there are, so that a long read costs no more than one of the other device.
  auto* out = static_cast<unsigned char*>(buffer);
  for (auto piece = m_Pieces.lower_bound(position / PIECE_BYTES); piece != m_Pieces.end(); ++piece) {
    const std::uint64_t start = piece->first * PIECE_BYTES;
    const std::uint64_t from = std::max(start, position);
    if (from - position >= size) break;
    const PIECE_PART part = PartAt(from, size - ToSize(from - position));
    std::copy_n(piece->second.data() + part.offset, part.bytes, out + ToSize(from - position));
  }
  return {};
}

std::error_code Overlay::Write(std::uint64_t position, const void* buffer, std::size_t size) try {
  if (size > UINT64_MAX - position) return Status::IoError;
  const auto* in = static_cast<const unsigned char*>(buffer);
  while (size != 0) {
    const PIECE_PART part = PartAt(position, size);
    auto piece = m_Pieces.find(part.number);
    if (piece == m_Pieces.end()) {
      std::vector<unsigned char> bytes(PIECE_BYTES);
      if (part.bytes != PIECE_BYTES) {
        if (const std::error_code error = m_pBase->Read(part.number * PIECE_BYTES, bytes.data(), PIECE_BYTES)) {
          return error;
        }
      }
      piece = m_Pieces.emplace(part.number, std::move(bytes)).first;
    }
    std::copy_n(in, part.bytes, piece->second.data() + part.offset);
    in += part.bytes;
    position += part.bytes;
    size -= part.bytes;
    m_nEnd = std::max(m_nEnd, position);
  }
  return {};
} catch (const std::bad_alloc&) {
  return Status::NoMemory;
}

std::error_code Overlay::Flush() { return {}; }

std::uint64_t Overlay::Size() const { return std::max(m_nEnd, m_pBase->Size()); }

}  // namespace fatlib
