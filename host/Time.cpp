/// @file Time.cpp

#include "Time.h"

#include <cstdio>
#include <limits>

namespace fatlib {

namespace {

constexpr int FIRST_YEAR = 1980;
constexpr int LAST_YEAR = 2107;
constexpr long NANOSECONDS_PER_HUNDREDTH = 10'000'000;

struct FIELDS {
  int year, month, day, hour, minute, second;
  int hundredths;
};

bool IsLeapYear(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int DaysOfMonth(int year, int month) {
  constexpr int DAYS[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && IsLeapYear(year) ? 29 : DAYS[month - 1];
}

/// @return false when the stamp is no date or no time of day
bool ReadFields(const Stamp& stamp, FIELDS* fields) {
  // More than 199 cannot be part of two seconds: as if it were not there.
  const int tenMilliseconds = stamp.tenMilliseconds < 200 ? stamp.tenMilliseconds : 0;
  fields->year = FIRST_YEAR + (stamp.date >> 9);
  fields->month = stamp.date >> 5 & 0xF;
  fields->day = stamp.date & 0x1F;
  fields->hour = stamp.time >> 11;
  fields->minute = stamp.time >> 5 & 0x3F;
  fields->second = (stamp.time & 0x1F) * 2 + tenMilliseconds / 100;
  fields->hundredths = tenMilliseconds % 100;
  return fields->month >= 1 && fields->month <= 12 && fields->day >= 1 &&
         fields->day <= DaysOfMonth(fields->year, fields->month) && fields->hour < 24 && fields->minute < 60 &&
         fields->second < 60;
}

Stamp MakeStamp(const FIELDS& fields) {
  Stamp stamp;
  stamp.date = static_cast<std::uint16_t>((fields.year - FIRST_YEAR) << 9 | fields.month << 5 | fields.day);
  stamp.time = static_cast<std::uint16_t>(fields.hour << 11 | fields.minute << 5 | fields.second / 2);
  stamp.tenMilliseconds = static_cast<std::uint8_t>(fields.second % 2 * 100 + fields.hundredths);
  return stamp;
}

std::int64_t UtcSeconds(const FIELDS& fields) {
  std::int64_t days = 0;
  for (int year = 1970; year < fields.year; ++year) days += IsLeapYear(year) ? 366 : 365;
  for (int month = 1; month < fields.month; ++month) days += DaysOfMonth(fields.year, month);
  days += fields.day - 1;
  return ((days * 24 + fields.hour) * 60 + fields.minute) * 60 + fields.second;
}

/// The seconds of a local time. Where std::time_t cannot hold them, its last one.
std::time_t LocalSeconds(const FIELDS& fields) {
  std::tm local = {};
  local.tm_year = fields.year - 1900;
  local.tm_mon = fields.month - 1;
  local.tm_mday = fields.day;
  local.tm_hour = fields.hour;
  local.tm_min = fields.minute;
  local.tm_sec = fields.second;
  local.tm_isdst = -1;
  const std::time_t seconds = std::mktime(&local);
  // No year from 1980 on has the second -1: it can only be a failure.
  return seconds == -1 ? std::numeric_limits<std::time_t>::max() : seconds;
}

}  // namespace

Stamp ToStamp(std::time_t seconds, long nanoseconds, Zone zone) {
  constexpr FIELDS FIRST = {FIRST_YEAR, 1, 1, 0, 0, 0, 0};
  constexpr FIELDS LAST = {LAST_YEAR, 12, 31, 23, 59, 59, 99};
  std::tm parts = {};
  const std::tm* done = zone == Zone::Utc ? gmtime_r(&seconds, &parts) : localtime_r(&seconds, &parts);
  if (done == nullptr) return MakeStamp(seconds < 0 ? FIRST : LAST);  // a year that no int can hold
  if (parts.tm_year < FIRST_YEAR - 1900) return MakeStamp(FIRST);
  if (parts.tm_year > LAST_YEAR - 1900) return MakeStamp(LAST);
  FIELDS fields = {};
  fields.year = parts.tm_year + 1900;
  fields.month = parts.tm_mon + 1;
  fields.day = parts.tm_mday;
  fields.hour = parts.tm_hour;
  fields.minute = parts.tm_min;
  fields.second = parts.tm_sec < 60 ? parts.tm_sec : 59;  // a leap second
  fields.hundredths = static_cast<int>(nanoseconds / NANOSECONDS_PER_HUNDREDTH % 100);
  return MakeStamp(fields);
}

bool FromStamp(const Stamp& stamp, Zone zone, std::time_t* seconds, long* nanoseconds) {
  *seconds = 0;
  *nanoseconds = 0;
  FIELDS fields;
  if (!ReadFields(stamp, &fields)) return false;
  if (zone == Zone::Local) {
    *seconds = LocalSeconds(fields);
  } else {
    const std::int64_t utc = UtcSeconds(fields);
    constexpr std::time_t LAST = std::numeric_limits<std::time_t>::max();
    *seconds = utc <= std::int64_t{LAST} ? static_cast<std::time_t>(utc) : LAST;
  }
  *nanoseconds = fields.hundredths * NANOSECONDS_PER_HUNDREDTH;
  return true;
}

std::string ToIso8601(const Stamp& stamp, bool dateOnly) {
  Stamp shown = stamp;
  if (dateOnly) shown.time = shown.tenMilliseconds = 0;
  FIELDS fields;
  if (!ReadFields(shown, &fields)) return {};
  char text[64];
  int length = std::snprintf(text, sizeof text, "%04d-%02d-%02d", fields.year, fields.month, fields.day);
  if (!dateOnly) {
    const auto at = static_cast<std::size_t>(length);
    length += std::snprintf(text + at, sizeof text - at, "T%02d:%02d:%02d", fields.hour, fields.minute, fields.second);
    if (fields.hundredths != 0) {
      const auto end = static_cast<std::size_t>(length);
      length += std::snprintf(text + end, sizeof text - end, ".%02d", fields.hundredths);
    }
  }
  return std::string(text, static_cast<std::size_t>(length));
}

}  // namespace fatlib
