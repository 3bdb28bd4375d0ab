/// @file Stats.cpp

#include "Stats.h"

#include <nlohmann/json.hpp>

namespace fatmount {

namespace {

constexpr const char* NAMES[REQUESTS] = {
    "lookup",  "forget",  "getattr",     "setattr",    "mknod",    "mkdir",  "unlink", "rmdir",     "symlink",
    "link",    "rename",  "open",        "create",     "read",     "write",  "flush",  "release",   "fsync",
    "opendir", "readdir", "readdirplus", "releasedir", "fsyncdir", "syncfs", "statfs", "fallocate",
};

}  // namespace

std::string Stats::ToJson() const {
  nlohmann::ordered_json kinds = nlohmann::ordered_json::object();
  for (std::size_t i = 0; i < REQUESTS; ++i) {
    if (requests[i] != 0) kinds[NAMES[i]] = requests[i];
  }
  const nlohmann::ordered_json object = {
      {"requests", kinds},
      {"refused", refused},
      {"bytesRead", bytesRead},
      {"bytesWritten", bytesWritten},
      {"commits", commits},
      {"failedCommits", failedCommits},
      {"secondsInCommits", secondsInCommits},
      {"heldBytesPeak", heldBytesPeak},
      {"filesKeptOpenAfterRemoval", filesKeptOpenAfterRemoval},
  };
  return object.dump();
}

}  // namespace fatmount
