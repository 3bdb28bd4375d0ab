/// @file Text.h
/// Names as UTF-8, which hosts use, and as UTF-16 units, which are on the medium. Both ways without loss: a lone
/// surrogate, which a name on a medium may hold, becomes the three bytes ED A0..BF 80..BF and comes back from them.

#ifndef FATLIB_TEXT_H
#define FATLIB_TEXT_H

#include <string>
#include <string_view>

namespace fatlib {

/// Never fails: every sequence of units has its bytes.
std::string ToUtf8(std::u16string_view units);

/// @param units  out: the units; unchanged on failure
/// @return false when the bytes are not UTF-8 (surrogates written alone are taken, see above; a pair of them is not)
[[nodiscard]] bool FromUtf8(std::string_view utf8, std::u16string* units);

/// The units in upper case as the library compares names, one unit for one.
std::u16string UpCase(std::u16string_view units);

/// Whether two names are one name to a FAT volume.
bool SameName(std::u16string_view a, std::u16string_view b);

}  // namespace fatlib

#endif  // FATLIB_TEXT_H
