/// @file TriHashTest.cpp

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "names/TriHash.h"
#include "support/MemHooks.h"
#include "support/Utf16.h"

namespace {

/// As long as it lives, no memory is to be had.
class CNoMemory : public CMemHooks {
 public:
  CNoMemory() { FailAt(1, FOR_GOOD); }
};

/// The four values that keys match on.
struct KEY {
  unsigned int A;
  unsigned int B;
  unsigned int C;
  unsigned int Bytes;
};
bool operator==(const KEY& a, const KEY& b) { return a.A == b.A && a.B == b.B && a.C == b.C && a.Bytes == b.Bytes; }
void PrintTo(const KEY& key, std::ostream* out) {
  *out << std::hex << "{" << key.A << ", " << key.B << ", " << key.C << ", " << std::dec << key.Bytes << "}";
}

KEY KeyOf(const TriHashIdx& idx) { return {idx.m_nHashA, idx.m_nHashB, idx.m_nHashC, idx.m_nNameBytes}; }

KEY HashOf(const UTF16& units) {
  UTF16 text = units;
  text.push_back(0);
  TriHashIdx key;
  key.CalcHash(text.data());
  return KeyOf(key);
}
KEY HashOf(const std::string& text) { return HashOf(ToUtf16(text)); }

/// The three hashes from their definition, over units that are upper case already: each value of the nth unit (counted
/// from 1) is worked out from n alone, in 64 bits, and reduced at the end of the step.
KEY ReferenceHash(const UTF16& upper) {
  constexpr std::uint64_t TWO_32 = 0x100000000ull;
  std::uint64_t shifted = 0;
  std::uint64_t xored = 0;
  std::uint64_t summed = 0;
  std::uint64_t rotated = 0;
  for (std::size_t n = 1; n <= upper.size(); ++n) {
    const std::uint64_t unit = upper[n - 1];
    const std::uint64_t round = n % 256 * 256;
    const std::uint64_t salted = (round >= 0x8000 ? round + 0xFFFF0000ull : round) | unit;
    const std::uint64_t turns = (salted / 4 ^ salted) % 16;
    const std::uint64_t turned = rotated << turns;
    rotated = (turned % TWO_32 + turned / TWO_32) ^ salted * salted % TWO_32;
    shifted = (shifted * 16 + unit) % TWO_32;
    shifted ^= shifted / 0x10000000 * 16;
    const std::uint64_t product = n * unit % 0x10000;
    xored = (xored + (xored ^ product)) % TWO_32;
    summed = (summed + product) % TWO_32;
  }
  return {static_cast<unsigned int>(shifted), static_cast<unsigned int>(xored * 0x10000 % TWO_32 | summed),
          static_cast<unsigned int>(rotated / 0x10000 ^ rotated), static_cast<unsigned int>(2 * upper.size() + 2)};
}

/// A random text and its upper case, made from pairs that are written down here.
struct RANDOM_TEXT {
  UTF16 Text;
  UTF16 Upper;
};
RANDOM_TEXT MakeRandomText(std::mt19937& random, std::size_t units, bool separators) {
  static constexpr unsigned short PAIRS[][2] = {
      {'a', 'A'},       {'Z', 'Z'},       {'.', '.'},       {0x00FF, 0x0178}, {0x0430, 0x0410},
      {0x4E2D, 0x4E2D}, {0xD83D, 0xD83D}, {0xFF5A, 0xFF3A}, {0xFFFF, 0xFFFF}, {'\\', '\\'},
  };
  RANDOM_TEXT made;
  for (std::size_t i = 0; i < units; ++i) {
    const auto& pair = PAIRS[random() % (separators ? 10 : 9)];
    made.Text.push_back(pair[0]);
    made.Upper.push_back(pair[1]);
  }
  return made;
}

UTF16 Alphabet(std::size_t units) {
  UTF16 text;
  for (std::size_t i = 0; i < units; ++i) text.push_back(static_cast<unsigned short>('a' + i % 26));
  return text;
}

std::string TextOf(const TriHashIdx& key) { return ToUtf8(key.NamePtr(), key.NameChars()); }

}  // namespace

// ---------------------------------------------------------------------------------------------------------- keys

