/// @file RawSlots.h
/// The first bytes of a regular file as they were when it was opened, kept until somebody looks for directory entries
/// in them. Hardly any file is ever used that way, so they stay where they are, in the blocks of the file's cache, and
/// are copied only when such a block is about to change or to leave the cache.

#ifndef FATLIB_RAWSLOTS_H
#define FATLIB_RAWSLOTS_H

#include "directory/DirEnt.h"
#include "file/BlockLoan.h"

class CRawSlots : private CBlockBorrower {
 public:
  static constexpr unsigned int BLOCK_SLOTS = 0x2000;  // of a block of the cache
  static constexpr unsigned int MAX_SLOTS = 0x10000;

  CRawSlots() : m_nSlots(0), m_bLost(false), m_Blocks() {}
  ~CRawSlots() { Clear(); }
  CRawSlots(const CRawSlots&) = delete;
  CRawSlots& operator=(const CRawSlots&) = delete;

  bool IsEmpty() const { return m_nSlots == 0; }
  /// Memory for a copy could not be had: what was here is known no more.
  bool IsLost() const { return m_bLost; }
  bool IsFull() const { return m_nSlots == MAX_SLOTS; }
  /// Adds the first `count` slots of a cached block behind those that are there, which must be whole blocks.
  /// @param count  1 to BLOCK_SLOTS
  void Append(BLOCK_LOAN& block, const unsigned char* data, unsigned int count);
  /// @return the slot, or null behind the last one
  const CDirEnt* At(unsigned int slot) const {
    if (slot >= m_nSlots) return nullptr;
    return reinterpret_cast<const CDirEnt*>(m_Blocks[slot / BLOCK_SLOTS].pBytes) + slot % BLOCK_SLOTS;
  }
  void Clear();

 private:
  static constexpr unsigned int MAX_BLOCKS = MAX_SLOTS / BLOCK_SLOTS;

  void EndLoan(BLOCK_LOAN& loan) override;

  unsigned int m_nSlots;
  bool m_bLost;
  struct {
    const unsigned char* pBytes;
    BLOCK_LOAN* pLoan;     // the cached block that they are in, or null
    unsigned char* pCopy;  // memory of our own that they are in, or null
  } m_Blocks[MAX_BLOCKS];
};

#endif  // FATLIB_RAWSLOTS_H
