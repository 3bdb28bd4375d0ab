/// @file ShortNames.cpp

#include "ShortNames.h"

#include <algorithm>

#include "LongName.h"
#include "Path.h"
#include "Text.h"

namespace fatlib {

namespace {

constexpr std::size_t BASE = 8;
constexpr std::size_t EXTENSION = 3;
constexpr std::uint32_t MAX_NUMBER = 99999;
constexpr std::uint32_t MAX_TRIES = 2 * MAX_NUMBER;
constexpr std::u16string_view NOT_IN_SHORT_NAMES = u" \"*+,./:;<=>?[\\]|\x7F";

/// The byte of a unit in upper case, or 0 when that is not ASCII.
unsigned char UpperAscii(char16_t unit) {
  const char16_t upper = UpCase(std::u16string_view(&unit, 1)).front();
  return static_cast<unsigned char>(upper < 0x80 ? upper : 0);
}

/// A part of a name that is a short name as it stands.
bool ConvertStrictly(std::u16string_view part, unsigned char* out, std::size_t room) {
  if (part.size() > room) return false;
  for (const char16_t unit : part) {
    if (unit <= 0x20 || NOT_IN_SHORT_NAMES.find(unit) != std::u16string_view::npos) return false;
    *out = UpperAscii(unit);
    if (*out++ == 0) return false;
  }
  return true;
}

/// What fits of a part. @return its bytes
std::size_t ConvertWhatFits(std::u16string_view part, unsigned char* out, std::size_t room) {
  std::size_t count = 0;
  for (const char16_t unit : part) {
    if (count == room) break;
    if (unit <= 0x20 || unit == u'.') continue;
    const bool kept = NOT_IN_SHORT_NAMES.find(unit) == std::u16string_view::npos;
    const unsigned char byte = kept ? UpperAscii(unit) : static_cast<unsigned char>(0);
    out[count++] = byte != 0 ? byte : static_cast<unsigned char>('_');
  }
  return count;
}

}  // namespace

std::size_t ShortNameHash::operator()(const ShortName& name) const {
  std::uint32_t hash = 0x811C9DC5;
  for (const unsigned char byte : name) hash = (hash ^ byte) * 0x01000193;
  return hash;
}

NameForm FormOf(std::u16string_view name, ShortName* shortName) {
  const std::size_t dot = name.find(u'.');
  if (dot != std::u16string_view::npos && name.find(u'.', dot + 1) != std::u16string_view::npos) {
    return NameForm::Invented;
  }
  const std::u16string_view base = name.substr(0, dot);
  const std::u16string_view extension = dot == std::u16string_view::npos ? std::u16string_view() : name.substr(dot + 1);
  ShortName converted;
  converted.fill(' ');
  if (base.empty() || !ConvertStrictly(base, converted.data(), BASE) ||
      !ConvertStrictly(extension, converted.data() + BASE, EXTENSION)) {
    return NameForm::Invented;
  }
  *shortName = converted;
  if (std::any_of(name.begin(), name.end(), [](char16_t unit) { return unit >= 0x80; })) return NameForm::LongOwn;
  const bool cased = std::any_of(name.begin(), name.end(), [](char16_t unit) { return unit >= u'a' && unit <= u'z'; });
  return cased ? NameForm::Cased : NameForm::Short;
}

std::uint32_t SlotsOfName(std::u16string_view name) {
  ShortName ignored;
  if (FormOf(name, &ignored) == NameForm::Short) return 1;
  return PiecesOf(name) + 1;
}

void ShortNameNumber::Advance() {
  if (number == MAX_NUMBER) {
    *this = {};
    return;
  }
  ++number;
  width = std::max(width, static_cast<std::uint32_t>(std::to_string(number).size()));
}

bool ShortNameNumber::Invent(std::u16string_view name, const std::function<bool(const ShortName&)>& isShort,
                             ShortName* shortName) {
  ShortName invented;
  invented.fill(' ');
  const std::size_t dot = name.rfind(u'.');
  std::u16string_view base = name;
  if (dot != std::u16string_view::npos && dot >= 1) {  // a leading dot separates no extension
    (void)ConvertWhatFits(name.substr(dot + 1), invented.data() + BASE, EXTENSION);
    base = name.substr(0, dot);
  }
  for (std::uint32_t i = 0; i < MAX_TRIES; ++i) {
    // The bytes of the try before stay where this one does not reach.
    std::size_t at = ConvertWhatFits(base, invented.data(), BASE - 1 - width);
    invented[at] = '~';
    std::uint32_t digits = number;
    for (std::size_t place = at + width; place > at; --place, digits /= 10) {
      invented[place] = static_cast<unsigned char>('0' + digits % 10);
    }
    Advance();
    if (isShort(invented)) continue;
    *shortName = invented;
    return true;
  }
  return false;
}

bool ShortNameNumber::GoOnFrom(std::u16string_view invented) {
  const std::size_t tilde = invented.rfind(u'~', BASE - 1);
  if (tilde == std::u16string_view::npos) return false;
  ShortNameNumber given{0, 0};
  for (std::size_t i = tilde + 1; i < invented.size() && invented[i] != u'.' && invented[i] != u' '; ++i) {
    if (invented[i] < u'0' || invented[i] > u'9') return false;
    given.number = given.number * 10 + (invented[i] - u'0');
    ++given.width;
  }
  if (given.width == 0 || given.width > 5 || given.number == 0) return false;
  given.Advance();
  *this = given;
  return true;
}

}  // namespace fatlib
