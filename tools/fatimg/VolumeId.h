/// @file VolumeId.h
/// The number that a new volume gets.

#ifndef FATIMG_VOLUMEID_H
#define FATIMG_VOLUMEID_H

#include <cstdint>
#include <ctime>
#include <string_view>

namespace fatimg {

/// A number that another time hardly ever has. The same on every machine.
std::uint32_t VolumeIdOfTime(const std::timespec& time);

/// "1234-ABCD", with or without the dash; eight hexadecimal digits.
/// @return false when it is none
[[nodiscard]] bool ParseVolumeId(std::string_view text, std::uint32_t* id);

}  // namespace fatimg

#endif  // FATIMG_VOLUMEID_H
