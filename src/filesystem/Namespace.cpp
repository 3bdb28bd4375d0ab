/// @file Namespace.cpp
/// The operations that change where a name lives. Every refusal comes before anything is written.

#include "filesystem/FatFileSystem.h"
#include "names/XUtils.h"

namespace {

/// The parent that OpenParentDir opened for a cached object; closed again at the end, unless it is the root.
class COpenedParent {
 public:
  COpenedParent() : m_pDir(nullptr) {}
  ~COpenedParent() {
    if (m_pDir != nullptr && !m_pDir->IsRoot()) (void)m_pDir->Close();
  }
  COpenedParent(const COpenedParent&) = delete;
  COpenedParent& operator=(const COpenedParent&) = delete;

  int Open(CFatFile* object, DENTCTX*& entry) { return object->OpenParentDir(&m_pDir, entry); }
  CFatDir* operator->() const { return m_pDir; }

 private:
  CFatDir* m_pDir;
};

CFatDir* AsDir(CFileBase* object) { return static_cast<CFatDir*>(object); }

}  // namespace

int CFatFileSystem::DeleteFile(const unsigned short* path) {
  PATH_HASH hash;
  CFatDir* cached = AsDir(m_FileCache.Find(path, hash));
  if (cached != nullptr) {
    if (IsOpened(cached)) return STATUS_REFUSED;
    int status = cached->PrepareEntries();
    if (status < 0) return status;
    if (cached->IsDir() && !cached->IsEmpty()) return STATUS_REFUSED;
    const CDirRef object(cached);
    {
      COpenedParent parent;
      DENTCTX* entry;
      status = parent.Open(cached, entry);
      if (status < 0) return status;
      status = parent->DeleteFile(cached, entry);
    }
    m_FileCache.Del(cached);
    return status;
  }
  CDirRef parent;
  DENTCTX* entry;
  int status = FindFileUnCached(path, hash, parent, entry);
  if (status < 0) return status;
  CFatDir* object = AsDir(CreateFileObj(this, entry, true));
  if (object == nullptr) return STATUS_FILE_CORRUPT;
  status = object->IsDir() && !object->IsEmpty() ? STATUS_REFUSED : parent->DeleteFile(object, entry);
  (void)object->Close();
  return status;
}

int CFatFileSystem::RenameFile(const unsigned short* path, const unsigned short* newName) {
  PATH_HASH hash;
  CFatFile* cached = AsDir(m_FileCache.Find(path, hash));
  if (cached != nullptr) {
    const CObjectRef<CFatFile> object(cached);
    COpenedParent parent;
    DENTCTX* entry;
    int status = parent.Open(cached, entry);
    if (status < 0) return status;
    if (parent->LookupFile(newName) != nullptr) return STATUS_NAME_EXISTS;
    status = parent->RenameFile(cached, entry, newName);
    if (status < 0) return status;
    // Under the path it was found with, on purpose: the object stays known by its old path, as the newest one.
    (void)m_FileCache.FindDir(cached->HashIdx());
    return STATUS_SUCCESS;
  }
  CDirRef parent;
  DENTCTX* entry;
  int status = FindFileUnCached(path, hash, parent, entry);
  if (status < 0) return status;
  if (parent->LookupFile(newName) != nullptr) return STATUS_NAME_EXISTS;
  CFatFile* object = CreateFileObj(this, entry, false);
  if (object == nullptr) return STATUS_FILE_CORRUPT;
  status = parent->RenameFile(object, entry, newName);
  (void)object->Close();
  return status;
}

int CFatFileSystem::OpenMoveTarget(const unsigned short* dest, CDirRef& target) {
  if (dest == nullptr) {
    target.Set(Root());
    return STATUS_SUCCESS;
  }
  PATH_HASH hash;
  CFatDir* dir = AsDir(m_FileCache.Find(dest, hash));
  if (dir != nullptr) {
    if (!dir->IsDir() || IsOpened(dir)) return STATUS_REFUSED;
    target.Set(dir);
    return dir->PrepareEntries();
  }
  CFatFile* opened;
  const int status = OpenFile(dest, &opened);
  if (status < 0) return status;
  if (opened->IsDir()) target.Set(AsDir(opened));
  CloseFile(opened);
  return target.Get() != nullptr ? STATUS_SUCCESS : STATUS_REFUSED;
}

int CFatFileSystem::MoveFile(const unsigned short* path, const unsigned short* dest) {
  CDirRef target;
  int status = OpenMoveTarget(dest, target);
  if (status < 0) return status;
  if (target->LookupFile(gGetFileName(path)) != nullptr) return STATUS_NAME_EXISTS;
  PATH_HASH hash;
  CFatFile* cached = AsDir(m_FileCache.Find(path, hash));
  if (cached != nullptr) {
    if (IsOpened(cached)) return STATUS_REFUSED;
    const CObjectRef<CFatFile> object(cached);
    COpenedParent parent;
    DENTCTX* entry;
    status = parent.Open(cached, entry);
    if (status < 0) return status;
    status = parent->MoveDirEntsIntoAnother(entry, target.Get());
    if (status >= 0 && cached->IsDir()) status = cached->UpdateDotDotDirEnt(target.Get());
    return status;
  }
  CDirRef parent;
  DENTCTX* entry;
  status = FindFileUnCached(path, hash, parent, entry);
  if (status < 0) return status;
  status = parent->MoveDirEntsIntoAnother(entry, target.Get());
  if (status >= 0) status = CFatDir::UpdateDotDotDirEnt(this, entry, target.Get());
  return status;
}
