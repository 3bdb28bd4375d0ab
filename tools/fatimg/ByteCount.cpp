/// @file ByteCount.cpp

#include "ByteCount.h"

#include <array>
#include <cstdio>

namespace fatimg {

std::string ByteCountText(std::uint64_t bytes) {
  constexpr std::array<const char*, 6> UNITS{"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  double value = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  while (value >= 1023.95 && unit + 1 < UNITS.size()) {  // which would be shown as 1024.0
    value /= 1024;
    ++unit;
  }
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.1f %s", value, UNITS[unit]);
  return text.data();
}

}  // namespace fatimg
