/// @file TriHash.h
/// Keys for looking names and paths up without regard to case, and a hash table of such keys. The open-object cache
/// keys its objects by their full path, and each directory's entry cache keys its entries by name.
///
/// A key is three 32-bit hashes and the length of the upper-cased text. Keys match on these four values alone; texts
/// are never compared. So a look-up touches no text but the one it is given, and the table works for keys whose text
/// was never kept. The price is accepted: two different names that agree in all four values are one name.
///
/// One pass over a full path also gives the key of every directory on the way (PATH_HASH), so that the deepest cached
/// directory of a path is found without hashing again.

#ifndef FATLIB_TRIHASH_H
#define FATLIB_TRIHASH_H

#include "names/UpCase.h"

struct PATH_HASH;

/// One key. It is embedded in the object that it finds; the table links it and never owns it.
struct TriHashIdx {
  unsigned int m_nHashA;      // shift-and-fold hash
  unsigned int m_nHashB;      // two weighted sums combined
  unsigned int m_nHashC;      // rotating hash folded
  TriHashIdx* m_pNext;        // next key in the same chain of a table
  unsigned int m_nNameBytes;  // bytes of the hashed text with its two-byte terminator: 2 x units + 2
  unsigned short* m_pName;    // the key's own copy of a text, or null

  /// All zero: no hash, no text, in no table.
  TriHashIdx() : m_nHashA(0), m_nHashB(0), m_nHashC(0), m_pNext(nullptr), m_nNameBytes(0), m_pName(nullptr) {}
  // There is no destructor that frees the text: keys are copied by value when one object takes over another's text, and
  // the owner of the text calls Clean.

  /// Frees the text. Hashes and length stay, so a key may be cleaned while a table holds it.
  void Clean();

  /// @return the key's own text, valid until Clean; null when it has none.
  unsigned short* NamePtr() const { return m_pName; }
  /// @return code units of the hashed text, terminator not counted; 0 for a key that was never hashed.
  unsigned int NameChars() const { return m_nNameBytes == 0 ? 0 : (m_nNameBytes - 2) / 2; }

  static unsigned short Upcase(unsigned short unit) { return gUnicodeUpcase(unit); }

  /// Fills hashes and length from a zero-terminated text of any length. The key must not be in a table.
  void CalcHash(const unsigned short* text);
  /// Fills hashes and length from the state of a hash run over `len` bytes.
  void GetHashResult(unsigned int h1, unsigned int h2, unsigned int h3, unsigned int h4, unsigned int len);

  // The three below give the key its own text, freed with Clean; a text that it had before must have been cleaned or
  // handed over. They leave m_pNext alone. @return false when memory runs out, with the key unchanged.

  /// Copies m_nNameBytes bytes of the text this key was hashed from, in the case that it is written in.
  [[nodiscard]] bool CopyName(const unsigned short* text);
  /// Becomes the key of the whole path, with its upper-cased text.
  [[nodiscard]] bool CopyLastUpcaseStr(const PATH_HASH& path);
  /// Becomes the key of a directory of the path, with its upper-cased text.
  /// @param prefix  below path.nPrefixes
  [[nodiscard]] bool CopyPreUpcaseStr(const PATH_HASH& path, unsigned int prefix);

  bool SameKey(const TriHashIdx& other) const {
    return m_nHashA == other.m_nHashA && m_nHashB == other.m_nHashB && m_nHashC == other.m_nHashC &&
           m_nNameBytes == other.m_nNameBytes;
  }

 private:
  friend struct PATH_HASH;
  enum NOT_FILLED { NotFilled };
  explicit TriHashIdx(NOT_FILLED) {}
};

/// The keys of one full path and of the directories on the way to it. A path look-up makes its own on its stack and
/// hands it down: a look-up that is started while another one is under way must not disturb the keys of the first.
/// It points into the path it was made from, and is good as long as that path.
struct PATH_HASH {
  static constexpr unsigned int MAX_UNITS = 261;     // a normalised path has at most 259
  static constexpr unsigned int MAX_PREFIXES = 131;  // every other unit a separator, and one

