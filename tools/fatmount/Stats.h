/// @file Stats.h
/// What was done, for --json-stats.

#ifndef FATMOUNT_STATS_H
#define FATMOUNT_STATS_H

#include <array>
#include <cstdint>
#include <string>

namespace fatmount {

enum class Request {
  Lookup,
  Forget,
  Getattr,
  Setattr,
  Mknod,
  Mkdir,
  Unlink,
  Rmdir,
  Symlink,
  Link,
  Rename,
  Open,
  Create,
  Read,
  Write,
  Flush,
  Release,
  Fsync,
  Opendir,
  Readdir,
  Readdirplus,
  Releasedir,
  Fsyncdir,
  Syncfs,
  Statfs,
  Fallocate,
};
constexpr std::size_t REQUESTS = static_cast<std::size_t>(Request::Fallocate) + 1;

struct Stats {
  std::array<std::uint64_t, REQUESTS> requests{};
  std::uint64_t refused = 0;  ///< requests that were answered with an error
  std::uint64_t bytesRead = 0;
  std::uint64_t bytesWritten = 0;
  std::uint64_t commits = 0;
  double secondsInCommits = 0;
  std::uint64_t failedCommits = 0;
  std::uint64_t heldBytesPeak = 0;  ///< that waited in memory for a commit
  std::uint64_t filesKeptOpenAfterRemoval = 0;

  void Count(Request request) { ++requests[static_cast<std::size_t>(request)]; }
  /// One object in JSON; requests that never came are left out.
  std::string ToJson() const;
};

}  // namespace fatmount

#endif  // FATMOUNT_STATS_H
