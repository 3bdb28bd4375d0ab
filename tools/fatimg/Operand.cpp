/// @file Operand.cpp

#include "Operand.h"

#include <limits>

#include "Exit.h"

namespace fatimg {

namespace {

constexpr unsigned int MAX_PARTITION = 128;
constexpr unsigned int SECTOR_BYTES = 512;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

int HexDigit(char c) {
  if (IsDigit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Takes the digits off the front. @return false when there is none, or the number does not fit
bool TakeNumber(std::string_view* text, unsigned int base, std::uint64_t* number) {
  constexpr std::uint64_t MAX = std::numeric_limits<std::uint64_t>::max();
  std::size_t length = 0;
  *number = 0;
  for (; length < text->size(); ++length) {
    const int digit = HexDigit((*text)[length]);
    if (digit < 0 || digit >= static_cast<int>(base)) break;
    const auto value = static_cast<unsigned int>(digit);
    if (*number > (MAX - value) / base) return false;
    *number = *number * base + value;
  }
  text->remove_prefix(length);
  return length > 0;
}

// @return 0 when there is no such unit
std::uint64_t UnitBytes(std::string_view unit) {
  if (unit.empty() || unit == "B") return 1;
  if (unit == "s") return SECTOR_BYTES;
  constexpr std::string_view PREFIXES = "KMGT";
  const char upper = unit[0] == 'k' || unit[0] == 'm' || unit[0] == 'g' || unit[0] == 't'
                         ? static_cast<char>(unit[0] - 'a' + 'A')
                         : unit[0];
  const std::size_t power = PREFIXES.find(upper);
  if (power == std::string_view::npos || (unit.size() > 1 && unit.substr(1) != "iB")) return 0;
  return std::uint64_t{1} << (10 * (power + 1));
}

Where ParseWhere(const std::string& text, std::string_view whole) {
  Where where;
  if (text.empty()) return where;
  const bool plain = text.find_first_not_of("0123456789") == std::string::npos;
  std::uint64_t bytes = 0;
  if (ParseBytes(text, &bytes)) {
    if (plain && bytes >= 1 && bytes <= MAX_PARTITION) {
      where.kind = Where::Number;
      where.number = static_cast<unsigned int>(bytes);
    } else {
      where.kind = Where::Offset;
      where.offset = bytes;
    }
  } else if (plain) {
    throw Failure(Exit::Usage, std::string(whole), "the place @" + text + " is too large a number");
  } else {
    where.kind = Where::Name;
    where.name = text;
  }
  return where;
}

}  // namespace

std::string Operand::ImageText() const { return whereText.empty() ? image : image + "@" + whereText; }

std::string Operand::Text(std::string_view otherPath) const { return ImageText() + ":" + std::string(otherPath); }

bool ParseBytes(std::string_view text, std::uint64_t* bytes) {
  std::uint64_t number = 0;
  std::uint64_t unit = 1;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    text.remove_prefix(2);
    if (!TakeNumber(&text, 16, &number) || !text.empty()) return false;
  } else {
    if (!TakeNumber(&text, 10, &number)) return false;
    unit = UnitBytes(text);
  }
  if (unit == 0 || number > std::numeric_limits<std::uint64_t>::max() / unit) return false;
  *bytes = number * unit;
  return true;
}

bool IsImageOperand(std::string_view text) {
  return text.find(":/") != std::string_view::npos || (!text.empty() && text.back() == ':');
}

Operand ParseOperand(std::string_view text) {
  Operand operand;
  std::string_view image = text;
  const std::size_t colon = text.rfind(":/");
  if (colon != std::string_view::npos) {
    operand.path = text.substr(colon + 1);
    operand.hasPath = true;
    image = text.substr(0, colon);
  } else if (!text.empty() && text.back() == ':') {
    operand.hasPath = true;
    image.remove_suffix(1);
  }
  const std::size_t slash = image.rfind('/');
  const std::size_t at = image.rfind('@');
  if (at != std::string_view::npos && (slash == std::string_view::npos || at > slash)) {
    operand.whereText = image.substr(at + 1);
    image = image.substr(0, at);
    operand.where = ParseWhere(operand.whereText, text);
  }
  operand.image = image;
  if (operand.image.empty() && (!operand.hasPath || operand.where.kind != Where::Whole)) {
    throw Failure(Exit::Usage, std::string(text), "no image is named");
  }
  return operand;
}

}  // namespace fatimg
