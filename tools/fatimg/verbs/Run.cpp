/// @file Run.cpp
/// run: many commands in one mount.

#include <fstream>
#include <iostream>

#include "../HostFile.h"
#include "../Interrupt.h"
#include "../Words.h"
#include "ChangeVerbs.h"
#include "Targets.h"

namespace fatimg {

namespace {

struct RunOptions {
  std::string image;
  std::string file = "-";
};

/// A line is run as the whole run is. What concerns the image as a whole cannot be said for one line.
void Inherit(const CommonOptions& run, CommonOptions* line) {
  if ((line->dryRun && !run.dryRun) || (line->reproducible && !run.reproducible)) {
    throw Failure(Exit::Usage, {}, "--dry-run and --reproducible are given to the whole run");
  }
  line->dryRun = run.dryRun;
  line->reproducible = run.reproducible;
  line->json = line->json || run.json;
  line->force = line->force || run.force;
  line->noGlob = line->noGlob || run.noGlob;
  line->verbose = line->verbose || run.verbose;
  line->quiet = line->quiet || run.quiet;
  if (line->progress == "auto") line->progress = run.progress;
}

/// @throws Failure
Exit RunLine(Context& context, const std::string& line) {
  std::vector<std::string> words;
  if (!SplitWords(line, &words)) throw Failure(Exit::Usage, {}, "a quote is not closed, or \\ ends the line");
  if (words.empty()) return Exit::Done;
  Grammar grammar;
  Command command;
  Exit exit = Exit::Usage;
  if (!grammar.Parse(words, &command, &exit)) return exit;
  if (command.verb == "run") throw Failure(Exit::Usage, {}, "run cannot be one of its own commands");
  Inherit(context.options, &command.options);
  return RunCommand(command, context.session);
}

Exit RunRun(Context& context, const RunOptions& options) {
  CatchSignals();
  context.session.SetDefault(ParseOperand(options.image));
  const bool piped = options.file == "-";
  std::ifstream file;
  if (!piped) {
    file.open(options.file);
    if (!file) throw Failure(LastError(), options.file);
  }
  std::istream& input = piped ? std::cin : file;
  const std::string name = piped ? "standard input" : options.file;
  std::string line;
  std::uint64_t number = 0;
  Exit exit = Exit::Done;
  while (exit == Exit::Done && std::getline(input, line)) {
    ++number;
    const std::string place = name + ":" + std::to_string(number);
    try {
      exit = RunLine(context, line);
    } catch (const Failure& failure) {
      throw Failure(failure.Status(), place, failure.what());
    }
    if (exit == Exit::Done && Interrupt::Signal() != 0) exit = Exit::SomeFailed;
    if (exit != Exit::Done) context.report.Fail(place, exit, "stopped here: " + line);
  }
  if (input.bad()) throw Failure(Exit::Io, name, "cannot be read");
  context.report.Object()["lines"] = number;
  return context.report.Finish();
}

}  // namespace

void AddRun(Grammar& grammar) {
  RunOptions* options = nullptr;
  Syntax verb = grammar.Add("run", "Run many commands in one mount; stops at the first that fails", RunRun, &options);
  verb.Positional("IMAGE", &options->image, "The image, which the commands call \":/PATH\"");
  verb.Positional("FILE", &options->file, "Commands, one on a line; standard input when there is none",
                  Syntax::Need::Optional);
}

}  // namespace fatimg
