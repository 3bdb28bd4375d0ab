/// @file Interrupt.h
/// SIGINT and SIGTERM ask the command to come to an end: the item in work is finished or taken back, the volume is left
/// clean, and the exit status tells the signal.

#ifndef FATIMG_INTERRUPT_H
#define FATIMG_INTERRUPT_H

namespace fatimg {

/// While an object lives, the two signals only leave a mark; those that were ignored stay ignored. At most one at a
/// time.
class Interrupt {
 public:
  Interrupt();
  ~Interrupt();
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;

  /// The first signal that came, or 0. System calls that wait are ended by it (EINTR).
  static int Signal();
  /// 130 for SIGINT, 143 for SIGTERM; 0 when none came.
  static int ExitStatus() { return Signal() == 0 ? 0 : 128 + Signal(); }
};

}  // namespace fatimg

#endif  // FATIMG_INTERRUPT_H
