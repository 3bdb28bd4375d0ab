/// @file ImpNtDllTest.cpp

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "filesystem/ImpNtDll.h"

namespace {

constexpr std::int64_t ONE_SECOND_BEFORE_1970 = 116444735990000000;

/// The process lives in this time zone as long as the object does.
class CTimeZone {
 public:
  explicit CTimeZone(const char* zone) {
    if (const char* old = std::getenv("TZ")) m_Old.push_back(old);
    ::setenv("TZ", zone, 1);
    ::tzset();
  }
  ~CTimeZone() {
    if (m_Old.empty()) {
      ::unsetenv("TZ");
    } else {
      ::setenv("TZ", m_Old[0].c_str(), 1);
    }
    ::tzset();
  }
  CTimeZone(const CTimeZone&) = delete;
  CTimeZone& operator=(const CTimeZone&) = delete;

 private:
  std::vector<std::string> m_Old;  // empty when the variable was not set
};

std::int64_t FileTimeOf(const TIME_FIELDS& fields) {
  _WLI out = {0};
  EXPECT_TRUE(RtlTimeFieldsToTime(&fields, &out));
  return out.QuadPart;
}

std::int64_t FileTimeOfSeconds(std::int64_t seconds) { return seconds * 10000000 + 116444736000000000; }

TIME_FIELDS FieldsOf(std::int64_t fileTime) {
  const _WLI in = {fileTime};
  TIME_FIELDS fields;
  std::memset(&fields, 0xEE, sizeof fields);
  RtlTimeToTimeFields(&in, &fields);
  return fields;
}

void ExpectFields(const TIME_FIELDS& fields, const std::vector<int>& expected) {
  const std::vector<int> actual = {fields.Year,   fields.Month,  fields.Day,          fields.Hour,
                                   fields.Minute, fields.Second, fields.Milliseconds, fields.Weekday};
  EXPECT_EQ(actual, expected);
}

std::int64_t ValueOf(const WIN_FTIME& time) {
  return _WLI::FromParts(time.dwLowDateTime, time.dwHighDateTime).QuadPart;
}

WIN_FTIME ToFileTime(std::int64_t value) {
  const _WLI parts = {value};
  return {parts.LowPart(), parts.HighPart()};
}

}  // namespace

TEST(TimeFields, AreEightUnsigned16BitFieldsInOrder) {
  static_assert(sizeof(TIME_FIELDS) == 16);
  const TIME_FIELDS fields = {1, 2, 3, 4, 5, 6, 7, 8};
  std::uint16_t words[8];
  std::memcpy(words, &fields, sizeof words);
  for (unsigned int i = 0; i < 8; ++i) EXPECT_EQ(words[i], i + 1);
}

TEST(Wli, SplitsAndJoinsItsHalves) {
  const _WLI value = {0x0123456789ABCDEF};
  EXPECT_EQ(value.LowPart(), 0x89ABCDEFu);
  EXPECT_EQ(value.HighPart(), 0x01234567u);
  EXPECT_EQ(_WLI::FromParts(0x89ABCDEFu, 0x01234567u).QuadPart, value.QuadPart);
  const _WLI negative = {-2};
  EXPECT_EQ(negative.LowPart(), 0xFFFFFFFEu);
  EXPECT_EQ(negative.HighPart(), 0xFFFFFFFFu);
  EXPECT_EQ(_WLI::FromParts(0xFFFFFFFEu, 0xFFFFFFFFu).QuadPart, -2);
}

// ------------------------------------------------------------------------------------------------------- unpacking

TEST(UnpackDosDateTime, AllOnes_ArePassedOnUnchecked) {
  ExpectFields(UnpackDosDateTime(0xFFFF, 0xFFFF), {2107, 15, 31, 31, 63, 62, 0, 0});
}

TEST(UnpackDosDateTime, AllZeros_GiveMonthAndDayZero) {
  ExpectFields(UnpackDosDateTime(0, 0), {1980, 0, 0, 0, 0, 0, 0, 0});
}

TEST(UnpackDosDateTime, EachBitFieldIsTakenFromItsPlace) {
  ExpectFields(UnpackDosDateTime(0x285D, 0x645C), {2000, 2, 29, 12, 34, 56, 0, 0});
  for (unsigned int word = 0; word <= 0xFFFF; ++word) {
    const TIME_FIELDS fields = UnpackDosDateTime(static_cast<std::uint16_t>(word), static_cast<std::uint16_t>(~word));
    ASSERT_EQ((fields.Year - 1980u) * 512 + fields.Month * 32u + fields.Day, word);
    ASSERT_EQ(fields.Hour * 2048u + fields.Minute * 32u + fields.Second / 2u, 0xFFFF - word);
    ASSERT_LE(fields.Month, 15);
    ASSERT_LE(fields.Day, 31);
    ASSERT_LE(fields.Minute, 63);
    ASSERT_EQ(fields.Second % 2, 0);
    ASSERT_LE(fields.Second, 62);
  }
}

