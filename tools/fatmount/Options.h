/// @file Options.h
/// The command line of fatmount.

#ifndef FATMOUNT_OPTIONS_H
#define FATMOUNT_OPTIONS_H

#define FUSE_USE_VERSION 35
#include <fuse3/fuse_lowlevel.h>
#include <sys/types.h>

#include <string>

#include "Operand.h"

namespace fatmount {

struct Options {
  fatimg::Operand image;
  std::string folder;
  uid_t uid = 0;       ///< owner of all files; that of the process unless given
  gid_t gid = 0;       ///< their group
  mode_t umask = 022;  ///< permission bits that no file has; those of the process unless given
  bool readOnly = false;
  bool sync = false;        ///< every change is on the image before it is answered
  bool foreground = false;  ///< also with debug
  bool debug = false;
  bool help = false;
  bool version = false;
  bool jsonStats = false;
  std::string jsonStatsFile;  ///< empty: standard output
};

/// The arguments that libfuse gets: what fatmount does not know itself.
class FuseArguments {
 public:
  FuseArguments(int argc, char** argv) : m_Arguments(FUSE_ARGS_INIT(argc, argv)) {}
  ~FuseArguments() { fuse_opt_free_args(&m_Arguments); }
  FuseArguments(const FuseArguments&) = delete;
  FuseArguments& operator=(const FuseArguments&) = delete;

  fuse_args* Get() { return &m_Arguments; }
  /// Adds an option of -o. @throws std::bad_alloc
  void AddOption(const std::string& option);

 private:
  fuse_args m_Arguments;
};

/// @param arguments  in: the command line; out: what is left for libfuse
/// @throws fatimg::Failure (Usage)
Options ParseOptions(FuseArguments* arguments);

/// What -h prints, up to the options of libfuse.
const char* HelpText();

}  // namespace fatmount

#endif  // FATMOUNT_OPTIONS_H
