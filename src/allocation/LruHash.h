/// @file LruHash.h
/// A fixed-capacity cache of blocks found by number, with eviction of the least recently used one.
///
/// The block type brings `m_nRefNo` (its number), and a static `Free(T* block, OWNER* owner)` that writes a dirty block
/// back and releases it; the cache calls it on eviction and destruction.

#ifndef FATLIB_LRUHASH_H
#define FATLIB_LRUHASH_H

#include "platform/ListEntry.h"
#include "platform/Platform.h"

template <class BLOCK, class OWNER, unsigned int ENTRIES, unsigned int BUCKETS>
class CLruHash {
 public:
  CLruHash() : m_pEntries(nullptr), m_nUsed(0), m_ppBuckets(nullptr), m_pOwner(nullptr) { InitListHead(&m_LruList); }
  CLruHash(const CLruHash&) = delete;
  CLruHash& operator=(const CLruHash&) = delete;

  /// @param owner  handed to BLOCK::Free
  /// @return false when memory runs out; the cache is empty and unusable then
  [[nodiscard]] bool Create(OWNER* owner) {
    m_pOwner = owner;
    m_nUsed = 0;
    InitListHead(&m_LruList);
    m_pEntries = static_cast<ENTRY*>(osMemAllocArray(ENTRIES, sizeof(ENTRY)));
    m_ppBuckets = static_cast<ENTRY**>(osMemAllocZeroed(BUCKETS * sizeof(ENTRY*)));
    if (m_pEntries != nullptr && m_ppBuckets != nullptr) return true;
    Destory();
    return false;
  }

  /// Frees every block, least recently used first, and the entries. May be called again, and on a cache never created.
  void Destory() {
    while (!IsListEmpty(&m_LruList)) {
      ENTRY* entry = EntryOf(m_LruList.Flink);
      RemoveEntryList(&entry->Link);
      BLOCK::Free(entry->pBlock, m_pOwner);
    }
    osMemFree(m_pEntries);
    osMemFree(m_ppBuckets);
    m_pEntries = nullptr;
    m_ppBuckets = nullptr;
    m_nUsed = 0;
  }

  /// Calls `action` with every cached block, least recently used first. The action must not use the cache.
  template <class ACTION>
  void ForEach(ACTION action) {
    for (_LST_ENTRY* link = m_LruList.Flink; link != &m_LruList; link = link->Flink) action(EntryOf(link)->pBlock);
  }

  /// @return the block of that number, now the most recently used one; null when it is not cached
  BLOCK* FindEntry(unsigned int key) {
    for (ENTRY* entry = m_ppBuckets[key % BUCKETS]; entry != nullptr; entry = entry->pNext) {
      if (entry->pBlock->m_nRefNo != key) continue;
      MoveToTailList(&m_LruList, &entry->Link);
      return entry->pBlock;
    }
    return nullptr;
  }

  /// Adds a block that FindEntry does not find, as the most recently used one; a full cache frees its least recently
  /// used block first.
  void AddEntry(BLOCK* block) {
    ENTRY* entry;
    if (m_nUsed < ENTRIES) {
      entry = &m_pEntries[m_nUsed++];
    } else {
      entry = EntryOf(m_LruList.Flink);
      RemoveEntryList(&entry->Link);
      Unchain(entry);
      BLOCK::Free(entry->pBlock, m_pOwner);
    }
    entry->pBlock = block;
    ENTRY*& bucket = m_ppBuckets[block->m_nRefNo % BUCKETS];
    entry->pNext = bucket;
    bucket = entry;
    InsertTailList(&m_LruList, &entry->Link);
  }

 private:
  struct ENTRY {
    _LST_ENTRY Link;  // in m_LruList
    BLOCK* pBlock;
    ENTRY* pNext;  // in its bucket
  };

  static ENTRY* EntryOf(_LST_ENTRY* link) { return FATLIB_CONTAINER_OF(link, ENTRY, Link); }

  void Unchain(ENTRY* entry) {
    ENTRY** link = &m_ppBuckets[entry->pBlock->m_nRefNo % BUCKETS];
    while (*link != entry) link = &(*link)->pNext;
    *link = entry->pNext;
  }

  ENTRY* m_pEntries;     // ENTRIES of them, handed out in order and then recycled by eviction
  _LST_ENTRY m_LruList;  // entries in use, least recently used first
  unsigned int m_nUsed;  // entries handed out so far
  ENTRY** m_ppBuckets;   // BUCKETS chains by block number, a prime
  OWNER* m_pOwner;
};

#endif  // FATLIB_LRUHASH_H
