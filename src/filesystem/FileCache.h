/// @file FileCache.h
/// The cache of open file and directory objects, found by their upper-cased full path. It holds one reference on each,
/// so that objects stay in memory after the host closed them, up to 160 of them.

#ifndef FATLIB_FILECACHE_H
#define FATLIB_FILECACHE_H

#include "file/FatFile.h"
#include "names/TriHash.h"
#include "platform/ListEntry.h"

class CFileCache {
 public:
  static constexpr unsigned int MAX_OBJECTS = 160;

  CFileCache() : m_nCount(0) { InitListHead(&m_LruList); }

  void Initialize();
  /// Releases every object, least recently used first. An object that others hold too dies at its turn, with its
  /// unsaved data written.
  /// @param writeBack  false: nothing is written
  void Terminate(bool writeBack);

  /// Adds an object under its key as the most recently used one; a full cache lets the least recently used one go.
  /// @return false when memory runs out, with nothing changed
  [[nodiscard]] bool Add(CFileBase* object);
  /// Makes sure that the next Add finds memory.
  [[nodiscard]] bool Reserve() { return m_HashTbl.Reserve(); }
  /// Takes an object out and drops the cache's reference. One that is held elsewhere lives on, but is no longer found.
  void Del(CFileBase* object);
  /// Hashes a path into `path`, always, and looks it up. A hit becomes the most recently used object.
  /// @return null when it is not cached. No reference is taken
  CFileBase* Find(const unsigned short* text, PATH_HASH& path);
  /// The same by a key.
  CFileBase* FindDir(const TriHashIdx& key);

  unsigned int Count() const { return m_nCount; }

 private:
  CFileBase* Touch(TriHashIdx* hit);

  TriHashTbl m_HashTbl;
  unsigned int m_nCount;
  _LST_ENTRY m_LruList;  // least recently used first
};

#endif  // FATLIB_FILECACHE_H
