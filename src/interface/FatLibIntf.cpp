/// @file FatLibIntf.cpp
/// The exported functions, and what the library keeps for the whole process: the mounted file systems, the current one,
/// and the handle tables. Each function checks its arguments and hands on; statuses end here.

#include "interface/FatLibIntf.h"

#include "allocation/XRuns.h"
#include "filesystem/FatFileSystem.h"
#include "interface/Handles.h"
#include "names/XUtils.h"

namespace {

constexpr unsigned int MAX_FILES = 160;
constexpr unsigned int MAX_SEARCHES = 32;
constexpr unsigned int POOL_BLOCKS = 256;  // 64 MiB of file data
constexpr int NO_HANDLE = -1;

CHandles<CFatFile, MAX_FILES> s_FileHandles;
CHandles<FIND_CTX, MAX_SEARCHES> s_FindHandles;
CFatFileSystem* s_pFatSystem = nullptr;  // the current file system, as the host set it; may name one that is gone

// Every file system since the library was initialised. The library owns them until it is terminated, so that a pointer
// to a dead one is told from a live one without looking at what it points to, and never names another one.
_LST_ENTRY s_Mounted = {&s_Mounted, &s_Mounted};
_LST_ENTRY s_Dead = {&s_Dead, &s_Dead};

bool IsMounted(const CFatFileSystem* fileSystem) {
  for (_LST_ENTRY* link = s_Mounted.Flink; link != &s_Mounted; link = link->Flink) {
    if (CFatFileSystem::FromRegistryLink(link) == fileSystem) return true;
  }
  return false;
}

bool IsStorageInUse(const CVolumeStorage* storage) {
  for (_LST_ENTRY* link = s_Mounted.Flink; link != &s_Mounted; link = link->Flink) {
    if (CFatFileSystem::FromRegistryLink(link)->Storage() == storage) return true;
  }
  return false;
}

// Takes a file system from the front of a list. @return null when the list is empty
CFatFileSystem* TakeFirst(_LST_ENTRY* list) {
  if (IsListEmpty(list)) return nullptr;
  CFatFileSystem* first = CFatFileSystem::FromRegistryLink(list->Flink);
  (void)RemoveEntryList(first->RegistryLink());
  return first;
}

// ---- what opening, handle and path functions have in common

// The file system that path functions work on; null when there is none.
CFatFileSystem* CurrentFileSystem() { return IsMounted(s_pFatSystem) ? s_pFatSystem : nullptr; }

// The object of a handle; null when the handle is invalid or its volume is gone.
CFatFile* LiveFile(int handle) {
  if (s_pFatSystem == nullptr || !s_FileHandles.IsHandleValid(handle)) return nullptr;
  CFatFile* file = s_FileHandles.GetObject(handle);
  return file->IsDead() ? nullptr : file;
}

// The normalised copy of a path, valid until the next path is normalised; null when the path is invalid.
const unsigned short* ValidPath(const unsigned short* path) {
  return gIsPathFileNameValid(&path, nullptr) ? path : nullptr;
}

unsigned int Bool(bool value) { return value ? 1 : 0; }
unsigned int Succeeded(int status) { return Bool(status >= 0); }

// Enters an object in the table under a handle that FindFreeHandle gave.
template <class TABLE, class OBJECT>
int Enter(TABLE& table, int handle, OBJECT* object) {
  *table.GetObjectPtr(handle) = object;
  table.IncCount();
  return handle;
}

void CloseAllHandles() {
  for (int handle = 0; handle < static_cast<int>(MAX_SEARCHES); ++handle) {
    if (!s_FindHandles.IsHandleValid(handle)) continue;
    CFatFileSystem::CloseFindCtx(s_FindHandles.GetObject(handle));
    s_FindHandles.RecycleHandle(handle);
  }
  for (int handle = 0; handle < static_cast<int>(MAX_FILES); ++handle) {
    if (!s_FileHandles.IsHandleValid(handle)) continue;
    CFatFileSystem::CloseFile(s_FileHandles.GetObject(handle));
    s_FileHandles.RecycleHandle(handle);
  }
}

void gGlobalInitialize() {
  (void)osSetDefaultLocale();
  // Without pools the library stays unusable; every mount then fails.
  if (CRuns::InitializeFirstPool()) (void)CFatFile::BLOCK_CACHE::GlobalInitialize(POOL_BLOCKS);
}

void gGlobalTerminate() {
  CFatFile::BLOCK_CACHE::GlobalTerminate();
  CRuns::UninitializeFirstPool();
}

}  // namespace

// ---------------------------------------------------------------------------------------------- the library

void Fat_LibInitialize() {
  gGlobalInitialize();
  CloseAllHandles();
  s_FileHandles.Init();
  s_FindHandles.Init();
}

unsigned int Fat_LibTerminate() {
  while (CFatFileSystem* mounted = TakeFirst(&s_Mounted)) {
    mounted->Abandon();
    delete mounted;
  }
  while (CFatFileSystem* dead = TakeFirst(&s_Dead)) delete dead;
  gGlobalTerminate();
  return Bool(s_FileHandles.IsEmpty() && s_FindHandles.IsEmpty());
}

