/// @file Caller.cpp

#include "Caller.h"

#include <fatlib/Text.h>
#include <sys/syscall.h>
#include <sys/uio.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace fatmount {

namespace {

constexpr std::size_t PAGE = 4096;
constexpr std::size_t LONGEST_PATH = 4096;  // of a system call

/// A system call as /proc shows it.
struct Arguments {
  long number = -1;
  std::uint64_t value[4] = {};
};

bool ReadArguments(pid_t thread, Arguments* arguments) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%d/syscall", thread);
  std::FILE* const file = std::fopen(path, "re");
  if (file == nullptr) return false;
  char line[256] = {};
  const bool read = std::fgets(line, sizeof line, file) != nullptr;
  std::fclose(file);
  char* end = line;
  arguments->number = std::strtol(line, &end, 10);
  if (!read || end == line) return false;  // as of a thread that runs
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

std::string LastComponent(const std::string& path) {
  const std::size_t end = path.find_last_not_of('/');
  if (end == std::string::npos) return {};
  const std::size_t begin = path.find_last_of('/', end);
  return path.substr(begin + 1, end - begin);
}

}  // namespace

bool IsChangingCase(pid_t thread, std::string_view name) {
  Arguments arguments;
  if (thread <= 0 || !ReadArguments(thread, &arguments)) return false;
  const bool at = arguments.number == SYS_renameat || arguments.number == SYS_renameat2;
  if (!at && arguments.number != SYS_rename) return false;
  // With "at" a directory stands before each path.
  const std::string to = LastComponent(TextAt(thread, arguments.value[at ? 3 : 1]));
  if (to != name) return false;
  const std::string from = LastComponent(TextAt(thread, arguments.value[at ? 1 : 0]));
  std::u16string fromUnits;
  std::u16string toUnits;
  return from != to && fatlib::FromUtf8(from, &fromUnits) && fatlib::FromUtf8(to, &toUnits) &&
         fatlib::SameName(fromUnits, toUnits);
}

}  // namespace fatmount
