/// @file CheckNames.cpp
/// Every name of a directory, long or short, leads to one entry.

#include <string>
#include <unordered_map>

#include "CheckParts.h"
#include "Text.h"

namespace fatlib {

std::vector<NameClash> FindNameClashes(const std::vector<RawEntry>& entries) {
  std::vector<NameClash> clashes;
  std::unordered_map<std::string, std::size_t> shortNames;  // as stored
  std::unordered_map<std::u16string, std::size_t> names;    // in upper case, of both forms
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const RawEntry& entry = entries[i];
    if (entry.IsLabel() || entry.IsDot()) continue;
    const auto stored =
        shortNames.emplace(std::string(entry.shortName.begin(), entry.shortName.end()), i).first->second;
    const auto named = names.emplace(UpCase(entry.name), i).first->second;
    const auto shortNamed = names.emplace(UpCase(entry.ShortNameText()), i).first->second;
    if (stored != i) {
      clashes.push_back({Defect::DuplicateShortName, i, stored});
    } else if (named != i || shortNamed != i) {
      clashes.push_back({Defect::DuplicateLongName, i, named != i ? named : shortNamed});
    }
  }
  return clashes;
}

}  // namespace fatlib
