/// @file Spellings.cpp

#include "Spellings.h"

#include <sys/syscall.h>

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace fatmount {

namespace {

// A system call that has not come back after that long was ended by a signal.
constexpr std::chrono::milliseconds LONGEST_WAIT(2000);
// The same where it may also be that it has come to its end.
constexpr std::chrono::milliseconds SHORT_WAIT(50);

/// Whether a thread is in a system call that gives up at ESTALE.
bool IsMaking(pid_t thread) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%d/syscall", thread);
  std::FILE* const file = std::fopen(path, "re");
  if (file == nullptr) return false;
  long number = -1;
  const bool known = std::fscanf(file, "%ld", &number) == 1;
  std::fclose(file);
  if (!known) return false;
  constexpr long MAKING[] = {SYS_mkdir,   SYS_mkdirat,   SYS_mknod, SYS_mknodat,
                             SYS_symlink, SYS_symlinkat, SYS_link,  SYS_linkat};
  return std::find(std::begin(MAKING), std::end(MAKING), number) != std::end(MAKING);
}

}  // namespace

Spellings::Answer Spellings::Look(pid_t thread, const Node* node, const std::u16string& spelling) {
  const Name name{node->parent->id, spelling};
  if (!m_Attempts.empty()) {
    DropOld();
    const auto attempt = m_Attempts.find(thread);
    if (attempt != m_Attempts.end()) {
      if (GoesOn(attempt->second, name)) return LookAgain(&attempt->second, node, name);
      m_Attempts.erase(attempt);
    }
  }
  if (spelling == node->name) return Answer::Found;
  const auto remembered = m_Remembered.find(node->id);
  if (remembered != m_Remembered.end() && remembered->second.erase(spelling) != 0) return Answer::Another;
  if (IsMaking(thread)) {
    m_Remembered[node->id].insert(spelling);
    return Answer::Found;
  }
  m_Attempts[thread] = {};
  m_Attempts[thread].end = Clock::now() + LONGEST_WAIT;
  return Answer::Stale;
}

void Spellings::Attributes(pid_t thread, const Node* node) {
  if (m_Attempts.empty()) return;
  const auto found = m_Attempts.find(thread);
  if (found == m_Attempts.end()) return;
  Attempt& attempt = found->second;
  if (!node->directory || (attempt.previous != 0 && attempt.previous != node->id)) {
    m_Attempts.erase(found);
    return;
  }
  attempt.attributes = attempt.previous != 0;
  if (attempt.attributes) attempt.end = Clock::now() + SHORT_WAIT;
}

// Otherwise it is the first lookup of another system call.
bool Spellings::GoesOn(const Attempt& attempt, const Name& name) const {
  if (!attempt.attributes) return true;
  const bool below = name.parent == attempt.previous;
  return below ? !attempt.restarted : name == attempt.first;
}

Spellings::Answer Spellings::LookAgain(Attempt* attempt, const Node* node, const Name& name) {
  const bool exact = name.spelling == node->name;
  const bool follows = attempt->previous == node->id && (attempt->spelling != name.spelling || attempt->absent);
  if (attempt->previous == 0) attempt->first = name;
  attempt->restarted = attempt->previous != 0 && attempt->previous != node->id && name == attempt->first;
  attempt->attributes = false;
  attempt->previous = node->id;
  attempt->spelling = name.spelling;
  attempt->absent = follows && !exact;
  attempt->end = Clock::now() + LONGEST_WAIT;
  if (attempt->absent) return Answer::Absent;
  if (!exact) m_Remembered[node->id].insert(name.spelling);
  return Answer::Found;
}

void Spellings::DropOld() {
  const Clock::time_point now = Clock::now();
  for (auto attempt = m_Attempts.begin(); attempt != m_Attempts.end();) {
    attempt = attempt->second.end < now ? m_Attempts.erase(attempt) : std::next(attempt);
  }
}

}  // namespace fatmount
