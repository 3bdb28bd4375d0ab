// Loaded into fatmount by LD_PRELOAD: ends it, as kill -9 does, in front of its nth write to the image, n being
// FATEXERCISE_CUT in the environment. A kill from outside hardly ever comes between two writes of one commit.

#include <dlfcn.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>

namespace {

std::atomic<long> g_nLeft = [] {
  const char* text = std::getenv("FATEXERCISE_CUT");
  return text ? std::strtol(text, nullptr, 10) : 0;
}();

}  // namespace

// By its name with 64-bit offsets, as the programs of this tree call it.
extern "C" ssize_t pwrite(int fd, const void* bytes, size_t count, off_t offset) {
  using Function = ssize_t (*)(int, const void*, size_t, off_t);
  static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "pwrite64"));
  if (g_nLeft > 0 && --g_nLeft == 0) kill(getpid(), SIGKILL);
  return real(fd, bytes, count, offset);
}
