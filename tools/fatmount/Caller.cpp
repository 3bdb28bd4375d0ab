/// @file Caller.cpp

#include "Caller.h"

#include <fatlib/Text.h>
#include <sys/syscall.h>
#include <sys/uio.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace fatmount {

namespace {

constexpr std::size_t PAGE = 4096;
constexpr std::size_t LONGEST_PATH = 4096;  // of a system call
constexpr std::chrono::milliseconds LONGEST_PAUSE{500};

/// A system call as /proc shows it.
struct Arguments {
  long number = -1;
  std::uint64_t value[4] = {};
};

bool ReadLine(const char* path, char* line, int size) {
  std::FILE* const file = std::fopen(path, "re");
  if (file == nullptr) return false;
  const bool read = std::fgets(line, size, file) != nullptr;
  std::fclose(file);
  return read;
}

// A thread sends its request and goes to sleep then. Until it does, its call is not shown; on a busy machine others may
// come first.
bool ReadArguments(pid_t thread, Arguments* arguments) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%d/syscall", thread);
  char line[256];
  for (std::chrono::microseconds pause{20};; pause *= 2) {
    if (!ReadLine(path, line, sizeof line)) return false;
    if (std::strncmp(line, "running", 7) != 0) break;
    if (pause > LONGEST_PAUSE) return false;
    std::this_thread::sleep_for(pause);
  }
  char* end = line;
  arguments->number = std::strtol(line, &end, 10);
  if (end == line) return false;
  for (std::uint64_t& value : arguments->value) value = std::strtoull(end, &end, 16);
  return true;
}

/// A string of the thread's memory. @return empty when it cannot be read
std::string TextAt(pid_t thread, std::uint64_t address) {
  std::string text;
  char piece[PAGE];
  while (text.size() < LONGEST_PATH) {
    const std::size_t size = PAGE - address % PAGE;  // the page behind may not be there
    const iovec local{piece, size};
    // NOLINTNEXTLINE(performance-no-int-to-ptr): it is an address of another process
    const iovec remote{reinterpret_cast<void*>(address), size};
    const ssize_t got = process_vm_readv(thread, &local, 1, &remote, 1, 0);
    if (got <= 0) return {};
    const std::size_t length = strnlen(piece, static_cast<std::size_t>(got));
    text.append(piece, length);
    if (length < static_cast<std::size_t>(got)) return text;
    address += static_cast<std::size_t>(got);
  }
  return {};
}

/// Takes the last component off a path.
std::string TakeComponent(std::string* path) {
  const std::size_t end = path->find_last_not_of('/');
  if (end == std::string::npos) {
    path->clear();
    return {};
  }
  const std::size_t begin = path->find_last_of('/', end) + 1;
  std::string component = path->substr(begin, end + 1 - begin);
  path->resize(begin);
  return component;
}

bool AreOneName(const std::string& one, const std::string& other) {
  std::u16string oneUnits;
  std::u16string otherUnits;
  return fatlib::FromUtf8(one, &oneUnits) && fatlib::FromUtf8(other, &otherUnits) &&
         fatlib::SameName(oneUnits, otherUnits);
}

}  // namespace

bool IsChangingCase(pid_t thread, std::string_view name, std::size_t passed) {
  Arguments arguments;
  if (thread <= 0 || !ReadArguments(thread, &arguments)) return false;
  const bool at = arguments.number == SYS_renameat || arguments.number == SYS_renameat2;
  if (!at && arguments.number != SYS_rename) return false;
  // With "at" a directory stands before each path.
  std::string way = TextAt(thread, arguments.value[at ? 3 : 1]);
  const std::string to = TakeComponent(&way);
  if (to != name) return false;
  std::string old = TextAt(thread, arguments.value[at ? 1 : 0]);
  const std::string from = TakeComponent(&old);
  if (from == to || !AreOneName(from, to)) return false;
  std::size_t ahead = 0;
  while (!way.empty() && ahead <= passed) {
    if (AreOneName(TakeComponent(&way), to)) ++ahead;
  }
  return ahead <= passed;
}

}  // namespace fatmount
