/// @file Names.h
/// Names of files: made up, written in other cases, and compared without regard to case. Only letters of this alphabet
/// are used: ASCII, Latin-1 and Russian, whose two cases are one code unit each.

#ifndef FATLIB_TESTS_EXERCISE_NAMES_H
#define FATLIB_TESTS_EXERCISE_NAMES_H

#include <string>

#include "Random.h"

namespace exercise {

/// A name that FAT can hold: short ones in any case, long ones, ones whose short forms collide, other scripts.
std::string MakeName(Random& random);
/// The same name with the case of some letters changed.
std::string InOtherCase(const std::string& name, Random& random);
/// Equal for two names that differ in nothing but case.
std::string Folded(const std::string& name);
/// UTF-16 units of a name in UTF-8 without surrogates.
std::size_t UnitsOf(const std::string& name);
/// A name that FAT cannot hold.
std::string MakeForbiddenName(Random& random);

}  // namespace exercise

#endif  // FATLIB_TESTS_EXERCISE_NAMES_H
