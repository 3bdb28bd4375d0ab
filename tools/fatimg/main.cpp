/// @file main.cpp
/// fatimg: looks into FAT images and changes them. See docs/man/fatimg.1.

#include <csignal>
#include <string>
#include <vector>

#include "Command.h"
#include "Interrupt.h"

int main(int argc, char** argv) {
  using namespace fatimg;
  // A closed pipe must not end the program while a volume is half written; writing tells of it.
  std::signal(SIGPIPE, SIG_IGN);

  Grammar grammar;
  Command command;
  Exit exit = Exit::Usage;
  if (!grammar.Parse(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc), &command, &exit)) {
    return static_cast<int>(exit);
  }
  Session session(command.options);
  exit = RunCommand(command, session);
  try {
    session.Close();
  } catch (const Failure& failure) {
    CommonOptions text = command.options;
    text.json = false;  // the verb's object is out
    Report report(text, command.verb);
    report.Fail(failure);
    if (exit == Exit::Done) exit = failure.Status();
  }
  return Interrupt::Signal() != 0 ? Interrupt::ExitStatus() : static_cast<int>(exit);
}
