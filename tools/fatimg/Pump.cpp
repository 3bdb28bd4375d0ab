/// @file Pump.cpp

#include "Pump.h"

#include <fatlib/Error.h>

#include <algorithm>
#include <cstdlib>

namespace fatimg {

void Pump::Free::operator()(void* memory) const { std::free(memory); }

std::error_code Pump::Run(ByteSource* source, std::uint64_t size, const WritePiece& write, const Advance& advance,
                          std::uint64_t* moved) {
  *moved = 0;
  if (!m_pBuffer) m_pBuffer.reset(std::aligned_alloc(ALIGNMENT, PIECE_BYTES));
  if (!m_pBuffer) return make_error_code(fatlib::Status::NoMemory);
  while (*moved < size) {
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(PIECE_BYTES, size - *moved));
    std::size_t count = 0;
    if (const std::error_code error = source->Read(m_pBuffer.get(), wanted, &count)) return error;
    if (count == 0) break;
    if (const std::error_code error = write(*moved, m_pBuffer.get(), count)) return error;
    *moved += count;
    if (!advance(count)) return make_error_code(fatlib::Status::Cancelled);
  }
  return {};
}

}  // namespace fatimg
