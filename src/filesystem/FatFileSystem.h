/// @file FatFileSystem.h
/// One mounted volume as the interface sees it: the volume, and the cache of its open files and directories. Resolves
/// paths, creates, deletes, renames, moves and lists.
///
///   NEW --Mount--> MOUNTED --Unmount, Abandon--> DEAD
///   DEAD  no transfer is made any more, and nothing of the volume is left but objects that handles still name.
///
/// Paths are normalised: no leading separator, single separators, at most 259 units.
///
/// Two rules keep objects and paths valid across nested calls:
///  - what the hash of a path told (its key, its prefixes) is a record of the call that hashed it: growing a directory
///    in the middle of a creation resolves another path;
///  - a call holds a reference on every object it works with, taken after the tests whether the object is open.

#ifndef FATLIB_FATFILESYSTEM_H
#define FATLIB_FATFILESYSTEM_H

#include "directory/FatDirectory.h"
#include "filesystem/FileCache.h"
#include "interface/FatLibIntf.h"
#include "storage/FatVolume.h"

/// A search in a directory.
struct FIND_CTX : OS_ALLOCATED {
  CFatFile* m_pDir;  // a reference is held
  DENTCTX* m_pCur;   // the record last returned, pinned; null after the last one
};

class CFatFileSystem : public CFatVolume, public OS_ALLOCATED {
 public:
  CFatFileSystem() : m_RegistryLink() { m_RegistryLink.pFileSystem = this; }
  CFatFileSystem(const CFatFileSystem&) = delete;
  CFatFileSystem& operator=(const CFatFileSystem&) = delete;

  /// Opens the storage and mounts the volume on it.
  /// @return false: everything is released again, the storage object's memory too (unless it is null). A device that
  ///         was opened stays open when the boot sector or the volume is refused in Open; it is closed when mounting
  ///         fails.
  bool Mount(CVolumeStorage* storage, void* param);
  /// Writes everything back and closes the storage. @return false when the FAT could not be written: everything else is
  /// dropped then, and the storage stays open. The file system is dead in either case.
  bool Unmount();
  /// Drops everything without a transfer; the storage stays open.
  void Abandon();

  /// @param file  out: referenced for the caller. The same object for the same path as long as it is cached
  /// @return negative: STATUS_NOT_FOUND, STATUS_FILE_CORRUPT when the object cannot be built, STATUS_NO_MEMORY
  [[nodiscard]] int OpenFile(const unsigned short* path, CFatFile** file);
  /// Create a file or directory, and the missing directories of its path.
  /// @return negative: STATUS_NAME_EXISTS, or a status of CFatDir. Directories made before the failure stay
  [[nodiscard]] int CreateFile(const unsigned short* path, unsigned int size, unsigned char attributes,
                               CFatFile** file);
  [[nodiscard]] int CreateDir(const unsigned short* path, unsigned char attributes, CFatDir** dir);
  static void CloseFile(CFatFile* file) { (void)file->Close(); }

  /// @return negative, with nothing changed: STATUS_REFUSED when it is open or a directory with entries,
  /// STATUS_NOT_FOUND;
  ///         or a status of CFatDir
  [[nodiscard]] int DeleteFile(const unsigned short* path);
  /// Gives a file or directory another name in its directory. A cached object stays cached under its old path.
  /// @return negative: STATUS_NAME_EXISTS, STATUS_NOT_FOUND, or a status of CFatDir
  [[nodiscard]] int RenameFile(const unsigned short* path, const unsigned short* newName);
  /// Moves a file or directory into another directory. A cached object stays cached under its old path.
  /// @param dest  path of the directory; null: the root
  /// @return negative: STATUS_REFUSED, STATUS_NAME_EXISTS, STATUS_NOT_FOUND, or a status of CFatDir
  [[nodiscard]] int MoveFile(const unsigned short* path, const unsigned short* dest);

  /// Starts listing a directory. @param path  null: the root
  /// @return the search, with its first entry in data; null when there is none or the path is no directory
  FIND_CTX* FindFirstFile(const unsigned short* path, WIN_FIND_DATA* data);
  /// @return false at the end; the call after that starts again
  static bool FindNextFile(FIND_CTX* search, WIN_FIND_DATA* data);
  static void CloseFindCtx(FIND_CTX* search);
  static void FillFindData(const DENTCTX* entry, WIN_FIND_DATA* data);
  /// Fills in attributes, sizes and times.
  static void FillFindEntry(const CDirEnt& entry, WIN_FIND_DATA* data);
  /// Fills in the two names and nothing else. A long name of 260 units fills its field without a terminator.
  /// @param name, chars  long name, not terminated; null and 0 for none
  /// @param shortName    11 bytes in the encoding of the locale
  static void FillFindName(unsigned int chars, const unsigned short* name, const unsigned char* shortName,
                           WIN_FIND_DATA* data);

  /// Build an object from a directory record, with one reference for the caller.
  /// @param load  read its entries too, also if it is no directory
  /// @return null on any failure
  static CFatFile* CreateFileObj(CFatVolume* volume, DENTCTX* entry, bool load);
  static CFatFile* CreateDirObj(CFatVolume* volume, DENTCTX* entry, bool load) {
    return CreateFileObj(volume, entry, load);
  }
  /// Whether someone besides the cache holds the object.
  static bool IsOpened(CFatFile* file) { return file->RefCount() > 1; }

  // Time conversions; see ImpNtDll.h.
  static bool DosDateTimeToFileTime(unsigned short date, unsigned short time, WIN_FTIME* out);
  static bool FileTimeToDosDateTime(const WIN_FTIME* in, unsigned short* date, unsigned short* time);

  CFileCache* FileCache() { return &m_FileCache; }

  /// Place in the interface's list of file systems.
  struct REGISTRY_LINK : _LST_ENTRY {
    CFatFileSystem* pFileSystem;
  };
  _LST_ENTRY* RegistryLink() { return &m_RegistryLink; }
  static CFatFileSystem* FromRegistryLink(_LST_ENTRY* link) { return static_cast<REGISTRY_LINK*>(link)->pFileSystem; }

 private:
  using CDirRef = CObjectRef<CFatDir>;
  struct PATH_WALK;

  int CreateFileOrDir(const unsigned short* path, CFatFile** file, bool directory, unsigned int size,
                      unsigned char attributes);
  int CreateOrOpenDir(const unsigned short* path, const PATH_HASH& hash, CDirRef& dir);
  int FindFileUnCached(const unsigned short* path, const PATH_HASH& hash, CDirRef& parent, DENTCTX*& entry);
  int StartWalk(const unsigned short* path, const PATH_HASH& hash, PATH_WALK& walk, CDirRef& dir);
  int CacheDirectory(CFatFile* object, const PATH_HASH& hash, unsigned int prefix, CDirRef& dir);
  int EnterDirectory(DENTCTX* entry, const PATH_HASH& hash, unsigned int prefix, CDirRef& dir);
  int OpenMoveTarget(const unsigned short* dest, CDirRef& target);
  void ReleaseObjects(bool writeBack);

  CFileCache m_FileCache;
  REGISTRY_LINK m_RegistryLink;
};

#endif  // FATLIB_FATFILESYSTEM_H
