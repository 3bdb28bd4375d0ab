/// @file Timeless.h
/// What is left of the present time on a volume that is to be the same on every machine, at every time. The library
/// gives entries the time of the day; those that can be seen get other ones, but not "." and "..", and not what is left
/// of entries that were removed or renamed.

#ifndef FATIMG_TIMELESS_H
#define FATIMG_TIMELESS_H

#include <fatlib/Medium.h>

#include <system_error>

namespace fatimg {

/// Gives "." and ".." the times of their directory, and clears what removed entries left but for their mark.
[[nodiscard]] std::error_code MakeTimeless(fatlib::Medium* medium);

}  // namespace fatimg

#endif  // FATIMG_TIMELESS_H
