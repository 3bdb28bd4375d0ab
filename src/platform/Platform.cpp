/// @file Platform.cpp
/// Forwards to the C library.

#include "platform/Platform.h"

#include <sys/mman.h>

#include <climits>
#include <clocale>
#include <cstdlib>

OS_SERVICES g_OsServices = {std::malloc, std::calloc, std::realloc, std::free, std::time};

void* osMemAlloc(unsigned int size) { return g_OsServices.pfnMalloc(size); }

void* osMemAllocArray(std::size_t count, std::size_t size) {
  if (count != 0 && size > UINT_MAX / count) return nullptr;
  return osMemAlloc(static_cast<unsigned int>(count * size));
}

void* osMemAllocZeroed(std::size_t size) { return g_OsServices.pfnCalloc(size, 1); }

unsigned char* osMemAllocBlocks(std::size_t size, void*& memory) {
  constexpr std::size_t HUGE_PAGE = std::size_t{2} << 20;
  memory = size > SIZE_MAX - HUGE_PAGE ? nullptr : osMemAllocZeroed(size + HUGE_PAGE);
  if (memory == nullptr) return nullptr;
  const std::size_t misaligned = reinterpret_cast<std::uintptr_t>(memory) % HUGE_PAGE;
  unsigned char* aligned = static_cast<unsigned char*>(memory) + (HUGE_PAGE - misaligned);
  (void)madvise(aligned, size, MADV_HUGEPAGE);  // a wish: without huge pages everything works the same
  return aligned;
}

void* osMemRealloc(void* memory, std::size_t size) { return g_OsServices.pfnRealloc(memory, size); }

void osMemFree(void* memory) { g_OsServices.pfnFree(memory); }

char* osSetDefaultLocale() { return std::setlocale(LC_ALL, ""); }

int osWcToMb(char* dst, unsigned short unit) { return std::wctomb(dst, unit); }

int osMbsToWcs(unsigned short* dst, const char* src, unsigned int max) {
  constexpr unsigned int BUFFER_CHARS = 262;
  static wchar_t s_Buffer[BUFFER_CHARS];
  if (max > BUFFER_CHARS) max = BUFFER_CHARS;
  const std::size_t converted = std::mbstowcs(s_Buffer, src, max);
  if (converted == static_cast<std::size_t>(-1)) return -1;
  // NOLINTNEXTLINE(bugprone-signed-char-misuse,cert-str34-c): s_Buffer has no char
  for (std::size_t i = 0; i < converted; ++i) dst[i] = static_cast<unsigned short>(s_Buffer[i]);
  return static_cast<int>(converted);
}

std::tm* osLocalTime(const void* seconds) { return std::localtime(static_cast<const std::time_t*>(seconds)); }

std::time_t osTime(void* seconds) { return g_OsServices.pfnTime(static_cast<std::time_t*>(seconds)); }
