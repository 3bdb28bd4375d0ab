/// @file WriteBack.h
/// When what was changed comes to the image: when a program asks for it, and at the latest some seconds after the
/// change; with -o sync at once.

#ifndef FATMOUNT_WRITEBACK_H
#define FATMOUNT_WRITEBACK_H

#include <fatlib/OrderedDevice.h>
#include <fatlib/Volume.h>

#include <chrono>
#include <functional>
#include <string>
#include <system_error>

#include "Stats.h"

namespace fatmount {

class WriteBack {
 public:
  /// How long a change may wait,
  static constexpr std::chrono::milliseconds LONGEST{5000};
  /// and how long when no other change comes.
  static constexpr std::chrono::milliseconds IDLE{1000};

  /// @param atOnce  every change is brought to the image before Changed returns
  /// @param held    counts what waits in memory to be committed; may be null
  /// @param report  gets what nobody waits for: a failed write-back
  WriteBack(fatlib::Volume* volume, const fatlib::OrderedDevice* held, bool atOnce, Stats* stats,
            std::function<void(const std::string&)> report)
      : m_pVolume(volume), m_pHeld(held), m_bAtOnce(atOnce), m_pStats(stats), m_Report(std::move(report)) {}

  /// After each change.
  [[nodiscard]] std::error_code Changed();
  /// @return also a failure since the last call that nobody was told of
  [[nodiscard]] std::error_code Commit();
  /// Milliseconds until a write-back is due, as poll takes them: -1 for never.
  int Timeout() const;
  /// Writes back if it is time.
  void Tick();

 private:
  using Clock = std::chrono::steady_clock;

  std::error_code Sync();
  void NoteHeld();

  fatlib::Volume* m_pVolume;
  const fatlib::OrderedDevice* m_pHeld;
  bool m_bAtOnce;
  Stats* m_pStats;
  std::function<void(const std::string&)> m_Report;
  bool m_bWaiting = false;     // there is a change that is not on the image
  Clock::time_point m_Latest;  // when it has to be there
  Clock::time_point m_Due;     // when it is brought there if nothing else comes
  std::error_code m_Untold;    // of a write-back that nobody waited for
};

}  // namespace fatmount

#endif  // FATMOUNT_WRITEBACK_H
