/// @file DirEntTest.cpp

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "directory/DirEnt.h"
#include "support/MemHooks.h"

namespace {

using BYTES = std::vector<unsigned int>;

/// The bytes of an entry, for comparing them.
template <typename ENTRY>
BYTES BytesOf(const ENTRY& entry) {
  std::array<unsigned char, 32> bytes;
  static_assert(sizeof entry == sizeof bytes);
  std::memcpy(bytes.data(), &entry, sizeof bytes);
  return BYTES(bytes.begin(), bytes.end());
}

/// An entry of 32 given bytes.
template <typename ENTRY>
ENTRY EntryOf(const std::array<unsigned char, 32>& bytes) {
  ENTRY entry;
  std::memcpy(&entry, bytes.data(), sizeof entry);
  return entry;
}

/// Bytes 0xA0, 0xA1, ...
std::array<unsigned char, 32> CountingBytes() {
  std::array<unsigned char, 32> bytes;
  for (unsigned int i = 0; i < 32; ++i) bytes[i] = static_cast<unsigned char>(0xA0 + i);
  return bytes;
}

const unsigned char* NameBytes(const char (&name)[12]) { return reinterpret_cast<const unsigned char*>(name); }

/// Fixes the clock and the time zone as long as it lives.
class DirEntStamp : public ::testing::Test {
 protected:
  DirEntStamp() : m_Clock(0) {
    if (const char* old = std::getenv("TZ")) m_OldZone.push_back(old);
    SetZone("UTC0");
  }
  ~DirEntStamp() override { SetZone(m_OldZone.empty() ? nullptr : m_OldZone[0].c_str()); }

  static void SetZone(const char* zone) {
    if (zone == nullptr) {
      ::unsetenv("TZ");
    } else {
      ::setenv("TZ", zone, 1);
    }
    ::tzset();
  }

  /// The stamp of an entry made at that time: date in the high half, time in the low one.
  std::uint32_t StampAt(std::time_t now) {
    m_Clock.Set(now);
    CDirEnt entry;
    std::memset(&entry, 0xEE, sizeof entry);
    entry.Initialize(NameBytes("NAME    EXT"), ATTR_ARCHIVE, 0, 0);
    EXPECT_EQ(entry.CreateDate.Load(), entry.WriteDate.Load());
    EXPECT_EQ(entry.CreateDate.Load(), entry.AccessDate.Load());
    EXPECT_EQ(entry.CreateTime.Load(), entry.WriteTime.Load());
    EXPECT_EQ(entry.CreateTenths, 0);
    return static_cast<std::uint32_t>(entry.CreateDate.Load()) << 16 | entry.CreateTime.Load();
  }

  CFixedClock m_Clock;

 private:
  std::vector<std::string> m_OldZone;  // empty when the variable was not set
};

/// Rotation and sum written out bit by bit.
unsigned int ReferenceChecksum(const std::array<unsigned char, 11>& name) {
  unsigned int sum = name[0];
  for (std::size_t i = 1; i < name.size(); ++i) {
    const unsigned int rotated = sum % 2 == 1 ? sum / 2 + 128 : sum / 2;
    sum = (rotated + name[i]) % 256;
  }
  return sum;
}

}  // namespace

// -------------------------------------------------------------------------------------------------------- layout

TEST(DirEnt, FieldsLieWhereTheMediumHasThem) {
  const CDirEnt entry = EntryOf<CDirEnt>(CountingBytes());
  EXPECT_EQ(entry.Name[0], 0xA0);
  EXPECT_EQ(entry.Name[10], 0xAA);
  EXPECT_EQ(entry.Attribute, 0xAB);
  EXPECT_EQ(entry.CaseFlags, 0xAC);
  EXPECT_EQ(entry.CreateTenths, 0xAD);
  EXPECT_EQ(entry.CreateTime.Load(), 0xAFAE);
  EXPECT_EQ(entry.CreateDate.Load(), 0xB1B0);
  EXPECT_EQ(entry.AccessDate.Load(), 0xB3B2);
  EXPECT_EQ(entry.ClusterHigh.Load(), 0xB5B4);
  EXPECT_EQ(entry.WriteTime.Load(), 0xB7B6);
  EXPECT_EQ(entry.WriteDate.Load(), 0xB9B8);
  EXPECT_EQ(entry.ClusterLow.Load(), 0xBBBA);
  EXPECT_EQ(entry.FileSize.Load(), 0xBFBEBDBCu);
  EXPECT_EQ(entry.GetStartClustNo(), 0xB5B4BBBAu);
}

