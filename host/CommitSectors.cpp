/// @file CommitSectors.cpp

#include "CommitSectors.h"

#include <algorithm>
#include <cstring>

#include "Narrow.h"

namespace fatlib {

namespace {

constexpr std::size_t PIECE_BYTES = std::size_t{64} * 1024;  // of comparing; many sectors

}  // namespace

CommitSectors::CommitSectors(Device* base, std::uint32_t bytesPerSector) : m_pBase(base) {
  while ((1u << m_nShift) < bytesPerSector) ++m_nShift;
}

bool CommitSectors::Holds(std::uint64_t position, std::uint64_t size) const {
  if (m_Sectors.empty() || size == 0) return false;
  const auto sector = m_Sectors.lower_bound(SectorOf(position));
  return sector != m_Sectors.end() && sector->first <= SectorOf(position + size - 1);
}

std::error_code CommitSectors::Read(std::uint64_t position, void* buffer, std::size_t size) {
  if (const std::error_code error = m_pBase->Read(position, buffer, size)) return error;
  if (m_Sectors.empty()) return {};
  auto* out = static_cast<unsigned char*>(buffer);
  for (auto sector = m_Sectors.lower_bound(SectorOf(position)); sector != m_Sectors.end(); ++sector) {
    const std::uint64_t start = PositionOf(sector->first);
    const std::uint64_t from = std::max(start, position);
    if (from - position >= size) break;
    const auto offset = ToSize(from - start);
    const auto done = ToSize(from - position);
    std::copy_n(sector->second.data() + offset, std::min(BytesPerSector() - offset, size - done), out + done);
  }
  return {};
}

std::error_code CommitSectors::Put(std::uint64_t position, const void* buffer, std::size_t size) {
  return Each(position, static_cast<const unsigned char*>(buffer), size);
}

/// @param bytes  null: the sectors are only to be kept
std::error_code CommitSectors::Each(std::uint64_t position, const unsigned char* bytes, std::size_t size) {
  while (size != 0) {
    const std::uint64_t number = SectorOf(position);
    const auto offset = ToSize(position - PositionOf(number));
    const std::size_t piece = std::min(size, BytesPerSector() - offset);
    auto sector = m_Sectors.find(number);
    if (sector == m_Sectors.end()) {
      std::vector<unsigned char> content(BytesPerSector());
      if (const std::error_code error = m_pBase->Read(PositionOf(number), content.data(), content.size())) return error;
      sector = m_Sectors.emplace(number, std::move(content)).first;
    }
    if (bytes != nullptr) {
      std::copy_n(bytes, piece, sector->second.data() + offset);
      bytes += piece;
    }
    position += piece;
    size -= piece;
  }
  return {};
}

std::error_code CommitSectors::Write(std::uint64_t position, const void* buffer, std::size_t size) {
  const auto* bytes = static_cast<const unsigned char*>(buffer);
  while (size != 0) {
    // Up to a boundary of sectors, unless the transfer ends before.
    const std::size_t piece = std::min(size, PIECE_BYTES - ToSize(position & (PIECE_BYTES - 1)));
    if (const std::error_code error = WritePiece(position, bytes, piece)) return error;
    position += piece;
    bytes += piece;
    size -= piece;
  }
  return {};
}

std::error_code CommitSectors::WritePiece(std::uint64_t position, const unsigned char* bytes, std::size_t size) {
  const std::uint64_t first = SectorOf(position);
  const std::uint64_t end = SectorOf(position + size - 1) + 1;
  const std::size_t sectorBytes = BytesPerSector();
  m_Piece.resize(ToSize(end - first) * sectorBytes);
  if (const std::error_code error = m_pBase->Read(PositionOf(first), m_Piece.data(), m_Piece.size())) return error;
  auto held = m_Sectors.lower_bound(first);
  for (std::uint64_t number = first; number != end; ++number) {
    unsigned char* const below = m_Piece.data() + ToSize(number - first) * sectorBytes;
    const std::uint64_t start = std::max(PositionOf(number), position);
    const auto offset = ToSize(start - PositionOf(number));
    const std::size_t count = std::min(sectorBytes - offset, size - ToSize(start - position));
    const unsigned char* const from = bytes + ToSize(start - position);
    if (held != m_Sectors.end() && held->first == number) {
      std::copy_n(from, count, held->second.data() + offset);
      const bool same = std::memcmp(held->second.data(), below, sectorBytes) == 0;
      held = same ? m_Sectors.erase(held) : std::next(held);
    } else if (std::memcmp(below + offset, from, count) != 0) {
      std::copy_n(from, count, below + offset);
      m_Sectors.emplace_hint(held, number, std::vector<unsigned char>(below, below + sectorBytes));
    }
  }
  return {};
}

}  // namespace fatlib
