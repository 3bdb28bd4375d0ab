/// @file Find.cpp
/// Listing a directory.

#include "filesystem/FatFileSystem.h"

namespace {

constexpr unsigned int FILE_NAME_UNITS = 260;  // of WIN_FIND_DATA::cFileName

// Converts a part of a short name. @return its units, or -1
int ConvertPart(const unsigned char* part, unsigned int size, unsigned short* out) {
  char text[SHORT_BASE_SIZE + 1];
  osMemCpy(text, part, size);
  text[size] = 0;
  return osMbsToWcs(out, text, size);
}

}  // namespace

static_assert(sizeof(WIN_FTIME) == 8 && sizeof(WIN_FIND_DATA) == 592, "the record is part of the interface");
static_assert(offsetof(WIN_FIND_DATA, dwFileAttributes) == 0 && offsetof(WIN_FIND_DATA, ftCreationTime) == 4 &&
                  offsetof(WIN_FIND_DATA, ftLastAccessTime) == 12 && offsetof(WIN_FIND_DATA, ftLastWriteTime) == 20 &&
                  offsetof(WIN_FIND_DATA, nFileSizeHigh) == 28 && offsetof(WIN_FIND_DATA, nFileSizeLow) == 32 &&
                  offsetof(WIN_FIND_DATA, dwReserved0) == 36 && offsetof(WIN_FIND_DATA, dwReserved1) == 40 &&
                  offsetof(WIN_FIND_DATA, cFileName) == 44 && offsetof(WIN_FIND_DATA, cAlternateFileName) == 564,
              "the record is part of the interface");

FIND_CTX* CFatFileSystem::FindFirstFile(const unsigned short* path, WIN_FIND_DATA* data) {
  FIND_CTX* search = new FIND_CTX;
  if (search == nullptr) return nullptr;
  search->m_pCur = nullptr;
  if (path == nullptr) {
    search->m_pDir = Root();
    search->m_pDir->AddRef();
  } else if (OpenFile(path, &search->m_pDir) < 0) {
    delete search;
    return nullptr;
  }
  // From no position the first step leads to the first entry.
  CFatDir* dir = static_cast<CFatDir*>(search->m_pDir);
  if (dir->IsDir() && dir->PrepareEntries() >= 0 && FindNextFile(search, data)) return search;
  CloseFindCtx(search);
  return nullptr;
}

bool CFatFileSystem::FindNextFile(FIND_CTX* search, WIN_FIND_DATA* data) {
  DENTCTX* record = search->m_pCur;
  static_cast<CFatDir*>(search->m_pDir)->FindNext(record);
  if (record != nullptr) CDirEntCache::Pin(record);
  if (search->m_pCur != nullptr) CDirEntCache::Unpin(search->m_pCur);
  search->m_pCur = record;
  if (record == nullptr) return false;
  FillFindData(record, data);
  return true;
}

void CFatFileSystem::CloseFindCtx(FIND_CTX* search) {
  if (search->m_pCur != nullptr) CDirEntCache::Unpin(search->m_pCur);
  CloseFile(search->m_pDir);
  delete search;
}

void CFatFileSystem::FillFindEntry(const CDirEnt& entry, WIN_FIND_DATA* data) {
  data->dwFileAttributes = entry.Attribute;
  data->nFileSizeLow = entry.FileSize.Load();
  data->nFileSizeHigh = 0;
  // The date stands for the time too, on purpose: the time fields of the entry are not read.
  (void)DosDateTimeToFileTime(entry.CreateDate.Load(), entry.CreateDate.Load(), &data->ftCreationTime);
  (void)DosDateTimeToFileTime(entry.WriteDate.Load(), entry.WriteDate.Load(), &data->ftLastWriteTime);
  (void)DosDateTimeToFileTime(entry.AccessDate.Load(), 0, &data->ftLastAccessTime);
}

void CFatFileSystem::FillFindData(const DENTCTX* entry, WIN_FIND_DATA* data) {
  FillFindEntry(entry->ShortEntry, data);
  if (entry->nLongCount != 0) {
    FillFindName(entry->NameChars(), entry->NamePtr(), entry->ShortEntry.Name, data);
  } else {
    FillFindName(0, nullptr, entry->ShortEntry.Name, data);
  }
}

void CFatFileSystem::FillFindName(unsigned int chars, const unsigned short* name, const unsigned char* shortName,
                                  WIN_FIND_DATA* data) {
  if (chars > FILE_NAME_UNITS) chars = FILE_NAME_UNITS;
  if (chars != 0) osCopyUnits(data->cFileName, name, chars);
  if (chars < FILE_NAME_UNITS) data->cFileName[chars] = 0;

  // Base name, dot, extension, each without its trailing spaces. A space holds the place of the dot until it is known
  // whether an extension follows.
  unsigned short* out = data->cAlternateFileName;
  const int base = ConvertPart(shortName, SHORT_BASE_SIZE, out);
  if (base < 0) {
    out[0] = 0;
    return;
  }
  unsigned int b = static_cast<unsigned int>(base);
  while (b > 0 && out[b - 1] == ' ') --b;
  out[b] = ' ';
  const int extension = ConvertPart(shortName + SHORT_BASE_SIZE, SHORT_EXTENSION_SIZE, out + b + 1);
  if (extension < 0) {
    out[0] = 0;
    return;
  }
  unsigned int e = b + 1 + static_cast<unsigned int>(extension);
  while (e > 0 && out[e - 1] == ' ') --e;
  if (e > b) out[b] = '.';
  out[e] = 0;
}