  struct PREFIX {
    TriHashIdx Idx;               // key of the path before a separator; m_pName null
    const unsigned short* pRest;  // the caller's path just after that separator
    PREFIX() : Idx(TriHashIdx::NotFilled) {}
  };

  TriHashIdx Full;                         // key of the whole path; m_pName null
  unsigned int nPrefixes;                  // valid elements of Prefixes, shortest prefix first
  unsigned short szUpcase[MAX_UNITS + 1];  // the upper-cased path
  PREFIX Prefixes[MAX_PREFIXES];

  /// Holds no path. Neither the text nor the prefixes are filled in: they would cost more than the hashing of a path.
  PATH_HASH() : nPrefixes(0) { szUpcase[0] = 0; }
  PATH_HASH(const PATH_HASH&) = delete;
  PATH_HASH& operator=(const PATH_HASH&) = delete;

  /// Hashes a zero-terminated path. Anything beyond MAX_UNITS is not looked at; the key of a path cut there is longer
  /// than any normalised path, and so matches none. Separators beyond MAX_PREFIXES get no element.
  void Calc(const unsigned short* path);
};

/// A table of keys.
///
/// It is one array of chains, of a power of two in size, indexed by a mix of the three hashes. An array per hash, three
/// levels deep, would scatter a directory's entries over thousands of small arrays (each holding a pointer or two), and
/// would still let the chains grow with the directory; one array that doubles when there are more keys than chains
/// keeps the chains short and a look-up to one index whatever the count.
///
/// A chain is circular: its slot points at the last key, whose m_pNext is the first one. So a key is appended at once
/// even to a chain of tens of thousands of equal keys, which a regular file read as a directory can produce, and the
/// chain still runs in the order of insertion: among equal keys the first one inserted is found. Doubling keeps that
/// order.
class TriHashTbl {
 public:
  TriHashTbl() : m_pBuckets(nullptr), m_nBuckets(1), m_nKeys(0), m_nFirstBuckets(1) {}
  /// Frees the array, not the keys.
  ~TriHashTbl() { Terminate(); }
  TriHashTbl(const TriHashTbl&) = delete;
  TriHashTbl& operator=(const TriHashTbl&) = delete;

  /// Empties the table. @param buckets  chains to start with, rounded up to a power of two; they take no memory before
  /// the first insertion.
  void Initialize(unsigned int buckets);
  /// Frees the array, not the keys. The table is empty then and may be used again.
  void Terminate();

  /// Makes sure that Insert cannot fail. @return false when memory runs out
  [[nodiscard]] bool Reserve();
  /// Appends a key. No test for duplicates is made. Hashes and length of a key must not change while it is in a table,
  /// and it may be in one table once.
  /// @return false when there was no memory for the first array, with nothing changed. Memory that runs out later only
  ///         lets the chains grow longer.
  [[nodiscard]] bool Insert(TriHashIdx* key);
  /// Takes out that very key; one that is not in the table, or null, is left alone. Walks the keys of the same chain
  /// that were inserted before it.
  void Remove(TriHashIdx* key);

  // The searches return the key in the table, or null.

  /// Hashes a path into `hash`, always, and searches the whole path. A null or empty path finds nothing and hashes
  /// nothing; hash.nPrefixes is 0 then.
  TriHashIdx* Search(const unsigned short* path, PATH_HASH& hash) const;
  /// The same for a text of any length without prefixes.
  TriHashIdx* Search(const unsigned short* text) const;
  TriHashIdx* Search(const TriHashIdx& key) const;

  /// @return keys in the table
  unsigned int Count() const { return m_nKeys; }

 private:
  static constexpr unsigned int MAX_BUCKETS = 1u << 20;  // many times the entries of the largest directory

  unsigned int BucketOf(const TriHashIdx& key) const;
  void Double();

  TriHashIdx** m_pBuckets;       // last key of each chain, null for an empty one; null until the first insertion
  unsigned int m_nBuckets;       // size of that array, a power of two
  unsigned int m_nKeys;          // keys in the table
  unsigned int m_nFirstBuckets;  // size that the array starts with
};

#endif  // FATLIB_TRIHASH_H
