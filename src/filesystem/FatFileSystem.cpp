/// @file FatFileSystem.cpp
/// Mounting, path resolution and creation.

#include "filesystem/FatFileSystem.h"

#include <new>

#include "filesystem/ImpNtDll.h"
#include "names/XUtils.h"

// ---------------------------------------------------------------------------------------------- mount and unmount

bool CFatFileSystem::Mount(CVolumeStorage* storage, void* param) {
  if (storage == nullptr) return false;
  // The memory is released from the start of the whole object, of which the storage may be a later part.
  void* const storageMemory = dynamic_cast<void*>(storage);
  if (storage->Open(param) >= 0) {
    m_FileCache.Initialize();
    if (CFatVolume::Mount(storage) >= 0) return true;
    (void)storage->Close();
  }
  ::operator delete(storageMemory);  // no destructor runs, as hosts are told
  return false;
}

bool CFatFileSystem::Unmount() {
  (void)ResetFat32FsInfo();  // a volume with a bad FSInfo sector is unmounted all the same
  if (CFatVolume::Unmount() < 0) {
    ReleaseObjects(false);
    return false;
  }
  BackupFirstFat();
  ReleaseObjects(true);
  (void)Storage()->Close();
  return true;
}

void CFatFileSystem::Abandon() {
  CFatVolume::Abandon();
  ReleaseObjects(false);
}

// The cached objects go in their order; those that only handles hold come after them, oldest first.
void CFatFileSystem::ReleaseObjects(bool writeBack) {
  m_FileCache.Terminate(writeBack);
  while (!IsListEmpty(Objects())) CFatFile::FromVolumeLink(Objects()->Flink)->Shutdown(writeBack);
}

// ---------------------------------------------------------------------------------------------- objects

CFatFile* CFatFileSystem::CreateFileObj(CFatVolume* volume, DENTCTX* entry, bool load) {
  CFatDir* object = new CFatDir;
  if (object == nullptr) return nullptr;
  object->AddRef();
  int status = object->Build(volume, entry);
  if (status >= 0 && load) status = object->LoadAllDirEnts();
  if (status >= 0) return object;
  (void)object->Release();
  return nullptr;
}

// ---------------------------------------------------------------------------------------------- path resolution

/// A position in a path that is being resolved.
struct CFatFileSystem::PATH_WALK {
  const unsigned short* pRest;  // the path behind the directories resolved so far
  unsigned int nNextPrefix;     // prefix that the next component completes
};

// Starts from the longest prefix of the path that is a cached object, or from the root.
int CFatFileSystem::StartWalk(const unsigned short* path, const PATH_HASH& hash, PATH_WALK& walk, CDirRef& dir) {
  for (unsigned int n = hash.nPrefixes; n > 0; --n) {
    const PATH_HASH::PREFIX& prefix = hash.Prefixes[n - 1];
    CFileBase* cached = m_FileCache.FindDir(prefix.Idx);
    if (cached == nullptr) continue;
    dir.Set(static_cast<CFatDir*>(cached));
    walk.pRest = prefix.pRest;
    walk.nNextPrefix = n;
    return dir->PrepareEntries();
  }
  dir.Set(Root());
  walk.pRest = path;
  walk.nNextPrefix = 0;
  return STATUS_SUCCESS;
}

// Caches a directory object under a prefix of the path, which takes over its only reference, and goes on from it.
int CFatFileSystem::CacheDirectory(CFatFile* object, const PATH_HASH& hash, unsigned int prefix, CDirRef& dir) {
  const bool cached = object->HashIdx().CopyPreUpcaseStr(hash, prefix) && m_FileCache.Add(object);
  if (cached) dir.Set(static_cast<CFatDir*>(object));
  (void)object->Close();
  return cached ? STATUS_SUCCESS : STATUS_NO_MEMORY;
}

int CFatFileSystem::EnterDirectory(DENTCTX* entry, const PATH_HASH& hash, unsigned int prefix, CDirRef& dir) {
  // Whether the entry is a directory is not asked: a path may lead below a regular file.
  CFatFile* object = CreateDirObj(this, entry, true);
  if (object == nullptr) return STATUS_FILE_CORRUPT;
  const int status = CacheDirectory(object, hash, prefix, dir);
  return status < 0 ? status : dir->PrepareEntries();
}

/// @param parent  out: the directory that holds the last component; referenced
/// @param entry   out: that component's record
int CFatFileSystem::FindFileUnCached(const unsigned short* path, const PATH_HASH& hash, CDirRef& parent,
                                     DENTCTX*& entry) {
  PATH_WALK walk;
  int status = StartWalk(path, hash, walk, parent);
  while (status >= 0) {
    PATH_BUFFER component;
    DENTCTX* found = parent->LookupFile(gGetASubPath(walk.pRest, component));
    if (found == nullptr) return STATUS_NOT_FOUND;
    if (*walk.pRest == 0) {
      entry = found;
      return STATUS_SUCCESS;
    }
    ++walk.pRest;
    status = EnterDirectory(found, hash, walk.nNextPrefix++, parent);
  }
  return status;
}

