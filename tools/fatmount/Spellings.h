/// @file Spellings.h
/// How a lookup by another spelling of a name ("readme" for "README") is answered.
///
/// The kernel has one inode for a file whatever the spelling. That alone would make a rename that changes only the case
/// impossible: the kernel sees that both names are one file, and does nothing. And no lookup says what it is for. But
/// every system call that gets ESTALE begins anew, and then asks for each name on its way, also for those that it
/// remembers. So the first lookup by another spelling is answered with ESTALE. Of the second attempt
///
///   - a rename asks for the old name and then at once for the new one: here both are names of one file. The second is
///     said not to be there, and the kernel sends the rename;
///   - anything else asks for the one name, and gets the file.
///
/// A spelling that the kernel remembers is looked up again each time (its entry is never valid for long); only when
/// that gives another file than before does the kernel forget it and ask as for the first time. So it is answered with
/// a number that no file has. Should the kernel have forgotten the spelling meanwhile, what it then does with that
/// number fails with ESTALE, and the system call begins anew too.
///
/// System calls that make something (mkdir) are an exception: they do not begin anew, and have to find what is in their
/// way at the first attempt. What a thread is doing can be read where the system allows it; elsewhere they fail with
/// ESTALE instead of EEXIST.
///
/// An attempt ends with the first request that is no lookup. There is one exception: before it looks a name up in a
/// directory, the kernel asks for the attributes of the directory.

#ifndef FATMOUNT_SPELLINGS_H
#define FATMOUNT_SPELLINGS_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "Nodes.h"

namespace fatmount {

class Spellings {
 public:
  enum class Answer {
    Found,    ///< the node
    Another,  ///< a number that no node has
    Stale,    ///< ESTALE
    Absent,   ///< ENOENT
  };

  /// A lookup that found a node.
  /// @param thread    that asks
  /// @param spelling  as asked for
  Answer Look(pid_t thread, const Node* node, const std::u16string& spelling);
  /// The thread has asked for the attributes of a node.
  void Attributes(pid_t thread, const Node* node);
  /// A lookup that found nothing, or any other request that a program waits for: the thread's system call is past its
  /// lookups.
  void Done(pid_t thread) {
    if (!m_Attempts.empty()) m_Attempts.erase(thread);
  }
  /// The kernel has forgotten all spellings of a node.
  void Forget(const Node* node) {
    if (!m_Remembered.empty()) m_Remembered.erase(node->id);
  }

 private:
  using Clock = std::chrono::steady_clock;
  struct Name {
    NodeId parent = 0;
    std::u16string spelling;
    bool operator==(const Name& other) const { return parent == other.parent && spelling == other.spelling; }
  };
  /// A thread's second attempt.
  struct Attempt {
    Clock::time_point end;
    Name first;               // lookup of the attempt; a rename walks twice from where it begins
    NodeId previous = 0;      // node of the lookup just before
    std::u16string spelling;  // and how it was spelled
    bool absent = false;      // and that it was said not to be there
    bool restarted = false;   // and that it was the first one, again
    bool attributes = false;  // they were asked for since
  };

  bool GoesOn(const Attempt& attempt, const Name& name) const;
  Answer LookAgain(Attempt* attempt, const Node* node, const Name& name);
  void DropOld();

  std::unordered_map<pid_t, Attempt> m_Attempts;
  std::unordered_map<NodeId, std::unordered_set<std::u16string>> m_Remembered;  // by the kernel: other spellings
};

}  // namespace fatmount

#endif  // FATMOUNT_SPELLINGS_H