TEST(TriHashIdx, NewKey_IsAllZero) {
  const TriHashIdx key;
  EXPECT_EQ(KeyOf(key), (KEY{0, 0, 0, 0}));
  EXPECT_EQ(key.m_pNext, nullptr);
  EXPECT_EQ(key.NamePtr(), nullptr);
  EXPECT_EQ(key.NameChars(), 0u);
}

TEST(TriHashIdx, Members_StandInTheirOrder) {
  EXPECT_EQ(offsetof(TriHashIdx, m_nHashA), 0u);
  EXPECT_EQ(offsetof(TriHashIdx, m_nHashB), 4u);
  EXPECT_EQ(offsetof(TriHashIdx, m_nHashC), 8u);
  EXPECT_EQ(offsetof(TriHashIdx, m_pNext), sizeof(void*) == 4 ? 12u : 16u);
  EXPECT_EQ(offsetof(TriHashIdx, m_nNameBytes), sizeof(void*) == 4 ? 16u : 24u);
  EXPECT_EQ(offsetof(TriHashIdx, m_pName), sizeof(void*) == 4 ? 20u : 32u);
  EXPECT_EQ(sizeof(TriHashIdx), sizeof(void*) == 4 ? 24u : 40u);
}

TEST(TriHashIdx, UpperAndLowerCase_GiveTheSameKey) {
  const KEY expected = {0x41, 0x00410041, 0x00019280, 4};
  EXPECT_EQ(HashOf("A"), expected);
  EXPECT_EQ(HashOf("a"), expected);
}

TEST(TriHashIdx, KnownTexts_GiveTheirKnownKeys) {
  EXPECT_EQ(HashOf("DIR"), (KEY{0x000048E2, 0x030601CC, 0x35650762, 8}));
  EXPECT_EQ(HashOf("DIR\\FILE.TXT"), (KEY{0xAA8AB974, 0xCBF0172A, 0xD13CC980, 26}));
  EXPECT_EQ(HashOf("file.txt"), (KEY{0xAE083D74, 0x53400AB6, 0x5E9A1F72, 18}));
  EXPECT_EQ(HashOf(UTF16{0xFF41, 0x0430, 0x00FF, 0x4E2D, 0xD83D, 0xDE00, 0xFFFF}),
            (KEY{0x6942D19F, 0xFFFFB187, 0xEA7AFC54, 16}));
}

TEST(TriHashIdx, EmptyText_GivesZeroHashesAndATerminator) { EXPECT_EQ(HashOf(""), (KEY{0, 0, 0, 2})); }

// The salt of the third hash turns negative with the 128th unit and starts again with the 256th.
TEST(TriHashIdx, LongTexts_GiveTheirKnownKeys) {
  EXPECT_EQ(HashOf(Alphabet(127)), (KEY{0xE5951557, 0xCBDDA7CC, 0x338CC21F, 256}));
  EXPECT_EQ(HashOf(Alphabet(128)), (KEY{0x59515598, 0xB3ABD3CC, 0x03CCD16F, 258}));
  EXPECT_EQ(HashOf(Alphabet(255)), (KEY{0x15894E85, 0x6AB79D6E, 0xF7969734, 512}));
  EXPECT_EQ(HashOf(Alphabet(256)), (KEY{0x5894E8F6, 0xA766F36E, 0xBCB3A540, 514}));
  EXPECT_EQ(HashOf(Alphabet(257)), (KEY{0x894E8F37, 0x97B74AC5, 0xF2CD5E92, 516}));
  EXPECT_EQ(HashOf(Alphabet(300)), (KEY{0xFB7122EE, 0x5B7743E2, 0x6387F4EB, 602}));
  EXPECT_EQ(HashOf(UTF16(600, 0x4E2D)), (KEY{0xFD00000D, 0x3F7FF55C, 0x3AFC99B6, 1202}));
}

TEST(TriHashIdx, RandomTextsOfAnyLength_HashAsDefined) {
  std::mt19937 random(20240229);
  for (int round = 0; round < 2000; ++round) {
    const RANDOM_TEXT text = MakeRandomText(random, random() % 400, true);
    ASSERT_EQ(HashOf(text.Text), ReferenceHash(text.Upper)) << "round " << round;
  }
}

TEST(TriHashIdx, ResultRule_KeepsTheUpperHalfOfTheThirdSum) {
  TriHashIdx key;
  key.GetHashResult(0x11111111, 0xABCD0001, 0x00020304, 0xFFFF1234, 10);
  EXPECT_EQ(KeyOf(key), (KEY{0x11111111, 0x00030304, 0xFFFFEDCB, 12}));
  EXPECT_EQ(key.NameChars(), 5u);
}

