/// @file Error.cpp

#include "Error.h"

#include <string>

namespace fatlib {

namespace {

struct STATUS_MEANING {
  Status status;
  std::errc condition;
  const char* message;
};

constexpr STATUS_MEANING MEANINGS[] = {
    {Status::InvalidParameter, std::errc::invalid_argument, "the argument is not possible for this volume"},
    {Status::NoMemory, std::errc::not_enough_memory, "there is not enough memory"},
    {Status::DiskCorrupt, std::errc::illegal_byte_sequence, "the volume is damaged there"},
    {Status::InvalidName, std::errc::invalid_argument, "the name cannot be on a FAT volume"},
    {Status::Locked, std::errc::device_or_resource_busy, "another program is working on the image"},
    {Status::DiskFull, std::errc::no_space_on_device, "the volume or the directory is full"},
    {Status::Refused, std::errc::operation_not_permitted, "that is not possible with this file or directory"},
    {Status::WriteProtected, std::errc::read_only_file_system, "the volume is open for reading only"},
    {Status::IsADirectory, std::errc::is_a_directory, "it is a directory"},
    {Status::NotEmpty, std::errc::directory_not_empty, "the directory is not empty"},
    {Status::NotADirectory, std::errc::not_a_directory, "it is not a directory"},
    {Status::NameTooLong, std::errc::filename_too_long, "the name or the path is too long"},
    {Status::Cancelled, std::errc::operation_canceled, "it was stopped"},
    {Status::OpenFailed, std::errc::no_such_device_or_address, "the image or device could not be opened"},
    {Status::NotAVolume, std::errc::no_such_device, "there is no FAT volume there"},
    {Status::NameExists, std::errc::file_exists, "the name exists already"},
    {Status::IoError, std::errc::io_error, "the image or device could not be read or written"},
    {Status::NotFound, std::errc::no_such_file_or_directory, "there is no such file or directory"},
    {Status::FileTooLarge, std::errc::file_too_large, "a file on a FAT volume cannot be that large"},
    {Status::UnsafeVolume, std::errc::operation_not_permitted, "writing would harm this volume"},
    {Status::Unreachable, std::errc::operation_not_supported, "the library cannot reach a file of that name"},
};

const STATUS_MEANING* Meaning(int value) {
  for (const STATUS_MEANING& meaning : MEANINGS) {
    if (static_cast<int>(meaning.status) == value) return &meaning;
  }
  return nullptr;
}

class StatusCategoryType : public std::error_category {
 public:
  const char* name() const noexcept override { return "fatlib"; }

  std::string message(int value) const override {
    if (value == 0) return "success";
    const STATUS_MEANING* meaning = Meaning(value);
    return meaning != nullptr ? meaning->message : "status " + std::to_string(value);
  }

  std::error_condition default_error_condition(int value) const noexcept override {
    const STATUS_MEANING* meaning = Meaning(value);
    return meaning != nullptr ? std::make_error_condition(meaning->condition) : std::error_condition(value, *this);
  }
};

}  // namespace

const std::error_category& StatusCategory() noexcept {
  static const StatusCategoryType category;
  return category;
}

}  // namespace fatlib
