/// @file Label.cpp

#include "Label.h"

#include <algorithm>

#include "Error.h"

namespace fatlib {

namespace {

// Bytes 0x80 to 0xFF.
constexpr std::u16string_view UPPER_HALF =
    u"\u00C7\u00FC\u00E9\u00E2\u00E4\u00E0\u00E5\u00E7\u00EA\u00EB\u00E8\u00EF\u00EE\u00EC\u00C4\u00C5"
    u"\u00C9\u00E6\u00C6\u00F4\u00F6\u00F2\u00FB\u00F9\u00FF\u00D6\u00DC\u00A2\u00A3\u00A5\u20A7\u0192"
    u"\u00E1\u00ED\u00F3\u00FA\u00F1\u00D1\u00AA\u00BA\u00BF\u2310\u00AC\u00BD\u00BC\u00A1\u00AB\u00BB"
    u"\u2591\u2592\u2593\u2502\u2524\u2561\u2562\u2556\u2555\u2563\u2551\u2557\u255D\u255C\u255B\u2510"
    u"\u2514\u2534\u252C\u251C\u2500\u253C\u255E\u255F\u255A\u2554\u2569\u2566\u2560\u2550\u256C\u2567"
    u"\u2568\u2564\u2565\u2559\u2558\u2552\u2553\u256B\u256A\u2518\u250C\u2588\u2584\u258C\u2590\u2580"
    u"\u03B1\u00DF\u0393\u03C0\u03A3\u03C3\u00B5\u03C4\u03A6\u0398\u03A9\u03B4\u221E\u03C6\u03B5\u2229"
    u"\u2261\u00B1\u2265\u2264\u2320\u2321\u00F7\u2248\u00B0\u2219\u00B7\u221A\u207F\u00B2\u25A0\u00A0";
static_assert(UPPER_HALF.size() == 128);

constexpr std::u16string_view FORBIDDEN = u"\"*+,./:;<=>?[\\]|\x7F";

// Only letters whose upper case the code page has: the others stay as they are.
char16_t LabelUpCase(char16_t unit) {
  if (unit >= u'a' && unit <= u'z') return static_cast<char16_t>(unit - 0x20);
  constexpr std::u16string_view WITH_UPPER_CASE = u"\u00E4\u00E5\u00E6\u00E7\u00E9\u00F1\u00F6\u00FC";
  return WITH_UPPER_CASE.find(unit) != std::u16string_view::npos ? static_cast<char16_t>(unit - 0x20) : unit;
}

}  // namespace

char16_t FromCodePage437(std::uint8_t byte) { return byte < 0x80 ? char16_t{byte} : UPPER_HALF[byte - 0x80u]; }

bool ToCodePage437(char16_t unit, std::uint8_t* byte) {
  if (unit < 0x80) {
    *byte = static_cast<std::uint8_t>(unit);
    return true;
  }
  const std::size_t place = UPPER_HALF.find(unit);
  if (place == std::u16string_view::npos) return false;
  *byte = static_cast<std::uint8_t>(0x80 + place);
  return true;
}

std::error_code EncodeLabel(std::u16string_view label, ShortName11* bytes) {
  while (!label.empty() && label.back() == u' ') label.remove_suffix(1);
  ShortName11 out{'N', 'O', ' ', 'N', 'A', 'M', 'E', ' ', ' ', ' ', ' '};
  const ShortName11 none = out;
  if (!label.empty()) {
    if (label.size() > out.size() || label.front() == u' ') return Status::InvalidName;
    out.fill(' ');
    for (std::size_t i = 0; i < label.size(); ++i) {
      const char16_t unit = LabelUpCase(label[i]);
      if (unit < 0x20 || FORBIDDEN.find(unit) != std::u16string_view::npos) return Status::InvalidName;
      if (!ToCodePage437(unit, &out[i])) return Status::InvalidName;
    }
    if (out == none) return Status::InvalidName;
    if (out[0] == 0xE5) out[0] = STORED_E5;
  }
  *bytes = out;
  return {};
}

}  // namespace fatlib