// --------------------------------------------------------------------------------------------- fields to file time

TEST(TimeFieldsToTime, MonthsCountFromZeroAndYearsFrom1900) {
  const CTimeZone zone("UTC0");
  EXPECT_EQ(FileTimeOf({70, 0, 1, 0, 0, 0, 0, 0}), 116444736000000000);
  EXPECT_EQ(FileTimeOf({100, 1, 29, 12, 34, 56, 0, 0}), FileTimeOfSeconds(951827696));
}

TEST(TimeFieldsToTime, MillisecondsAndWeekday_DoNotCount) {
  const CTimeZone zone("UTC0");
  EXPECT_EQ(FileTimeOf({70, 0, 1, 0, 0, 0, 999, 65535}), 116444736000000000);
}

TEST(TimeFieldsToTime, FieldsOutOfTheirRange_CarryOver) {
  const CTimeZone zone("UTC0");
  EXPECT_EQ(FileTimeOf({70, 12, 0, 24, 60, 60, 0, 0}), FileTimeOfSeconds(365 * 86400 + 3660));
}

TEST(TimeFieldsToTime, LocalTimeWithoutDaylightSaving_IsAssumed) {
  const CTimeZone zone("CET-1CEST,M3.5.0,M10.5.0/3");
  EXPECT_EQ(FileTimeOf({70, 0, 1, 1, 0, 0, 0, 0}), 116444736000000000);
  EXPECT_EQ(FileTimeOf({121, 6, 1, 12, 0, 0, 0, 0}), FileTimeOfSeconds(1625137200));  // 11:00 UTC, in summer
}

TEST(TimeFieldsToTime, FirstAndLastSecondOf32Bits_AreConverted) {
  const CTimeZone zone("UTC0");
  EXPECT_EQ(FileTimeOf({138, 0, 19, 3, 14, 7, 0, 0}), FileTimeOfSeconds(0x7FFFFFFF));
  EXPECT_EQ(FileTimeOf({1, 11, 13, 20, 45, 52, 0, 0}), FileTimeOfSeconds(-0x80000000LL));
}

TEST(TimeFieldsToTime, SecondsThatDoNotFit32Bits_GiveOneSecondBefore1970) {
  const CTimeZone zone("UTC0");
  EXPECT_EQ(FileTimeOf({138, 0, 19, 3, 14, 8, 0, 0}), ONE_SECOND_BEFORE_1970);
  EXPECT_EQ(FileTimeOf({1, 11, 13, 20, 45, 51, 0, 0}), ONE_SECOND_BEFORE_1970);
  EXPECT_EQ(FileTimeOf({2024, 5, 1, 0, 0, 0, 0, 0}), ONE_SECOND_BEFORE_1970);
  EXPECT_EQ(FileTimeOf({65535, 65535, 65535, 65535, 65535, 65535, 65535, 65535}), ONE_SECOND_BEFORE_1970);
  EXPECT_EQ(FileTimeOf({0, 0, 0, 0, 0, 0, 0, 0}), ONE_SECOND_BEFORE_1970);
}

// --------------------------------------------------------------------------------------------- file time to fields

TEST(TimeToTimeFields, MonthsCountFromZeroAndYearsFrom1900) {
  const CTimeZone zone("UTC0");
  ExpectFields(FieldsOf(116444736000000000), {70, 0, 1, 0, 0, 0, 0, 4});
  ExpectFields(FieldsOf(FileTimeOfSeconds(951827696)), {100, 1, 29, 12, 34, 56, 0, 2});
}

TEST(TimeToTimeFields, FractionsOfASecond_AreCutTowardZero) {
  const CTimeZone zone("UTC0");
  ExpectFields(FieldsOf(116444736000000000 + 9999999), {70, 0, 1, 0, 0, 0, 0, 4});
  ExpectFields(FieldsOf(116444736000000000 - 1), {70, 0, 1, 0, 0, 0, 0, 4});
  ExpectFields(FieldsOf(116444736000000000 - 10000001), {69, 11, 31, 23, 59, 59, 0, 3});
}

TEST(TimeToTimeFields, LocalTime_IsGiven) {
  const CTimeZone zone("CET-1CEST,M3.5.0,M10.5.0/3");
  ExpectFields(FieldsOf(FileTimeOfSeconds(1625137200)), {121, 6, 1, 13, 0, 0, 0, 4});
}

