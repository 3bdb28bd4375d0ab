/// @file InterruptTest.cpp

#include <gtest/gtest.h>
#include <signal.h>

#include "Interrupt.h"

namespace fatimg {
namespace {

TEST(Interrupt, NoSignal_LeavesNoMark) {
  const Interrupt interrupt;
  EXPECT_EQ(0, Interrupt::Signal());
  EXPECT_EQ(0, Interrupt::ExitStatus());
}

TEST(Interrupt, Signals_AreMarkedAndTheFirstCounts) {
  const Interrupt interrupt;
  raise(SIGTERM);
  raise(SIGINT);
  EXPECT_EQ(SIGTERM, Interrupt::Signal());
  EXPECT_EQ(143, Interrupt::ExitStatus());
}

TEST(Interrupt, IgnoredSignal_StaysIgnored) {
  const auto before = signal(SIGINT, SIG_IGN);
  {
    const Interrupt interrupt;
    raise(SIGINT);
    EXPECT_EQ(0, Interrupt::Signal());
  }
  signal(SIGINT, before);
}

TEST(Interrupt, Destructor_RestoresWhatTheSignalsDid) {
  const auto before = signal(SIGINT, SIG_DFL);  // a shell starts programs in the background with it ignored
  { const Interrupt interrupt; }
  struct sigaction action {};
  ASSERT_EQ(0, sigaction(SIGINT, nullptr, &action));
  EXPECT_EQ(SIG_DFL, action.sa_handler);
  signal(SIGINT, before);
}

}  // namespace
}  // namespace fatimg