TEST(TriHashIdx, Upcase_IsTheCaseFoldingOfNames) {
  EXPECT_EQ(TriHashIdx::Upcase('q'), 'Q');
  EXPECT_EQ(TriHashIdx::Upcase(0x0451), 0x0401);
  EXPECT_EQ(TriHashIdx::Upcase(0x4E2D), 0x4E2D);
}

TEST(TriHashIdx, CopyName_KeepsTheCaseInACopyOfItsOwn) {
  UTF16 text = ToUtf16Z("ReadMe.txt");
  TriHashIdx key;
  key.CalcHash(text.data());
  ASSERT_TRUE(key.CopyName(text.data()));
  std::fill(text.begin(), text.end(), static_cast<unsigned short>('x'));
  EXPECT_EQ(TextOf(key), "ReadMe.txt");
  EXPECT_EQ(key.NamePtr()[10], 0);
  key.Clean();
  EXPECT_EQ(key.NamePtr(), nullptr);
  EXPECT_EQ(key.NameChars(), 10u);
}

TEST(TriHashIdx, CleanOfAKeyWithoutText_DoesNothing) {
  TriHashIdx key;
  key.Clean();
  key.Clean();
  EXPECT_EQ(key.NamePtr(), nullptr);
}

TEST(TriHashIdx, SameKey_NeedsAllFourValues) {
  TriHashIdx key;
  key.GetHashResult(1, 2, 3, 4, 10);
  TriHashIdx same = key;
  same.m_pNext = &key;
  EXPECT_TRUE(key.SameKey(same));
  for (unsigned int TriHashIdx::*value :
       {&TriHashIdx::m_nHashA, &TriHashIdx::m_nHashB, &TriHashIdx::m_nHashC, &TriHashIdx::m_nNameBytes}) {
    TriHashIdx other = key;
    other.*value ^= 1;
    EXPECT_FALSE(key.SameKey(other));
  }
}

// --------------------------------------------------------------------------------------------------------- paths

TEST(PathHash, OneSeparator_GivesTheKeyOfTheDirectoryAndTheRestOfThePath) {
  const UTF16 path = ToUtf16Z("DIR\\FILE.TXT");
  PATH_HASH hash;
  hash.Calc(path.data());
  EXPECT_EQ(KeyOf(hash.Full), (KEY{0xAA8AB974, 0xCBF0172A, 0xD13CC980, 26}));
  ASSERT_EQ(hash.nPrefixes, 1u);
  EXPECT_EQ(KeyOf(hash.Prefixes[0].Idx), HashOf("DIR"));
  EXPECT_EQ(hash.Prefixes[0].pRest, path.data() + 4);
  EXPECT_EQ(ToUtf8(hash.Prefixes[0].pRest, 8), "FILE.TXT");
}

TEST(PathHash, NoSeparator_GivesNoPrefix) {
  const UTF16 path = ToUtf16Z("FILE.TXT");
  PATH_HASH hash;
  hash.Calc(path.data());
  EXPECT_EQ(hash.nPrefixes, 0u);
  EXPECT_EQ(KeyOf(hash.Full), HashOf("FILE.TXT"));
}

TEST(PathHash, NewHash_HoldsNoPath) {
  const PATH_HASH hash;
  EXPECT_EQ(hash.nPrefixes, 0u);
  EXPECT_EQ(hash.szUpcase[0], 0);
  EXPECT_EQ(KeyOf(hash.Full), (KEY{0, 0, 0, 0}));
}

TEST(PathHash, EveryPrefix_HasTheKeyOfItsOwnText) {
  std::mt19937 random(7);
  for (int round = 0; round < 300; ++round) {
    const RANDOM_TEXT path = MakeRandomText(random, random() % 260, true);
    UTF16 text = path.Text;
    text.push_back(0);
    PATH_HASH hash;
    hash.Calc(text.data());
    ASSERT_EQ(KeyOf(hash.Full), ReferenceHash(path.Upper));
    ASSERT_TRUE(std::equal(path.Upper.begin(), path.Upper.end(), hash.szUpcase));
    ASSERT_EQ(hash.szUpcase[path.Upper.size()], 0);
    unsigned int prefix = 0;
    for (std::size_t i = 0; i < path.Upper.size(); ++i) {
      if (path.Upper[i] != '\\') continue;
      ASSERT_LT(prefix, hash.nPrefixes);
      ASSERT_EQ(KeyOf(hash.Prefixes[prefix].Idx),
                ReferenceHash(UTF16(path.Upper.begin(), path.Upper.begin() + static_cast<std::ptrdiff_t>(i))));
      ASSERT_EQ(hash.Prefixes[prefix].pRest, text.data() + i + 1);
      ASSERT_EQ(hash.Prefixes[prefix].Idx.m_pName, nullptr);
      ASSERT_EQ(hash.Prefixes[prefix].Idx.m_pNext, nullptr);
      ++prefix;
    }
    ASSERT_EQ(hash.nPrefixes, prefix);
  }
}

