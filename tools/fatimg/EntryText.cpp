/// @file EntryText.cpp

#include "EntryText.h"

#include <fatlib/Text.h>

#include <algorithm>

#include "Json.h"

namespace fatimg {

std::string AttributeText(const fatlib::RawEntry& entry) {
  const auto letter = [&entry](unsigned int bit, char c) { return (entry.attributes & bit) != 0 ? c : '-'; };
  return {letter(fatlib::DIRECTORY, 'd'), letter(fatlib::READ_ONLY, 'r'), letter(fatlib::HIDDEN, 'h'),
          letter(fatlib::SYSTEM, 's'), letter(fatlib::ARCHIVE, 'a')};
}

std::string TimeText(const fatlib::Stamp& stamp) {
  constexpr std::size_t LENGTH = 19;  // without fractions of a second
  std::string text = fatlib::ToIso8601(stamp).substr(0, LENGTH);
  text.resize(LENGTH, ' ');
  if (text[10] == 'T') text[10] = ' ';
  return text;
}

Json EntryJson(const Node& node) {
  const fatlib::RawEntry& entry = node.raw;
  Json attributes = Json::array();
  if ((entry.attributes & fatlib::READ_ONLY) != 0) attributes.push_back("read-only");
  if ((entry.attributes & fatlib::HIDDEN) != 0) attributes.push_back("hidden");
  if ((entry.attributes & fatlib::SYSTEM) != 0) attributes.push_back("system");
  if ((entry.attributes & fatlib::ARCHIVE) != 0) attributes.push_back("archive");
  Json json;
  json["name"] = node.Utf8Name();
  json["path"] = node.path.ToUtf8();
  json["shortName"] = node.root ? std::string() : fatlib::ToUtf8(entry.ShortNameText());
  json["type"] = node.IsDirectory() ? "directory" : "file";
  json["size"] = entry.size;
  json["attributes"] = std::move(attributes);
  json["created"] = JsonTime(entry.times.created);
  json["modified"] = JsonTime(entry.times.modified);
  json["accessed"] = JsonTime(entry.times.accessed, true);
  return json;
}

std::size_t CharactersOf(const std::string& utf8) {
  const auto begins = [](char c) { return (static_cast<unsigned char>(c) & 0xC0u) != 0x80u; };
  return static_cast<std::size_t>(std::count_if(utf8.begin(), utf8.end(), begins));
}

std::string TableText(const std::vector<std::vector<std::string>>& rows, const std::vector<bool>& right) {
  std::vector<std::size_t> widths(right.size());
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], CharactersOf(row[i]));
  }
  std::string text;
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      const std::string padding(widths[i] - CharactersOf(row[i]), ' ');
      if (i > 0) text += "  ";
      if (right[i]) text += padding;
      text += row[i];
      if (!right[i] && i + 1 < row.size()) text += padding;
    }
    text += '\n';
  }
  return text;
}

}  // namespace fatimg
