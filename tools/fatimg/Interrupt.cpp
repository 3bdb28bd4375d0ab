/// @file Interrupt.cpp

#include "Interrupt.h"

#include <signal.h>

#include <array>
#include <cstddef>

namespace fatimg {

namespace {

constexpr std::array<int, 2> SIGNALS{SIGINT, SIGTERM};

volatile sig_atomic_t g_nSignal = 0;
std::array<struct sigaction, SIGNALS.size()> g_Before;

extern "C" void MarkSignal(int signal) {
  if (g_nSignal == 0) g_nSignal = signal;
}

}  // namespace

Interrupt::Interrupt() {
  g_nSignal = 0;
  struct sigaction action {};
  action.sa_handler = MarkSignal;
  for (std::size_t i = 0; i < SIGNALS.size(); ++i) {
    sigaction(SIGNALS[i], nullptr, &g_Before[i]);
    if (g_Before[i].sa_handler != SIG_IGN) sigaction(SIGNALS[i], &action, nullptr);
  }
}

Interrupt::~Interrupt() {
  for (std::size_t i = 0; i < SIGNALS.size(); ++i) sigaction(SIGNALS[i], &g_Before[i], nullptr);
}

int Interrupt::Signal() { return g_nSignal; }

}  // namespace fatimg
