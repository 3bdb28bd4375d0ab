/// @file Targets.h
/// What the operands of a verb that changes something mean.

#ifndef FATIMG_TARGETS_H
#define FATIMG_TARGETS_H

#include <fatlib/Volume.h>

#include <string>
#include <vector>

#include "../Command.h"

namespace fatimg {

/// From now on SIGINT and SIGTERM only leave a mark (see Interrupt), so that nothing is left half done.
void CatchSignals();

/// Opens a volume that is to be changed, with CatchSignals.
/// @throws Failure
fatlib::Volume& OpenForWriting(Context& context, const Operand& operand);

/// The paths that an operand means: its patterns expanded, unless that is not wanted.
/// @throws Failure (NotFound) when nothing fits a pattern; (Usage) when the path is not UTF-8
std::vector<fatlib::Path> PathsOf(const Context& context, fatlib::Volume& volume, const Operand& operand);

/// Something in an image that a verb works on.
struct Target {
  fatlib::Volume* volume = nullptr;
  fatlib::Path path;
  std::string text;       ///< for messages
  bool contents = false;  ///< "DIRECTORY/." was written: what is in it, not it
};

/// All targets that operands mean, in their order. An operand that means nothing is reported, and the others stay.
/// @throws Failure when an image cannot be opened
std::vector<Target> TargetsOf(Context& context, const std::vector<std::string>& operands, fatlib::Access access);

/// Whether the path of an operand ends in "/" or "/.", so that it can only be a directory.
bool MustBeDirectory(const std::string& path);

/// Where a verb with a source and a destination puts its sources.
struct Destination {
  fatlib::Volume* volume = nullptr;
  Operand operand;
  fatlib::Path path;
  bool into = false;  ///< it is a directory that exists: sources go into it under their names; else the only source
                      ///< becomes it, and its parent exists
};

/// @param text       an operand with a path
/// @param several    more than one source: the destination must be a directory that exists
/// @param recursive  a single source may be a directory, so that "IMAGE:/NEW/" can become it
/// @throws Failure
Destination DestinationOf(Context& context, const std::string& text, bool several, bool recursive);

}  // namespace fatimg

#endif  // FATIMG_TARGETS_H
