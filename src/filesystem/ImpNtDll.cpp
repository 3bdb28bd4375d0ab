/// @file ImpNtDll.cpp

#include "filesystem/ImpNtDll.h"

#include <ctime>
#include <limits>

namespace {

// The C library's record counts years from 1900, and the date words are unpacked to calendar years that go into it as
// they are. So the earliest date word means the year 3880, or 3879 where the month or day is 0.
constexpr int EARLIEST_YEAR_UNPACKED = UnpackDosDateTime(0, 0).Year + 1900 - 1;
constexpr int LAST_YEAR_OF_SECONDS =
    2038;  // that a signed 32-bit count of seconds since 1970 reaches, in any time zone
static_assert(EARLIEST_YEAR_UNPACKED > LAST_YEAR_OF_SECONDS, "no date word fits the count of seconds");
// And a count of seconds breaks down to a year below 1980 of that record, which a date word cannot express.
static_assert(LAST_YEAR_OF_SECONDS - 1900 < UnpackDosDateTime(0, 0).Year, "no count of seconds fits a date word");

constexpr std::int32_t SECONDS_NOT_REPRESENTABLE = -1;  // mktime's answer, which is used as it stands

}  // namespace

bool RtlTimeFieldsToTime(const TIME_FIELDS* fields, _WLI* out) {
  std::tm local = {};  // day of the year and daylight saving stay 0
  local.tm_sec = fields->Second;
  local.tm_min = fields->Minute;
  local.tm_hour = fields->Hour;
  local.tm_mday = fields->Day;
  local.tm_mon = fields->Month;
  local.tm_year = fields->Year;
  local.tm_wday = fields->Weekday;
  const std::time_t made = std::mktime(&local);
  // A wider time_t must not make a difference.
  const bool fits =
      made >= std::numeric_limits<std::int32_t>::min() && made <= std::numeric_limits<std::int32_t>::max();
  const std::int64_t seconds = fits ? made : SECONDS_NOT_REPRESENTABLE;
  out->QuadPart = seconds * FTIME_PER_SECOND + FTIME_OF_1970;
  return true;
}

void RtlTimeToTimeFields(const _WLI* in, TIME_FIELDS* fields) {
  // Subtracted without sign: file times far below zero wrap around instead of overflowing.
  const auto since1970 =
      static_cast<std::int64_t>(static_cast<std::uint64_t>(in->QuadPart) - static_cast<std::uint64_t>(FTIME_OF_1970));
  const std::time_t seconds = static_cast<std::int32_t>(since1970 / FTIME_PER_SECOND);
  *fields = TIME_FIELDS{};
  const std::tm* local = std::localtime(&seconds);
  if (local == nullptr) return;
  fields->Year = static_cast<std::uint16_t>(local->tm_year);
  fields->Month = static_cast<std::uint16_t>(local->tm_mon);
  fields->Day = static_cast<std::uint16_t>(local->tm_mday);
  fields->Hour = static_cast<std::uint16_t>(local->tm_hour);
  fields->Minute = static_cast<std::uint16_t>(local->tm_min);
  fields->Second = static_cast<std::uint16_t>(local->tm_sec);
  fields->Weekday = static_cast<std::uint16_t>(local->tm_wday);
}

// The unpacked words run through RtlTimeFieldsToTime give SECONDS_NOT_REPRESENTABLE without exception (asserted above).
// The result is stored without asking mktime, which would be the most expensive step of listing a directory entry.
bool DosDateTimeToFileTime(unsigned short, unsigned short, WIN_FTIME* out) {
  if (out == nullptr) return false;
  constexpr std::int64_t result = SECONDS_NOT_REPRESENTABLE * FTIME_PER_SECOND + FTIME_OF_1970;
  const _WLI time = {result};
  out->dwLowDateTime = time.LowPart();
  out->dwHighDateTime = time.HighPart();
  return true;
}

// A negative file time is refused. Every other one, rounded up to an even second, is broken down by RtlTimeToTimeFields
// to a year of 1 to 138, outside the 1980 to 2107 of a date word, and is refused for that. Neither needs localtime.
bool FileTimeToDosDateTime(const WIN_FTIME*, unsigned short*, unsigned short*) { return false; }
