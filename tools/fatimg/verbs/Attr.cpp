/// @file Attr.cpp
/// attr: shows and changes attributes.

#include <fatlib/Error.h>

#include <array>

#include "ChangeVerbs.h"
#include "Targets.h"

namespace fatimg {

namespace {

struct AttrOptions {
  std::vector<std::string> words;  ///< "+r", and what they are for
  bool clearReadOnly = false;
  bool clearHidden = false;
  bool clearSystem = false;
  bool clearArchive = false;
};

struct Letter {
  char letter;
  std::uint8_t attribute;
  const char* name;
};

constexpr std::array<Letter, 4> LETTERS{{{'r', fatlib::READ_ONLY, "read-only"},
                                         {'h', fatlib::HIDDEN, "hidden"},
                                         {'s', fatlib::SYSTEM, "system"},
                                         {'a', fatlib::ARCHIVE, "archive"}}};

struct Change {
  std::uint8_t set = 0;
  std::uint8_t clear = 0;
  std::vector<std::string> paths;
};

void AddLetters(const std::string& word, Change* change) {
  for (const char c : word.substr(1)) {
    std::uint8_t attribute = 0;
    for (const Letter& letter : LETTERS) {
      if (letter.letter == c) attribute = letter.attribute;
    }
    if (attribute == 0) throw Failure(Exit::Usage, word, "the attributes are r, h, s and a");
    change->set = static_cast<std::uint8_t>(change->set | attribute);
  }
}

Change ChangeOf(const AttrOptions& options) {
  Change change;
  const std::array<bool, LETTERS.size()> cleared{options.clearReadOnly, options.clearHidden, options.clearSystem,
                                                 options.clearArchive};
  for (std::size_t i = 0; i < cleared.size(); ++i) {
    if (cleared[i]) change.clear = static_cast<std::uint8_t>(change.clear | LETTERS[i].attribute);
  }
  for (const std::string& word : options.words) {
    if (word.size() > 1 && word[0] == '+') {
      AddLetters(word, &change);
    } else {
      change.paths.push_back(word);
    }
  }
  if (change.paths.empty()) throw Failure(Exit::Usage, {}, "no path is named; write IMAGE:/PATH");
  if ((change.set & change.clear) != 0) throw Failure(Exit::Usage, {}, "an attribute is to be set and cleared");
  return change;
}

void Show(Context& context, const Target& target, std::uint8_t attributes) {
  std::string text;
  Json names = Json::array();
  for (const Letter& letter : LETTERS) {
    const bool set = (attributes & letter.attribute) != 0;
    text += set ? letter.letter : '-';
    if (set) names.push_back(letter.name);
  }
  context.report.Print(text + " " + context.report.Shown(target.text) + "\n");
  context.report.Object()["entries"].push_back(Json{{"path", target.path.ToUtf8()}, {"attributes", std::move(names)}});
}

std::error_code Apply(Context& context, const Target& target, const Change& change) {
  if (target.path.IsRoot()) return fatlib::Status::Refused;  // it has no entry
  fatlib::Entry entry;
  if (const std::error_code error = target.volume->Stat(target.path, &entry)) return error;
  if (change.set == 0 && change.clear == 0) {
    Show(context, target, entry.attributes);
    return {};
  }
  constexpr std::uint8_t ALL = fatlib::READ_ONLY | fatlib::HIDDEN | fatlib::SYSTEM | fatlib::ARCHIVE;
  const unsigned int attributes = ((entry.attributes | change.set) & ~static_cast<unsigned int>(change.clear)) & ALL;
  return target.volume->SetAttributes(target.path, static_cast<std::uint8_t>(attributes));
}

Exit RunAttr(Context& context, const AttrOptions& options) {
  const Change change = ChangeOf(options);
  const bool looks = change.set == 0 && change.clear == 0;
  if (looks) context.report.Object()["entries"] = Json::array();
  const auto access = looks ? fatlib::Access::ReadOnly : fatlib::Access::ReadWrite;
  for (const Target& target : TargetsOf(context, change.paths, access)) {
    if (const std::error_code error = Apply(context, target, change)) {
      context.report.Fail(target.text, error);
    } else {
      context.report.Done();
    }
  }
  return context.report.Finish();
}

}  // namespace

void AddAttr(Grammar& grammar) {
  AttrOptions* options = nullptr;
  Syntax verb = grammar.Add("attr", "Show attributes, or change them: attr +r -h IMAGE:/PATH", RunAttr, &options);
  verb.Positionals("[+rhsa] IMAGE:/PATH", &options->words, "Attributes to set, and what they are for");
  verb.Flag("-r", &options->clearReadOnly, "Clear read-only");
  verb.Flag("-h", &options->clearHidden, "Clear hidden");
  verb.Flag("-s", &options->clearSystem, "Clear system");
  verb.Flag("-a", &options->clearArchive, "Clear archive");
}

}  // namespace fatimg
