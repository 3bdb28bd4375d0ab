/// @file ProgressBar.cpp

#include "ProgressBar.h"

#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdarg>

#include "ByteCount.h"

namespace fatimg {

namespace {

constexpr unsigned int DEFAULT_WIDTH = 80;
constexpr unsigned int MIN_WIDTH = 20;

// NOLINTNEXTLINE(cert-dcl50-cpp): the compiler checks the arguments by the format
__attribute__((format(printf, 1, 2))) std::string Formatted(const char* format, ...) {
  std::array<char, 256> text{};
  va_list arguments;
  va_start(arguments, format);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the line above does it
  std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  return text.data();
}

double MonotonicSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

unsigned int TerminalWidth(std::FILE* terminal) {
  struct winsize size {};
  if (ioctl(fileno(terminal), TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return DEFAULT_WIDTH;
  return std::max<unsigned int>(size.ws_col, MIN_WIDTH);
}

/// Of 0 to 1. Copies of empty files and directories are measured by items.
double DoneShare(const ProgressState& state) {
  const bool byBytes = state.bytesTotal != 0;
  const auto done = static_cast<double>(byBytes ? state.bytesDone : state.itemsDone);
  const auto total = static_cast<double>(byBytes ? state.bytesTotal : state.itemsTotal);
  return total <= 0 ? 1 : std::min(done / total, 1.0);
}

unsigned int Percent(const ProgressState& state) { return static_cast<unsigned int>(DoneShare(state) * 100); }

bool KnowsRemaining(const ProgressState& state) { return state.rate > 0 && state.bytesTotal >= state.bytesDone; }

std::uint64_t RemainingSeconds(const ProgressState& state) {
  return static_cast<std::uint64_t>(std::ceil(static_cast<double>(state.bytesTotal - state.bytesDone) / state.rate));
}

std::string RateText(const ProgressState& state) {
  return ByteCountText(static_cast<std::uint64_t>(state.rate)) + "/s";
}

}  // namespace

std::string DurationText(std::uint64_t seconds) {
  const std::uint64_t hours = std::min<std::uint64_t>(seconds / 3600, 9999);
  const auto minutes = static_cast<unsigned int>(seconds / 60 % 60);
  const auto rest = static_cast<unsigned int>(seconds % 60);
  if (hours != 0) return Formatted("%u:%02u:%02u", static_cast<unsigned int>(hours), minutes, rest);
  return Formatted("%u:%02u", minutes, rest);
}

std::string ProgressBarText(const ProgressState& state, unsigned int width) {
  std::string figures = Formatted(" %3u%%", Percent(state));
  std::string rest = " " + ByteCountText(state.bytesDone) + " of " + ByteCountText(state.bytesTotal);
  if (state.rate > 0) rest += ", " + RateText(state);
  if (KnowsRemaining(state)) rest += ", " + DurationText(RemainingSeconds(state)) + " left";
  constexpr std::size_t MIN_BAR = 10;
  const std::size_t room = std::max(width, MIN_WIDTH) - 1;  // the last column stays free, or terminals break the line
  if (room >= MIN_BAR + 2 + figures.size() + rest.size()) figures += rest;
  const std::size_t length = room - 2 - figures.size();
  const auto filled = static_cast<std::size_t>(DoneShare(state) * static_cast<double>(length));
  return '[' + std::string(filled, '#') + std::string(length - filled, '-') + ']' + figures;
}

std::string ProgressPlainText(const ProgressState& state) {
  std::string text = Formatted("%u%% ", Percent(state)) + ByteCountText(state.bytesDone) + " of " +
                     ByteCountText(state.bytesTotal) + ", " + std::to_string(state.itemsDone) + " of " +
                     std::to_string(state.itemsTotal) + " items";
  if (state.rate > 0) text += ", " + RateText(state);
  if (KnowsRemaining(state)) text += ", " + DurationText(RemainingSeconds(state)) + " left";
  return text;
}

std::string ProgressJsonText(const ProgressState& state) {
  return "{\"version\":1,\"progress\":{\"bytesDone\":" + std::to_string(state.bytesDone) +
         ",\"bytesTotal\":" + std::to_string(state.bytesTotal) + ",\"itemsDone\":" + std::to_string(state.itemsDone) +
         ",\"itemsTotal\":" + std::to_string(state.itemsTotal) +
         ",\"bytesPerSecond\":" + std::to_string(static_cast<std::uint64_t>(state.rate)) + ",\"remainingSeconds\":" +
         (KnowsRemaining(state) ? std::to_string(RemainingSeconds(state)) : std::string("null")) + "}}";
}

ProgressBar::ProgressBar(ProgressMode mode, std::FILE* out, Clock clock)
    : m_Mode(mode), m_pOut(out), m_Clock(clock ? std::move(clock) : Clock(MonotonicSeconds)) {}

ProgressBar::~ProgressBar() { Hide(); }

void ProgressBar::Start(std::uint64_t bytesTotal, std::uint64_t itemsTotal) {
  m_State = {};
  m_State.bytesTotal = bytesTotal;
  m_State.itemsTotal = itemsTotal;
  const double now = m_Clock();
  m_Samples.assign(1, {now, 0});
  m_nNext = now + (m_Mode == ProgressMode::Bar ? QUIET_SECONDS : LINE_SECONDS);
  m_bStarted = true;
}

void ProgressBar::Advance(std::uint64_t bytes) {
  m_State.bytesDone += bytes;
  ShowIfDue();
}

void ProgressBar::ItemDone() {
  ++m_State.itemsDone;
  ShowIfDue();
}

void ProgressBar::ShowIfDue() {
  if (m_Mode == ProgressMode::None || !m_bStarted) return;
  const double now = m_Clock();
  if (now >= m_nNext) Show(now);
}

double ProgressBar::Rate(double now) {
  while (m_Samples.size() > 1 && m_Samples[1].first <= now - WINDOW_SECONDS) m_Samples.pop_front();
  const double seconds = now - m_Samples.front().first;
  const double rate = seconds > 0 ? static_cast<double>(m_State.bytesDone - m_Samples.front().second) / seconds : 0;
  m_Samples.emplace_back(now, m_State.bytesDone);
  return rate;
}

void ProgressBar::Show(double now) {
  m_State.rate = Rate(now);
  m_nNext = now + (m_Mode == ProgressMode::Bar ? BAR_SECONDS : LINE_SECONDS);
  if (m_Mode == ProgressMode::Bar) {
    std::fprintf(m_pOut, "\r%s\033[K", ProgressBarText(m_State, TerminalWidth(m_pOut)).c_str());
    m_bShown = true;
  } else {
    std::fprintf(m_pOut, "%s\n",
                 (m_Mode == ProgressMode::JsonLines ? ProgressJsonText(m_State) : ProgressPlainText(m_State)).c_str());
  }
  std::fflush(m_pOut);
}

void ProgressBar::Hide() {
  if (!m_bShown) return;
  std::fputs("\r\033[K", m_pOut);
  std::fflush(m_pOut);
  m_bShown = false;
}

void ProgressBar::Finish() {
  Hide();
  if (m_bStarted && (m_Mode == ProgressMode::PlainLines || m_Mode == ProgressMode::JsonLines)) Show(m_Clock());
  m_bStarted = false;
}

}  // namespace fatimg
