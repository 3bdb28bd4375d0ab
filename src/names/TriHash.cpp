/// @file TriHash.cpp

#include "names/TriHash.h"

#include "platform/Platform.h"

namespace {

/// One run of the three hashes over upper-cased units. Everything is modulo 2^32 but for s and the product p, which are
/// 16 bits wide.
struct HASH_RUN {
  unsigned int h1 = 0;
  unsigned int h2 = 0;
  unsigned int h3 = 0;
  unsigned int h4 = 0;
  std::uint16_t s = 0x0100;
  unsigned int k = 1;
  unsigned int len = 0;

  void Add(unsigned short c) {
    // Sign-extended: from the 128th unit on t has ones in its upper half, until s wraps to 0 at the 256th.
    const unsigned int t = static_cast<unsigned int>(static_cast<std::int16_t>(s)) | c;
    s = static_cast<std::uint16_t>(s + 0x0100);
    const unsigned int r = ((t >> 2) ^ t) & 15;
    h4 = (h4 << r | h4 >> ((32 - r) & 31)) ^ t * t;
    h1 = (h1 << 4) + c;
    h1 ^= (h1 & 0xF0000000u) >> 24;  // the top nibble is folded in but stays: this is no slip
    const unsigned int p = k * c & 0xFFFF;
    ++k;
    h2 += p ^ h2;
    h3 += p;
    len += 2;
  }

  void StoreIn(TriHashIdx& key) const { key.GetHashResult(h1, h2, h3, h4, len); }
};

unsigned short* CopyText(const unsigned short* text, unsigned int bytes) {
  auto* copy = static_cast<unsigned short*>(osMemAlloc(bytes));
  if (copy != nullptr) osMemCpy(copy, text, bytes);
  return copy;
}

/// Chains and tags are chosen by this. The last units of a name move only the low bits of the first two hashes;
/// multiplying spreads them, and the shifts bring the best mixed bits down to where the index is taken from.
unsigned int Mixed(const TriHashIdx& key) {
  unsigned int mix = (key.m_nHashA ^ key.m_nHashC) * 0x9E3779B1u + key.m_nHashB;
  mix = (mix ^ mix >> 15) * 0x85EBCA77u;
  return mix ^ mix >> 16;
}

// Behind the chains of a table lies a byte for each of them: which of seven kinds of key it has or had, and whether any
// two of one kind. So most names that are not there are known by it, and the last key of a chain is the one looked for
// when it is like it, although only the first one of several counts. Each key that need not be looked at counts: in a
// large directory it lies far from the processor.
constexpr std::size_t BYTES_PER_BUCKET = sizeof(TriHashIdx*) + 1;
constexpr unsigned int KINDS = 7;
constexpr unsigned int TWO_OF_A_KIND = 1u << KINDS;

unsigned char& TagsOf(TriHashIdx** buckets, unsigned int nBuckets, unsigned int bucket) {
  return reinterpret_cast<unsigned char*>(buckets + nBuckets)[bucket];
}

// Taken from the bits that an index is not taken from.
unsigned int TagOf(unsigned int mixed) { return 1u << ((mixed >> 16) * KINDS >> 16); }

/// Appends a key to the chain whose last key is `last`.
void Append(TriHashIdx*& last, TriHashIdx* key) {
  if (last == nullptr) {
    key->m_pNext = key;
  } else {
    key->m_pNext = last->m_pNext;
    last->m_pNext = key;
  }
  last = key;
}

/// Appends a key to its chain in a table.
void Enter(TriHashIdx** buckets, unsigned int nBuckets, TriHashIdx* key) {
  const unsigned int mixed = Mixed(*key);
  const unsigned int bucket = mixed & (nBuckets - 1);
  unsigned char& tags = TagsOf(buckets, nBuckets, bucket);
  const unsigned int tag = TagOf(mixed);
  tags = static_cast<unsigned char>(tags | tag | ((tags & tag) != 0 ? TWO_OF_A_KIND : 0));
  Append(buckets[bucket], key);
}

}  // namespace

void TriHashIdx::Clean() {
  osMemFree(m_pName);
  m_pName = nullptr;
}

void TriHashIdx::CalcHash(const unsigned short* text) {
  HASH_RUN run;
  while (const unsigned short c = Upcase(*text++)) run.Add(c);
  run.StoreIn(*this);
}

void TriHashIdx::GetHashResult(unsigned int h1, unsigned int h2, unsigned int h3, unsigned int h4, unsigned int len) {
  m_nHashA = h1;
  m_nHashB = h2 << 16 | h3;  // h3 is not cut to 16 bits
  m_nHashC = h4 >> 16 ^ h4;
  m_nNameBytes = len + 2;
}

bool TriHashIdx::CopyName(const unsigned short* text) {
  unsigned short* copy = CopyText(text, m_nNameBytes);
  if (copy == nullptr) return false;
  m_pName = copy;
  return true;
}

bool TriHashIdx::CopyLastUpcaseStr(const PATH_HASH& path) {
  unsigned short* copy = CopyText(path.szUpcase, path.Full.m_nNameBytes);
  if (copy == nullptr) return false;
  m_nHashA = path.Full.m_nHashA;
  m_nHashB = path.Full.m_nHashB;
  m_nHashC = path.Full.m_nHashC;
  m_nNameBytes = path.Full.m_nNameBytes;
  m_pName = copy;
  return true;
}

