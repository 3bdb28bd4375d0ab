/// @file Exclude.h
/// What a copy of a tree leaves out.

#ifndef FATIMG_EXCLUDE_H
#define FATIMG_EXCLUDE_H

#include <string>
#include <string_view>
#include <vector>

namespace fatimg {

/// Patterns as in Glob.h. One without "/" fits a name at any depth ("*.o"), one with "/" a path from the top of the
/// copy ("build/*.o", "/notes"); an ending "/" says nothing. Letter case does not matter.
class Exclude {
 public:
  /// @throws Failure (Usage) for a pattern that is not UTF-8 or empty
  explicit Exclude(const std::vector<std::string>& patterns);

  /// @param relative  a path from the top of the copy, "sub/name", UTF-8; other bytes fit nothing
  bool operator()(std::string_view relative) const;

 private:
  struct Pattern {
    bool anchored = false;
    std::vector<std::u16string> components;
  };
  std::vector<Pattern> m_Patterns;
};

}  // namespace fatimg

#endif  // FATIMG_EXCLUDE_H
