/// @file Glob.h
/// Patterns for names inside an image: * any characters, ? one, [a-z] one of these, [!a-z] one that is none of these.
/// Letter case does not matter, as for all names of a volume. A pattern stands for the name that it is when there is
/// one of that name.

#ifndef FATIMG_GLOB_H
#define FATIMG_GLOB_H

#include <fatlib/Path.h>
#include <fatlib/Volume.h>

#include <string>
#include <string_view>
#include <vector>

namespace fatimg {

/// Whether a name has one of * ? [.
bool IsPattern(std::string_view text);

/// Whether a name fits a pattern. A "[" without its "]" stands for itself. Characters are code points.
bool GlobMatches(std::u16string_view pattern, std::u16string_view name);

/// The paths that fit a pattern of which any component may have * ? [. Sorted within each directory. Directories that
/// cannot be read have nothing that fits, and on a damaged volume repeated ones may be left out.
/// @return empty when nothing fits
std::vector<fatlib::Path> ExpandGlob(fatlib::Volume& volume, const fatlib::Path& pattern);

}  // namespace fatimg

#endif  // FATIMG_GLOB_H