bool TriHashIdx::CopyPreUpcaseStr(const PATH_HASH& path, unsigned int prefix) {
  const TriHashIdx& idx = path.Prefixes[prefix].Idx;
  unsigned short* copy = CopyText(path.szUpcase, idx.m_nNameBytes);
  if (copy == nullptr) return false;
  m_nHashA = idx.m_nHashA;
  m_nHashB = idx.m_nHashB;
  m_nHashC = idx.m_nHashC;
  m_nNameBytes = idx.m_nNameBytes;
  m_pName = copy;
  m_pName[NameChars()] = 0;  // where the separator stood
  return true;
}

void PATH_HASH::Calc(const unsigned short* path) {
  HASH_RUN run;
  nPrefixes = 0;
  unsigned int i = 0;
  for (; i < MAX_UNITS; ++i) {
    const unsigned short c = gUnicodeUpcase(path[i]);
    if (c == 0) break;
    szUpcase[i] = c;
    if (c == '\\' && nPrefixes < MAX_PREFIXES) {
      PREFIX& prefix = Prefixes[nPrefixes++];
      run.StoreIn(prefix.Idx);
      prefix.Idx.m_pNext = nullptr;
      prefix.Idx.m_pName = nullptr;
      prefix.pRest = path + i + 1;
    }
    run.Add(c);
  }
  szUpcase[i] = 0;
  run.StoreIn(Full);
}

void TriHashTbl::Initialize(unsigned int buckets) {
  Terminate();
  m_nFirstBuckets = 1;
  while (m_nFirstBuckets < buckets && m_nFirstBuckets < MAX_BUCKETS) m_nFirstBuckets *= 2;
  m_nBuckets = m_nFirstBuckets;
}

void TriHashTbl::Terminate() {
  osMemFree(m_pBuckets);
  m_pBuckets = nullptr;
  m_nBuckets = m_nFirstBuckets;
  m_nKeys = 0;
}

unsigned int TriHashTbl::BucketOf(const TriHashIdx& key) const { return Mixed(key) & (m_nBuckets - 1); }

bool TriHashTbl::Reserve() {
  if (m_pBuckets != nullptr) return true;
  m_pBuckets = static_cast<TriHashIdx**>(osMemAllocZeroed(m_nBuckets * BYTES_PER_BUCKET));
  return m_pBuckets != nullptr;
}

bool TriHashTbl::Insert(TriHashIdx* key) {
  if (!Reserve()) return false;
  if (m_nKeys >= m_nBuckets) Double();
  Enter(m_pBuckets, m_nBuckets, key);
  ++m_nKeys;
  return true;
}

/// Splits each chain in two. Keys are appended in the order of the old chain, so equal keys, which share a chain before
/// and after, stay in the order they were inserted in. Without memory the array stays as it is.
void TriHashTbl::Double() {
  if (m_nBuckets >= MAX_BUCKETS) return;
  const unsigned int old = m_nBuckets;
  void* grown = osMemRealloc(m_pBuckets, 2 * BYTES_PER_BUCKET * old);
  if (grown == nullptr) return;
  m_pBuckets = static_cast<TriHashIdx**>(grown);
  m_nBuckets = 2 * old;
  for (unsigned int i = old; i < m_nBuckets; ++i) m_pBuckets[i] = nullptr;
  osMemZero(&TagsOf(m_pBuckets, m_nBuckets, 0), m_nBuckets);
  for (unsigned int i = 0; i < old; ++i) {
    TriHashIdx* last = m_pBuckets[i];
    if (last == nullptr) continue;
    TriHashIdx* key = last->m_pNext;
    last->m_pNext = nullptr;
    m_pBuckets[i] = nullptr;
    while (key != nullptr) {
      TriHashIdx* next = key->m_pNext;
      Enter(m_pBuckets, m_nBuckets, key);
      key = next;
    }
  }
}

void TriHashTbl::Remove(TriHashIdx* key) {
  if (m_pBuckets == nullptr || key == nullptr) return;
  const unsigned int bucket = BucketOf(*key);
  TriHashIdx*& last = m_pBuckets[bucket];
  if (last == nullptr) return;
  TriHashIdx* before = last;
  while (before->m_pNext != key) {
    before = before->m_pNext;
    if (before == last) return;
  }
  if (before == key) {
    last = nullptr;  // it was alone
    TagsOf(m_pBuckets, m_nBuckets, bucket) = 0;
  } else {
    before->m_pNext = key->m_pNext;
    if (last == key) last = before;
  }
  key->m_pNext = nullptr;
  --m_nKeys;
}

TriHashIdx* TriHashTbl::Search(const unsigned short* path, PATH_HASH& hash) const {
  if (path == nullptr || *path == 0) {
    hash.nPrefixes = 0;
    return nullptr;
  }
  hash.Calc(path);
  return Search(hash.Full);
}

TriHashIdx* TriHashTbl::Search(const unsigned short* text) const {
  if (text == nullptr || *text == 0) return nullptr;
  TriHashIdx key;
  key.CalcHash(text);
  return Search(key);
}

TriHashIdx* TriHashTbl::Search(const TriHashIdx& key) const {
  if (m_pBuckets == nullptr) return nullptr;
  const unsigned int mixed = Mixed(key);
  const unsigned int bucket = mixed & (m_nBuckets - 1);
  const unsigned int tags = TagsOf(m_pBuckets, m_nBuckets, bucket);
  if ((tags & TagOf(mixed)) == 0) return nullptr;
  TriHashIdx* const last = m_pBuckets[bucket];
  if ((tags & TWO_OF_A_KIND) == 0 && last->SameKey(key)) return last;
  TriHashIdx* candidate = last;
  do {
    candidate = candidate->m_pNext;
    if (candidate->SameKey(key)) return candidate;
  } while (candidate != last);
  return nullptr;
}
