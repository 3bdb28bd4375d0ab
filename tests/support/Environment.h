/// @file Environment.h
/// Numbers that choose what a random test does.

#ifndef FATLIB_TESTS_ENVIRONMENT_H
#define FATLIB_TESTS_ENVIRONMENT_H

#include <cstdlib>

/// @return the number that a variable of the environment holds, or `otherwise` when it is not set
inline unsigned int FromEnvironment(const char* name, unsigned int otherwise) {
  const char* const value = std::getenv(name);
  return value == nullptr ? otherwise : static_cast<unsigned int>(std::strtoul(value, nullptr, 10));
}

#endif  // FATLIB_TESTS_ENVIRONMENT_H
