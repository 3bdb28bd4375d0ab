/// @file ImpNtDll.h
/// Conversion between the date and time words of a directory entry, a broken-down time record and the 64-bit file time
/// of the interface (100-nanosecond units since 1601-01-01 00:00:00 UTC).

#ifndef FATLIB_IMPNTDLL_H
#define FATLIB_IMPNTDLL_H

#include <cstdint>

#include "interface/FatLibIntf.h"

/// A broken-down time.
struct TIME_FIELDS {
  std::uint16_t Year;
  std::uint16_t Month;
  std::uint16_t Day;
  std::uint16_t Hour;
  std::uint16_t Minute;
  std::uint16_t Second;
  std::uint16_t Milliseconds;
  std::uint16_t Weekday;
};

/// A 64-bit integer that can also be seen as its halves.
struct _WLI {
  std::int64_t QuadPart;

  std::uint32_t LowPart() const { return static_cast<std::uint32_t>(QuadPart); }
  std::uint32_t HighPart() const { return static_cast<std::uint32_t>(static_cast<std::uint64_t>(QuadPart) >> 32); }
  static _WLI FromParts(std::uint32_t low, std::uint32_t high) {
    return {static_cast<std::int64_t>(static_cast<std::uint64_t>(high) << 32 | low)};
  }
};

constexpr std::int64_t FTIME_PER_SECOND = 10000000;
constexpr std::int64_t FTIME_OF_1970 = 116444736000000000;  // 1970-01-01 00:00:00 UTC

/// Unpacks a date word (bits 15-9 year since 1980, 8-5 month, 4-0 day) and a time word (bits 15-11 hours, 10-5 minutes,
/// 4-0 seconds / 2) as they stand: values that no calendar or clock has are passed on. Milliseconds and Weekday are 0.
constexpr TIME_FIELDS UnpackDosDateTime(std::uint16_t date, std::uint16_t time) {
  TIME_FIELDS fields = {};
  fields.Year = static_cast<std::uint16_t>((date >> 9) + 1980);
  fields.Month = static_cast<std::uint16_t>((date & 0x1E0) >> 5);
  fields.Day = static_cast<std::uint16_t>(date & 0x1F);
  fields.Hour = static_cast<std::uint16_t>(time >> 11);
  fields.Minute = static_cast<std::uint16_t>((time & 0x7E0) >> 5);
  fields.Second = static_cast<std::uint16_t>((time & 0x1F) * 2);
  return fields;
}

/// Takes the record for local time and converts it to a file time. Month and year go into the C library's record as
/// they are, which counts months from 0 and years from 1900: Year 70, Month 0 is January 1970. RtlTimeToTimeFields is
/// the mirror image.
/// @param out  the file time; one second before 1970 when the result does not fit a signed 32-bit count of seconds
/// @return true
bool RtlTimeFieldsToTime(const TIME_FIELDS* fields, _WLI* out);

/// Breaks a file time down into local time, with Year counted from 1900 and Month from 0. The seconds since 1970 are
/// cut to a signed 32-bit count, so that Year is 1 to 138. Milliseconds is 0.
void RtlTimeToTimeFields(const _WLI* in, TIME_FIELDS* fields);

/// Converts the words of a directory entry to a file time: to one second before 1970-01-01 00:00:00 UTC, for every date
/// and time. CFatFileSystem offers it under its name.
/// @return true; false when `out` is null
bool DosDateTimeToFileTime(unsigned short date, unsigned short time, WIN_FTIME* out);

/// Converts a file time to the words of a directory entry, which no file time has.
/// @return false, with the outputs as they were
bool FileTimeToDosDateTime(const WIN_FTIME* in, unsigned short* date, unsigned short* time);

#endif  // FATLIB_IMPNTDLL_H
