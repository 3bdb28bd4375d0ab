/// @file ProgressBar.h
/// How far a long copy has come, on standard error: a bar with rate and remaining time on a terminal, lines elsewhere
/// for those who ask for them. What a short copy would show for a moment only is not shown.

#ifndef FATIMG_PROGRESSBAR_H
#define FATIMG_PROGRESSBAR_H

#include <cstdint>
#include <cstdio>
#include <deque>
#include <functional>
#include <string>
#include <utility>

namespace fatimg {

enum class ProgressMode {
  None,
  Bar,         ///< one line of a terminal, drawn again and again
  PlainLines,  ///< a line for people each second
  JsonLines,   ///< a JSON object on a line each second
};

/// How far the work is.
struct ProgressState {
  std::uint64_t bytesDone = 0;
  std::uint64_t bytesTotal = 0;
  std::uint64_t itemsDone = 0;
  std::uint64_t itemsTotal = 0;
  double rate = 0;  ///< bytes a second; 0: not known yet
};

/// "0:07", "12:34", "1:02:03".
std::string DurationText(std::uint64_t seconds);
/// The bar's line, at most `width` columns (20 or more).
std::string ProgressBarText(const ProgressState& state, unsigned int width);
std::string ProgressPlainText(const ProgressState& state);
/// {"version":1,"progress":{...}}, with remainingSeconds null when it is not known.
std::string ProgressJsonText(const ProgressState& state);

class ProgressBar {
 public:
  using Clock = std::function<double()>;  ///< seconds from some moment on, never backwards

  /// @param clock  the system's monotonic one when empty
  explicit ProgressBar(ProgressMode mode, std::FILE* out = stderr, Clock clock = {});
  /// Takes a bar away that still stands.
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  void Start(std::uint64_t bytesTotal, std::uint64_t itemsTotal);
  /// Shows something when it is time to.
  void Advance(std::uint64_t bytes);
  void ItemDone();
  /// Takes the bar away, for a message; the next Advance draws it again.
  void Hide();
  /// The end, reached or not: the bar goes, the modes with lines write a last one.
  void Finish();

 private:
  static constexpr double BAR_SECONDS = 0.1;     // between two pictures
  static constexpr double LINE_SECONDS = 1.0;    // between two lines
  static constexpr double QUIET_SECONDS = 0.5;   // before the first picture
  static constexpr double WINDOW_SECONDS = 5.0;  // the rate is that of the last seconds

  void ShowIfDue();
  void Show(double now);
  double Rate(double now);

  ProgressMode m_Mode;
  std::FILE* m_pOut;
  Clock m_Clock;
  ProgressState m_State;
  std::deque<std::pair<double, std::uint64_t>> m_Samples;  // when, and the bytes done then
  double m_nNext = 0;                                      // when to show something
  bool m_bShown = false;                                   // a bar stands on the terminal
  bool m_bStarted = false;
};

}  // namespace fatimg

#endif  // FATIMG_PROGRESSBAR_H