TEST(DirEnt, FieldsOfALongNameEntryLieWhereTheMediumHasThem) {
  const CLfnDirEnt entry = EntryOf<CLfnDirEnt>(CountingBytes());
  EXPECT_EQ(entry.OrdinalByte, 0xA0);
  EXPECT_EQ(entry.Name1[0].Load(), 0xA2A1);
  EXPECT_EQ(entry.Name1[4].Load(), 0xAAA9);
  EXPECT_EQ(entry.Attribute, 0xAB);
  EXPECT_EQ(entry.Type, 0xAC);
  EXPECT_EQ(entry.Checksum, 0xAD);
  EXPECT_EQ(entry.Name2[0].Load(), 0xAFAE);
  EXPECT_EQ(entry.Name2[5].Load(), 0xB9B8);
  EXPECT_EQ(entry.StartCluster.Load(), 0xBBBA);
  EXPECT_EQ(entry.Name3[0].Load(), 0xBDBC);
  EXPECT_EQ(entry.Name3[1].Load(), 0xBFBE);
}

TEST(DirEnt, ToLfn_IsTheSameBytes) {
  CDirEnt entry = EntryOf<CDirEnt>(CountingBytes());
  const CDirEnt& constant = entry;
  EXPECT_EQ(static_cast<void*>(entry.ToLfn()), static_cast<void*>(&entry));
  EXPECT_EQ(static_cast<const void*>(constant.ToLfn()), static_cast<const void*>(&entry));
  entry.ToLfn()->Checksum = 0x11;
  EXPECT_EQ(entry.CreateTenths, 0x11);
  entry.FileSize.Store(0x22334455);
  EXPECT_EQ(entry.ToLfn()->Name3[1].Load(), 0x2233);
}

TEST(DirEnt, MayStartAtAnyAddress) {
  std::array<unsigned char, 40> buffer = {};
  for (std::size_t offset = 0; offset < 8; ++offset) {
    auto* entry = reinterpret_cast<CDirEnt*>(buffer.data() + offset);
    entry->FileSize.Store(0x12345678);
    entry->SetStartClustNo(0xAABBCCDD);
    EXPECT_EQ(entry->FileSize.Load(), 0x12345678u);
    EXPECT_EQ(buffer[offset + 28], 0x78);
    EXPECT_EQ(buffer[offset + 20], 0xBB);
    EXPECT_EQ(buffer[offset + 26], 0xDD);
  }
}

// --------------------------------------------------------------------------------------------- kinds and markers

TEST(DirEnt, LongNameEntry_IsExactlyAttribute0x0F) {
  CDirEnt entry = {};
  for (unsigned int attribute = 0; attribute <= 0xFF; ++attribute) {
    entry.Attribute = static_cast<unsigned char>(attribute);
    EXPECT_EQ(entry.IsLfn(), attribute == 0x0F);
    EXPECT_EQ(entry.IsVolumeId(), (attribute & 8) == 8);
    EXPECT_EQ(entry.IsDir(), (attribute & 16) == 16);
  }
}

TEST(DirEnt, LongNameEntry_LooksLikeAVolumeLabelToo) {
  CDirEnt entry = {};
  entry.Attribute = 0x0F;
  EXPECT_TRUE(entry.IsLfn());
  EXPECT_TRUE(entry.IsVolumeId());
}

TEST(DirEnt, OnlyTwoFirstBytesAreMarkers) {
  CDirEnt entry = {};
  for (unsigned int first = 0; first <= 0xFF; ++first) {
    entry.Name[0] = static_cast<unsigned char>(first);
    EXPECT_EQ(entry.IsEmpty(), first == 0x00);
    EXPECT_EQ(entry.IsDeleted(), first == 0xE5);
  }
}

TEST(DirEnt, SetDir_AddsTheDirectoryBitAlone) {
  CDirEnt entry = {};
  entry.Attribute = ATTR_HIDDEN | ATTR_READ_ONLY;
  entry.SetDir();
  EXPECT_EQ(entry.Attribute, 0x13);
  entry.SetDir();
  EXPECT_EQ(entry.Attribute, 0x13);
}