TEST(TimeToTimeFields, SecondsBeyond32Bits_AreCutToTheirLow32Bits) {
  const CTimeZone zone("UTC0");
  ExpectFields(FieldsOf(FileTimeOfSeconds(0x100000000)), {70, 0, 1, 0, 0, 0, 0, 4});
  ExpectFields(FieldsOf(0), {109, 3, 22, 19, 24, 48, 0, 3});
  ExpectFields(FieldsOf(std::numeric_limits<std::int64_t>::max()), {75, 0, 22, 22, 55, 33, 0, 3});
  ExpectFields(FieldsOf(std::numeric_limits<std::int64_t>::min()), {75, 0, 22, 22, 55, 33, 0, 3});
}

TEST(TimeToTimeFields, EveryYear_IsFarBelow1980) {
  for (const char* name : {"UTC0", "AAA+12", "BBB-14"}) {
    const CTimeZone zone(name);
    std::mt19937_64 random(7);
    for (int i = 0; i < 20000; ++i) {
      const TIME_FIELDS fields = FieldsOf(static_cast<std::int64_t>(random()));
      ASSERT_GE(fields.Year, 1);
      ASSERT_LE(fields.Year, 138);
    }
  }
}

TEST(TimeToTimeFields, ConvertedBack_GivesTheSameSecond) {
  const CTimeZone zone("AAA+3:30");
  std::mt19937 random(11);
  for (int i = 0; i < 5000; ++i) {
    const std::int64_t time = FileTimeOfSeconds(static_cast<std::int32_t>(random()));
    ASSERT_EQ(FileTimeOf(FieldsOf(time)), time);
  }
}

// ----------------------------------------------------------------------------------------------------- date words

TEST(DosDateTimeToFileTime, FirstDayOf1980_GivesOneSecondBefore1970) {
  WIN_FTIME out = {0, 0};
  EXPECT_TRUE(DosDateTimeToFileTime(0x0021, 0x0000, &out));
  EXPECT_EQ(ValueOf(out), ONE_SECOND_BEFORE_1970);
  EXPECT_EQ(out.dwHighDateTime, 0x019DB1DEu);
  EXPECT_EQ(out.dwLowDateTime, 0xD4A5E980u);
}

TEST(DosDateTimeToFileTime, NowhereToStore_Fails) { EXPECT_FALSE(DosDateTimeToFileTime(0x0021, 0, nullptr)); }

// The constant against the conversion that it stands for, for every date that there is.
TEST(DosDateTimeToFileTime, EveryDateWord_GivesWhatTheFullConversionGives) {
  for (const char* name : {"UTC0", "AAA+12", "BBB-14"}) {
    const CTimeZone zone(name);
    for (unsigned int date = 0; date <= 0xFFFF; ++date) {
      const auto dateWord = static_cast<std::uint16_t>(date);
      const auto timeWord = static_cast<std::uint16_t>(date * 40503u);
      WIN_FTIME out = {0, 0};
      ASSERT_TRUE(DosDateTimeToFileTime(dateWord, timeWord, &out));
      ASSERT_EQ(ValueOf(out), ONE_SECOND_BEFORE_1970);
      ASSERT_EQ(ValueOf(out), FileTimeOf(UnpackDosDateTime(dateWord, timeWord))) << date;
    }
  }
}

TEST(FileTimeToDosDateTime, NoFileTimeIsConverted_AndTheOutputsStay) {
  std::vector<std::int64_t> times = {0,
                                     1,
                                     -1,
                                     116444736000000000,
                                     ONE_SECOND_BEFORE_1970,
                                     FileTimeOfSeconds(315532800),
                                     FileTimeOfSeconds(0x7FFFFFFF),
                                     FileTimeOfSeconds(4354819199),
                                     std::numeric_limits<std::int64_t>::max(),
                                     std::numeric_limits<std::int64_t>::min()};
  std::mt19937_64 random(3);
  for (int i = 0; i < 1000; ++i) times.push_back(static_cast<std::int64_t>(random()));
  for (const std::int64_t time : times) {
    const WIN_FTIME in = ToFileTime(time);
    unsigned short date = 0x1234;
    unsigned short clock = 0x5678;
    ASSERT_FALSE(FileTimeToDosDateTime(&in, &date, &clock)) << time;
    ASSERT_EQ(date, 0x1234);
    ASSERT_EQ(clock, 0x5678);
  }
}

TEST(FileTimeToDosDateTime, HighHalfWithItsTopBit_IsRefused) {
  const WIN_FTIME in = {0, 0x80000000u};
  unsigned short word = 0x1234;
  EXPECT_FALSE(FileTimeToDosDateTime(&in, &word, &word));
  EXPECT_EQ(word, 0x1234);
}
