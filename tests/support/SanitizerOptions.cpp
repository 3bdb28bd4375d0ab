/// @file SanitizerOptions.cpp
/// The sanitizers' settings, compiled in so that a test run by hand behaves as one run by ctest. The functions are
/// called by the sanitizers' start-up code, and by nothing in a build without them.

#if defined(__GNUC__)
#define FATLIB_SANITIZER_HOOK extern "C" __attribute__((visibility("default"), used))
#endif

FATLIB_SANITIZER_HOOK const char* __asan_default_options();
FATLIB_SANITIZER_HOOK const char* __ubsan_default_options();

// A request too large for the heap is a null pointer, as it is without the sanitizer: the library must cope with it.
const char* __asan_default_options() {
  return "allocator_may_return_null=1:detect_stack_use_after_return=1:strict_string_checks=1:"
         "check_initialization_order=1:detect_leaks=1";
}

const char* __ubsan_default_options() { return "print_stacktrace=1"; }