TEST(PathHash, DeepestNormalisedPath_FitsWithAllItsPrefixes) {
  UTF16 path;
  for (int i = 0; i < 129; ++i) {
    path.push_back('d');
    path.push_back('\\');
  }
  path.push_back('f');
  ASSERT_EQ(path.size(), 259u);
  path.push_back(0);
  PATH_HASH hash;
  hash.Calc(path.data());
  EXPECT_EQ(hash.nPrefixes, 129u);
  EXPECT_EQ(hash.Full.NameChars(), 259u);
  EXPECT_EQ(hash.Prefixes[128].pRest, path.data() + 258);
}

TEST(PathHash, PathTooLong_IsCutAndStaysWithinItsRecord) {
  UTF16 path(1000, 'a');
  path.push_back(0);
  PATH_HASH hash;
  hash.Calc(path.data());
  EXPECT_EQ(KeyOf(hash.Full), HashOf(std::string(261, 'A')));
  EXPECT_EQ(hash.szUpcase[260], 'A');
  EXPECT_EQ(hash.szUpcase[261], 0);
}

TEST(PathHash, PathOfSeparatorsOnly_StaysWithinItsRecord) {
  UTF16 path(1000, '\\');
  path.push_back(0);
  PATH_HASH hash;
  hash.Calc(path.data());
  EXPECT_EQ(hash.nPrefixes, 131u);
  EXPECT_EQ(hash.Prefixes[130].pRest, path.data() + 131);
  EXPECT_EQ(KeyOf(hash.Prefixes[130].Idx), HashOf(std::string(130, '\\')));
  EXPECT_EQ(hash.Full.NameChars(), 261u);
}

TEST(PathHash, UsedAgainForAShorterPath_ForgetsTheLongerOne) {
  const UTF16 deep = ToUtf16Z("a\\b\\c\\d");
  const UTF16 shallow = ToUtf16Z("x\\y");
  PATH_HASH hash;
  hash.Calc(deep.data());
  EXPECT_EQ(hash.nPrefixes, 3u);
  hash.Calc(shallow.data());
  EXPECT_EQ(hash.nPrefixes, 1u);
  EXPECT_EQ(hash.szUpcase[3], 0);
  EXPECT_EQ(KeyOf(hash.Full), HashOf("X\\Y"));
}

TEST(PathHash, LookUpInsideALookUp_LeavesTheOuterOneAlone) {
  const UTF16 outerPath = ToUtf16Z("dir\\sub\\file");
  const UTF16 innerPath = ToUtf16Z("other\\path\\that\\is\\longer");
  PATH_HASH outer;
  outer.Calc(outerPath.data());
  PATH_HASH inner;
  inner.Calc(innerPath.data());
  TriHashIdx key;
  ASSERT_TRUE(key.CopyPreUpcaseStr(outer, 1));
  EXPECT_EQ(KeyOf(key), HashOf("DIR\\SUB"));
  EXPECT_EQ(TextOf(key), "DIR\\SUB");
  key.Clean();
}

TEST(PathHash, CopyLastUpcaseStr_GivesTheWholePathInUpperCase) {
  const UTF16 path = ToUtf16Z("dir\\\u0444\u0430\u0439\u043b.txt");
  PATH_HASH hash;
  hash.Calc(path.data());
  TriHashIdx other;
  TriHashIdx key;
  key.m_pNext = &other;
  ASSERT_TRUE(key.CopyLastUpcaseStr(hash));
  EXPECT_EQ(KeyOf(key), KeyOf(hash.Full));
  EXPECT_EQ(TextOf(key), "DIR\\\u0424\u0410\u0419\u041b.TXT");
  EXPECT_EQ(key.NamePtr()[12], 0);
  EXPECT_EQ(key.m_pNext, &other);
  EXPECT_EQ(hash.Full.NamePtr(), nullptr);
  key.Clean();
}

