/// @file Exit.cpp

#include "Exit.h"

#include <fatlib/Error.h>

namespace fatimg {

namespace {

Exit ExitOfStatus(fatlib::Status status) {
  using fatlib::Status;
  switch (status) {
    case Status::Success:
      return Exit::Done;
    case Status::InvalidParameter:
      return Exit::Usage;
    case Status::NotFound:
    case Status::NotADirectory:
    case Status::OpenFailed:
      return Exit::NotFound;
    case Status::Locked:
    case Status::InvalidName:
    case Status::NameTooLong:
    case Status::Refused:
    case Status::WriteProtected:
    case Status::IsADirectory:
    case Status::NotEmpty:
    case Status::NameExists:
    case Status::Cancelled:
    case Status::UnsafeVolume:
    case Status::Unreachable:
      return Exit::Refused;
    case Status::DiskFull:
    case Status::FileTooLarge:
      return Exit::NoSpace;
    case Status::DiskCorrupt:
    case Status::NotAVolume:
      return Exit::Corrupt;
    case Status::NoMemory:
    case Status::IoError:
      return Exit::Io;
  }
  return Exit::Io;
}

}  // namespace

Exit ExitOf(const std::error_code& error) {
  if (error.category() == fatlib::StatusCategory()) return ExitOfStatus(static_cast<fatlib::Status>(error.value()));
  if (error == std::errc::no_such_file_or_directory || error == std::errc::not_a_directory) return Exit::NotFound;
  if (error == std::errc::file_exists || error == std::errc::is_a_directory ||
      error == std::errc::directory_not_empty || error == std::errc::filename_too_long ||
      error == std::errc::device_or_resource_busy || error == std::errc::permission_denied ||
      error == std::errc::operation_not_permitted || error == std::errc::read_only_file_system ||
      error == std::errc::text_file_busy) {
    return Exit::Refused;
  }
  if (error == std::errc::no_space_on_device || error == std::errc::file_too_large) return Exit::NoSpace;
  if (error == std::errc::invalid_argument) return Exit::Usage;
  return Exit::Io;
}

}  // namespace fatimg
