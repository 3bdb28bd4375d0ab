/// @file FatimgRun.h
/// Runs the built command, on images made by mkfs.fat and mtools.

#ifndef FATLIB_TESTS_FATIMGRUN_H
#define FATLIB_TESTS_FATIMGRUN_H

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/Process.h"

namespace fatimg_test {

struct RESULT {
  int exit = -1;
  std::string out;
  std::string err;
};

/// Runs fatimg. @param environment  "NAME=value" for it
RESULT Fatimg(const std::vector<std::string>& arguments, const std::vector<std::string>& environment = {});

/// The object that a verb reports with --json, which is added. Fails the test when it is none.
nlohmann::json FatimgJson(std::vector<std::string> arguments, int expectedExit = 0);

/// All lines of a text, without their ends.
std::vector<std::string> LinesOf(const std::string& text);

/// FAT16, 16 MiB, clusters of 2 KiB, label DATA, volume id 1234ABCD:
///     /README.TXT                           12 bytes, 2026-03-14 15:09:26
///     /A long name.text                     5,000 bytes
///     /HIDDEN.SYS                           hidden, empty
///     /Docs/Grüße.txt                       3 bytes
///     /Docs/Sub/DEEP.BIN                    100,000 bytes
/// All files' bytes but README.TXT's are of Bytes.
class Image : public testing::Test {
 protected:
  Image();
  static std::vector<unsigned char> Bytes(std::size_t count, unsigned int seed);
  /// IMAGE:/PATH
  std::string In(const std::string& path) const { return m_Path + ":" + path; }

  CTempDir m_Directory;
  std::string m_Path;  // of the image
};

}  // namespace fatimg_test

#endif  // FATLIB_TESTS_FATIMGRUN_H
