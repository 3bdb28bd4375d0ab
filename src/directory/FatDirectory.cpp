/// @file FatDirectory.cpp

#include "directory/FatDirectory.h"

#include "directory/ShortName.h"
#include "filesystem/FatFileSystem.h"

namespace {

constexpr unsigned int MOVE_BUFFER_SLOTS = 64;  // 2048 bytes at a time when slots are slid

const unsigned char DOT_NAME[SHORT_NAME_SIZE + 1] = {'.', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', 0};
const unsigned char DOT_DOT_NAME[SHORT_NAME_SIZE + 1] = {'.', '.', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', 0};

// First bytes of the entries that DeleteDirEnts marked last, for RestoreDelDirEnts.
unsigned char s_DirEntFstChars[CFatDir::MAX_SET_SLOTS];

bool IsDotEntry(const CDirEnt& entry) {
  return osMemEqual(entry.Name, DOT_NAME, SHORT_NAME_SIZE) || osMemEqual(entry.Name, DOT_DOT_NAME, SHORT_NAME_SIZE);
}

}  // namespace

// ---------------------------------------------------------------------------------------------- looking

int CFatDir::LoadAllDirEnts() {
  CDirEntCache* cache = new CDirEntCache;
  if (cache == nullptr) return STATUS_NO_MEMORY;
  delete m_pDirEntCache;
  m_pDirEntCache = cache;
  return cache->LoadAllDirEnts(this);
}

DENTCTX* CFatDir::LookupFile(const unsigned short* name) {
  if (m_pDirEntCache == nullptr) return nullptr;
  DIRENT_NAME_CTX context;
  AnalyseFullFileName(name, &context);
  if (context.nLongChars == 0 && context.HasShortName()) {
    DENTCTX* found = m_pDirEntCache->FindByShortName(context.ShortName);
    if (found != nullptr) return found;
  }
  return m_pDirEntCache->FindByName(name);
}

bool CFatDir::IsEmpty() {
  for (DENTCTX* record = FindFirst(); record != nullptr; FindNext(record)) {
    if (!IsDotEntry(record->ShortEntry)) return false;
  }
  return true;
}

DENTCTX* CFatDir::FindFirst() {
  DENTCTX* record = nullptr;
  FindNext(record);
  return record;
}

void CFatDir::FindNext(DENTCTX*& record) {
  if (m_pDirEntCache == nullptr) {
    record = nullptr;
  } else {
    (void)m_pDirEntCache->GetDirEntCtxPtr(record);
  }
}

// ---------------------------------------------------------------------------------------------- slots

// The counts that transfers report are not looked at: they may be 0 for data that was moved.

int CFatDir::ReadSlots(unsigned int first, unsigned int count, CDirEnt* entries) {
  osMemZero(entries, count * DIRENT_SIZE);
  unsigned int done;
  return Read(static_cast<long long>(first) * DIRENT_SIZE, count * DIRENT_SIZE,
              reinterpret_cast<unsigned char*>(entries), &done);
}

int CFatDir::WriteSlots(unsigned int first, unsigned int count, CDirEnt* entries) {
  unsigned int done;
  return Write(static_cast<long long>(first) * DIRENT_SIZE, count * DIRENT_SIZE,
               reinterpret_cast<unsigned char*>(entries), &done);
}

int CFatDir::AllocDirEntsByBitmap(unsigned int n, unsigned int* first) {
  if (m_pDirEntCache == nullptr) return STATUS_DISK_FULL;
  const int prepared = m_pDirEntCache->Prepare();
  if (prepared < 0) return prepared;
  const unsigned int nFree = m_pDirEntCache->FreeSlots();
  if (n > nFree) {
    const unsigned int missing = n - nFree;
    if (!Volume()->IsFat32() && IsRoot()) return STATUS_DISK_FULL;
    if (missing + m_pDirEntCache->Slots() > CDirEntCache::MAX_SLOTS) return STATUS_DISK_FULL;
    const unsigned long long size = AllocBytes() + static_cast<unsigned long long>(missing) * DIRENT_SIZE;
    if (size > UINT32_MAX) return STATUS_INVALID_PARAMETER;
    const int status = SetSize(static_cast<unsigned int>(size), nullptr, nullptr);
    if (status < 0) return status;
  }
  unsigned int found;
  int status = m_pDirEntCache->FindFreeSlots(n, found);
  if (status >= 0 && found == CBitmap::NOT_FOUND) {
    // Memory first: once slots are slid, nothing may fail for want of it.
    status = m_pDirEntCache->ReserveSlots(m_pDirEntCache->Slots() - 1);
    if (status >= 0) status = MakeRoom(n, found);
  }
  if (status >= 0) status = m_pDirEntCache->ReserveSlots(found);
  if (status >= 0) status = m_pDirEntCache->MarkUsed(found, n);
  if (status >= 0) *first = found;
  return status;
}

// No run of free slots is long enough. Used runs are slid towards the start of the directory, one at a time from the
// front, until the gap behind them holds n slots; what lies behind it stays in place.
int CFatDir::MakeRoom(unsigned int n, unsigned int& first) {
  unsigned int gap = 0;
  unsigned int length = m_pDirEntCache->NextFreeRun(0, gap);
  if (length == 0) return STATUS_DISK_FULL;
  unsigned int position = gap + length;
  while (length < n) {
    unsigned int next = 0;
    const unsigned int nextLength = m_pDirEntCache->NextFreeRun(position, next);
    if (nextLength == 0) return STATUS_DISK_FULL;
    const int status = MoveUsedEntriesForward(position, next - position, gap);
    if (status < 0) return status;
    gap += next - position;
    length += nextLength;
    position = next + nextLength;
  }
  first = gap;
  return STATUS_SUCCESS;
}

// The slots that become free are not rewritten: the set that room is made for covers them.
int CFatDir::MoveUsedEntriesForward(unsigned int first, unsigned int count, unsigned int target) {
  CDirEnt buffer[MOVE_BUFFER_SLOTS];
  for (unsigned int moved = 0; moved < count;) {
    const unsigned int n = count - moved < MOVE_BUFFER_SLOTS ? count - moved : MOVE_BUFFER_SLOTS;
    int status = ReadSlots(first + moved, n, buffer);
    if (status >= 0) status = WriteSlots(target + moved, n, buffer);
    if (status < 0) return status;
    moved += n;
  }
  m_pDirEntCache->MarkFree(first, count);
  const int status = m_pDirEntCache->MarkUsed(target, count);
  if (status < 0) return status;
  m_pDirEntCache->MoveUsedEntriesForward(first, count, target);
  return STATUS_SUCCESS;
}

int CFatDir::DeleteDirEnts(unsigned int first, unsigned int count) {
  if (count > MAX_SET_SLOTS) return STATUS_INVALID_PARAMETER;
  CDirEnt entries[MAX_SET_SLOTS];
  int status = ReadSlots(first, count, entries);
  if (status < 0) return status;
  for (unsigned int i = 0; i < count; ++i) {
    s_DirEntFstChars[i] = entries[i].Name[0];
    entries[i].Name[0] = DIRENT_DELETED;
  }
  status = WriteSlots(first, count, entries);
  if (status >= 0) m_pDirEntCache->MarkFree(first, count);
  return status;
}

int CFatDir::RestoreDelDirEnts(unsigned int first, unsigned int count) {
  if (count > MAX_SET_SLOTS) return STATUS_INVALID_PARAMETER;
  CDirEnt entries[MAX_SET_SLOTS];
  int status = ReadSlots(first, count, entries);
  if (status < 0) return status;
  for (unsigned int i = 0; i < count; ++i) entries[i].Name[0] = s_DirEntFstChars[i];
  status = WriteSlots(first, count, entries);
  if (status >= 0) status = m_pDirEntCache->MarkUsed(first, count);
  return status;
}

// ---------------------------------------------------------------------------------------------- creating

int CFatDir::CreateNewDirEnts(const unsigned short* name, unsigned char attribute, unsigned int size,
                              unsigned int cluster, DENTCTX*& record) {
  if (m_pDirEntCache == nullptr) return STATUS_DISK_FULL;
  // From here on only the context's copy of the name is used: growing the directory below may resolve other paths.
  DIRENT_NAME_CTX context;
  AnalyseFullFileName(name, &context);
  int status = STATUS_SUCCESS;
  if (!context.HasShortName()) status = InventShortName(m_pDirEntCache, &context);
  if (status < 0) return status;
  CDirEnt entries[MAX_SET_SLOTS];
  const unsigned int k = (context.nLongChars + LFN_UNITS - 1) / LFN_UNITS;
  if (k > 0) {
    const unsigned char checksum = CDirEnt::ComputeLfnChecksum(context.ShortName);
    for (unsigned int i = context.nLongChars + 1; i < k * LFN_UNITS; ++i) context.szLongName[i] = 0xFFFF;
    for (unsigned int i = 0; i < k; ++i) {
      const unsigned int ordinal = k - i;
      entries[i].ToLfn()->Initialize(i == 0 ? ordinal | LFN_LAST : ordinal,
                                     context.szLongName + std::size_t{ordinal - 1} * LFN_UNITS, checksum);
    }
    context.szLongName[context.nLongChars] = 0;  // ends the name where the 0xFFFF filling began
  }
  entries[k].Initialize(context.ShortName, attribute, size, cluster);
  // All memory is taken before slots may be slid: a rename that fails must find its old slots as it left them.
  DENTCTX* made;
  const SHORT_NAME_KEY shortKey(context.ShortName);
  status = m_pDirEntCache->MakeRecord(entries[k], k, k > 0 ? context.szLongName : shortKey.Units, made);
  if (status < 0) return status;
  unsigned int first;
  status = AllocDirEntsByBitmap(k + 1, &first);
  if (status < 0) {
    CDirEntCache::FreeDent(made);
    return status;
  }
  made->nShortIdx = first + k;
  m_pDirEntCache->InsertDirEnts(made);
  record = made;
  return WriteSlots(first, k + 1, entries);  // the set stays in the cache even if this fails
}

int CFatDir::CreateNewFile(const unsigned short* name, unsigned char attribute, unsigned int size, CFatFile** file) {
  DENTCTX* record;
  int status = CreateNewDirEnts(name, static_cast<unsigned char>(attribute & ~ATTR_DIRECTORY), 0, 0, record);
  if (status < 0) return status;
  CFatFile* created = CFatFileSystem::CreateFileObj(Volume(), record, false);
  if (created == nullptr) {
    DropNewDirEnts(record);
    return STATUS_FILE_CORRUPT;
  }
  if (size != 0) {
    status = created->SetSize(size, this, record);
    if (status < 0) {
      (void)created->Close();
      (void)DeleteDirEnts(record->FirstSlot(), record->nLongCount + 1);  // the first failure is the one to report
      return status;
    }
  }
  *file = created;
  return STATUS_SUCCESS;
}

int CFatDir::CreateSubDir(const unsigned short* name, unsigned char attribute, CFatDir** dir) {
  CFatTable* fat = Volume()->FAT();
  CRuns runs;
  if (!runs.Initialize()) return STATUS_NO_MEMORY;
  unsigned int cluster = NO_CLUSTER;
  int status = fat->AllocateClusters(1, &runs, cluster);
  runs.Uninitialize();
  if (status < 0) return status;
  DENTCTX* record;
  status = CreateNewDirEnts(name, static_cast<unsigned char>(attribute | ATTR_DIRECTORY), 0, cluster, record);
  if (status < 0) {
    FreeCluster(cluster);
    return status;
  }
  CFatDir* created = static_cast<CFatDir*>(CFatFileSystem::CreateDirObj(Volume(), record, false));
  if (created == nullptr) {
    DropNewDirEnts(record);
    FreeCluster(cluster);
    return STATUS_FILE_CORRUPT;
  }
  CDirEnt dots[2];
  created->ConstructDotDirEnt(&dots[0], &dots[1], IsRoot() ? 0 : FirstCluster());
  created->m_pDirEntCache = new CDirEntCache;
  status = created->m_pDirEntCache == nullptr
               ? STATUS_NO_MEMORY
               : created->m_pDirEntCache->InitDotDirEnts(Volume()->BytesPerCluster(), dots);
  if (status >= 0) status = created->BlkCache().WriteFstClustOfDir(dots, sizeof(dots));
  if (status < 0) {
    (void)created->Close();
    if (status == STATUS_NO_MEMORY) {
      DropNewDirEnts(record);
      FreeCluster(cluster);
    }
    return status;
  }
  *dir = created;
  return STATUS_SUCCESS;
}

// A new entry set whose object could not be made goes again. Left there, that of a directory would name a cluster of
// old bytes.
void CFatDir::DropNewDirEnts(DENTCTX* record) {
  (void)DeleteDirEnts(record->FirstSlot(), record->nLongCount + 1);  // the first failure is the one to report
  m_pDirEntCache->RemoveDirEnts(record);
  CDirEntCache::FreeDent(record);
}

// Gives back the one cluster of a directory that was not made.
void CFatDir::FreeCluster(unsigned int cluster) {
  CFatTable* fat = Volume()->FAT();
  (void)fat->WriteNextClusterNo(cluster, FAT_FREE);  // the first failure is the one to report
  fat->RecycleOneCluster(cluster);
}

void CFatDir::ConstructDotDirEnt(CDirEnt* dot, CDirEnt* dotdot, unsigned int parentCluster) {
  const _DIRENT& own = *Info();
  *dot = CDirEnt();
  osMemCpy(dot->Name, DOT_NAME, SHORT_NAME_SIZE);
  CopyDETime(dot, own);
  dot->CloneStartClustNo(&own);
  *dotdot = CDirEnt();
  osMemCpy(dotdot->Name, DOT_DOT_NAME, SHORT_NAME_SIZE);
  CopyDETime(dotdot, own);
  dotdot->SetStartClustNo(parentCluster);
}

// ---------------------------------------------------------------------------------------------- changing

int CFatDir::RenameFile(CFatFile* file, DENTCTX* context, const unsigned short* newName) {
  const unsigned int first = context->FirstSlot();
  const unsigned int count = context->nLongCount + 1;
  int status = DeleteDirEnts(first, count);
  if (status < 0) return status;
  m_pDirEntCache->RemoveDirEnts(context);
  DENTCTX* renamed;
  status = CreateNewDirEnts(newName, file->Info()->Attribute, file->Size(), file->FirstCluster(), renamed);
  if (status < 0) {
    m_pDirEntCache->InsertDirEnts(context);
    (void)RestoreDelDirEnts(first, count);  // the first failure is the one to report
    return status;
  }
  CDirEntCache::FreeDent(context);
  *file->Info() = renamed->ShortEntry;
  return STATUS_SUCCESS;
}

int CFatDir::DeleteFile(CFatFile* file, DENTCTX* context) {
  const int status = DeleteDirEnts(context->FirstSlot(), context->nLongCount + 1);
  if (status < 0) return status;
  m_pDirEntCache->RemoveDirEnts(context);
  CDirEntCache::FreeDent(context);
  CFatTable* fat = Volume()->FAT();
  CRuns* runs = file->Runs();
  fat->RecycleClusters(runs);
  // The entry is gone already. A cluster whose FAT entry cannot be freed stays in use on the medium, and that is all.
  for (unsigned int run = 1; run <= runs->NumberOfRuns(); ++run) {
    const unsigned int start = runs->StartingLbn(run);
    const unsigned int length = runs->LengthOfRun(run);
    for (unsigned int i = 0; i < length; ++i) (void)fat->WriteNextClusterNo(start + i, FAT_FREE);
  }
  return STATUS_SUCCESS;
}

int CFatDir::MoveDirEntsIntoAnother(DENTCTX* context, CFatDir* target) {
  const unsigned int n = context->nLongCount + 1;
  if (n > MAX_SET_SLOTS) return STATUS_INVALID_PARAMETER;
  unsigned int to;
  int status = target->m_pDirEntCache == nullptr ? STATUS_DISK_FULL : target->m_pDirEntCache->ReserveInsert();
  if (status >= 0) status = target->AllocDirEntsByBitmap(n, &to);
  if (status < 0) return status;
  // Only now: making room slides sets along, and the target may be this very directory under another path.
  const unsigned int from = context->FirstSlot();
  CDirEnt entries[MAX_SET_SLOTS];
  status = ReadSlots(from, n, entries);
  if (status >= 0) status = target->WriteSlots(to, n, entries);
  if (status < 0) return status;
  m_pDirEntCache->MarkFree(from, n);
  m_pDirEntCache->RemoveDirEnts(context);
  context->nShortIdx = to + n - 1;
  target->m_pDirEntCache->InsertDirEnts(context);
  for (unsigned int i = 0; i < n; ++i) entries[i].Name[0] = DIRENT_DELETED;
  return WriteSlots(from, n, entries);
}

int CFatDir::UpdateDotDotDirEnt(CFatVolume* volume, DENTCTX* moved, CFatDir* newParent) {
  if (!moved->ShortEntry.IsDir()) return STATUS_SUCCESS;
  const unsigned int cluster = moved->ShortEntry.GetStartClustNo();
  if (!volume->CFatVolume::IsCluster(cluster)) return STATUS_DISK_CORRUPT;
  CDirEnt dots[2] = {};
  unsigned char* bytes = reinterpret_cast<unsigned char*>(dots);
  const long long position = volume->GetByteOffFromFatIndex(cluster);
  const int status = volume->ReadBytes(bytes, position, sizeof(dots));
  if (status < 0) return status;
  dots[1].SetStartClustNo(newParent->FirstCluster());
  return volume->WriteBytes(bytes, position, sizeof(dots));
}