TEST(DirEnt, StartCluster_IsKeptInTwoHalves) {
  CDirEnt entry = {};
  entry.SetStartClustNo(0x0ABCDEF1);
  BYTES expected(32, 0);
  expected[20] = 0xBC;
  expected[21] = 0x0A;
  expected[26] = 0xF1;
  expected[27] = 0xDE;
  EXPECT_EQ(BytesOf(entry), expected);
  EXPECT_EQ(entry.GetStartClustNo(), 0x0ABCDEF1u);
}

TEST(DirEnt, CloneStartClustNo_CopiesBothHalvesAndNothingElse) {
  const CDirEnt from = EntryOf<CDirEnt>(CountingBytes());
  CDirEnt to = {};
  to.CloneStartClustNo(&from);
  BYTES expected(32, 0);
  for (const std::size_t at : {20u, 21u, 26u, 27u}) expected[at] = static_cast<unsigned int>(0xA0 + at);
  EXPECT_EQ(BytesOf(to), expected);
}

// ------------------------------------------------------------------------------------------------------ checksum

TEST(LfnChecksum, KnownNames_GiveTheirKnownChecksums) {
  EXPECT_EQ(CDirEnt::ComputeLfnChecksum(NameBytes("REPORT~1TXT")), 0xAB);
  EXPECT_EQ(CDirEnt::ComputeLfnChecksum(NameBytes("README  TXT")), 0x73);
  EXPECT_EQ(CDirEnt::ComputeLfnChecksum(NameBytes("\xE5\xFF\x80"
                                                  "abcdefgh")),
            0x33);
  EXPECT_EQ(CDirEnt::ComputeLfnChecksum(NameBytes("\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF")), 0xFE);
}

TEST(LfnChecksum, SpacesThatFillTheName_Count) {
  EXPECT_EQ(CDirEnt::ComputeLfnChecksum(NameBytes("A          ")), 0x80);
  EXPECT_EQ(CDirEnt::ComputeLfnChecksum(NameBytes("A       B  ")), 0x08);
  EXPECT_EQ(CDirEnt::ComputeLfnChecksum(NameBytes("README TXT ")), 0xA4);
}

TEST(LfnChecksum, EveryByteOfTheNameCounts) {
  std::mt19937 random(11);
  for (int round = 0; round < 5000; ++round) {
    std::array<unsigned char, 11> name;
    for (unsigned char& byte : name) byte = static_cast<unsigned char>(random());
    ASSERT_EQ(CDirEnt::ComputeLfnChecksum(name.data()), ReferenceChecksum(name));
    const std::size_t at = random() % name.size();
    const unsigned int before = CDirEnt::ComputeLfnChecksum(name.data());
    name[at] ^= 0x01;
    ASSERT_NE(CDirEnt::ComputeLfnChecksum(name.data()), before) << "byte " << at;
  }
}

TEST(LfnChecksum, OfAnEntry_IsThatOfItsNameBytesOnly) {
  CDirEnt entry = {};
  std::memcpy(entry.Name, "REPORT~1TXT", 11);
  EXPECT_EQ(entry.ComputeLfnChecksum(), 0xAB);
  entry.Attribute = 0xFF;
  EXPECT_EQ(entry.ComputeLfnChecksum(), 0xAB);
}

// ------------------------------------------------------------------------------------------------------ stamping

TEST_F(DirEntStamp, NewEntry_HasAllItsBytesFilledIn) {
  m_Clock.Set(951827697);  // 2000-02-29 12:34:57
  CDirEnt entry;
  std::memset(&entry, 0xEE, sizeof entry);
  entry.Initialize(NameBytes("REPORT~1TXT"), 0x21, 0x89ABCDEF, 0x01234567);
  const BYTES expected = {
      'R',  'E',  'P',  'O',  'R', 'T', '~', '1', 'T', 'X', 'T',  // name
      0x21,                                                       // attribute
      0x00, 0x00,                                                 // case flags, tenths
      0x5C, 0x64, 0x5D, 0x28,                                     // creation time and date
      0x5D, 0x28,                                                 // access date
      0x23, 0x01,                                                 // cluster, high half
      0x5C, 0x64, 0x5D, 0x28,                                     // write time and date
      0x67, 0x45,                                                 // cluster, low half
      0xEF, 0xCD, 0xAB, 0x89,                                     // size
  };
  EXPECT_EQ(BytesOf(entry), expected);
}

