#include "Names.h"

#include <vector>

namespace exercise {
namespace {

constexpr char32_t CASE_STEP = 0x20;  // between the two cases of a letter of this alphabet

bool IsUpper(char32_t c) {
  return (c >= 'A' && c <= 'Z') || (c >= 0xC0 && c <= 0xDE && c != 0xD7) || (c >= 0x410 && c <= 0x42F);
}

bool IsLower(char32_t c) {
  return (c >= 'a' && c <= 'z') || (c >= 0xE0 && c <= 0xFE && c != 0xF7) || (c >= 0x430 && c <= 0x44F);
}

// UTF-8 of up to three bytes, which is all that names here have.
std::u32string Decode(const std::string& text) {
  std::u32string points;
  for (std::size_t i = 0; i < text.size();) {
    const auto byte = [&](std::size_t at) { return static_cast<char32_t>(static_cast<unsigned char>(text.at(at))); };
    const char32_t lead = byte(i);
    if (lead < 0x80) {
      points += lead;
      i += 1;
    } else if (lead < 0xE0) {
      points += (lead & 0x1F) << 6 | (byte(i + 1) & 0x3F);
      i += 2;
    } else {
      points += (lead & 0x0F) << 12 | (byte(i + 1) & 0x3F) << 6 | (byte(i + 2) & 0x3F);
      i += 3;
    }
  }
  return points;
}

std::string Encode(const std::u32string& points) {
  std::string text;
  for (const char32_t c : points) {
    if (c < 0x80) {
      text += static_cast<char>(c);
    } else if (c < 0x800) {
      text += static_cast<char>(0xC0 | c >> 6);
      text += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      text += static_cast<char>(0xE0 | c >> 12);
      text += static_cast<char>(0x80 | (c >> 6 & 0x3F));
      text += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return text;
}

}  // namespace

std::string MakeName(Random& random) {
  // Some look like the short names that FAT keeps for others.
  static const std::vector<std::string> bases = {"a",
                                                 "FILE",
                                                 "data",
                                                 "Mixed",
                                                 "longer than eight",
                                                 "longer than eight too",
                                                 "LONGER~1",
                                                 "LONGER~2",
                                                 ".hidden",
                                                 "a+b=c; d, [e]",
                                                 "A_B=C_~1",
                                                 "x y",
                                                 "~1",
                                                 "no-ext",
                                                 "привет",
                                                 "Übung",
                                                 "日本語",
                                                 "Straße",
                                                 "ÄÖÜ"};
  static const std::vector<std::string> extensions = {"", "", ".txt", ".C", ".Tar.gz", ".jpeg", ".текст", ".o"};
  std::string name = random.Of(bases);
  // Few numbers, so that names meet again.
  const bool isShortName = name.find('~') != std::string::npos && name.size() == 8;
  if (random.Percent(isShortName ? 20 : 70)) name += std::to_string(random.Below(12));
  if (random.Percent(4)) name += " " + std::string(20 + random.Below(40), 'l');
  return name + random.Of(extensions);
}

std::string InOtherCase(const std::string& name, Random& random) {
  std::u32string points = Decode(name);
  for (char32_t& c : points) {
    if (!random.Percent(50)) continue;
    if (IsUpper(c)) {
      c += CASE_STEP;
    } else if (IsLower(c)) {
      c -= CASE_STEP;
    }
  }
  return Encode(points);
}

std::string Folded(const std::string& name) {
  std::u32string points = Decode(name);
  for (char32_t& c : points) {
    if (IsUpper(c)) c += CASE_STEP;
  }
  return Encode(points);
}

std::size_t UnitsOf(const std::string& name) { return Decode(name).size(); }

std::string MakeForbiddenName(Random& random) {
  static const std::string characters = "\"*:<>?\\|\x01\x1F";
  std::string name = "not" + std::to_string(random.Below(100));
  name.insert(random.Below(name.size() + 1), 1, characters[random.Below(characters.size())]);
  return name;
}

}  // namespace exercise
