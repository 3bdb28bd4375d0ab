/// @file Shown.h
/// Names for people: a name on a medium may hold what makes a terminal do things.

#ifndef FATIMG_SHOWN_H
#define FATIMG_SHOWN_H

#include <string>
#include <string_view>

namespace fatimg {

/// Control characters (below U+0020, and U+007F to U+009F) and bytes that are not UTF-8 become \x1B and so on, lone
/// surrogates \uD800. No name on a volume has a backslash of its own.
std::string Escaped(std::string_view utf8);

}  // namespace fatimg

#endif  // FATIMG_SHOWN_H
