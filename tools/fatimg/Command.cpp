/// @file Command.cpp

#include "Command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <new>

#include "verbs/Verbs.h"

namespace fatimg {

namespace {

void AddCommonOptions(CLI::App* app, CommonOptions* options) {
  Syntax syntax(app);
  syntax.Flag("--json", &options->json, "Report as one JSON object");
  syntax.Flag("--force", &options->force, "Do also what is refused for its danger");
  syntax.Flag("--no-glob", &options->noGlob, "Take * ? and [ in paths as they are");
  syntax.Flag("--dry-run", &options->dryRun, "Do everything but change nothing");
  syntax.Flag("--reproducible", &options->reproducible, "Times of SOURCE_DATE_EPOCH in UTC, sorted order");
  syntax.Choice("--progress", {"auto", "bar", "plain", "json", "none"}, &options->progress,
                "How to tell of the progress of a long copy");
  syntax.Flag("-v,--verbose", &options->verbose, "Say more on standard error");
  syntax.Flag("-q,--quiet", &options->quiet, "Say only what failed");
}

}  // namespace

void Syntax::Flag(const char* names, bool* target, const char* help) { m_pApp->add_flag(names, *target, help); }

void Syntax::Option(const char* names, const char* value, std::string* target, const char* help) {
  m_pApp->add_option(names, *target, help)->type_name(value);
}

void Syntax::Options(const char* names, const char* value, std::vector<std::string>* target, const char* help) {
  m_pApp->add_option(names, *target, help)->type_name(value)->allow_extra_args(false);
}

void Syntax::Choice(const char* names, std::vector<std::string> words, std::string* target, const char* help) {
  m_pApp->add_option(names, *target, help)->check(CLI::IsMember(std::move(words)))->type_name("");
}

void Syntax::Positional(const char* name, std::string* target, const char* help, Need need) {
  m_pApp->add_option(name, *target, help)->type_name("")->required(need == Need::Required);
}

void Syntax::Positionals(const char* name, std::vector<std::string>* target, const char* help, Need need) {
  m_pApp->add_option(name, *target, help)->type_name("")->required(need == Need::Required);
}

Grammar::Grammar() : m_pApp(std::make_unique<CLI::App>("Looks into FAT images and changes them.", "fatimg")) {
  // "-h" is an attribute for "attr", so help has the long name only.
  m_pApp->set_help_flag("--help", "Show the verbs, or the options of a verb");
  m_pApp->set_version_flag("--version", "fatimg " FATIMG_VERSION, "Show the version");
  m_pApp->require_subcommand(1);
  m_pApp->footer("Operands are IMAGE[@WHERE]:/PATH; fatimg(1) explains them.");
  m_pApp->get_formatter()->label("SUBCOMMAND", "VERB OPERAND...");
  m_pApp->get_formatter()->label("Subcommands", "Verbs");
  AddCommonOptions(m_pApp.get(), &m_Command.options);
  AddLookVerbs(*this);
  AddChangeVerbs(*this);
}

Grammar::~Grammar() = default;

Syntax Grammar::AddVerb(const char* name, const char* description, std::function<Exit(Context&)> run) {
  CLI::App* verb = m_pApp->add_subcommand(name, description);
  verb->fallthrough();  // the common options may stand behind the verb
  verb->callback([this, verb, run = std::move(run)] {
    m_Command.verb = verb->get_name();
    m_Command.run = run;
  });
  return Syntax(verb);
}

bool Grammar::Parse(std::vector<std::string> arguments, Command* command, Exit* exit) {
  std::reverse(arguments.begin(), arguments.end());  // as the parser takes them
  try {
    m_pApp->parse(std::move(arguments));
  } catch (const CLI::ParseError& error) {
    const bool help = error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success);
    *exit = help ? Exit::Done : Exit::Usage;
    if (help) {
      m_pApp->exit(error);
      if (std::fflush(stdout) != 0) *exit = Exit::Io;
    } else {
      std::fprintf(stderr, "fatimg: %s\n", error.what());
    }
    return false;
  }
  *command = m_Command;
  return true;
}

Exit RunCommand(const Command& command, Session& session) {
  Report report(command.options, command.verb);
  Context context{command.options, report, session};
  try {
    return command.run(context);
  } catch (const Failure& failure) {
    report.Fail(failure);
  } catch (const std::bad_alloc&) {
    report.Fail("", Exit::Io, "there is not enough memory");
  }
  return report.Finish();
}

}  // namespace fatimg
