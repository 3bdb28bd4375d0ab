/// @file XUtils.cpp

#include "names/XUtils.h"

#include <cstdint>

#include "names/UpCase.h"

namespace {

// Bit (c AND 0x1F) of word (c SHR 5) - 1 is set when c is forbidden.
constexpr std::uint32_t s_InvalidFatLfnCharsMask[3] = {0xD4008404u, 0x10000000u, 0x90000000u};
constexpr std::uint32_t s_InvalidFatFnCharsMask[3] = {0xFC00DC05u, 0x38000000u, 0x90000000u};

bool IsInMask(const std::uint32_t (&mask)[3], unsigned short c) {
  return c >= 0x20 && c <= 0x7F && (mask[(c >> 5) - 1] >> (c & 0x1F) & 1) != 0;
}

bool IsSpaceOrDot(unsigned short c) { return c == ' ' || c == '.'; }

const unsigned short* SkipSpaces(const unsigned short* text) {
  while (*text == ' ') ++text;
  return text;
}

}  // namespace

bool IsInvalidFatLfnChar(unsigned short c) { return IsInMask(s_InvalidFatLfnCharsMask, c); }

bool IsInvalidFatFnChar(unsigned short c) { return IsInMask(s_InvalidFatFnCharsMask, c); }

bool IsPathFileNameValid(const unsigned short* source, unsigned short* buffer) {
  if (source == nullptr) return false;
  source = SkipSpaces(source);
  if (*source == '\\') source = SkipSpaces(source + 1);

  unsigned int count = 0;      // units in the buffer
  unsigned int component = 0;  // where the current component begins in it
  while (*source != 0) {
    const unsigned short c = *source;
    if (c == '\\') {
      while (count > component && IsSpaceOrDot(buffer[count - 1])) --count;
      if (count == component) return false;  // also when the separator follows another one
      if (count == MAX_PATH_UNITS) return false;
      buffer[count++] = '\\';
      component = count;
      source = SkipSpaces(source + 1);
      continue;
    }
    if (c < 0x20 || IsInvalidFatLfnChar(c)) return false;
    // Also inside a name: "a..b" is refused on purpose.
    if (c == '.' && source[1] == '.') return false;
    // A unit too many is refused even when it would have been dropped as a trailing space below.
    if (count == MAX_PATH_UNITS) return false;
    buffer[count++] = c;
    ++source;
  }

  while (count > 0 && (IsSpaceOrDot(buffer[count - 1]) || buffer[count - 1] == '\\')) --count;
  buffer[count] = 0;
  return count > 0;
}

bool gIsPathFileNameValid(const unsigned short** first, const unsigned short** second) {
  static unsigned short wzBuf1[MAX_PATH_UNITS + 1];
  static unsigned short wzBuf2[MAX_PATH_UNITS + 1];
  if (first == nullptr || !IsPathFileNameValid(*first, wzBuf1)) return false;
  if (second != nullptr) {
    if (!IsPathFileNameValid(*second, wzBuf2)) return false;
    *second = wzBuf2;
  }
  *first = wzBuf1;
  return true;
}

int gIsMovedPathValid(const unsigned short** source, const unsigned short** destination) {
  constexpr int INVALID = -1;
  constexpr int VALID = 0;
  constexpr int NOTHING_TO_DO = 1;

  const bool toRoot = destination == nullptr || *destination == nullptr;
  if (!gIsPathFileNameValid(source, toRoot ? nullptr : destination)) return INVALID;
  const unsigned short* src = *source;
  if (toRoot) return gGetFileName(src) == src ? NOTHING_TO_DO : VALID;

  const unsigned short* dst = *destination;
  while (*src != 0 && *dst != 0) {
    if (*src != *dst && gUnicodeUpcase(*src) != gUnicodeUpcase(*dst)) return VALID;
    ++src;
    ++dst;
  }
  // Onto itself, or a directory into its own subtree; "ab" into "abc" is neither.
  if (*src == 0) return *dst == 0 || *dst == '\\' ? INVALID : VALID;
  if (*src != '\\') return VALID;
  // The source lies below the destination. Only a move up to a farther ancestor changes something.
  return gGetFileName(src + 1) == src + 1 ? NOTHING_TO_DO : VALID;
}

const unsigned short* gGetFileName(const unsigned short* path) {
  const unsigned short* name = path;
  for (; *path != 0; ++path) {
    if (*path == '\\') name = path + 1;
  }
  return name;
}

const unsigned short* gGetASubPath(const unsigned short*& cursor, PATH_BUFFER& component) {
  unsigned int count = 0;
  for (; *cursor != 0 && *cursor != '\\'; ++cursor) {
    if (count < PATH_BUFFER::UNITS - 1) component.sz[count++] = *cursor;
  }
  component.sz[count] = 0;
  return component.sz;
}

void gGetParentPath(const unsigned short* path, PATH_BUFFER& buffer, const unsigned short*& parent,
                    const unsigned short*& name) {
  name = gGetFileName(path);
  if (name == path) {
    parent = nullptr;
    return;
  }
  unsigned int count = 0;
  for (const unsigned short* unit = path; unit < name - 1 && count < PATH_BUFFER::UNITS - 1; ++unit) {
    buffer.sz[count++] = *unit;
  }
  buffer.sz[count] = 0;
  parent = buffer.sz;
}
