/// @file Platform.h
/// The thin layer between the library and the C library: memory, locale, character conversion and clock. The rest of
/// the library never calls the C library for these services itself, so that a test can stand in their way here.

#ifndef FATLIB_PLATFORM_H
#define FATLIB_PLATFORM_H

#include <cstring>
#include <ctime>

#include "platform/stdafx.h"

/// 1 in builds in which every access to memory is checked: what would go unseen is done in another way there.
#if defined(__SANITIZE_ADDRESS__)
#define FATLIB_CHECKED_MEMORY 1
#elif defined(__has_feature)
#define FATLIB_CHECKED_MEMORY __has_feature(address_sanitizer)
#else
#define FATLIB_CHECKED_MEMORY 0
#endif

/// @return memory of `size` bytes (malloc), or null. Freed with osMemFree.
[[nodiscard]] void* osMemAlloc(unsigned int size);
/// The same for `count` objects of `size` bytes: null also when the product does not fit the argument of osMemAlloc.
[[nodiscard]] void* osMemAllocArray(std::size_t count, std::size_t size);
/// `size` bytes that read as zero (calloc). Large blocks come from the kernel untouched: they cost nothing until used.
[[nodiscard]] void* osMemAllocZeroed(std::size_t size);
/// Changes the size of a block (realloc), in place where that is possible. On failure null, and the old block stays.
[[nodiscard]] void* osMemRealloc(void* memory, std::size_t size);
/// Large zeroed memory for data blocks, aligned to 2 MiB, for which the kernel is asked to use huge pages: with 4 KiB
/// pages the faults of filling the caches would cost as much as the transfers. Nothing is touched here.
/// @param memory  out: what osMemFree takes
/// @return the aligned memory, or null
[[nodiscard]] unsigned char* osMemAllocBlocks(std::size_t size, void*& memory);
/// Makes such memory larger or smaller, or takes some that is not zeroed when `memory` is null. What was touched of it
/// costs no page fault again; its contents are lost.
/// @return as above; null leaves `memory` as it was
[[nodiscard]] unsigned char* osMemResizeBlocks(std::size_t size, void*& memory);
/// Frees a block of any of the functions above; null is allowed.
void osMemFree(void* memory);

inline void* osMemSet(void* dst, unsigned int value, unsigned int count) {
  return std::memset(dst, static_cast<int>(value), count);
}
/// The ranges must not overlap.
inline void* osMemCpy(void* dst, const void* src, unsigned int count) { return std::memcpy(dst, src, count); }
/// The same for data blocks and other copies that may be large.
void osMemCpyLarge(void* dst, const void* src, unsigned int count);
inline void* osMemZero(void* dst, unsigned int count) { return osMemSet(dst, 0, count); }
/// @return true when the ranges hold the same bytes.
inline bool osMemEqual(const void* a, const void* b, unsigned int count) { return std::memcmp(a, b, count) == 0; }
/// Overlap is allowed.
inline void* osMemMove(void* dst, const void* src, unsigned int count) { return std::memmove(dst, src, count); }
/// Copies code units. Not by osMemCpy: where a compiler knows that they are few it puts in an instruction that takes
/// longer to start than a name takes to copy.
inline void osCopyUnits(unsigned short* dst, const unsigned short* src, unsigned int units) {
  osMemMove(dst, src, units * static_cast<unsigned int>(sizeof(unsigned short)));
}

/// Takes the whole locale from the environment. @return its name, or null when the environment names an unknown one
/// (the locale then stays as it was).
char* osSetDefaultLocale();

/// Converts one code unit to the byte encoding of the locale.
/// @param dst  room for MB_LEN_MAX bytes
/// @return the number of bytes written, or -1 when the unit has no multibyte form
int osWcToMb(char* dst, unsigned short unit);

/// Converts a zero-terminated byte string from the encoding of the locale, narrowing each character to 16 bits. No
/// terminator is written.
/// @param max  most units to write, at most 262
/// @return the units written, or -1 (and dst untouched) when the bytes are invalid in this locale
int osMbsToWcs(unsigned short* dst, const char* src, unsigned int max);

/// @return broken-down local time of the seconds counter at that address, valid until the next call; null when its year
///         does not fit.
std::tm* osLocalTime(const void* seconds);
/// @return seconds since 1970-01-01 00:00:00 UTC, stored through `seconds` too unless it is null.
std::time_t osTime(void* seconds);

/// What the functions above call. A test replaces single members to count, fail or fix what the library is given, and
/// puts the old value back; nothing else writes here.
struct OS_SERVICES {
  void* (*pfnMalloc)(std::size_t);
  void* (*pfnCalloc)(std::size_t, std::size_t);
  void* (*pfnRealloc)(void*, std::size_t);
  void (*pfnFree)(void*);
  std::time_t (*pfnTime)(std::time_t*);
};
extern OS_SERVICES g_OsServices;

/// Objects of the library come from osMemAlloc too: a class derived from this one is made with `new (std::nothrow)`
/// semantics (a plain `new` gives null when memory runs out).
struct OS_ALLOCATED {
  static void* operator new(std::size_t size) noexcept { return osMemAlloc(static_cast<unsigned int>(size)); }
  static void operator delete(void* memory) { osMemFree(memory); }
};

#endif  // FATLIB_PLATFORM_H
