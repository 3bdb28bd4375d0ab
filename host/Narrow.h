/// @file Narrow.h
/// Small help with numbers. Not part of the face for hosts.

#ifndef FATLIB_NARROW_H
#define FATLIB_NARROW_H

#include <cstddef>
#include <cstdint>

namespace fatlib {

/// A count of 64 bits that is known to fit in memory. (A cast of std::uint64_t itself is useless where both are 64 bits
/// wide, and needed where they are not.)
constexpr std::size_t ToSize(unsigned long long count) { return static_cast<std::size_t>(count); }

constexpr bool IsPowerOfTwo(std::uint32_t value) { return value != 0 && (value & (value - 1)) == 0; }

}  // namespace fatlib

#endif  // FATLIB_NARROW_H
