/// @file Mv.cpp
/// mv: renames and moves inside an image.

#include <fatlib/Error.h>

#include "ChangeVerbs.h"
#include "Targets.h"

namespace fatimg {

namespace {

struct MvOptions {
  std::vector<std::string> operands;
  bool noClobber = false;
};

/// @return whether there was anything to do, and it was done
bool MoveOne(Context& context, const MvOptions& options, const Target& source, const fatlib::Path& to,
             const std::string& toText) {
  fatlib::Entry existing;
  const bool itself = to == source.path;  // perhaps in other letters
  const bool exists = !itself && !source.volume->Stat(to, &existing);
  if (exists && options.noClobber) {
    context.report.Detail("left as it is: " + toText);
    return true;
  }
  if (exists && !context.options.force) {
    context.report.Fail(toText, Exit::Refused, "exists; --force replaces it, --no-clobber leaves it");
    return false;
  }
  if (const std::error_code error = source.volume->Rename(source.path, to, context.options.force)) {
    context.report.Fail(source.text, error);
    return false;
  }
  context.report.Done();
  context.report.Detail(source.text + " is now " + toText);
  return true;
}

Exit RunMv(Context& context, const MvOptions& options) {
  if (options.operands.size() < 2)
    throw Failure(Exit::Usage, options.operands[0], "where is it to go? There is one operand only");
  (void)OpenForWriting(context, ParseOperand(options.operands.back()));
  const std::vector<std::string> operands(options.operands.begin(), options.operands.end() - 1);
  const std::vector<Target> sources = TargetsOf(context, operands, fatlib::Access::ReadWrite);
  if (sources.empty()) return context.report.Finish();
  Destination destination = DestinationOf(context, options.operands.back(), sources.size() > 1, true);
  // A directory that gets the same name in other letters is not moved into itself.
  if (sources.size() == 1 && destination.path == sources[0].path) destination.into = false;
  std::size_t moved = 0;
  for (const Target& source : sources) {
    if (source.volume != destination.volume) {
      throw Failure(Exit::Usage, source.text, "is on another volume; use cp and rm");
    }
    const fatlib::Path to = destination.into ? destination.path / source.path.Name() : destination.path;
    if (MoveOne(context, options, source, to, destination.operand.Text(to.ToUtf8()))) ++moved;
  }
  context.report.Object()["moved"] = moved;
  return context.report.Finish();
}

}  // namespace

void AddMv(Grammar& grammar) {
  MvOptions* options = nullptr;
  Syntax verb = grammar.Add("mv", "Rename, or move into a directory", RunMv, &options);
  verb.Positionals("IMAGE:/PATH... IMAGE:/PATH", &options->operands, "Sources, and at the end where they go");
  verb.Flag("-n,--no-clobber", &options->noClobber, "Leave what exists as it is, without a word");
}

}  // namespace fatimg
