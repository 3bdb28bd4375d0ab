/// @file Notifier.h
/// Tells the kernel to forget a name. Linux from 6.16 on can be told at once to ask for all names again. Before that it
/// is told from a thread of its own: the kernel waits for the directory, which it has locked for the request that is
/// being worked on, and so forgets the name a moment after the answer.

#ifndef FATMOUNT_NOTIFIER_H
#define FATMOUNT_NOTIFIER_H

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct fuse_session;

namespace fatmount {

class Notifier {
 public:
  Notifier() = default;
  ~Notifier() { Stop(); }
  Notifier(const Notifier&) = delete;
  Notifier& operator=(const Notifier&) = delete;

  /// @param session  must live until Stop
  void Start(fuse_session* session);
  /// To be called before the request that makes the name stale is answered.
  /// @param parent  number of the directory
  /// @param name    UTF-8
  void ForgetName(std::uint64_t parent, std::string name);
  /// Waits for the thread. The session must be unmounted, or some request may never be answered.
  void Stop();

 private:
  struct Name {
    std::uint64_t parent;
    std::string text;
  };

  bool ForgetAllNames() const;
  void Run();

  fuse_session* m_pSession = nullptr;
  std::thread m_Thread;
  std::mutex m_Mutex;
  std::condition_variable m_Wake;
  std::vector<Name> m_Names;
  bool m_bStop = false;
};

}  // namespace fatmount

#endif  // FATMOUNT_NOTIFIER_H
