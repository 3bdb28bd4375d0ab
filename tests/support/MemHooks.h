/// @file MemHooks.h
/// Stands in the way of the library's memory and clock for as long as the object lives.

#ifndef FATLIB_TESTS_MEMHOOKS_H
#define FATLIB_TESTS_MEMHOOKS_H

#include <cstddef>
#include <ctime>
#include <unordered_map>

#include "platform/Platform.h"

/// Counts the library's allocations and fails them on demand. One may exist at a time.
///
///     CMemHooks memory;
///     memory.FailAt(5, CMemHooks::ONCE);
///     ... the library's fifth allocation from here gives null ...
///     EXPECT_TRUE(memory.Fired());
class CMemHooks {
 public:
  enum DURATION {
    ONCE,      // the one allocation
    FOR_GOOD,  // that allocation and all after it, until Heal
  };

  CMemHooks();
  /// Puts the old functions back. Blocks still out stay valid and are freed by those.
  ~CMemHooks();
  CMemHooks(const CMemHooks&) = delete;
  CMemHooks& operator=(const CMemHooks&) = delete;

  /// Blocks (and their bytes) allocated since the hooks stand and not freed.
  std::size_t Outstanding() const { return m_Blocks.size(); }
  std::size_t OutstandingBytes() const { return m_nBytes; }
  /// The most bytes that were out at one time since the start or ResetPeak.
  std::size_t PeakBytes() const { return m_nPeakBytes; }
  void ResetPeak() { m_nPeakBytes = m_nBytes; }
  /// Calls of the three allocating functions, failed ones included, since the start or ResetCount.
  unsigned int Allocations() const { return m_nAllocations; }
  void ResetCount() { m_nAllocations = 0; }
  /// Blocks freed or resized that were not allocated while the hooks stood. (The same block freed twice shows here.)
  unsigned int UnknownFrees() const { return m_nUnknownFrees; }
  /// The largest single size asked for, failed requests included, since the start or ResetLargest.
  std::size_t LargestRequest() const { return m_nLargestRequest; }
  void ResetLargest() { m_nLargestRequest = 0; }

  /// The nth allocation from now on (1 is the next) gives null.
  void FailAt(unsigned int nth, DURATION duration);
  /// Every allocation of at least this many bytes gives null, until Heal.
  void FailAbove(std::size_t bytes);
  /// True when an armed failure has struck.
  bool Fired() const { return m_bFired; }
  /// No allocation fails any more. Fired() keeps its value until the next FailAt or FailAbove.
  void Heal();

 private:
  static void* Malloc(std::size_t size);
  static void* Calloc(std::size_t count, std::size_t size);
  static void* Realloc(void* memory, std::size_t size);
  static void Free(void* memory);

  bool Refuses(std::size_t size);
  void Enter(void* memory, std::size_t size);
  void Leave(void* memory);

  static CMemHooks* s_pActive;

  OS_SERVICES m_Saved;
  std::unordered_map<void*, std::size_t> m_Blocks;
  std::size_t m_nBytes = 0;
  std::size_t m_nPeakBytes = 0;
  std::size_t m_nLargestRequest = 0;
  unsigned int m_nAllocations = 0;
  unsigned int m_nUnknownFrees = 0;
  unsigned int m_nCountdown = 0;  // allocations until the failure; 0 when none is armed
  DURATION m_Duration = ONCE;
  std::size_t m_nRefuseFrom = 0;  // sizes refused; 0 when none is
  bool m_bFired = false;
};

/// Gives the library a clock that stands still.
class CFixedClock {
 public:
  explicit CFixedClock(std::time_t seconds);
  ~CFixedClock();
  CFixedClock(const CFixedClock&) = delete;
  CFixedClock& operator=(const CFixedClock&) = delete;
  void Set(std::time_t seconds) { s_Now = seconds; }

 private:
  static std::time_t Now(std::time_t* out);
  static std::time_t s_Now;
  std::time_t (*m_pfnSaved)(std::time_t*);
};

#endif  // FATLIB_TESTS_MEMHOOKS_H
