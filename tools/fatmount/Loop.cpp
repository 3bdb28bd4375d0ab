/// @file Loop.cpp

#include "Loop.h"

#define FUSE_USE_VERSION 35
#include <fcntl.h>
#include <fuse3/fuse_lowlevel.h>
#include <poll.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

namespace fatmount {

namespace {

volatile std::sig_atomic_t g_nSignal = 0;

extern "C" void NoteSignal(int signal) { g_nSignal = signal; }

constexpr int ENDING[] = {SIGINT, SIGTERM, SIGHUP};

sigset_t EndingSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : ENDING) sigaddset(&set, signal);
  return set;
}

struct Buffer {
  fuse_buf bytes{};
  Buffer() = default;
  ~Buffer() { std::free(bytes.mem); }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
};

/// Waits for a request, a signal or the time to write back. @return an errno, 0 when there may be a request
int Wait(int descriptor, const WriteBack& writeBack) {
  sigset_t open;
  sigemptyset(&open);
  const int milliseconds = writeBack.Timeout();
  const timespec timeout{milliseconds / 1000, milliseconds % 1000 * 1000000L};
  pollfd waited{descriptor, POLLIN, 0};
  const int ready = ppoll(&waited, 1, milliseconds < 0 ? nullptr : &timeout, &open);
  if (ready < 0) return errno;
  return ready == 0 ? EAGAIN : 0;
}

}  // namespace

void PrepareSignals() {
  struct sigaction action {};
  action.sa_handler = NoteSignal;
  sigemptyset(&action.sa_mask);
  for (const int signal : ENDING) sigaction(signal, &action, nullptr);
  action.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &action, nullptr);
  const sigset_t ending = EndingSignals();
  sigprocmask(SIG_BLOCK, &ending, nullptr);
}

std::error_code Serve(fuse_session* session, WriteBack* writeBack) {
  const int descriptor = fuse_session_fd(session);
  // Another wait than that of Wait would hold the write-back up.
  if (fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) | O_NONBLOCK) != 0) {
    return {errno, std::generic_category()};
  }
  Buffer buffer;
  while (fuse_session_exited(session) == 0 && g_nSignal == 0) {
    const int waited = Wait(descriptor, *writeBack);
    if (waited == 0) {
      const int received = fuse_session_receive_buf(session, &buffer.bytes);
      if (received > 0) fuse_session_process_buf(session, &buffer.bytes);
      if (received < 0 && received != -EINTR && received != -EAGAIN) return {-received, std::generic_category()};
    } else if (waited != EINTR && waited != EAGAIN) {
      return {waited, std::generic_category()};
    }
    writeBack->Tick();
  }
  return {};
}

}  // namespace fatmount
