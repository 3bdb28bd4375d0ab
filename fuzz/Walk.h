/// @file Walk.h
/// What targets do with a mounted volume: list and read all of it, and change it. All of it is bounded, whatever the
/// volume says: directories may contain themselves, and sizes may be anything.

#ifndef FATLIB_FUZZ_WALK_H
#define FATLIB_FUZZ_WALK_H

#include <cstdint>
#include <vector>

#include "Harness.h"

using UTF16 = std::vector<unsigned short>;

/// From plain ASCII.
UTF16 Units(const char* text);
UTF16 Join(const UTF16& directory, const UTF16& name);
/// The name under which an entry is found: its long name or, without one, its short name.
UTF16 NameOf(const WIN_FIND_DATA& data);

class CWalker {
 public:
  explicit CWalker(CFatFileSystem* fileSystem) : m_pFileSystem(fileSystem) {}

  /// Lists every directory, opens every name, reads every file.
  void WalkAll();
  /// Resizes, writes, renames, moves and deletes what the walk has found, and creates files and directories, as the
  /// input's bytes choose.
  void ChangeAll(CInput& choices);

  /// The paths found; directories are in Directories too.
  const std::vector<UTF16>& Paths() const { return m_Paths; }

 private:
  void List(const UTF16& directory);
  void Enter(const UTF16& directory, const WIN_FIND_DATA& data);
  void Open(const UTF16& path);
  void ReadFile(int handle);
  void Change(const UTF16& path, unsigned int choice, unsigned int argument);

  CFatFileSystem* m_pFileSystem;
  std::vector<UTF16> m_Paths;
  std::vector<UTF16> m_Directories;
  unsigned int m_nEntries = 0;
  unsigned int m_nOpened = 0;
  std::uint64_t m_nRead = 0;
};

#endif  // FATLIB_FUZZ_WALK_H
