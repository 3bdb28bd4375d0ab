/// @file FatDirectory.h
/// A file object used as a directory: its bytes are 32-byte entries, and its entry cache holds them in memory. These
/// operations change one directory, on the medium and in its cache together; they never walk paths.
///
/// An object without an entry cache (a file just created) has no entries and no slots.

#ifndef FATLIB_FATDIRECTORY_H
#define FATLIB_FATDIRECTORY_H

#include "directory/DirEntCache.h"
#include "file/FatFile.h"

class CFatDir : public CFatFile {
 public:
  static constexpr unsigned int MAX_SET_SLOTS = LFN_MAX_ORDINAL + 1;  // slots of one entry set

  CFatDir() = default;

  /// Makes the entry cache and reads the directory into it.
  /// @return negative: STATUS_NO_MEMORY, or the status of a failed read; what was read before stays
  [[nodiscard]] int LoadAllDirEnts();

  /// To be called before the entries are used where a regular file may stand for a directory: see
  /// CDirEntCache::Prepare.
  /// @return STATUS_NO_MEMORY
  [[nodiscard]] int PrepareEntries() { return m_pDirEntCache == nullptr ? STATUS_SUCCESS : m_pDirEntCache->Prepare(); }
  /// @return the record of that name, or null. Upper and lower case are one. An entry with a long name is found by that
  ///         only, never by its short alias.
  DENTCTX* LookupFile(const unsigned short* name);
  /// Whether the directory holds nothing but "." and "..".
  bool IsEmpty();
  /// Enumeration in slot order. @return null at the end
  DENTCTX* FindFirst();
  void FindNext(DENTCTX*& record);

  /// Creates a file of `size` bytes and its object. The object has no path key yet, and one reference, the caller's.
  /// @return negative: STATUS_DISK_FULL with nothing written, STATUS_FILE_CORRUPT without memory for the object (the
  ///         entry set is gone again), or that of a failed transfer. When the size cannot be given the entry set is
  ///         deleted again, but its record stays.
  [[nodiscard]] int CreateNewFile(const unsigned short* name, unsigned char attribute, unsigned int size,
                                  CFatFile** file);
  /// Creates a directory with "." and "..", and its object. Results as of CreateNewFile; when a block of another file
  /// that had to make room could not be written, the entry set stays, and names a cluster of old bytes.
  [[nodiscard]] int CreateSubDir(const unsigned short* name, unsigned char attribute, CFatDir** dir);

  /// Gives a file of this directory a new name and fresh stamps: the old entry set is deleted, a new one made. Where
  /// that fails the old one is restored.
  [[nodiscard]] int RenameFile(CFatFile* file, DENTCTX* context, const unsigned short* newName);
  /// Deletes a file's entry set and frees its clusters. Failures of the FAT are not reported.
  /// @return negative, with nothing changed in the cache: the entry set could not be marked deleted
  [[nodiscard]] int DeleteFile(CFatFile* file, DENTCTX* context);
  /// Moves an entry set, byte for byte, into another directory. It is written there before it is marked deleted here:
  /// an interruption leaves two of it rather than none.
  [[nodiscard]] int MoveDirEntsIntoAnother(DENTCTX* context, CFatDir* target);
  /// Points the ".." entry of a moved directory that has no object at its new parent, whose start cluster is written as
  /// it is: also for the root, where CreateSubDir writes 0. Nothing to do for a file.
  /// @return negative: STATUS_DISK_CORRUPT for a directory without a cluster of the volume, or a failed transfer
  [[nodiscard]] static int UpdateDotDotDirEnt(CFatVolume* volume, DENTCTX* moved, CFatDir* newParent);

  /// Takes n consecutive slots: the lowest ones; grows the directory, or slides used slots towards its start, when
  /// there are none.
  /// @return negative: STATUS_DISK_FULL when the directory is a fixed root or has 65,536 slots, or its cache does not
  ///         hold together; or that of a failed growth or transfer
  [[nodiscard]] int AllocDirEntsByBitmap(unsigned int n, unsigned int* first);
  /// Writes a new entry set and adds its record, which it does also when the write failed.
  [[nodiscard]] int CreateNewDirEnts(const unsigned short* name, unsigned char attribute, unsigned int size,
                                     unsigned int cluster, DENTCTX*& record);
  /// Marks up to MAX_SET_SLOTS slots deleted.
  [[nodiscard]] int DeleteDirEnts(unsigned int first, unsigned int count);
  /// Undoes the last DeleteDirEnts; only for the very same slots.
  [[nodiscard]] int RestoreDelDirEnts(unsigned int first, unsigned int count);
  /// Builds "." and ".." for this new directory. @param parentCluster  0 when the parent is the root
  void ConstructDotDirEnt(CDirEnt* dot, CDirEnt* dotdot, unsigned int parentCluster);

 private:
  int MoveUsedEntriesForward(unsigned int first, unsigned int count, unsigned int target);
  int MakeRoom(unsigned int n, unsigned int& first);
  void DropNewDirEnts(DENTCTX* record);
  void FreeCluster(unsigned int cluster);
  int ReadSlots(unsigned int first, unsigned int count, CDirEnt* entries);
  int WriteSlots(unsigned int first, unsigned int count, CDirEnt* entries);
};

#endif  // FATLIB_FATDIRECTORY_H