int CFatFileSystem::OpenFile(const unsigned short* path, CFatFile** file) {
  PATH_HASH hash;
  CFileBase* cached = m_FileCache.Find(path, hash);
  if (cached != nullptr) {
    cached->AddRef();
    *file = static_cast<CFatFile*>(cached);
    return STATUS_SUCCESS;
  }
  CDirRef parent;
  DENTCTX* entry;
  const int status = FindFileUnCached(path, hash, parent, entry);
  if (status < 0) return status;
  CFatFile* object = CreateFileObj(this, entry, true);
  if (object == nullptr) return STATUS_FILE_CORRUPT;
  if (!object->HashIdx().CopyLastUpcaseStr(hash) || !m_FileCache.Add(object)) {
    (void)object->Close();
    return STATUS_NO_MEMORY;
  }
  *file = object;
  return STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------------------------- creation

int CFatFileSystem::CreateFile(const unsigned short* path, unsigned int size, unsigned char attributes,
                               CFatFile** file) {
  return CreateFileOrDir(path, file, false, size, attributes);
}

int CFatFileSystem::CreateDir(const unsigned short* path, unsigned char attributes, CFatDir** dir) {
  CFatFile* created;
  const int status = CreateFileOrDir(path, &created, true, 0, attributes);
  if (status >= 0) *dir = static_cast<CFatDir*>(created);
  return status;
}

int CFatFileSystem::CreateFileOrDir(const unsigned short* path, CFatFile** file, bool directory, unsigned int size,
                                    unsigned char attributes) {
  PATH_HASH hash;
  if (m_FileCache.Find(path, hash) != nullptr) return STATUS_NAME_EXISTS;
  CDirRef parent;
  if (hash.nPrefixes != 0) {
    const int status = CreateOrOpenDir(path, hash, parent);
    if (status < 0) return status;
  } else {
    parent.Set(Root());
  }
  const unsigned short* name = gGetFileName(path);
  if (parent->LookupFile(name) != nullptr) return STATUS_NAME_EXISTS;
  // Everything that needs memory comes before the volume is changed.
  TriHashIdx key;
  if (!key.CopyLastUpcaseStr(hash)) return STATUS_NO_MEMORY;
  int status = m_FileCache.Reserve() ? STATUS_SUCCESS : STATUS_NO_MEMORY;
  CFatFile* created = nullptr;
  if (status >= 0) {
    if (directory) {
      CFatDir* dir;
      status = parent->CreateSubDir(name, attributes, &dir);
      if (status >= 0) created = dir;
    } else {
      status = parent->CreateNewFile(name, attributes, size, &created);
    }
  }
  if (status < 0) {
    key.Clean();
    return status;
  }
  created->CloneHashIdx(key);
  (void)m_FileCache.Add(created);  // its memory was reserved
  *file = created;
  return STATUS_SUCCESS;
}

// Finds or makes the directory that the last separator of the path ends. From the first missing one on, the rest is
// made without looking.
int CFatFileSystem::CreateOrOpenDir(const unsigned short* path, const PATH_HASH& hash, CDirRef& dir) {
  PATH_WALK walk;
  int status = StartWalk(path, hash, walk, dir);
  bool creating = false;
  for (; status >= 0 && walk.nNextPrefix < hash.nPrefixes; ++walk.nNextPrefix) {
    PATH_BUFFER component;
    const unsigned short* name = gGetASubPath(walk.pRest, component);
    ++walk.pRest;
    DENTCTX* found = creating ? nullptr : dir->LookupFile(name);
    if (found != nullptr) {
      status = EnterDirectory(found, hash, walk.nNextPrefix, dir);
    } else {
      creating = true;
      CFatDir* created;
      status = dir->CreateSubDir(name, 0, &created);
      if (status >= 0) status = CacheDirectory(created, hash, walk.nNextPrefix, dir);
    }
  }
  return status;
}

// ---------------------------------------------------------------------------------------------- time

bool CFatFileSystem::DosDateTimeToFileTime(unsigned short date, unsigned short time, WIN_FTIME* out) {
  return ::DosDateTimeToFileTime(date, time, out);
}

bool CFatFileSystem::FileTimeToDosDateTime(const WIN_FTIME* in, unsigned short* date, unsigned short* time) {
  return ::FileTimeToDosDateTime(in, date, time);
}
