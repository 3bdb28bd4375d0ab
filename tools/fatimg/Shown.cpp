/// @file Shown.cpp

#include "Shown.h"

#include <fatlib/Text.h>

#include <cstdio>

namespace fatimg {

namespace {

void PutByte(unsigned int byte, std::string* text) {
  char escape[8];
  std::snprintf(escape, sizeof escape, "\\x%02X", byte & 0xFFu);
  *text += escape;
}

void PutUnit(unsigned int unit, std::string* text) {
  char escape[8];
  std::snprintf(escape, sizeof escape, "\\u%04X", unit & 0xFFFFu);
  *text += escape;
}

}  // namespace

std::string Escaped(std::string_view utf8) {
  std::string text;
  std::u16string units;
  if (!fatlib::FromUtf8(utf8, &units)) {
    for (const char c : utf8) {
      const auto byte = static_cast<unsigned char>(c);
      if (byte < 0x20 || byte >= 0x7F) {
        PutByte(byte, &text);
      } else {
        text += c;
      }
    }
    return text;
  }
  for (std::size_t i = 0; i < units.size(); ++i) {
    const char16_t unit = units[i];
    const bool high = unit >= 0xD800 && unit < 0xDC00;
    const bool pair = high && i + 1 < units.size() && units[i + 1] >= 0xDC00 && units[i + 1] < 0xE000;
    if (unit < 0x20 || (unit >= 0x7F && unit < 0xA0)) {
      PutByte(unit, &text);
    } else if (unit >= 0xD800 && unit < 0xE000 && !pair) {
      PutUnit(unit, &text);
    } else {
      text += fatlib::ToUtf8(std::u16string_view(units).substr(i, pair ? 2 : 1));
      i += pair ? 1u : 0u;
    }
  }
  return text;
}

}  // namespace fatimg
