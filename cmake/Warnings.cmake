# fatlib_strict: the warnings that every source of this tree is compiled with, all of them errors. A target takes them by
# linking to it; the test framework, which is not ours, does not.

add_library(fatlib_strict INTERFACE)
target_compile_options(fatlib_strict INTERFACE
  -Wall -Wextra -Wpedantic -Werror
  -Wcast-align -Wcast-qual -Wconversion -Wdouble-promotion -Wformat=2 -Wnull-dereference -Wold-style-cast -Wshadow
  -Wsign-conversion -Wundef
  $<$<CXX_COMPILER_ID:GNU>:-Wduplicated-cond>
  $<$<CXX_COMPILER_ID:GNU>:-Wlogical-op>
)
# A cast from or to a type that follows the width of a pointer (size_t, uintptr_t) is needed in the 64-bit build and
# useless in the 32-bit one, where those are unsigned int: useless casts are looked for in the 64-bit build only.
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
  target_compile_options(fatlib_strict INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wuseless-cast>)
endif()
