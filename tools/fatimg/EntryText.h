/// @file EntryText.h
/// Files and directories as the verbs show them.

#ifndef FATIMG_ENTRYTEXT_H
#define FATIMG_ENTRYTEXT_H

#include <string>
#include <vector>

#include "Report.h"
#include "TreeReader.h"

namespace fatimg {

/// "d", then r h s a, each "-" when it is not set.
std::string AttributeText(const fatlib::RawEntry& entry);

/// "2026-03-14 15:09:26", or as many blanks when it is no time.
std::string TimeText(const fatlib::Stamp& stamp);

/// name, path, shortName, type, size, attributes, created, modified, accessed.
Json EntryJson(const Node& node);

/// A table: columns are as wide as their widest cell, two blanks between; the last one is not padded.
/// @param right  for each column: aligned right
std::string TableText(const std::vector<std::vector<std::string>>& rows, const std::vector<bool>& right);

/// Characters, as a terminal counts them if all are of the usual width.
std::size_t CharactersOf(const std::string& utf8);

}  // namespace fatimg

#endif  // FATIMG_ENTRYTEXT_H
