/// @file Process.cpp
/// fork and exec, a pipe for the output, and host files.

#include "support/Process.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace {

// In the child; async-signal-safe calls are not enough here, but the tests have one thread.
[[noreturn]] void RunChild(const std::vector<std::string>& arguments, int output) {
  const int input = ::open("/dev/null", O_RDONLY);
  ::dup2(input, STDIN_FILENO);
  ::dup2(output, STDOUT_FILENO);
  ::dup2(output, STDERR_FILENO);
  const char* path = std::getenv("PATH");
  ::setenv("PATH",
           ((path == nullptr ? std::string() : std::string(path) + ":") + "/usr/bin:/bin:/usr/sbin:/sbin").c_str(), 1);
  ::setenv("LC_ALL", "C.UTF-8", 1);
  ::setenv("MTOOLSRC", "/dev/null", 1);
  ::setenv("MTOOLS_SKIP_CHECK", "1", 1);
  std::vector<std::string> copies = arguments;
  std::vector<char*> pointers;
  for (std::string& argument : copies) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  ::execvp(pointers[0], pointers.data());
  ::_exit(127);
}

}  // namespace

PROCESS_RESULT RunProcess(const std::vector<std::string>& arguments) {
  PROCESS_RESULT result;
  int ends[2];
  if (arguments.empty() || ::pipe2(ends, O_CLOEXEC) != 0) return result;
  const pid_t child = ::fork();
  if (child == 0) RunChild(arguments, ends[1]);
  ::close(ends[1]);
  if (child > 0) {
    char buffer[4096];
    for (;;) {
      const ssize_t got = ::read(ends[0], buffer, sizeof buffer);
      if (got > 0) {
        result.Output.append(buffer, static_cast<std::size_t>(got));
      } else if (got == 0 || errno != EINTR) {
        break;
      }
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    result.ExitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  ::close(ends[0]);
  return result;
}

std::string RunOrThrow(const std::vector<std::string>& arguments) {
  const PROCESS_RESULT result = RunProcess(arguments);
  if (result.Ok()) return result.Output;
  std::string text;
  for (const std::string& argument : arguments) text += argument + " ";
  throw std::runtime_error(text + "ended with " + std::to_string(result.ExitCode) + ": " + result.Output);
}

CTempDir::CTempDir() {
  const char* base = std::getenv("TMPDIR");
  m_Path = std::string(base == nullptr || *base == '\0' ? "/tmp" : base) + "/fatlib-test-XXXXXX";
  if (::mkdtemp(m_Path.data()) == nullptr) throw std::runtime_error("cannot make a directory like " + m_Path);
}

CTempDir::~CTempDir() {
  std::error_code ignored;  // a destructor has nowhere to report to
  std::filesystem::remove_all(m_Path, ignored);
}

void WriteHostFile(const std::string& path, const std::vector<unsigned char>& content) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  for (const unsigned char byte : content) file.put(static_cast<char>(byte));
  if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

std::vector<unsigned char> ReadHostFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}
