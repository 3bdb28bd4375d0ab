/// @file Attributes.cpp

#include "Attributes.h"

#include <algorithm>
#include <cerrno>

namespace fatmount {

namespace {

constexpr blksize_t TRANSFER = blksize_t{64} * 1024;  // what programs that ask read and write at once
constexpr std::uint64_t STAT_BLOCK = 512;

// Most times in a directory are among a few, and the way through the time zone is long.
std::timespec TimeOf(const fatlib::Stamp& stamp) {
  struct Known {
    std::timespec time{};
    fatlib::Stamp stamp;
    bool valid = false;
  };
  static Known known[64];
  Known& slot = known[(stamp.time ^ stamp.date * 7u) % 64];
  if (!slot.valid || !(slot.stamp == stamp)) {
    slot.stamp = stamp;
    slot.valid = true;
    std::time_t seconds = 0;
    long nanoseconds = 0;
    (void)fatlib::FromStamp(stamp, fatlib::Zone::Local, &seconds, &nanoseconds);  // what is no date is time 0
    slot.time = {seconds, nanoseconds};
  }
  return slot.time;
}

}  // namespace

struct stat AttributesOf(const fatlib::Entry& entry, const Owner& owner) {
  struct stat attributes {};
  mode_t mode = 0777;
  if (!entry.IsDirectory() && (entry.attributes & fatlib::READ_ONLY) != 0) mode &= ~mode_t{0222};
  attributes.st_mode = (entry.IsDirectory() ? S_IFDIR : S_IFREG) | (mode & ~owner.umask);
  attributes.st_uid = owner.uid;
  attributes.st_gid = owner.gid;
  attributes.st_mtim = TimeOf(entry.times.modified);
  attributes.st_ctim = attributes.st_mtim;
  attributes.st_atim = TimeOf(entry.times.accessed);
  attributes.st_blksize = TRANSFER;
  return attributes;
}

void FillSize(const fatlib::Geometry& layout, std::uint64_t size, struct stat* attributes) {
  if (S_ISDIR(attributes->st_mode)) size = layout.bytesPerCluster;
  attributes->st_size = static_cast<off_t>(size);
  attributes->st_blocks =
      static_cast<blkcnt_t>(layout.ClustersOf(size) * (std::uint64_t{layout.bytesPerCluster} / STAT_BLOCK));
}

std::uint8_t WithMode(std::uint8_t attributes, mode_t mode) {
  const unsigned int others = attributes & fatlib::SETTABLE_ATTRIBUTES & ~static_cast<unsigned int>(fatlib::READ_ONLY);
  return static_cast<std::uint8_t>((mode & S_IWUSR) != 0 ? others : others | fatlib::READ_ONLY);
}

fatlib::Stamp StampOf(const std::timespec& time) {
  fatlib::Stamp stamp = fatlib::ToStamp(time.tv_sec, time.tv_nsec, fatlib::Zone::Local);
  stamp.tenMilliseconds = 0;
  return stamp;
}

fatlib::Stamp StampOfNow() {
  std::timespec now{};
  (void)std::timespec_get(&now, TIME_UTC);
  return StampOf(now);
}

int ErrnoOf(const std::error_code& error) {
  if (!error) return 0;
  if (error == fatlib::Status::DiskCorrupt) return EIO;  // what programs know for a damaged volume
  const std::error_condition condition = error.default_error_condition();
  const bool known = condition.category() == std::generic_category() && condition.value() > 0;
  return known ? condition.value() : EIO;
}

}  // namespace fatmount
