/// @file SlotReader.cpp

#include "SlotReader.h"

#include <algorithm>

#include "Narrow.h"

namespace fatlib {

bool SlotReader::Next() {
  m_nAt = m_nSlot == UINT32_MAX ? 0 : m_nAt + sizeof(ShortEntry);
  if (m_nAt >= m_Bytes.size() && !Fill()) return false;
  ++m_nSlot;
  return Entry().name[0] != NEVER_USED;
}

// Most directories are small, and end long before their last cluster: the pieces begin small and grow.
bool SlotReader::Fill() {
  constexpr std::size_t MAX_PIECE_BYTES = std::size_t{256} * 1024;
  m_Bytes.clear();
  m_nAt = 0;
  while (m_nRun < m_Runs.size() && m_nDone == m_Runs[m_nRun].bytes) {
    ++m_nRun;
    m_nDone = 0;
  }
  if (m_nRun == m_Runs.size()) return false;
  const ByteRun& run = m_Runs[m_nRun];
  m_Bytes.resize(ToSize(std::min<std::uint64_t>(m_nPieceBytes, run.bytes - m_nDone)));
  m_Error = m_pDevice->Read(run.position + m_nDone, m_Bytes.data(), m_Bytes.size());
  if (m_Error) return false;
  m_nDone += m_Bytes.size();
  m_nPieceBytes = std::min(m_nPieceBytes * 2, MAX_PIECE_BYTES);
  return true;
}

}  // namespace fatlib
