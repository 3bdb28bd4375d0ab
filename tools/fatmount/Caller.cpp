/// @file Caller.cpp

#include "Caller.h"

#include <fatlib/Text.h>
#include <sys/syscall.h>
#include <sys/uio.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
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
  unsigned long long value[4];
  const int count =
      std::fscanf(file, "%ld %llx %llx %llx %llx", &arguments->number, &value[0], &value[1], &value[2], &value[3]);
  std::fclose(file);
  std::copy(std::begin(value), std::end(value), std::begin(arguments->value));
  return count == 5;
}

/// A string of the thread's memory. @return empty when it cannot be read
std::string TextAt(pid_t thread, std::uint64_t address) {
  std::string text;
  char piece[PAGE];
  while (text.size() < LONGEST_PATH) {
    const std::size_t size = PAGE - address % PAGE;  // the page behind may not be there
    const iovec local{piece, size};
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
  std::u16string fromUnits, toUnits;
  return from != to && fatlib::FromUtf8(from, &fromUnits) && fatlib::FromUtf8(to, &toUnits) &&
         fatlib::SameName(fromUnits, toUnits);
}

}  // namespace fatmount