CFatFileSystem* Fat_Mount(CVolumeStorage* storage, void* parameter) {
  CFatFileSystem* mounted = nullptr;
  if (storage != nullptr && !IsStorageInUse(storage)) {
    if (CFatFile::BLOCK_CACHE::IsInitialized()) mounted = new CFatFileSystem;
    if (mounted == nullptr) {
      ::operator delete(dynamic_cast<void*>(storage));  // as CFatFileSystem::Mount does: the host has let go of it
    } else if (!mounted->Mount(storage, parameter)) {
      delete mounted;
      mounted = nullptr;
    }
  }
  if (mounted != nullptr) InsertTailList(&s_Mounted, mounted->RegistryLink());
  SetCurrentFileSystem(mounted);
  return mounted;
}

unsigned int Fat_Unmount(CFatFileSystem* fileSystem) {
  if (!IsMounted(fileSystem)) return 0;
  (void)RemoveEntryList(fileSystem->RegistryLink());
  InsertTailList(&s_Dead, fileSystem->RegistryLink());
  return Bool(fileSystem->Unmount());
}

void SetCurrentFileSystem(CFatFileSystem* fileSystem) { s_pFatSystem = fileSystem; }

// ---------------------------------------------------------------------------------------------- files

int Fat_OpenFile(unsigned short* path) {
  CFatFileSystem* fileSystem = CurrentFileSystem();
  int handle;
  if (fileSystem == nullptr || !s_FileHandles.FindFreeHandle(handle)) return NO_HANDLE;
  const unsigned short* valid = ValidPath(path);
  CFatFile* file;
  if (valid == nullptr || fileSystem->OpenFile(valid, &file) < 0) return NO_HANDLE;
  return Enter(s_FileHandles, handle, file);
}

int Fat_CreateFile(unsigned short* path, unsigned int size, unsigned int attributes) {
  CFatFileSystem* fileSystem = CurrentFileSystem();
  int handle;
  if (fileSystem == nullptr || !s_FileHandles.FindFreeHandle(handle)) return NO_HANDLE;
  const unsigned short* valid = ValidPath(path);
  CFatFile* file;
  if (valid == nullptr) return NO_HANDLE;
  if (fileSystem->CreateFile(valid, size, static_cast<unsigned char>(attributes), &file) < 0) return NO_HANDLE;
  return Enter(s_FileHandles, handle, file);
}

unsigned int Fat_CloseFile(int handle) {
  if (s_pFatSystem == nullptr || !s_FileHandles.IsHandleValid(handle)) return 0;
  CFatFileSystem::CloseFile(s_FileHandles.GetObject(handle));
  s_FileHandles.RecycleHandle(handle);
  return 1;
}

unsigned int Fat_GetFileSize(int handle, unsigned int* size) {
  const CFatFile* file = LiveFile(handle);
  if (file == nullptr || size == nullptr) return 0;
  *size = file->Size();
  return 1;
}

unsigned int Fat_SetFileSize(int handle, unsigned int size) {
  CFatFile* file = LiveFile(handle);
  return Bool(file != nullptr && file->SetSize(size, nullptr, nullptr) >= 0);
}

unsigned int Fat_ReadFileEx(int handle, long long offset, unsigned int count, unsigned char* buffer,
                            unsigned int* bytesRead) {
  CFatFile* file = LiveFile(handle);
  if (file == nullptr || bytesRead == nullptr || (buffer == nullptr && count != 0)) return 0;
  return Succeeded(file->Read(offset, count, buffer, bytesRead));
}

unsigned int Fat_WriteFileEx(int handle, long long offset, unsigned int count, unsigned char* buffer,
                             unsigned int* bytesWritten) {
  CFatFile* file = LiveFile(handle);
  if (file == nullptr || bytesWritten == nullptr || (buffer == nullptr && count != 0)) return 0;
  return Succeeded(file->Write(offset, count, buffer, bytesWritten));
}

unsigned int Fat_GetFileOffset(int handle, unsigned int* offset) {
  const CFatFile* file = LiveFile(handle);
  if (file == nullptr || offset == nullptr) return 0;
  *offset = file->Offset();
  return 1;
}

unsigned int Fat_SetFileOffset(int handle, unsigned int distance, unsigned int method) {
  CFatFile* file = LiveFile(handle);
  if (file == nullptr) return 0;
  file->Seek(distance, method);
  return 1;
}

unsigned int Fat_ReadFile(int handle, unsigned int count, unsigned char* buffer, unsigned int* bytesRead) {
  CFatFile* file = LiveFile(handle);
  if (file == nullptr || bytesRead == nullptr || (buffer == nullptr && count != 0)) return 0;
  return Succeeded(file->Read(count, buffer, bytesRead));
}

unsigned int Fat_WriteFile(int handle, unsigned int count, unsigned char* buffer, unsigned int* bytesWritten) {
  CFatFile* file = LiveFile(handle);
  if (file == nullptr || bytesWritten == nullptr || (buffer == nullptr && count != 0)) return 0;
  return Succeeded(file->Write(count, buffer, bytesWritten));
}