TEST(PathHash, CopyPreUpcaseStr_GivesTheDirectoryInUpperCase) {
  const UTF16 path = ToUtf16Z("dir\\file");
  PATH_HASH hash;
  hash.Calc(path.data());
  TriHashIdx other;
  TriHashIdx key;
  key.m_pNext = &other;
  ASSERT_TRUE(key.CopyPreUpcaseStr(hash, 0));
  EXPECT_EQ(KeyOf(key), HashOf("DIR"));
  EXPECT_EQ(TextOf(key), "DIR");
  EXPECT_EQ(key.NamePtr()[3], 0);
  EXPECT_EQ(key.m_pNext, &other);
  EXPECT_EQ(hash.szUpcase[3], '\\');  // the record is not changed: longer prefixes are copied after shorter ones
  key.Clean();
}

TEST(PathHash, CopiesWithoutMemory_FailAndLeaveTheKeyAsItWas) {
  const UTF16 path = ToUtf16Z("dir\\file");
  PATH_HASH hash;
  hash.Calc(path.data());
  TriHashIdx key;
  key.GetHashResult(1, 2, 3, 4, 4);
  const KEY before = KeyOf(key);
  {
    const CNoMemory noMemory;
    EXPECT_FALSE(key.CopyName(path.data()));
    EXPECT_FALSE(key.CopyLastUpcaseStr(hash));
    EXPECT_FALSE(key.CopyPreUpcaseStr(hash, 0));
  }
  EXPECT_EQ(KeyOf(key), before);
  EXPECT_EQ(key.NamePtr(), nullptr);
}

// --------------------------------------------------------------------------------------------------------- table

namespace {

class TriHashTable : public ::testing::Test {
 protected:
  TriHashTable() { m_Table.Initialize(7); }

  /// A key that lives as long as the test.
  TriHashIdx* Key(const std::string& text) {
    m_Keys.push_back(std::make_unique<TriHashIdx>());
    m_Keys.back()->CalcHash(ToUtf16Z(text).data());
    return m_Keys.back().get();
  }
  TriHashIdx* Insert(const std::string& text) {
    TriHashIdx* key = Key(text);
    EXPECT_TRUE(m_Table.Insert(key));
    return key;
  }
  TriHashIdx* Search(const std::string& text) const { return m_Table.Search(ToUtf16Z(text).data()); }

  TriHashTbl m_Table;
  std::vector<std::unique_ptr<TriHashIdx>> m_Keys;
};

}  // namespace

TEST_F(TriHashTable, NewTable_FindsNothing) {
  EXPECT_EQ(Search("a"), nullptr);
  EXPECT_EQ(m_Table.Search(*Key("a")), nullptr);
  EXPECT_EQ(m_Table.Count(), 0u);
  m_Table.Remove(Key("a"));
  EXPECT_EQ(m_Table.Count(), 0u);
}

TEST_F(TriHashTable, InsertedKey_IsFoundInAnyCaseByAllThreeSearches) {
  TriHashIdx* const key = Insert("Dir\\File.txt");
  EXPECT_EQ(m_Table.Count(), 1u);
  EXPECT_EQ(Search("dir\\file.TXT"), key);
  EXPECT_EQ(m_Table.Search(*Key("DIR\\FILE.TXT")), key);
  PATH_HASH hash;
  EXPECT_EQ(m_Table.Search(ToUtf16Z("dIR\\fILE.tXT").data(), hash), key);
  EXPECT_EQ(hash.nPrefixes, 1u);
  EXPECT_EQ(Search("dir\\file"), nullptr);
}

TEST_F(TriHashTable, EqualKeys_TheFirstInsertedIsFound) {
  TriHashIdx* const first = Insert("name");
  TriHashIdx* const second = Insert("NAME");
  TriHashIdx* const third = Insert("Name");
  EXPECT_EQ(m_Table.Count(), 3u);
  EXPECT_EQ(Search("name"), first);
  m_Table.Remove(second);
  EXPECT_EQ(Search("name"), first);
  m_Table.Remove(first);
  EXPECT_EQ(Search("name"), third);
  m_Table.Remove(third);
  EXPECT_EQ(Search("name"), nullptr);
  EXPECT_EQ(m_Table.Count(), 0u);
}

