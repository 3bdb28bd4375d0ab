/// @file Platform.cpp
/// Forwards to the C library.

#include "platform/Platform.h"

#include <sys/mman.h>

#include <climits>
#include <clocale>
#include <cstdlib>

#if defined(__i386__) && defined(__GNUC__) && !FATLIB_CHECKED_MEMORY
#define FATLIB_STRING_COPIES 1
#include <cpuid.h>
#else
#define FATLIB_STRING_COPIES 0
#endif

OS_SERVICES g_OsServices = {std::malloc, std::calloc, std::realloc, std::free, std::time};

void* osMemAlloc(unsigned int size) { return g_OsServices.pfnMalloc(size); }

void* osMemAllocArray(std::size_t count, std::size_t size) {
  if (count != 0 && size > UINT_MAX / count) return nullptr;
  return osMemAlloc(static_cast<unsigned int>(count * size));
}

void* osMemAllocZeroed(std::size_t size) { return g_OsServices.pfnCalloc(size, 1); }

namespace {

constexpr std::size_t HUGE_PAGE = std::size_t{2} << 20;

// The first huge page of memory that has one more than it needs.
unsigned char* InHugePages(void* memory, std::size_t size) {
  const std::size_t misaligned = reinterpret_cast<std::uintptr_t>(memory) % HUGE_PAGE;
  unsigned char* aligned = static_cast<unsigned char*>(memory) + (HUGE_PAGE - misaligned);
  (void)madvise(aligned, size, MADV_HUGEPAGE);  // a wish: without huge pages everything works the same
  return aligned;
}

}  // namespace

unsigned char* osMemAllocBlocks(std::size_t size, void*& memory) {
  memory = size > SIZE_MAX - HUGE_PAGE ? nullptr : osMemAllocZeroed(size + HUGE_PAGE);
  return memory == nullptr ? nullptr : InHugePages(memory, size);
}

unsigned char* osMemResizeBlocks(std::size_t size, void*& memory) {
  void* const resized = size > SIZE_MAX - HUGE_PAGE ? nullptr : osMemRealloc(memory, size + HUGE_PAGE);
  if (resized == nullptr) return nullptr;
  memory = resized;
  return InHugePages(memory, size);
}

#if FATLIB_STRING_COPIES
// The 32-bit C library copies with vector loads and stores, for which the processor first reads what it is about to
// overwrite. Its own string instruction does not: where it is fast (processors since 2012 say so), a copy into memory
// outside the caches takes half the time.
namespace {

bool HasFastStrings() {
  constexpr unsigned int ERMS = 1u << 9;
  unsigned int eax;
  unsigned int ebx;
  unsigned int ecx;
  unsigned int edx;
  return __get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) != 0 && (ebx & ERMS) != 0;
}

const bool s_bFastStrings = HasFastStrings();

}  // namespace

void osMemCpyLarge(void* dst, const void* src, unsigned int count) {
  constexpr unsigned int LEAST = 2048;  // below, starting the instruction costs more than it saves
  if (count >= LEAST && s_bFastStrings) {
    asm volatile("rep movsb" : "+D"(dst), "+S"(src), "+c"(count) : : "memory");
  } else {
    osMemCpy(dst, src, count);
  }
}
#else
void osMemCpyLarge(void* dst, const void* src, unsigned int count) { osMemCpy(dst, src, count); }
#endif

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
