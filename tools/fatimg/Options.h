/// @file Options.h
/// The options that every verb understands.

#ifndef FATIMG_OPTIONS_H
#define FATIMG_OPTIONS_H

#include <string>

namespace fatimg {

struct CommonOptions {
  bool json = false;          ///< one object on standard output instead of text
  bool force = false;         ///< do also what would be refused
  bool noGlob = false;        ///< * ? [ in paths stand for themselves
  bool dryRun = false;        ///< do everything, on an image whose changes are forgotten
  bool reproducible = false;  ///< the same input gives the same bytes: fixed times in UTC, sorted order
  bool verbose = false;
  bool quiet = false;
  std::string progress = "auto";  ///< auto, bar, plain, json or none
};

}  // namespace fatimg

#endif  // FATIMG_OPTIONS_H
