/// @file FileCache.cpp

#include "filesystem/FileCache.h"

namespace {
constexpr unsigned int BUCKETS = 7;
}

void CFileCache::Initialize() {
  m_HashTbl.Initialize(BUCKETS);
  m_nCount = 0;
  InitListHead(&m_LruList);
}

void CFileCache::Terminate(bool writeBack) {
  m_HashTbl.Terminate();
  while (!IsListEmpty(&m_LruList)) {
    CFileBase* object = CFileBase::FromLink(m_LruList.Flink);
    (void)RemoveEntryList(object->Link());
    static_cast<CFatFile*>(object)->Shutdown(writeBack);
    (void)object->Release();
  }
  m_nCount = 0;
}

bool CFileCache::Add(CFileBase* object) {
  if (!m_HashTbl.Insert(&object->HashIdx())) return false;
  object->AddRef();
  InsertTailList(&m_LruList, object->Link());
  ++m_nCount;
  if (m_nCount > MAX_OBJECTS) Del(CFileBase::FromLink(m_LruList.Flink));
  return true;
}

void CFileCache::Del(CFileBase* object) {
  (void)RemoveEntryList(object->Link());
  m_HashTbl.Remove(&object->HashIdx());
  --m_nCount;
  (void)object->Release();  // the object keeps its key text: its holders may still ask for its path
}

CFileBase* CFileCache::Touch(TriHashIdx* hit) {
  if (hit == nullptr) return nullptr;
  CFileBase* object = CFileBase::FromHashIdx(hit);
  MoveToTailList(&m_LruList, object->Link());
  return object;
}

CFileBase* CFileCache::Find(const unsigned short* text, PATH_HASH& path) { return Touch(m_HashTbl.Search(text, path)); }

CFileBase* CFileCache::FindDir(const TriHashIdx& key) { return Touch(m_HashTbl.Search(key)); }
