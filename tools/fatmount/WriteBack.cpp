/// @file WriteBack.cpp

#include "WriteBack.h"

#include <algorithm>

namespace fatmount {

void WriteBack::NoteHeld() {
  if (m_pHeld != nullptr) m_pStats->heldBytesPeak = std::max(m_pStats->heldBytesPeak, m_pHeld->HeldBytes());
}

std::error_code WriteBack::Changed() {
  NoteHeld();
  if (m_bAtOnce) return Commit();
  const Clock::time_point now = Clock::now();
  if (!m_bWaiting) m_Latest = now + LONGEST;
  m_bWaiting = true;
  m_Due = std::min(now + IDLE, m_Latest);
  return {};
}

std::error_code WriteBack::Commit() {
  const std::error_code error = Sync();
  const std::error_code untold = m_Untold;
  m_Untold.clear();
  return untold ? untold : error;
}

int WriteBack::Timeout() const {
  if (!m_bWaiting) return -1;
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(m_Due - Clock::now());
  return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count() + 1, 0));
}

void WriteBack::Tick() {
  if (!m_bWaiting || Clock::now() < m_Due) return;
  const std::error_code error = Sync();
  if (!error) return;
  m_Untold = error;
  m_Report("writing back failed: " + error.message());
}

std::error_code WriteBack::Sync() {
  m_bWaiting = false;
  if (!m_pVolume->IsDirty()) return {};
  const Clock::time_point begin = Clock::now();
  const std::error_code error = m_pVolume->Sync();
  m_pStats->secondsInCommits += std::chrono::duration<double>(Clock::now() - begin).count();
  ++m_pStats->commits;
  if (!error) return {};
  ++m_pStats->failedCommits;
  // What is still to be written is tried again in a while.
  m_bWaiting = m_pVolume->IsDirty();
  m_Latest = m_Due = Clock::now() + LONGEST;
  return error;
}

}  // namespace fatmount
