/// @file Exclude.cpp

#include "Exclude.h"

#include <fatlib/Text.h>

#include <algorithm>

#include "Exit.h"
#include "Glob.h"

namespace fatimg {

namespace {

/// @return false when the text is not UTF-8
bool Split(std::string_view text, std::vector<std::u16string>* components) {
  std::u16string units;
  if (!fatlib::FromUtf8(text, &units)) return false;
  for (std::size_t at = 0; at < units.size();) {
    const std::size_t end = std::min(units.find(u'/', at), units.size());
    if (end != at) components->push_back(units.substr(at, end - at));
    at = end + 1;
  }
  return true;
}

}  // namespace

Exclude::Exclude(const std::vector<std::string>& patterns) {
  for (const std::string& text : patterns) {
    Pattern pattern;
    if (!Split(text, &pattern.components)) throw Failure(Exit::Usage, text, "the pattern is not UTF-8");
    if (pattern.components.empty()) throw Failure(Exit::Usage, text, "the pattern is empty");
    pattern.anchored = pattern.components.size() > 1 || text.front() == '/';
    m_Patterns.push_back(std::move(pattern));
  }
}

bool Exclude::operator()(std::string_view relative) const {
  std::vector<std::u16string> names;
  if (m_Patterns.empty() || !Split(relative, &names) || names.empty()) return false;
  return std::any_of(m_Patterns.begin(), m_Patterns.end(), [&](const Pattern& pattern) {
    if (!pattern.anchored) return GlobMatches(pattern.components[0], names.back());
    return std::equal(pattern.components.begin(), pattern.components.end(), names.begin(), names.end(), GlobMatches);
  });
}

}  // namespace fatimg
