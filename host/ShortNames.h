/// @file ShortNames.h
/// The short names that the library gives, known before it gives them. Not part of the face for hosts.
///
/// A name of up to 8 and 3 ASCII characters is stored as a short name in upper case, without a long one; one that has
/// lower-case letters is given to the library as another name therefore (StandIn.h). Every other name is a long name,
/// and gets a short one with a number: what fits of its base, "~", and the next number of a counter that all volumes of
/// a process share. The library looks only whether a name without a long one has the
/// invented one already; this face sees to the others. In the C locale, in which the library is called, each character
/// whose upper case is not ASCII becomes "_" (that of the dotless i and of the long s is).

#ifndef FATLIB_SHORTNAMES_H
#define FATLIB_SHORTNAMES_H

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "Layout.h"

namespace fatlib {

using ShortName = ShortName11;

struct ShortNameHash {
  std::size_t operator()(const ShortName& name) const;
};

/// How a name is stored.
enum class NameForm {
  Short,     ///< a short name alone, by which it is also found
  Cased,     ///< of 8.3 form but for lower-case letters: a long name, with a short one that is its upper case, which
             ///< the library does not write
  LongOwn,   ///< a long name, with a short one that is its upper case
  Invented,  ///< a long name, with an invented short one
};

/// @param shortName  out: the short name; unchanged when it is to be invented
NameForm FormOf(std::u16string_view name, ShortName* shortName);

/// Where the library's counter stands.
struct ShortNameNumber {
  std::uint32_t number = 1;  ///< 1 to 99999
  std::uint32_t width = 1;   ///< digits written; it grows with the number, and begins anew with it

  void Advance();
  /// The name that the library invents, and the number that it goes on with.
  /// @param isShort  whether a name without a long one has that short name in the directory concerned
  /// @return false when the library would give up
  [[nodiscard]] bool Invent(std::u16string_view name, const std::function<bool(const ShortName&)>& isShort,
                            ShortName* shortName);
  /// Sets the counter behind an invented name that the library has given.
  /// @return false when the text does not end in "~" and a number
  [[nodiscard]] bool GoOnFrom(std::u16string_view invented);
};

}  // namespace fatlib

#endif  // FATLIB_SHORTNAMES_H
