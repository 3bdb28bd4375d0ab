/// @file Label.h
/// Labels of volumes, and the code page of the bytes in short names. Not part of the face for hosts.

#ifndef FATLIB_LABEL_H
#define FATLIB_LABEL_H

#include <cstdint>
#include <string_view>
#include <system_error>

#include "Layout.h"

namespace fatlib {

/// The unit of a byte in code page 437. Bytes below 0x80 are ASCII.
char16_t FromCodePage437(std::uint8_t byte);

/// @param byte  out: unchanged when the unit has none
/// @return false when the code page has no such character
[[nodiscard]] bool ToCodePage437(char16_t unit, std::uint8_t* byte);

/// The 11 bytes of a label, in upper case as far as the code page has it; "NO NAME    " for the empty one, which is
/// what a boot sector holds then.
/// @param bytes  out: unchanged on failure
/// @return InvalidName: more than 11 characters, one that the code page or a label cannot hold, a space in front, or
///         "NO NAME", which readers take for none
[[nodiscard]] std::error_code EncodeLabel(std::u16string_view label, ShortName11* bytes);

}  // namespace fatlib

#endif  // FATLIB_LABEL_H