TEST_F(DirEntStamp, Clock_IsCutToEvenSeconds) {
  EXPECT_EQ(StampAt(951827696), 0x285D645Cu);
  EXPECT_EQ(StampAt(951827697), 0x285D645Cu);
  EXPECT_EQ(StampAt(951827698), 0x285D645Du);
}

TEST_F(DirEntStamp, ClockBefore1980_StampsZeros) {
  EXPECT_EQ(StampAt(315532800), 0x00210000u);  // the first second of 1980
  EXPECT_EQ(StampAt(315532799), 0u);
  EXPECT_EQ(StampAt(0), 0u);
  EXPECT_EQ(StampAt(-1), 0u);
  EXPECT_EQ(StampAt(std::numeric_limits<std::int32_t>::min()), 0u);
}

TEST_F(DirEntStamp, EndOfTheYear_FillsItsFields) {
  EXPECT_EQ(StampAt(1798761599), 0x5D9FBF7Du);  // 2026-12-31 23:59:59
  EXPECT_EQ(StampAt(2147483647), 0x743319C3u);  // 2038-01-19 03:14:07
}

// Beyond the years of the stamp, and beyond those that localtime knows, only a 64-bit clock can be.
TEST_F(DirEntStamp, LatestClockThereIs_StampsWhatFits) {
  constexpr std::time_t latest = std::numeric_limits<std::time_t>::max();
  EXPECT_EQ(StampAt(latest), sizeof(std::time_t) == 4 ? 0x743319C3u : 0u);
  if constexpr (sizeof(std::time_t) == 8) {
    constexpr long long endOf2107 = 4354819199;  // 2107-12-31 23:59:59
    EXPECT_EQ(StampAt(static_cast<std::time_t>(endOf2107)), 0xFF9FBF7Du);
    EXPECT_EQ(StampAt(static_cast<std::time_t>(endOf2107 + 1)), 0u);
    EXPECT_EQ(StampAt(std::numeric_limits<std::time_t>::min()), 0u);
  }
}

TEST_F(DirEntStamp, LocalTime_IsStamped) {
  SetZone("AAA-5:30");
  EXPECT_EQ(StampAt(951827696), 0x285D909Cu);  // 18:04:56
}

TEST_F(DirEntStamp, TimeZoneChangedWithinASecond_CountsAtOnce) {
  EXPECT_EQ(StampAt(951827696), 0x285D645Cu);
  SetZone("AAA-1");
  EXPECT_EQ(StampAt(951827696), 0x285D6C5Cu);
  SetZone("AAA+1");
  EXPECT_EQ(StampAt(951827696), 0x285D5C5Cu);
  SetZone("AAAAAAAAAAAAAAAAAAAAAAAAAAA-2BBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBB,M3.5.0,M10.5.0/3");
  EXPECT_EQ(StampAt(951827696), 0x285D745Cu);
  SetZone("AAAAAAAAAAAAAAAAAAAAAAAAAAA-3BBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBB,M3.5.0,M10.5.0/3");
  EXPECT_EQ(StampAt(951827696), 0x285D7C5Cu);
  SetZone("UTC0");
  EXPECT_EQ(StampAt(951827696), 0x285D645Cu);
}

TEST_F(DirEntStamp, SameSecondAgain_GivesTheSameStamp) {
  const std::uint32_t first = StampAt(1798761599);
  EXPECT_EQ(StampAt(1798761599), first);
  EXPECT_NE(StampAt(1798761597), first);
  EXPECT_EQ(StampAt(1798761599), first);
}

TEST(DirEnt, CopyDETime_TakesTheTimesAndMakesADirectory) {
  const CDirEnt from = EntryOf<CDirEnt>(CountingBytes());
  CDirEnt to = {};
  CopyDETime(&to, from);
  BYTES expected(32, 0);
  expected[11] = 0x10;
  for (const std::size_t at : {13u, 14u, 15u, 16u, 17u, 18u, 19u, 22u, 23u, 24u, 25u}) {
    expected[at] = static_cast<unsigned int>(0xA0 + at);
  }
  EXPECT_EQ(BytesOf(to), expected);
}

TEST(DirEnt, CopyDETime_DropsOtherAttributes) {
  const CDirEnt from = {};
  CDirEnt to = EntryOf<CDirEnt>(CountingBytes());
  CopyDETime(&to, from);
  EXPECT_EQ(to.Attribute, 0x10);
  EXPECT_EQ(to.CaseFlags, 0xAC);
  EXPECT_EQ(to.GetStartClustNo(), 0xB5B4BBBAu);
}

