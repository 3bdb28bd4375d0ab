/// @file Glob.cpp

#include "Glob.h"

#include <fatlib/Text.h>

#include <algorithm>
#include <set>
#include <utility>

namespace fatimg {

namespace {

bool IsPair(std::u16string_view text, std::size_t at) {
  return at + 1 < text.size() && text[at] >= 0xD800 && text[at] < 0xDC00 && text[at + 1] >= 0xDC00 &&
         text[at + 1] < 0xE000;
}

// Units of the character at a place.
std::size_t CharacterUnits(std::u16string_view text, std::size_t at) { return IsPair(text, at) ? 2 : 1; }

char32_t CharacterAt(std::u16string_view text, std::size_t at) {
  if (!IsPair(text, at)) return text[at];
  return 0x10000u + ((static_cast<char32_t>(text[at]) - 0xD800u) << 10) + (text[at + 1] - 0xDC00u);
}

// One element of a pattern, matched against one character of the name.
struct ELEMENT {
  bool fits;
  std::size_t units;  // of the pattern
};

// `at` is behind the "[". @return false when there is no "]", so that this is no set
bool MatchSet(std::u16string_view pattern, std::size_t at, char32_t character, ELEMENT* element) {
  const std::size_t begin = at - 1;
  const bool negated = at < pattern.size() && (pattern[at] == '!' || pattern[at] == '^');
  if (negated) ++at;
  bool inSet = false;
  for (bool first = true; at < pattern.size(); first = false) {
    if (pattern[at] == ']' && !first) {
      *element = {inSet != negated, at + 1 - begin};
      return true;
    }
    const char32_t low = CharacterAt(pattern, at);
    at += CharacterUnits(pattern, at);
    char32_t high = low;
    if (at + 1 < pattern.size() && pattern[at] == '-' && pattern[at + 1] != ']') {
      high = CharacterAt(pattern, at + 1);
      at += 1 + CharacterUnits(pattern, at + 1);
    }
    inSet = inSet || (character >= low && character <= high);
  }
  return false;
}

ELEMENT MatchElement(std::u16string_view pattern, std::size_t at, char32_t character) {
  if (pattern[at] == '?') return {true, 1};
  ELEMENT element{};
  if (pattern[at] == '[' && MatchSet(pattern, at + 1, character, &element)) return element;
  return {CharacterAt(pattern, at) == character, CharacterUnits(pattern, at)};
}

class Expander {
 public:
  Expander(fatlib::Volume& volume, const fatlib::Path& pattern)
      : m_Volume(volume), m_Components(pattern.Components()), m_Levels(m_Components.size()) {}

  std::vector<fatlib::Path> Run() {
    Expand(fatlib::Path(), 0);
    return std::move(m_Found);
  }

 private:
  // The directories in which one component was looked for.
  struct LEVEL {
    std::size_t count = 0;
    std::set<std::uint32_t> seen;  // first clusters, of those beyond MANY
  };
  static constexpr std::size_t MANY = 1000;

  void Expand(const fatlib::Path& directory, std::size_t next) {
    if (next == m_Components.size()) {
      m_Found.push_back(directory);
      return;
    }
    const std::u16string& component = m_Components[next];
    const fatlib::Path literal = directory / component;
    fatlib::Entry entry;
    if (!m_Volume.Stat(literal, &entry)) {
      Expand(literal, next + 1);
      return;
    }
    fatlib::Directory list;
    if (!IsPattern(fatlib::ToUtf8(component)) || IsRepeated(directory, &m_Levels[next])) return;
    if (m_Volume.List(directory, &list)) return;
    std::vector<std::u16string> names;
    for (const fatlib::Entry& child : list) {
      const bool passable = child.IsDirectory() || next + 1 == m_Components.size();
      if (passable && GlobMatches(component, child.name)) names.push_back(child.name);
    }
    std::sort(names.begin(), names.end());
    for (const std::u16string& name : names) Expand(directory / name, next + 1);
  }

  // On a damaged volume directories can lead to each other, and the paths of a long pattern be without number. Where
  // there are many, each directory is taken once; looking at their clusters is left out as long as there are few.
  bool IsRepeated(const fatlib::Path& directory, LEVEL* level) {
    if (++level->count <= MANY) return false;
    std::vector<fatlib::Extent> extents;
    (void)m_Volume.Clusters(directory, &extents);  // of a broken chain the begin is enough
    return extents.empty() || !level->seen.insert(extents[0].first).second;
  }

  fatlib::Volume& m_Volume;
  const std::vector<std::u16string> m_Components;
  std::vector<LEVEL> m_Levels;
  std::vector<fatlib::Path> m_Found;
};

}  // namespace

bool IsPattern(std::string_view text) { return text.find_first_of("*?[") != std::string_view::npos; }

bool GlobMatches(std::u16string_view givenPattern, std::u16string_view givenName) {
  const std::u16string pattern = fatlib::UpCase(givenPattern);
  const std::u16string name = fatlib::UpCase(givenName);
  // A star that was passed takes one character more whenever what follows does not fit; only the last one has to.
  constexpr std::size_t NONE = static_cast<std::size_t>(-1);
  std::size_t p = 0;
  std::size_t n = 0;
  std::size_t star = NONE;
  std::size_t starName = 0;
  while (n < name.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      starName = n;
      continue;
    }
    const ELEMENT element = p < pattern.size() ? MatchElement(pattern, p, CharacterAt(name, n)) : ELEMENT{false, 0};
    if (element.fits) {
      p += element.units;
      n += CharacterUnits(name, n);
    } else if (star != NONE) {
      starName += CharacterUnits(name, starName);
      p = star + 1;
      n = starName;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of(u'*', p) == std::u16string::npos;
}

std::vector<fatlib::Path> ExpandGlob(fatlib::Volume& volume, const fatlib::Path& pattern) {
  return Expander(volume, pattern).Run();
}

}  // namespace fatimg
