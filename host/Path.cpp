/// @file Path.cpp

#include "Path.h"

#include <algorithm>

#include "Text.h"

namespace fatlib {

namespace {

constexpr char16_t REPLACEMENT = 0xFFFD;  // shown for a byte that is not UTF-8
constexpr std::u16string_view FORBIDDEN = u"\"*/:<>?\\|\x7F";

/// Adds the components of a text to those before it.
void AddComponents(std::u16string_view text, std::u16string_view separators, std::vector<std::u16string>* components) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find_first_of(separators), text.size());
    const std::u16string_view component = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (component == u"..") {
      if (!components->empty()) components->pop_back();
    } else if (!component.empty() && component != u".") {
      components->emplace_back(component);
    }
  }
}

/// The text with each byte that cannot be one replaced.
std::u16string Replaced(std::string_view utf8) {
  std::u16string units;
  while (!utf8.empty()) {
    std::u16string piece;
    std::size_t length = 1;
    while (length <= std::min<std::size_t>(4, utf8.size()) && !FromUtf8(utf8.substr(0, length), &piece)) ++length;
    if (piece.empty()) {
      piece = REPLACEMENT;
      length = 1;
    }
    units += piece;
    utf8.remove_prefix(length);
  }
  return units;
}

}  // namespace

Path::Path(std::string_view utf8) {
  std::u16string units;
  m_bInvalidUtf8 = !FromUtf8(utf8, &units);
  if (m_bInvalidUtf8) units = Replaced(utf8);
  AddComponents(units, u"/", &m_Components);
}

Path::Path(std::u16string_view units) { AddComponents(units, u"/\\", &m_Components); }

const std::u16string& Path::Name() const {
  static const std::u16string none;
  return m_Components.empty() ? none : m_Components.back();
}

Path Path::Parent() const {
  Path parent(*this);
  if (!parent.m_Components.empty()) parent.m_Components.pop_back();
  return parent;
}

Path Path::operator/(std::u16string_view name) const {
  Path below(*this);
  if (!name.empty()) below.m_Components.emplace_back(name);
  return below;
}

std::string Path::ToUtf8() const {
  if (IsRoot()) return "/";
  std::string text;
  for (const std::u16string& component : m_Components) text += "/" + fatlib::ToUtf8(component);
  return text;
}

bool Path::IsAtOrBelow(const Path& other) const {
  return m_Components.size() >= other.m_Components.size() &&
         std::equal(other.m_Components.begin(), other.m_Components.end(), m_Components.begin(), SameName);
}

bool Path::operator==(const Path& other) const {
  return m_Components.size() == other.m_Components.size() && IsAtOrBelow(other);
}

std::error_code Path::Check() const {
  if (m_bInvalidUtf8) return Status::InvalidName;
  std::size_t units = 0;
  for (const std::u16string& component : m_Components) {
    if (const std::error_code error = CheckName(component)) return error;
    units += component.size() + 1;
  }
  return units > MAX_PATH_UNITS + 1 ? Status::NameTooLong : Status::Success;
}

std::error_code CheckName(std::u16string_view name) {
  if (name.empty() || name.front() == u' ' || name.back() == u' ' || name.back() == u'.') return Status::InvalidName;
  if (name.find(u"..") != std::u16string_view::npos) return Status::InvalidName;
  for (const char16_t unit : name) {
    if (unit < 0x20 || FORBIDDEN.find(unit) != std::u16string_view::npos) return Status::InvalidName;
  }
  return name.size() > Path::MAX_NAME_UNITS ? Status::NameTooLong : Status::Success;
}

}  // namespace fatlib