unsigned int Fat_IsDir(int handle) {
  const CFatFile* file = LiveFile(handle);
  return Bool(file != nullptr && file->IsDir());
}

unsigned int Fat_GetFileAttribute(int handle, WIN_FIND_DATA* data) {
  CFatFile* file = LiveFile(handle);
  if (file == nullptr || data == nullptr) return 0;
  CFatFileSystem::FillFindEntry(*file->Info(), data);
  CFatFileSystem::FillFindName(file->NameChars(), file->Name(), file->Info()->Name, data);
  return 1;
}

unsigned int Fat_SetFileAttribute(int handle, WIN_FIND_DATA* data) {
  CFatFile* file = LiveFile(handle);
  if (file == nullptr || data == nullptr) return 0;
  _DIRENT* entry = file->Info();
  entry->Attribute = static_cast<unsigned char>(data->dwFileAttributes);
  // Date and time of a stamp both go into its date field, on purpose: what is converted last stays. A time that cannot
  // be converted changes nothing.
  unsigned short word = entry->CreateDate.Load();
  (void)CFatFileSystem::FileTimeToDosDateTime(&data->ftCreationTime, &word, &word);
  entry->CreateDate.Store(word);
  word = entry->WriteDate.Load();
  (void)CFatFileSystem::FileTimeToDosDateTime(&data->ftLastWriteTime, &word, &word);
  entry->WriteDate.Store(word);
  word = entry->AccessDate.Load();
  unsigned short discarded;
  (void)CFatFileSystem::FileTimeToDosDateTime(&data->ftLastAccessTime, &word, &discarded);
  entry->AccessDate.Store(word);
  return Succeeded(file->UpdateShortDirEnt(nullptr, nullptr));
}

// ---------------------------------------------------------------------------------------------- names

unsigned int Fat_DeleteFile(unsigned short* path) {
  CFatFileSystem* fileSystem = CurrentFileSystem();
  if (fileSystem == nullptr) return 0;
  const unsigned short* valid = ValidPath(path);
  return Bool(valid != nullptr && fileSystem->DeleteFile(valid) >= 0);
}

unsigned int Fat_RenameFile(unsigned short* oldPath, unsigned short* newPath) {
  CFatFileSystem* fileSystem = CurrentFileSystem();
  const unsigned short* from = oldPath;
  const unsigned short* to = newPath;
  if (fileSystem == nullptr || !gIsPathFileNameValid(&from, &to)) return 0;
  return Succeeded(fileSystem->RenameFile(from, gGetFileName(to)));
}

unsigned int Fat_MoveFile(unsigned short* path, unsigned short* directory) {
  CFatFileSystem* fileSystem = CurrentFileSystem();
  if (fileSystem == nullptr) return 0;
  const unsigned short* from = path;
  const unsigned short* to = directory;
  const int verdict = gIsMovedPathValid(&from, &to);
  if (verdict != 0) return Bool(verdict > 0);  // it is there already, or can never be there
  return Succeeded(fileSystem->MoveFile(from, to));
}

unsigned int Fat_CreateDir(unsigned short* path, unsigned int attributes) {
  CFatFileSystem* fileSystem = CurrentFileSystem();
  if (fileSystem == nullptr) return 0;
  const unsigned short* valid = ValidPath(path);
  CFatDir* dir;
  if (valid == nullptr || fileSystem->CreateDir(valid, static_cast<unsigned char>(attributes), &dir) < 0) return 0;
  CFatFileSystem::CloseFile(dir);
  return 1;
}

// ---------------------------------------------------------------------------------------------- enumeration

int Fat_FindFirstFile(unsigned short* path, WIN_FIND_DATA* data) {
  CFatFileSystem* fileSystem = CurrentFileSystem();
  int handle;
  if (fileSystem == nullptr || data == nullptr || !s_FindHandles.FindFreeHandle(handle)) return NO_HANDLE;
  const unsigned short* valid = ValidPath(path);
  if (valid == nullptr) return NO_HANDLE;
  FIND_CTX* search = fileSystem->FindFirstFile(valid, data);
  return search == nullptr ? NO_HANDLE : Enter(s_FindHandles, handle, search);
}

unsigned int Fat_FindNextFile(int handle, WIN_FIND_DATA* data) {
  if (s_pFatSystem == nullptr || !s_FindHandles.IsHandleValid(handle) || data == nullptr) return 0;
  FIND_CTX* search = s_FindHandles.GetObject(handle);
  return Bool(!search->m_pDir->IsDead() && CFatFileSystem::FindNextFile(search, data));
}

unsigned int Fat_CloseFindHandle(int handle) {
  if (s_pFatSystem == nullptr || !s_FindHandles.IsHandleValid(handle)) return 0;
  CFatFileSystem::CloseFindCtx(s_FindHandles.GetObject(handle));
  s_FindHandles.RecycleHandle(handle);
  return 1;
}
