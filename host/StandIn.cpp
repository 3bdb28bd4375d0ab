/// @file StandIn.cpp

#include "StandIn.h"

#include <algorithm>

#include "Text.h"

namespace fatlib::standin {

namespace {

constexpr char16_t OFFSET = 0x7F;  // of a unit from its base

}  // namespace

std::u16string Of(std::u16string_view name, StandInBase base) {
  std::u16string standIn = UpCase(name);
  for (char16_t& unit : standIn) unit = static_cast<char16_t>(unit + base);
  return standIn;
}

StandInBase BaseOf(std::u16string_view name) {
  if (name.empty() || name.front() < FIRST || name.front() >= LAST + STEP) return NONE;
  const auto base = static_cast<StandInBase>(name.front() & ~(STEP - 1));
  const auto fits = [base](char16_t unit) { return unit >= base && unit - base <= OFFSET; };
  return std::all_of(name.begin(), name.end(), fits) ? base : NONE;
}

std::u16string Meant(std::u16string_view standIn, StandInBase base) {
  std::u16string name(standIn);
  for (char16_t& unit : name) unit = static_cast<char16_t>(unit - base);
  return name;
}

}  // namespace fatlib::standin
