/// @file ErrorTest.cpp
/// Statuses as std::error_code.

#include <fatlib/Error.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <string>

namespace {

using fatlib::Status;

TEST(Error, StatusBecomesAnErrorCodeOfTheCategory) {
  const std::error_code error = Status::NotFound;
  EXPECT_STREQ("fatlib", error.category().name());
  EXPECT_EQ(static_cast<int>(0xC0000225u), error.value());
  EXPECT_TRUE(error == Status::NotFound);
  EXPECT_TRUE(error);
}

TEST(Error, SuccessIsNoError) { EXPECT_FALSE(std::error_code(Status::Success)); }

TEST(Error, StatusIsTheErrnoThatASystemCallWouldGive) {
  EXPECT_TRUE(std::error_code(Status::NotFound) == std::errc::no_such_file_or_directory);
  EXPECT_EQ(ENOSPC, std::error_code(Status::DiskFull).default_error_condition().value());
  EXPECT_EQ(EFBIG, std::error_code(Status::FileTooLarge).default_error_condition().value());
  EXPECT_EQ(ENOTEMPTY, std::error_code(Status::NotEmpty).default_error_condition().value());
  EXPECT_EQ(EROFS, std::error_code(Status::WriteProtected).default_error_condition().value());
  EXPECT_EQ(ENAMETOOLONG, std::error_code(Status::NameTooLong).default_error_condition().value());
}

TEST(Error, EachStatusHasAMessageOfItsOwn) {
  std::set<std::string> messages;
  const Status all[] = {Status::InvalidParameter, Status::NoMemory,   Status::DiskCorrupt,   Status::InvalidName,
                        Status::Locked,           Status::DiskFull,   Status::Refused,       Status::WriteProtected,
                        Status::IsADirectory,     Status::NotEmpty,   Status::NotADirectory, Status::NameTooLong,
                        Status::Cancelled,        Status::OpenFailed, Status::NotAVolume,    Status::NameExists,
                        Status::IoError,          Status::NotFound,   Status::FileTooLarge,  Status::UnsafeVolume,
                        Status::Unreachable};
  for (const Status status : all) {
    const std::string message = std::error_code(status).message();
    EXPECT_EQ(std::string::npos, message.find("status ")) << message;
    EXPECT_TRUE(messages.insert(message).second) << message;
  }
}

TEST(Error, UnknownValueIsShownAsItIs) {
  EXPECT_EQ("status 7", fatlib::StatusCategory().message(7));
  EXPECT_EQ(7, fatlib::StatusCategory().default_error_condition(7).value());
}

}  // namespace
