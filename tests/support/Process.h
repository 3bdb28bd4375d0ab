/// @file Process.h
/// Runs the tools that make and check real images (mkfs.fat, mtools, fsck.fat), and gives them a place to work.

#ifndef FATLIB_TESTS_PROCESS_H
#define FATLIB_TESTS_PROCESS_H

#include <string>
#include <vector>

struct PROCESS_RESULT {
  int ExitCode = -1;   ///< 127 when the program cannot be started, 128 + n when signal n ended it
  std::string Output;  ///< standard output and standard error as they came
  bool Ok() const { return ExitCode == 0; }
};

/// Runs a program, found by PATH, /sbin and /usr/sbin, without a shell, in the C.UTF-8 locale, with its input from
/// /dev/null. mtools gets no configuration file.
PROCESS_RESULT RunProcess(const std::vector<std::string>& arguments);
/// The same; throws std::runtime_error with the command and its output when it fails.
std::string RunOrThrow(const std::vector<std::string>& arguments);

/// A new empty directory, removed with all it holds.
class CTempDir {
 public:
  CTempDir();
  ~CTempDir();
  CTempDir(const CTempDir&) = delete;
  CTempDir& operator=(const CTempDir&) = delete;

  const std::string& Path() const { return m_Path; }
  /// The path of something in it.
  std::string operator/(const std::string& name) const { return m_Path + "/" + name; }

 private:
  std::string m_Path;
};

/// Makes a file, and the directories on its way.
void WriteHostFile(const std::string& path, const std::vector<unsigned char>& content);
std::vector<unsigned char> ReadHostFile(const std::string& path);

#endif  // FATLIB_TESTS_PROCESS_H
