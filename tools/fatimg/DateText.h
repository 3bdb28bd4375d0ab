/// @file DateText.h
/// Times on the command line.

#ifndef FATIMG_DATETEXT_H
#define FATIMG_DATETEXT_H

#include <fatlib/Time.h>

#include <ctime>
#include <string_view>

namespace fatimg {

/// "2026-03-14", "2026-03-14T15:09", "2026-03-14T15:09:26" or with a blank in place of the T, in the zone; with a "Z"
/// at the end in UTC; or "@1234567890", seconds since 1970-01-01 UTC. A date alone is its midnight.
/// @param time  out: unchanged on failure
/// @return false when it is no time, or none that a FAT volume can store (1980 to 2107)
[[nodiscard]] bool ParseTime(std::string_view text, fatlib::Zone zone, std::timespec* time);

}  // namespace fatimg

#endif  // FATIMG_DATETEXT_H
