/// @file TimeTest.cpp
/// Stamps of directory entries.

#include <fatlib/Time.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>

namespace {

using fatlib::Stamp;
using fatlib::Zone;

Stamp MakeStamp(unsigned int date, unsigned int time, unsigned int tenMilliseconds = 0) {
  Stamp stamp;
  stamp.date = static_cast<std::uint16_t>(date);
  stamp.time = static_cast<std::uint16_t>(time);
  stamp.tenMilliseconds = static_cast<std::uint8_t>(tenMilliseconds);
  return stamp;
}

// A time_t has 32 bits on some systems.
std::time_t Seconds(long long seconds) { return static_cast<std::time_t>(seconds); }

/// The process in another time zone, while it lives.
class CTimeZone {
 public:
  explicit CTimeZone(const char* zone) {
    const char* before = std::getenv("TZ");
    m_bSet = before != nullptr;
    if (m_bSet) m_Before = before;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~CTimeZone() {
    if (m_bSet) {
      setenv("TZ", m_Before.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }
  CTimeZone(const CTimeZone&) = delete;
  CTimeZone& operator=(const CTimeZone&) = delete;

 private:
  bool m_bSet;
  std::string m_Before;
};

// 2026-03-14 15:09:26 UTC: (2026 - 1980) << 9 | 3 << 5 | 14, and 15 << 11 | 9 << 5 | 13.
constexpr std::time_t PI_DAY = 1773500966;
constexpr unsigned int PI_DATE = 0x5C6E;
constexpr unsigned int PI_TIME = 0x792D;

TEST(Time, SecondsBecomeAStamp) {
  EXPECT_EQ(fatlib::ToStamp(PI_DAY, 0, Zone::Utc), MakeStamp(PI_DATE, PI_TIME));
  EXPECT_EQ(fatlib::ToStamp(PI_DAY + 1, 259'999'999, Zone::Utc), MakeStamp(PI_DATE, PI_TIME, 125));
}

TEST(Time, StampBecomesSeconds) {
  std::time_t seconds = 7;
  long nanoseconds = 7;
  EXPECT_TRUE(fatlib::FromStamp(MakeStamp(PI_DATE, PI_TIME, 125), Zone::Utc, &seconds, &nanoseconds));
  EXPECT_EQ(seconds, PI_DAY + 1);
  EXPECT_EQ(nanoseconds, 250'000'000);
}

TEST(Time, LocalTimeIsThatOfTheZone) {
  const CTimeZone zone("XXX-02:30");                                               // two and a half hours before UTC
  EXPECT_EQ(fatlib::ToStamp(PI_DAY, 0, Zone::Local), MakeStamp(PI_DATE, 0x8CED));  // 17:39:26
  std::time_t seconds = 0;
  long nanoseconds = 0;
  EXPECT_TRUE(fatlib::FromStamp(MakeStamp(PI_DATE, 0x8CED), Zone::Local, &seconds, &nanoseconds));
  EXPECT_EQ(seconds, PI_DAY);
}

TEST(Time, WhatCannotBeStoredBecomesTheFirstOrLastThatCan) {
  const Stamp first = MakeStamp(0x0021, 0);                    // 1980-01-01 00:00:00
  const Stamp last = MakeStamp(0xFF9F, 0xBF7D, 199);           // 2107-12-31 23:59:59.99
  EXPECT_EQ(fatlib::ToStamp(315532799, 0, Zone::Utc), first);  // a second too early
  EXPECT_EQ(fatlib::ToStamp(315532800, 0, Zone::Utc), first);
  EXPECT_EQ(fatlib::ToStamp(-1, 999'999'999, Zone::Utc), first);
  EXPECT_EQ(fatlib::ToStamp(std::numeric_limits<std::time_t>::min(), 0, Zone::Utc), first);
  if constexpr (sizeof(std::time_t) > 4) {
    EXPECT_EQ(fatlib::ToStamp(Seconds(4354819199), 990'000'000, Zone::Utc), last);
    EXPECT_EQ(fatlib::ToStamp(Seconds(4354819200), 0, Zone::Utc), last);  // a second too late
    EXPECT_EQ(fatlib::ToStamp(std::numeric_limits<std::time_t>::max(), 0, Zone::Utc), last);
  } else {
    EXPECT_EQ(fatlib::ToStamp(std::numeric_limits<std::time_t>::max(), 0, Zone::Utc),
              MakeStamp(0x7433, 0x19C3, 100));  // 2038-01-19 03:14:07
  }
}

TEST(Time, LastStampIsTheLastSecondThatCanBeHeld) {
  std::time_t seconds = 0;
  long nanoseconds = 0;
  EXPECT_TRUE(fatlib::FromStamp(MakeStamp(0xFF9F, 0xBF7D, 199), Zone::Utc, &seconds, &nanoseconds));
  const long long expected = sizeof(std::time_t) > 4 ? 4354819199 : 2147483647;
  EXPECT_EQ(static_cast<long long>(seconds), expected);
}

TEST(Time, EveryDayComesBack) {
  unsigned int days = 0;
  for (unsigned int date = 0; date < 0x10000; ++date) {
    std::time_t seconds = 0;
    long nanoseconds = 0;
    if (!fatlib::FromStamp(MakeStamp(date, 0), Zone::Utc, &seconds, &nanoseconds)) continue;
    ++days;
    // Where std::time_t ends in 2038 all later days are its last second.
    if (sizeof(std::time_t) > 4 || date < 0x7433) {
      ASSERT_EQ(fatlib::ToStamp(seconds, 0, Zone::Utc), MakeStamp(date, 0)) << date;
    }
  }
  EXPECT_EQ(days, 128u * 365 + 31);  // 1980 to 2107 with their leap years; 2100 is none
}

TEST(Time, WhatIsNoDateGivesZeros) {
  const Stamp invalid[] = {
      MakeStamp(0, 0),             // none
      MakeStamp(0x5C0E, 0),        // month 0
      MakeStamp(0x5DAE, 0),        // month 13
      MakeStamp(0x5C60, 0),        // day 0
      MakeStamp(0x5C5D, 0),        // 2026-02-29
      MakeStamp(0x5C9F, 0),        // April 31
      MakeStamp(0xF05D, 0),        // 2100-02-29
      MakeStamp(PI_DATE, 0xC000),  // 24 hours
      MakeStamp(PI_DATE, 0x0780),  // 60 minutes
      MakeStamp(PI_DATE, 0x001E),  // 60 seconds
  };
  for (const Stamp& stamp : invalid) {
    std::time_t seconds = 7;
    long nanoseconds = 7;
    EXPECT_FALSE(fatlib::FromStamp(stamp, Zone::Utc, &seconds, &nanoseconds)) << stamp.date << " " << stamp.time;
    EXPECT_EQ(seconds, 0);
    EXPECT_EQ(nanoseconds, 0);
    EXPECT_EQ(fatlib::ToIso8601(stamp), "");
  }
}

TEST(Time, TextIsIso8601) {
  EXPECT_EQ(fatlib::ToIso8601(MakeStamp(PI_DATE, PI_TIME)), "2026-03-14T15:09:26");
  EXPECT_EQ(fatlib::ToIso8601(MakeStamp(PI_DATE, PI_TIME, 125)), "2026-03-14T15:09:27.25");
  EXPECT_EQ(fatlib::ToIso8601(MakeStamp(PI_DATE, PI_TIME, 5)), "2026-03-14T15:09:26.05");
  EXPECT_EQ(fatlib::ToIso8601(MakeStamp(PI_DATE, PI_TIME), true), "2026-03-14");
  EXPECT_EQ(fatlib::ToIso8601(MakeStamp(0x0021, 0)), "1980-01-01T00:00:00");
}

TEST(Time, HundredthsThatAreNoneAreLeftOut) {
  EXPECT_EQ(fatlib::ToIso8601(MakeStamp(PI_DATE, PI_TIME, 200)), "2026-03-14T15:09:26");
}

}  // namespace
