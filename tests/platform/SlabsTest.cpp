/// @file SlabsTest.cpp
/// The pool that the records of directories come from.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "platform/Slabs.h"
#include "support/MemHooks.h"

namespace {

struct OBJECT {
  unsigned char* pMemory;
  unsigned int nBytes;
  unsigned short nPlace;
  unsigned char Mark;
};

class Slabs : public ::testing::Test {
 protected:
  void TearDown() override {
    for (const OBJECT& object : m_Objects) m_Pool.Recycle(object.pMemory, object.nPlace);
    EXPECT_EQ(m_Memory.Outstanding(), 0u) << "a slab goes with its last place";
    EXPECT_EQ(m_Memory.UnknownFrees(), 0u);
  }
  /// Takes a place and fills it. @return whether there was one
  bool Take(unsigned int bytes) {
    OBJECT object = {nullptr, bytes, 0, static_cast<unsigned char>(m_nTaken++)};
    object.pMemory = static_cast<unsigned char*>(m_Pool.Allocate(bytes, object.nPlace));
    if (object.pMemory == nullptr) return false;
    std::memset(object.pMemory, object.Mark, bytes);
    m_Objects.push_back(object);
    return true;
  }
  void GiveBack(std::size_t i) {
    const OBJECT object = m_Objects[i];
    EXPECT_TRUE(IsWhole(object)) << "object " << i;
    m_Pool.Recycle(object.pMemory, object.nPlace);
    m_Objects[i] = m_Objects.back();
    m_Objects.pop_back();
  }
  static bool IsWhole(const OBJECT& object) {
    const std::vector<unsigned char> expected(object.nBytes, object.Mark);
    return std::memcmp(object.pMemory, expected.data(), object.nBytes) == 0;
  }
  /// Takes places of one size until a second slab is made. @return how many the first one has
  unsigned int FillASlab(unsigned int bytes) {
    unsigned int n = 0;
    while (m_Memory.Outstanding() <= 1 && Take(bytes)) ++n;
    GiveBack(m_Objects.size() - 1);
    return n - 1;
  }

  CMemHooks m_Memory;
  CSlabPool m_Pool;
  std::vector<OBJECT> m_Objects;
  unsigned int m_nTaken = 0;
};

TEST_F(Slabs, PlacesOfEverySize_AreAlignedAndDoNotOverlap) {
  for (unsigned int bytes = 1; bytes <= CSlabPool::MAX_BYTES; ++bytes) ASSERT_TRUE(Take(bytes));
  for (const OBJECT& object : m_Objects) {
    EXPECT_TRUE(IsWhole(object)) << object.nBytes;
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(object.pMemory) % CSlabPool::UNIT, 0u);
  }
}

TEST_F(Slabs, ManyObjectsOfOneSize_TakeLittleMoreThanTheirBytes) {
  for (unsigned int i = 0; i < 10000; ++i) ASSERT_TRUE(Take(120));
  EXPECT_LE(m_Memory.OutstandingBytes(), 10000u * 137);
  EXPECT_LE(m_Memory.Outstanding(), 10000u / 14);
}

TEST_F(Slabs, FullSlab_PlaceGivenBackIsTheNextOneTaken) {
  const unsigned int nPlaces = FillASlab(100);
  ASSERT_GT(nPlaces, 10u);
  ASSERT_EQ(m_Objects.size(), nPlaces);
  unsigned char* const freed = m_Objects[3].pMemory;
  GiveBack(3);
  ASSERT_TRUE(Take(97));
  EXPECT_EQ(m_Objects.back().pMemory, freed);
  EXPECT_EQ(m_Memory.Outstanding(), 1u);
}

TEST_F(Slabs, LastPlaceGivenBack_FreesTheSlabWhetherItWasFullOrNot) {
  ASSERT_TRUE(Take(100));
  GiveBack(0);
  EXPECT_EQ(m_Memory.Outstanding(), 0u);
  (void)FillASlab(CSlabPool::MAX_BYTES);
  while (!m_Objects.empty()) {
    EXPECT_EQ(m_Memory.Outstanding(), 1u);
    GiveBack(0);
  }
  EXPECT_EQ(m_Memory.Outstanding(), 0u);
}

TEST_F(Slabs, NoMemoryForASlab_GivesNullUntilThereIsSome) {
  m_Memory.FailAt(1, CMemHooks::ONCE);
  EXPECT_FALSE(Take(100));
  EXPECT_TRUE(m_Memory.Fired());
  EXPECT_TRUE(Take(100));
  m_Memory.FailAt(1, CMemHooks::FOR_GOOD);
  EXPECT_TRUE(Take(100)) << "the slab has room";
  EXPECT_FALSE(Take(200)) << "but not for other sizes";
  m_Memory.Heal();
}

TEST_F(Slabs, RandomUse_KeepsEveryObjectWhole) {
  std::mt19937 random(7);
  const auto below = [&random](std::size_t n) { return static_cast<unsigned int>(random() % n); };
  for (unsigned int step = 0; step < 50000; ++step) {
    const bool growing = step / 5000 % 2 == 0;
    if (m_Objects.empty() || below(10) < (growing ? 6u : 4u)) {
      ASSERT_TRUE(Take(1 + below(CSlabPool::MAX_BYTES)));
    } else {
      GiveBack(below(m_Objects.size()));
    }
  }
  for (const OBJECT& object : m_Objects) EXPECT_TRUE(IsWhole(object));
}

}  // namespace
