/// @file Command.h
/// From a command line to a verb with its options. Parsing opens nothing, and a parsed command can run in any session,
/// so that "run" parses and runs one line after the other.
///
/// A verb is one file verbs/NAME.cpp: a struct with its options, a function that does it, and one that makes it known:
///
///     struct LabelOptions { std::string target; bool clear = false; };
///     Exit RunLabel(Context& context, const LabelOptions& options) { ... return context.report.Finish(); }
///     void AddLabel(Grammar& grammar) {
///       LabelOptions* options = nullptr;
///       Syntax verb = grammar.Add("label", "Show or change the label", RunLabel, &options);
///       verb.Flag("--clear", &options->clear, "Remove it");
///       verb.Positional("IMAGE", &options->target, "The image");
///     }
///
/// The function throws Failure to end at once, or reports failed items and goes on.

#ifndef FATIMG_COMMAND_H
#define FATIMG_COMMAND_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Exit.h"
#include "Options.h"
#include "Report.h"
#include "Session.h"

namespace CLI {
class App;  // whoever needs more than Syntax offers includes <CLI/CLI.hpp>, which is slow to compile
}

namespace fatimg {

/// What a running verb has.
struct Context {
  const CommonOptions& options;
  Report& report;
  Session& session;
};

/// A parsed command line.
struct Command {
  std::string verb;
  CommonOptions options;
  std::function<Exit(Context&)> run;
};

/// The options of one verb. Names are written "-l" or "-l,--long"; targets keep their value when the option is not
/// given, and must live as long as the command.
class Syntax {
 public:
  explicit Syntax(CLI::App* app) : m_pApp(app) {}

  void Flag(const char* names, bool* target, const char* help);
  /// @param value  what stands for the value in the help: "SIZE"
  void Option(const char* names, const char* value, std::string* target, const char* help);
  /// May be given several times, each with one value.
  void Options(const char* names, const char* value, std::vector<std::string>* target, const char* help);
  /// One of several words.
  void Choice(const char* names, std::vector<std::string> words, std::string* target, const char* help);
  enum class Need { Required, Optional };
  void Positional(const char* name, std::string* target, const char* help, Need need = Need::Required);
  /// All that is left.
  void Positionals(const char* name, std::vector<std::string>* target, const char* help, Need need = Need::Required);

  CLI::App* App() const { return m_pApp; }

 private:
  CLI::App* m_pApp;
};

/// All verbs and options, for one parsing.
class Grammar {
 public:
  Grammar();
  ~Grammar();
  Grammar(const Grammar&) = delete;
  Grammar& operator=(const Grammar&) = delete;

  /// Adds a verb. @param options  out: where the parser puts the verb's options; they live as long as the command
  template <typename OPTIONS>
  Syntax Add(const char* name, const char* description, Exit (*run)(Context&, const OPTIONS&), OPTIONS** options) {
    const auto kept = std::make_shared<OPTIONS>();
    *options = kept.get();
    return AddVerb(name, description, [kept, run](Context& context) { return run(context, *kept); });
  }

  /// Parses one command line. Help that was asked for is printed on standard output, what is wrong on standard error.
  /// @param arguments  without the name of the program
  /// @return whether there is a command to run; else *exit is how to end
  bool Parse(std::vector<std::string> arguments, Command* command, Exit* exit);

  const CLI::App& App() const { return *m_pApp; }

 private:
  Syntax AddVerb(const char* name, const char* description, std::function<Exit(Context&)> run);

  std::unique_ptr<CLI::App> m_pApp;
  Command m_Command;
};

/// Runs a parsed command in a session. A Failure is reported, and becomes the exit.
Exit RunCommand(const Command& command, Session& session);

}  // namespace fatimg

#endif  // FATIMG_COMMAND_H
