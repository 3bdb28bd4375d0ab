/// @file VolumeId.cpp

#include "VolumeId.h"

namespace fatimg {

namespace {

constexpr std::uint32_t FNV_START = 0x811C9DC5u;
constexpr std::uint32_t FNV_FACTOR = 0x01000193u;

std::uint32_t Mixed(std::uint32_t hash, std::uint64_t value) {
  for (unsigned int shift = 0; shift < 64; shift += 8)
    hash = (hash ^ (value >> shift & 0xFF)) * FNV_FACTOR & 0xFFFFFFFFu;
  return hash;
}

}  // namespace

std::uint32_t VolumeIdOfTime(const std::timespec& time) {
  const std::uint32_t hash = Mixed(FNV_START, static_cast<std::uint64_t>(time.tv_sec));
  return Mixed(hash, static_cast<std::uint64_t>(time.tv_nsec));
}

bool ParseVolumeId(std::string_view text, std::uint32_t* id) {
  if (text.size() == 9 && text[4] != '-') return false;
  std::uint32_t value = 0;
  std::size_t digits = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (i == 4 && text[i] == '-') continue;
    constexpr std::string_view DIGITS = "0123456789abcdefABCDEF";
    const std::size_t at = DIGITS.find(text[i]);
    if (at == std::string_view::npos || ++digits > 8) return false;
    value = value << 4 | static_cast<std::uint32_t>(at < 16 ? at : at - 6);
  }
  if (digits != 8) return false;
  *id = value;
  return true;
}

}  // namespace fatimg
