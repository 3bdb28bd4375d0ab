/// @file StandIn.h
/// The names under which the library knows, for a time, entries whose names it would store in capitals. Not part of the
/// face for hosts.
///
/// The library writes no long name for a name of 8.3 form, so that its case would be lost. Such an entry is made under
/// another name, its stand-in: each unit in upper case, moved into the units for private use. It is no name of 8.3
/// form, takes as many slots, and two stand-ins are the same exactly when the names are. When the library has
/// unmounted, the name itself and its short name are put in its place.

#ifndef FATLIB_STANDIN_H
#define FATLIB_STANDIN_H

#include <string>
#include <string_view>

namespace fatlib {

/// Where the units of a stand-in begin; there are several places, for volumes that have such names themselves.
using StandInBase = char16_t;

namespace standin {

constexpr StandInBase NONE = 0;
constexpr StandInBase FIRST = 0xE000;
constexpr StandInBase LAST = 0xF800;
constexpr StandInBase STEP = 0x100;

/// @param name  of ASCII units
std::u16string Of(std::u16string_view name, StandInBase base);

/// Where the units of a name begin, if it may be a stand-in; else NONE.
StandInBase BaseOf(std::u16string_view name);
/// The name, in upper case, that a stand-in of that base stands for.
std::u16string Meant(std::u16string_view standIn, StandInBase base);

}  // namespace standin

}  // namespace fatlib

#endif  // FATLIB_STANDIN_H
