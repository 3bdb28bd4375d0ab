/// @file Text.cpp

#include "Text.h"

#include <algorithm>
#include <cstdint>

#include "names/UpCase.h"

namespace fatlib {

namespace {

constexpr std::uint32_t FIRST_HIGH_SURROGATE = 0xD800;
constexpr std::uint32_t FIRST_LOW_SURROGATE = 0xDC00;
constexpr std::uint32_t FIRST_SUPPLEMENTARY = 0x10000;
constexpr std::uint32_t LAST_CODE_POINT = 0x10FFFF;

bool IsHighSurrogate(std::uint32_t unit) { return (unit & 0xFC00) == FIRST_HIGH_SURROGATE; }
bool IsLowSurrogate(std::uint32_t unit) { return (unit & 0xFC00) == FIRST_LOW_SURROGATE; }

void AppendUtf8(std::uint32_t code, std::string* out) {
  const auto put = [out](std::uint32_t byte) { out->push_back(static_cast<char>(static_cast<unsigned char>(byte))); };
  if (code < 0x80) {
    put(code);
    return;
  }
  if (code < 0x800) {
    put(0xC0 | code >> 6);
  } else {
    if (code < FIRST_SUPPLEMENTARY) {
      put(0xE0 | code >> 12);
    } else {
      put(0xF0 | code >> 18);
      put(0x80 | (code >> 12 & 0x3F));
    }
    put(0x80 | (code >> 6 & 0x3F));
  }
  put(0x80 | (code & 0x3F));
}

/// Takes one code point from the front. @return false when no valid sequence stands there
bool TakeUtf8(std::string_view* utf8, std::uint32_t* code) {
  const auto byte = [utf8](std::size_t i) { return static_cast<unsigned char>((*utf8)[i]); };
  const std::uint32_t lead = byte(0);
  std::size_t length = 1;
  std::uint32_t smallest = 0;  // less could have been written with fewer bytes
  std::uint32_t value = lead;
  if (lead >= 0x80) {
    if (lead < 0xC0 || lead >= 0xF8) return false;
    length = lead < 0xE0 ? 2u : lead < 0xF0 ? 3u : 4u;
    smallest = length == 2 ? 0x80 : length == 3 ? 0x800 : FIRST_SUPPLEMENTARY;
    value = lead & (0x7Fu >> length);
  }
  if (utf8->size() < length) return false;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return false;
    value = value << 6 | (byte(i) & 0x3Fu);
  }
  if (value < smallest || value > LAST_CODE_POINT) return false;
  utf8->remove_prefix(length);
  *code = value;
  return true;
}

}  // namespace

std::string ToUtf8(std::u16string_view units) {
  std::string out;
  out.reserve(units.size());
  for (std::size_t i = 0; i < units.size(); ++i) {
    std::uint32_t code = units[i];
    if (IsHighSurrogate(code) && i + 1 < units.size() && IsLowSurrogate(units[i + 1])) {
      ++i;
      code = FIRST_SUPPLEMENTARY + ((code - FIRST_HIGH_SURROGATE) << 10) + (units[i] - FIRST_LOW_SURROGATE);
    }
    AppendUtf8(code, &out);
  }
  return out;
}

bool FromUtf8(std::string_view utf8, std::u16string* units) {
  std::u16string out;
  out.reserve(utf8.size());
  bool afterLoneHigh = false;
  while (!utf8.empty()) {
    std::uint32_t code;
    if (!TakeUtf8(&utf8, &code)) return false;
    // The two would come back as one sequence of four bytes: not the bytes that were given.
    if (afterLoneHigh && IsLowSurrogate(code)) return false;
    afterLoneHigh = IsHighSurrogate(code);
    if (code >= FIRST_SUPPLEMENTARY) {
      out.push_back(static_cast<char16_t>(FIRST_HIGH_SURROGATE + ((code - FIRST_SUPPLEMENTARY) >> 10)));
      code = FIRST_LOW_SURROGATE + ((code - FIRST_SUPPLEMENTARY) & 0x3FF);
    }
    out.push_back(static_cast<char16_t>(code));
  }
  *units = std::move(out);
  return true;
}

std::u16string UpCase(std::u16string_view units) {
  std::u16string out(units);
  for (char16_t& unit : out) unit = static_cast<char16_t>(gUnicodeUpcase(static_cast<unsigned short>(unit)));
  return out;
}

bool SameName(std::u16string_view a, std::u16string_view b) {
  const auto same = [](char16_t x, char16_t y) {
    return x == y || gUnicodeUpcase(static_cast<unsigned short>(x)) == gUnicodeUpcase(static_cast<unsigned short>(y));
  };
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), same);
}

}  // namespace fatlib