TEST_F(TriHashTable, RemovedKeyInsertedAgain_ComesLast) {
  TriHashIdx* const first = Insert("name");
  TriHashIdx* const second = Insert("name");
  m_Table.Remove(first);
  ASSERT_TRUE(m_Table.Insert(first));
  EXPECT_EQ(Search("name"), second);
  m_Table.Remove(second);
  EXPECT_EQ(Search("name"), first);
}

TEST_F(TriHashTable, RemovingTheLastOfEqualKeys_KeepsTheOrderOfThoseInsertedLater) {
  TriHashIdx* const first = Insert("name");
  TriHashIdx* const last = Insert("name");
  m_Table.Remove(last);
  TriHashIdx* const later = Insert("name");
  EXPECT_EQ(Search("name"), first);
  m_Table.Remove(first);
  EXPECT_EQ(Search("name"), later);
}

TEST_F(TriHashTable, RemovingAnEqualKeyThatIsNotInTheTable_RemovesNothing) {
  TriHashIdx* const key = Insert("name");
  m_Table.Remove(Key("name"));
  m_Table.Remove(nullptr);
  EXPECT_EQ(m_Table.Count(), 1u);
  EXPECT_EQ(Search("name"), key);
}

TEST_F(TriHashTable, TextsAreNotCompared) {
  TriHashIdx* const stored = Key("name");
  UTF16 other = ToUtf16Z("else");
  ASSERT_TRUE(stored->CopyName(other.data()));
  ASSERT_TRUE(m_Table.Insert(stored));
  EXPECT_EQ(Search("name"), stored);
  EXPECT_EQ(Search("else"), nullptr);
  m_Table.Remove(stored);
  stored->Clean();
}

TEST_F(TriHashTable, KeysThatDifferInOneValueOnly_AreNotConfused) {
  TriHashIdx* const key = Insert("name");
  for (unsigned int TriHashIdx::*value :
       {&TriHashIdx::m_nHashA, &TriHashIdx::m_nHashB, &TriHashIdx::m_nHashC, &TriHashIdx::m_nNameBytes}) {
    for (unsigned int bit = 0; bit < 32; ++bit) {
      TriHashIdx other = *key;
      other.*value ^= 1u << bit;
      EXPECT_EQ(m_Table.Search(other), nullptr);
    }
  }
  EXPECT_EQ(m_Table.Search(*key), key);
}

TEST_F(TriHashTable, NullOrEmptyPath_FindsNothingAndHashesNothing) {
  const UTF16 empty = {0};
  TriHashIdx* const key = Key("");
  ASSERT_TRUE(m_Table.Insert(key));
  PATH_HASH hash;
  hash.Calc(ToUtf16Z("a\\b").data());
  const KEY before = KeyOf(hash.Full);
  EXPECT_EQ(m_Table.Search(empty.data(), hash), nullptr);
  EXPECT_EQ(hash.nPrefixes, 0u);
  EXPECT_EQ(KeyOf(hash.Full), before);
  hash.nPrefixes = 1;
  EXPECT_EQ(m_Table.Search(nullptr, hash), nullptr);
  EXPECT_EQ(hash.nPrefixes, 0u);
  EXPECT_EQ(KeyOf(hash.Full), before);
  EXPECT_EQ(m_Table.Search(empty.data()), nullptr);
  const unsigned short* none = nullptr;
  EXPECT_EQ(m_Table.Search(none), nullptr);
}

TEST_F(TriHashTable, SearchOfAnEmptyTable_StillHashesThePath) {
  PATH_HASH hash;
  EXPECT_EQ(m_Table.Search(ToUtf16Z("dir\\file").data(), hash), nullptr);
  EXPECT_EQ(KeyOf(hash.Full), HashOf("DIR\\FILE"));
  ASSERT_EQ(hash.nPrefixes, 1u);
  EXPECT_EQ(KeyOf(hash.Prefixes[0].Idx), HashOf("DIR"));
}

