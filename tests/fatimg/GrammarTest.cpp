/// @file GrammarTest.cpp
/// The verbs and options of the command, against its manual page and its shell completions.

#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "Command.h"
#include "FatimgRun.h"

namespace {

using Names = std::set<std::string>;
/// By verb; those of all verbs under "".
using Grammar = std::map<std::string, Names>;

std::string TextOf(const std::string& path) {
  const std::vector<unsigned char> bytes = ReadHostFile(FATIMG_SOURCE_DIR "/" + path);
  return std::string(bytes.begin(), bytes.end());
}

Names OptionsOf(const CLI::App& app) {
  Names names;
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& name : option->get_snames()) names.insert("-" + name);
    for (const std::string& name : option->get_lnames()) names.insert("--" + name);
  }
  return names;
}

Grammar GrammarOfTheCommand() {
  const fatimg::Grammar command;
  Grammar grammar;
  grammar[""] = OptionsOf(command.App());
  for (const CLI::App* verb : command.App().get_subcommands([](const CLI::App*) { return true; })) {
    grammar[verb->get_name()] = OptionsOf(*verb);
    grammar[verb->get_name()].erase("--help");  // each has it
  }
  return grammar;
}

/// The verbs are the subsections of two sections; options are items ".It Fl x , Fl -long".
Grammar GrammarOfTheManualPage() {
  Grammar grammar;
  std::istringstream page(TextOf("docs/man/fatimg.1"));
  std::string section;
  std::string verb;
  for (std::string line; std::getline(page, line);) {
    std::istringstream words(line);
    std::string word;
    words >> word;
    if (word == ".Sh") {
      words >> section;
      verb.clear();
    }
    const bool verbs = section == "LOOKING" || section == "CHANGING";
    if (word == ".Ss" && verbs) {
      words >> verb;
      grammar[verb];
    }
    if (word != ".It" || (!verbs && section != "OPTIONS")) continue;
    while (words >> word) {
      if (word == "Fl" && words >> word) grammar[verb].insert("-" + word);
    }
  }
  return grammar;
}

TEST(ManualPageOfTheCommand, VerbsAndOptions_AreThoseOfTheCommand) {
  const Grammar command = GrammarOfTheCommand();
  EXPECT_GE(command.size(), 12u);
  EXPECT_EQ(command, GrammarOfTheManualPage());
}

TEST(HelpOfTheCommand, EachVerb_IsListedWithItsOptions) {
  const fatimg_test::RESULT all = fatimg_test::Fatimg({"--help"});
  EXPECT_EQ(0, all.exit);
  for (const auto& [verb, options] : GrammarOfTheCommand()) {
    EXPECT_NE(std::string::npos, all.out.find("\n  " + verb)) << verb;
    if (verb.empty()) continue;
    const fatimg_test::RESULT help = fatimg_test::Fatimg({verb, "--help"});
    EXPECT_EQ(0, help.exit);
    for (const std::string& option : options) EXPECT_NE(std::string::npos, help.out.find(option)) << verb << option;
  }
}

/// What bash offers behind some words.
Names OffersOfBash(const std::string& words) {
  const std::string script = "source " FATIMG_SOURCE_DIR "/tools/fatimg/completions/fatimg.bash; COMP_WORDS=(" + words +
                             "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _fatimg; printf '%s\\n' \"${COMPREPLY[@]}\"";
  const std::vector<std::string> lines = fatimg_test::LinesOf(RunOrThrow({"bash", "-c", script}));
  return Names(lines.begin(), lines.end());
}

TEST(CompletionOfBash, VerbsAndOptions_AreThoseOfTheCommand) {
  Grammar command = GrammarOfTheCommand();
  const Names common = command[""];
  command.erase("");
  Names verbs;
  for (const auto& [verb, options] : command) {
    verbs.insert(verb);
    Names expected = options;
    expected.insert(common.begin(), common.end());
    expected.erase("--version");
    EXPECT_EQ(expected, OffersOfBash("fatimg " + verb + " -")) << verb;
  }
  EXPECT_EQ(verbs, OffersOfBash("fatimg ''"));
  EXPECT_EQ(common, OffersOfBash("fatimg -"));
  EXPECT_EQ(Names({"--recursive", "--raw-order", "--reproducible"}), OffersOfBash("fatimg --progress json ls --r"));
}

/// The lines of a completion file that are about a verb, by what they begin with.
std::string LinesWith(const std::string& text, const std::string& begin) {
  std::string found;
  for (const std::string& line : fatimg_test::LinesOf(text)) {
    if (line.find(begin) != std::string::npos) found += line + "\n";
  }
  return found;
}

TEST(CompletionOfFish, VerbsAndOptions_AreThoseOfTheCommand) {
  const std::string text = TextOf("tools/fatimg/completions/fatimg.fish");
  for (const auto& [verb, options] : GrammarOfTheCommand()) {
    if (verb.empty()) continue;
    EXPECT_NE(std::string::npos, text.find(" -a " + verb + " ")) << verb;
    const std::string lines = LinesWith(text, "__fish_seen_subcommand_from " + verb + "'");
    for (const std::string& option : options) {
      const bool isLong = option.size() > 2;
      const std::string entry = isLong ? " -l " + option.substr(2) + " " : " -s " + option.substr(1) + " ";
      EXPECT_NE(std::string::npos, lines.find(entry)) << verb << " " << option;
    }
  }
}

TEST(CompletionOfZsh, VerbsAndOptions_AreThoseOfTheCommand) {
  const std::string text = TextOf("tools/fatimg/completions/_fatimg");
  for (const auto& [verb, options] : GrammarOfTheCommand()) {
    if (verb.empty()) continue;
    EXPECT_NE(std::string::npos, text.find("'" + verb + ":")) << verb;
    const std::size_t begin = text.find("\n  " + verb + ")");
    const std::string part = begin == std::string::npos ? "" : text.substr(begin, text.find(";;", begin) - begin);
    for (const std::string& option : options) {
      EXPECT_NE(std::string::npos, part.find(option + "[")) << verb << " " << option;
    }
  }
}

}  // namespace
