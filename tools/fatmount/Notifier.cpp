/// @file Notifier.cpp

#include "Notifier.h"

#define FUSE_USE_VERSION 35
#include <fuse3/fuse_lowlevel.h>
#include <unistd.h>

namespace fatmount {

void Notifier::Start(fuse_session* session) {
  m_pSession = session;
  m_Thread = std::thread([this] { Run(); });
}

// libfuse has no function for it.
bool Notifier::ForgetAllNames() const {
  struct Message {
    std::uint32_t size;
    std::int32_t code;
    std::uint64_t request;
  };
  constexpr std::int32_t INCREASE_EPOCH = 8;
  const Message message{sizeof(Message), INCREASE_EPOCH, 0};
  return write(fuse_session_fd(m_pSession), &message, sizeof message) == static_cast<ssize_t>(sizeof message);
}

void Notifier::ForgetName(std::uint64_t parent, std::string name) {
  if (ForgetAllNames()) return;
  {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    m_Names.push_back({parent, std::move(name)});
  }
  m_Wake.notify_one();
}

void Notifier::Stop() {
  if (!m_Thread.joinable()) return;
  {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    m_bStop = true;
  }
  m_Wake.notify_one();
  m_Thread.join();
}

void Notifier::Run() {
  std::unique_lock<std::mutex> lock(m_Mutex);
  while (!m_bStop) {
    std::vector<Name> names;
    names.swap(m_Names);
    if (names.empty()) {
      m_Wake.wait(lock);
      continue;
    }
    lock.unlock();
    for (const Name& name : names) {
      // A name that the kernel does not know is no failure.
      (void)fuse_lowlevel_notify_inval_entry(m_pSession, name.parent, name.text.data(), name.text.size());
    }
    lock.lock();
  }
}

}  // namespace fatmount