TEST_F(TriHashTable, PrefixesOfAPath_FindTheCachedDirectories) {
  TriHashIdx* const dir = Insert("A");
  TriHashIdx* const sub = Insert("A\\B");
  PATH_HASH hash;
  EXPECT_EQ(m_Table.Search(ToUtf16Z("a\\b\\c\\d").data(), hash), nullptr);
  ASSERT_EQ(hash.nPrefixes, 3u);
  EXPECT_EQ(m_Table.Search(hash.Prefixes[2].Idx), nullptr);
  EXPECT_EQ(m_Table.Search(hash.Prefixes[1].Idx), sub);
  EXPECT_EQ(m_Table.Search(hash.Prefixes[0].Idx), dir);
}

TEST_F(TriHashTable, InitialiseAlone_TakesNoMemory) {
  const CMemHooks memory;
  TriHashTbl table;
  table.Initialize(1000000);
  EXPECT_EQ(table.Search(*Key("a")), nullptr);
  EXPECT_EQ(memory.Allocations(), 0u);
}

TEST_F(TriHashTable, TerminateAndDestruction_LeaveNoMemoryBehind) {
  const CMemHooks memory;
  {
    TriHashTbl table;
    table.Initialize(7);
    for (int i = 0; i < 100; ++i) ASSERT_TRUE(table.Insert(Key("name" + std::to_string(i))));
    EXPECT_GT(memory.Outstanding(), 0u);
    table.Terminate();
    EXPECT_EQ(memory.Outstanding(), 0u);
    ASSERT_TRUE(table.Insert(Key("name")));
  }
  EXPECT_EQ(memory.Outstanding(), 0u);
  EXPECT_EQ(memory.UnknownFrees(), 0u);
}

TEST_F(TriHashTable, Memory_IsAtMostTwoPointersAndTwoBytesPerKeyAndSmallAgainAfterTerminate) {
  constexpr std::size_t CHAIN_BYTES = sizeof(void*) + 1;
  CMemHooks memory;
  TriHashTbl table;
  table.Initialize(7);
  ASSERT_TRUE(table.Insert(Key("name")));
  EXPECT_EQ(memory.OutstandingBytes(), 8 * CHAIN_BYTES);
  for (unsigned int i = 1; i < 5000; ++i) {
    ASSERT_TRUE(table.Insert(Key("name" + std::to_string(i))));
    ASSERT_LE(memory.OutstandingBytes(), std::max(8u, 2 * table.Count()) * CHAIN_BYTES);
  }
  table.Terminate();
  ASSERT_TRUE(table.Insert(Key("name")));
  EXPECT_EQ(memory.OutstandingBytes(), 8 * CHAIN_BYTES);
}

TEST_F(TriHashTable, FirstInsertWithoutMemory_FailsAndChangesNothing) {
  TriHashIdx* const key = Key("a");
  {
    const CNoMemory noMemory;
    EXPECT_FALSE(m_Table.Insert(key));
  }
  EXPECT_EQ(m_Table.Count(), 0u);
  EXPECT_EQ(key->m_pNext, nullptr);
  EXPECT_EQ(Search("a"), nullptr);
  EXPECT_TRUE(m_Table.Insert(key));
  EXPECT_EQ(Search("a"), key);
}

TEST_F(TriHashTable, LaterInsertsWithoutMemory_SucceedAndEveryKeyIsFound) {
  std::vector<TriHashIdx*> keys = {Insert("first")};
  {
    const CNoMemory noMemory;
    for (int i = 0; i < 100; ++i) keys.push_back(Insert("file" + std::to_string(i)));
  }
  EXPECT_EQ(m_Table.Count(), 101u);
  for (TriHashIdx* key : keys) EXPECT_EQ(m_Table.Search(*key), key);
  for (int i = 100; i < 300; ++i) keys.push_back(Insert("file" + std::to_string(i)));
  for (TriHashIdx* key : keys) EXPECT_EQ(m_Table.Search(*key), key);
}

TEST_F(TriHashTable, Terminate_LeavesTheKeysAndAnEmptyTableThatWorks) {
  TriHashIdx* const key = Insert("name");
  const UTF16 text = ToUtf16Z("name");
  ASSERT_TRUE(key->CopyName(text.data()));
  for (int i = 0; i < 50; ++i) Insert("other" + std::to_string(i));
  m_Table.Terminate();
  EXPECT_EQ(m_Table.Count(), 0u);
  EXPECT_EQ(Search("name"), nullptr);
  EXPECT_EQ(TextOf(*key), "name");
  EXPECT_EQ(KeyOf(*key), HashOf("NAME"));
  m_Table.Remove(key);
  ASSERT_TRUE(m_Table.Insert(key));
  EXPECT_EQ(m_Table.Count(), 1u);
  EXPECT_EQ(Search("name"), key);
  EXPECT_EQ(Search("other1"), nullptr);
  m_Table.Terminate();
  m_Table.Terminate();
  key->Clean();
}

