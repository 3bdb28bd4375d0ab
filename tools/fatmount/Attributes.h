/// @file Attributes.h
/// What a program sees of an entry: mode, times, sizes; and errors as system calls give them.

#ifndef FATMOUNT_ATTRIBUTES_H
#define FATMOUNT_ATTRIBUTES_H

#include <fatlib/Volume.h>
#include <sys/stat.h>

#include <cstdint>
#include <system_error>

namespace fatmount {

/// The same for all files of a mount.
struct Owner {
  uid_t uid = 0;
  gid_t gid = 0;
  mode_t umask = 0;
};

/// st_ino, st_size, st_blocks and st_nlink are left to FillSize.
struct stat AttributesOf(const fatlib::Entry& entry, const Owner& owner);
/// @param size  bytes of a file; a directory has those of a cluster
void FillSize(const fatlib::Geometry& layout, std::uint64_t size, struct stat* attributes);

/// The attributes of FAT that a mode gives a file: only the owner's permission to write can be kept.
std::uint8_t WithMode(std::uint8_t attributes, mode_t mode);

/// For a time of modification.
fatlib::Stamp StampOf(const std::timespec& time);
fatlib::Stamp StampOfNow();

/// @return an errno, 0 for success
int ErrnoOf(const std::error_code& error);

}  // namespace fatmount

#endif  // FATMOUNT_ATTRIBUTES_H
