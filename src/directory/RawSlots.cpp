/// @file RawSlots.cpp

#include "directory/RawSlots.h"

#include "platform/Platform.h"

void CRawSlots::Append(BLOCK_LOAN& block, const unsigned char* data, unsigned int count) {
  auto& added = m_Blocks[m_nSlots / BLOCK_SLOTS];
  added.pBytes = data;
  added.pLoan = &block;
  added.pCopy = nullptr;
  block.pBorrower = this;
  m_nSlots += count;
}

void CRawSlots::Clear() {
  for (unsigned int i = 0; i * BLOCK_SLOTS < m_nSlots; ++i) {
    if (m_Blocks[i].pLoan != nullptr) m_Blocks[i].pLoan->pBorrower = nullptr;
    osMemFree(m_Blocks[i].pCopy);
  }
  m_nSlots = 0;
}

void CRawSlots::EndLoan(BLOCK_LOAN& loan) {
  unsigned int i = 0;
  while (m_Blocks[i].pLoan != &loan) ++i;
  m_Blocks[i].pLoan = nullptr;
  const unsigned int rest = m_nSlots - i * BLOCK_SLOTS;
  const unsigned int bytes = (rest < BLOCK_SLOTS ? rest : BLOCK_SLOTS) * DIRENT_SIZE;
  m_Blocks[i].pCopy = static_cast<unsigned char*>(osMemAlloc(bytes));
  if (m_Blocks[i].pCopy == nullptr) {
    m_bLost = true;
    return;
  }
  osMemCpyLarge(m_Blocks[i].pCopy, m_Blocks[i].pBytes, bytes);
  m_Blocks[i].pBytes = m_Blocks[i].pCopy;
}
