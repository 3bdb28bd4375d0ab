/// @file Utf16.h
/// UTF-8 in test sources, UTF-16 in the interface. A surrogate that stands alone is carried through as its three-byte
/// pattern, so that every sequence of code units survives the way there and back.

#ifndef FATLIB_TESTS_UTF16_H
#define FATLIB_TESTS_UTF16_H

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

using UTF16 = std::vector<unsigned short>;

/// Without a terminator. Bytes that are no UTF-8 become U+FFFD.
inline UTF16 ToUtf16(std::string_view text) {
  UTF16 units;
  for (std::size_t i = 0; i < text.size();) {
    const auto byte = [&](std::size_t at) -> unsigned int {
      return at < text.size() ? static_cast<unsigned char>(text[at]) : 0u;
    };
    const unsigned int lead = byte(i);
    const std::size_t length = lead < 0x80 ? 1u : lead < 0xC0 ? 0u : lead < 0xE0 ? 2u : lead < 0xF0 ? 3u : 4u;
    unsigned int code = length == 1 ? lead : length == 0 ? 0xFFFDu : lead & (0x7Fu >> length);
    bool valid = length != 0 && lead < 0xF8;
    for (std::size_t k = 1; valid && k < length; ++k) {
      valid = (byte(i + k) & 0xC0u) == 0x80u;
      code = code << 6 | (byte(i + k) & 0x3Fu);
    }
    if (!valid || code > 0x10FFFF) {
      units.push_back(0xFFFD);
      ++i;
      continue;
    }
    if (code >= 0x10000) {
      units.push_back(static_cast<unsigned short>(0xD800u + ((code - 0x10000u) >> 10)));
      units.push_back(static_cast<unsigned short>(0xDC00u + ((code - 0x10000u) & 0x3FFu)));
    } else {
      units.push_back(static_cast<unsigned short>(code));
    }
    i += length;
  }
  return units;
}

/// With a terminator, as the interface takes it.
inline UTF16 ToUtf16Z(std::string_view text) {
  UTF16 units = ToUtf16(text);
  units.push_back(0);
  return units;
}

inline std::string ToUtf8(const unsigned short* units, std::size_t count) {
  std::string text;
  const auto put = [&text](unsigned int byte) { text.push_back(static_cast<char>(static_cast<unsigned char>(byte))); };
  for (std::size_t i = 0; i < count; ++i) {
    unsigned int code = units[i];
    if (code >= 0xD800 && code < 0xDC00 && i + 1 < count && units[i + 1] >= 0xDC00 && units[i + 1] < 0xE000) {
      code = 0x10000u + ((code - 0xD800u) << 10) + (units[++i] - 0xDC00u);
    }
    if (code < 0x80) {
      put(code);
    } else if (code < 0x800) {
      put(0xC0u | code >> 6);
      put(0x80u | (code & 0x3Fu));
    } else if (code < 0x10000) {
      put(0xE0u | code >> 12);
      put(0x80u | (code >> 6 & 0x3Fu));
      put(0x80u | (code & 0x3Fu));
    } else {
      put(0xF0u | code >> 18);
      put(0x80u | (code >> 12 & 0x3Fu));
      put(0x80u | (code >> 6 & 0x3Fu));
      put(0x80u | (code & 0x3Fu));
    }
  }
  return text;
}
inline std::string ToUtf8(const UTF16& units) { return ToUtf8(units.data(), units.size()); }

/// Up to the terminator, or `max` units when there is none.
inline std::string ToUtf8Z(const unsigned short* units, std::size_t max) {
  std::size_t count = 0;
  while (count < max && units[count] != 0) ++count;
  return ToUtf8(units, count);
}

/// A path or name as an argument of the interface: Fat_OpenFile(CPath("Dir\\File.txt")).
/// The library only reads it; the pointer lives as long as the object (to the end of the full expression above).
class CPath {
 public:
  CPath(std::string_view text) : m_Units(ToUtf16Z(text)) {}
  CPath(const char* text) : m_Units(ToUtf16Z(text)) {}
  CPath(const std::string& text) : m_Units(ToUtf16Z(text)) {}
  explicit CPath(UTF16 units) : m_Units(std::move(units)) { m_Units.push_back(0); }
  operator unsigned short*() { return m_Units.data(); }
  unsigned short* Get() { return m_Units.data(); }

 private:
  UTF16 m_Units;
};

#endif  // FATLIB_TESTS_UTF16_H