// ------------------------------------------------------------------------------------------------ long-name pieces

TEST(LfnDirEnt, FullPiece_HasNeitherTerminatorNorFilling) {
  unsigned short units[13];
  for (unsigned int i = 0; i < 13; ++i) units[i] = static_cast<unsigned short>(0x4E00 + i);
  CLfnDirEnt entry;
  std::memset(&entry, 0xEE, sizeof entry);
  entry.Initialize(LFN_LAST | 1, units, 0x5A);
  const BYTES expected = {
      0x41,                                                                    // ordinal 1, last
      0x00, 0x4E, 0x01, 0x4E, 0x02, 0x4E, 0x03, 0x4E, 0x04, 0x4E,              // units 0-4
      0x0F, 0x00, 0x5A,                                                        // attribute, type, checksum
      0x05, 0x4E, 0x06, 0x4E, 0x07, 0x4E, 0x08, 0x4E, 0x09, 0x4E, 0x0A, 0x4E,  // units 5-10
      0x00, 0x00,                                                              // cluster
      0x0B, 0x4E, 0x0C, 0x4E,                                                  // units 11-12
  };
  EXPECT_EQ(BytesOf(entry), expected);
  unsigned short out[13] = {};
  EXPECT_EQ(entry.NameUCharCount(out), 13u);
  EXPECT_TRUE(std::equal(out, out + 13, units));
}

TEST(LfnDirEnt, SecondPieceOf14Units_HoldsOneUnitTheTerminatorAndElevenFillers) {
  unsigned short units[13];
  std::fill(units, units + 13, static_cast<unsigned short>(0xFFFF));
  units[0] = 'n';
  units[1] = 0;
  CLfnDirEnt entry;
  entry.Initialize(LFN_LAST | 2, units, 0x00);
  EXPECT_EQ(entry.OrdinalByte, 0x42);
  EXPECT_TRUE(entry.IsLast());
  EXPECT_EQ(entry.Ordinal(), 2u);
  unsigned short out[13] = {};
  EXPECT_EQ(entry.NameUCharCount(out), 1u);
  EXPECT_EQ(out[0], 'n');
  unsigned int fillers = 0;
  for (const le16& unit : entry.Name1) fillers += unit.Load() == 0xFFFF ? 1u : 0u;
  for (const le16& unit : entry.Name2) fillers += unit.Load() == 0xFFFF ? 1u : 0u;
  for (const le16& unit : entry.Name3) fillers += unit.Load() == 0xFFFF ? 1u : 0u;
  EXPECT_EQ(fillers, 11u);
}

TEST(LfnDirEnt, TerminatorAtEachPlace_EndsTheName) {
  for (unsigned int terminator = 0; terminator <= 13; ++terminator) {
    unsigned short units[13];
    for (unsigned int i = 0; i < 13; ++i) units[i] = i == terminator ? 0 : static_cast<unsigned short>('a' + i);
    CLfnDirEnt entry;
    entry.Initialize(1, units, 0);
    unsigned short out[14];
    std::fill(out, out + 14, static_cast<unsigned short>(0xEEEE));
    ASSERT_EQ(entry.NameUCharCount(out), terminator);
    ASSERT_TRUE(std::equal(out, out + terminator, units));
    for (unsigned int i = terminator; i < 14; ++i) ASSERT_EQ(out[i], 0xEEEE) << "unit " << i << " was written";
  }
}

TEST(LfnDirEnt, FillingWithoutTerminator_IsPartOfTheName) {
  unsigned short units[13];
  std::fill(units, units + 13, static_cast<unsigned short>(0xFFFF));
  CLfnDirEnt entry;
  entry.Initialize(1, units, 0);
  unsigned short out[13] = {};
  EXPECT_EQ(entry.NameUCharCount(out), 13u);
  EXPECT_TRUE(std::equal(out, out + 13, units));
}

TEST(LfnDirEnt, Ordinal_IsTheLowSixBits) {
  CLfnDirEnt entry = {};
  for (unsigned int byte = 0; byte <= 0xFF; ++byte) {
    entry.OrdinalByte = static_cast<unsigned char>(byte);
    EXPECT_EQ(entry.Ordinal(), byte % 64);
    EXPECT_EQ(entry.IsLast(), byte / 64 % 2 == 1);
  }
}
