/// @file DateText.cpp

#include "DateText.h"

namespace fatimg {

namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

/// Takes exactly `digits` digits.
bool TakeNumber(std::string_view* text, std::size_t digits, int* number) {
  if (text->size() < digits) return false;
  *number = 0;
  for (std::size_t i = 0; i < digits; ++i) {
    if (!IsDigit((*text)[i])) return false;
    *number = *number * 10 + ((*text)[i] - '0');
  }
  text->remove_prefix(digits);
  return true;
}

bool TakeOneOf(std::string_view* text, std::string_view characters) {
  if (text->empty() || characters.find(text->front()) == std::string_view::npos) return false;
  text->remove_prefix(1);
  return true;
}

bool TakeClock(std::string_view* text, std::tm* time) {
  if (!TakeNumber(text, 2, &time->tm_hour) || !TakeOneOf(text, ":") || !TakeNumber(text, 2, &time->tm_min))
    return false;
  if (TakeOneOf(text, ":") && !TakeNumber(text, 2, &time->tm_sec)) return false;
  return time->tm_hour < 24 && time->tm_min < 60 && time->tm_sec < 60;
}

bool ParseSeconds(std::string_view digits, std::time_t* seconds) {
  *seconds = 0;
  for (const char c : digits) {
    if (!IsDigit(c) || __builtin_mul_overflow(*seconds, 10, seconds) ||
        __builtin_add_overflow(*seconds, c - '0', seconds)) {
      return false;
    }
  }
  return !digits.empty();
}

/// @return false for a date that is none, as February 30th
bool ToSeconds(const std::tm& parts, bool utc, std::time_t* seconds) {
  std::tm normal = parts;
  normal.tm_isdst = -1;
  *seconds = utc ? timegm(&normal) : mktime(&normal);
  return normal.tm_mday == parts.tm_mday && normal.tm_mon == parts.tm_mon && normal.tm_year == parts.tm_year;
}

}  // namespace

bool ParseTime(std::string_view text, fatlib::Zone zone, std::timespec* time) {
  std::timespec result{};
  if (!text.empty() && text.front() == '@') {
    if (!ParseSeconds(text.substr(1), &result.tv_sec)) return false;
  } else {
    std::tm parts{};
    bool utc = zone == fatlib::Zone::Utc;
    if (!TakeNumber(&text, 4, &parts.tm_year) || !TakeOneOf(&text, "-") || !TakeNumber(&text, 2, &parts.tm_mon) ||
        !TakeOneOf(&text, "-") || !TakeNumber(&text, 2, &parts.tm_mday)) {
      return false;
    }
    if (TakeOneOf(&text, "T ") && !TakeClock(&text, &parts)) return false;
    if (TakeOneOf(&text, "Z")) utc = true;
    if (!text.empty()) return false;
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    if (!ToSeconds(parts, utc, &result.tv_sec)) return false;
  }
  std::time_t stored = 0;
  long nanoseconds = 0;
  // A stamp holds even seconds: what comes back is the same time, unless it was outside of the years that can be
  // stored.
  if (!fatlib::FromStamp(fatlib::ToStamp(result.tv_sec, 0, zone), zone, &stored, &nanoseconds)) return false;
  if (stored / 2 != result.tv_sec / 2) return false;
  *time = result;
  return true;
}

}  // namespace fatimg
