/// @file Time.h
/// The times of directory entries. FAT stores them without a time zone: programs agree on local time; UTC is used where
/// two machines must agree.

#ifndef FATLIB_TIME_H
#define FATLIB_TIME_H

#include <cstdint>
#include <ctime>
#include <string>

namespace fatlib {

/// One stored stamp, as it lies on the medium.
struct Stamp {
  std::uint16_t date = 0;            ///< year - 1980 << 9 | month << 5 | day; 0: none
  std::uint16_t time = 0;            ///< hour << 11 | minute << 5 | second / 2
  std::uint8_t tenMilliseconds = 0;  ///< 0 to 199, only for the creation time
  bool operator==(const Stamp& other) const {
    return date == other.date && time == other.time && tenMilliseconds == other.tenMilliseconds;
  }
};

/// The three stamps of an entry. `accessed` has a date only.
struct Times {
  Stamp created;
  Stamp modified;
  Stamp accessed;
  bool operator==(const Times& other) const {
    return created == other.created && modified == other.modified && accessed == other.accessed;
  }
};

enum class Zone { Local, Utc };

/// @param seconds, nanoseconds  since 1970-01-01 UTC. Years before 1980 and after 2107 become the first and last that
/// can be
///        stored. The modification time is rounded down to two seconds, the creation time to 10 ms.
Stamp ToStamp(std::time_t seconds, long nanoseconds, Zone zone);
/// @param seconds, nanoseconds  out: 0 when the stamp is none or no date (month 13, day 0, ...). Where std::time_t has
///        32 bits, times from 2038 on are the last one that it can hold.
/// @return whether it is a date
bool FromStamp(const Stamp& stamp, Zone zone, std::time_t* seconds, long* nanoseconds);
/// ISO 8601 without a zone, "2026-03-14T15:09:26" (with .25 where hundredths are stored); a date alone when `dateOnly`;
/// empty when it is no date.
std::string ToIso8601(const Stamp& stamp, bool dateOnly = false);

}  // namespace fatlib

#endif  // FATLIB_TIME_H