TEST_F(TriHashTable, InitialiseOfATableInUse_EmptiesIt) {
  Insert("name");
  m_Table.Initialize(41);
  EXPECT_EQ(m_Table.Count(), 0u);
  EXPECT_EQ(Search("name"), nullptr);
  Insert("name");
  EXPECT_EQ(m_Table.Count(), 1u);
}

TEST_F(TriHashTable, EveryInitialSize_Works) {
  for (unsigned int buckets : {0u, 1u, 2u, 3u, 7u, 41u, 64u, 65u, 100000u, 0xFFFFFFFFu}) {
    m_Table.Initialize(buckets);
    std::vector<TriHashIdx*> keys;
    for (int i = 0; i < 200; ++i) keys.push_back(Insert("name" + std::to_string(i)));
    for (TriHashIdx* key : keys) ASSERT_EQ(m_Table.Search(*key), key) << buckets << " buckets";
    ASSERT_EQ(m_Table.Count(), 200u);
  }
}

// What a regular file of one repeated byte looks like when its bytes are taken for directory entries.
TEST_F(TriHashTable, TensOfThousandsOfEqualKeys_StayInOrder) {
  constexpr unsigned int KEYS = 65536;
  const TriHashIdx model = *Key("AAAAAAAA.AAA");
  std::vector<TriHashIdx> keys(KEYS, model);
  for (TriHashIdx& key : keys) ASSERT_TRUE(m_Table.Insert(&key));
  EXPECT_EQ(m_Table.Count(), KEYS);
  for (TriHashIdx& key : keys) {
    ASSERT_EQ(m_Table.Search(model), &key);
    m_Table.Remove(&key);
  }
  EXPECT_EQ(m_Table.Count(), 0u);
  EXPECT_EQ(m_Table.Search(model), nullptr);
}

TEST_F(TriHashTable, EqualKeysAmongOthers_StayInOrderWhileTheTableGrows) {
  m_Table.Initialize(1);
  std::vector<TriHashIdx*> equal;
  for (int i = 0; i < 3000; ++i) {
    if (i % 100 == 0) equal.push_back(Insert("same"));
    Insert("other" + std::to_string(i));
  }
  for (TriHashIdx* key : equal) {
    ASSERT_EQ(Search("same"), key);
    m_Table.Remove(key);
  }
  EXPECT_EQ(Search("same"), nullptr);
}

// The same operations on the table and on a list that is searched from its start.
TEST_F(TriHashTable, RandomOperations_AgreeWithAPlainList) {
  for (unsigned int seed = 1; seed <= 8; ++seed) {
    std::mt19937 random(seed);
    const auto roll = [&random](std::size_t sides) { return static_cast<unsigned int>(random() % sides); };
    const unsigned int names = seed % 2 != 0 ? 12 : 4000;  // many equal keys, or hardly any
    m_Table.Initialize(seed % 3 == 0 ? 1 : 41);
    std::vector<TriHashIdx*> list;
    std::vector<TriHashIdx*> outside;
    const auto nameOf = [](unsigned int number) { return "name" + std::to_string(number) + ".txt"; };
    for (int step = 0; step < 6000; ++step) {
      const unsigned int dice = roll(10);
      if (dice < 5) {
        list.push_back(Insert(nameOf(roll(names))));
      } else if (dice < 8 && !list.empty()) {
        const auto victim = list.begin() + static_cast<std::ptrdiff_t>(roll(list.size()));
        m_Table.Remove(*victim);
        outside.push_back(*victim);
        list.erase(victim);
      } else if (dice == 8 && !outside.empty()) {
        m_Table.Remove(outside[roll(outside.size())]);
      }
      const TriHashIdx* const wanted = Key(nameOf(roll(names)));
      const auto found =
          std::find_if(list.begin(), list.end(), [&](const TriHashIdx* key) { return KeyOf(*key) == KeyOf(*wanted); });
      ASSERT_EQ(m_Table.Search(*wanted), found == list.end() ? nullptr : *found) << "seed " << seed << " step " << step;
      ASSERT_EQ(m_Table.Count(), list.size());
    }
  }
}
