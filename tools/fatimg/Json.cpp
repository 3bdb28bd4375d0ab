/// @file Json.cpp

#include "Json.h"

#include <fatlib/Text.h>

#include <cstdio>

namespace fatimg {

namespace {

using nlohmann::ordered_json;

void PutEscaped(unsigned int unit, std::string* text) {
  char escape[8];
  std::snprintf(escape, sizeof escape, "\\u%04x", unit & 0xFFFFu);
  *text += escape;
}

bool IsHigh(char16_t unit) { return unit >= 0xD800 && unit < 0xDC00; }
bool IsLow(char16_t unit) { return unit >= 0xDC00 && unit < 0xE000; }

void PutString(const std::string& utf8, std::string* text) {
  std::u16string units;
  if (!fatlib::FromUtf8(utf8, &units)) {
    *text += ordered_json(utf8).dump(-1, ' ', false, ordered_json::error_handler_t::replace);
    return;
  }
  *text += '"';
  for (std::size_t i = 0; i < units.size(); ++i) {
    const char16_t unit = units[i];
    if (IsHigh(unit) && i + 1 < units.size() && IsLow(units[i + 1])) {
      *text += fatlib::ToUtf8(std::u16string_view(units).substr(i, 2));
      ++i;
    } else if (unit == '"' || unit == '\\') {
      *text += '\\';
      *text += static_cast<char>(unit);
    } else if (unit < 0x20 || unit == 0x7F || IsHigh(unit) || IsLow(unit)) {
      PutEscaped(unit, text);
    } else {
      *text += fatlib::ToUtf8(std::u16string_view(&units[i], 1));
    }
  }
  *text += '"';
}

void Put(const ordered_json& json, std::string* text) {
  if (json.is_string()) {
    PutString(json.get_ref<const std::string&>(), text);
    return;
  }
  if (!json.is_structured()) {
    *text += json.dump();
    return;
  }
  const bool object = json.is_object();
  *text += object ? '{' : '[';
  bool first = true;
  for (auto member = json.begin(); member != json.end(); ++member) {
    if (!first) *text += ',';
    first = false;
    if (object) {
      PutString(member.key(), text);
      *text += ':';
    }
    Put(*member, text);
  }
  *text += object ? '}' : ']';
}

}  // namespace

std::string JsonText(const ordered_json& json) {
  std::string text;
  Put(json, &text);
  return text;
}

ordered_json JsonTime(const fatlib::Stamp& stamp, bool dateOnly) {
  const std::string text = fatlib::ToIso8601(stamp, dateOnly);
  return text.empty() ? ordered_json(nullptr) : ordered_json(text);
}

}  // namespace fatimg
