/// @file Rm.cpp
/// rm: removes files, and directories with all that is in them.

#include <fatlib/Error.h>

#include "ChangeVerbs.h"
#include "Targets.h"

namespace fatimg {

namespace {

struct RmOptions {
  std::vector<std::string> paths;
  bool recursive = false;
};

std::error_code Remove(const Target& target, bool recursive, std::uint64_t* removed) {
  fatlib::Entry entry;
  if (const std::error_code error = target.volume->Stat(target.path, &entry)) return error;
  if (target.path.IsRoot()) return fatlib::Status::Refused;
  if (recursive) return target.volume->RemoveAll(target.path, removed);
  const std::error_code error = target.volume->Remove(target.path);
  *removed = error ? 0 : 1;
  return error;
}

Exit RunRm(Context& context, const RmOptions& options) {
  std::uint64_t total = 0;
  for (const Target& target : TargetsOf(context, options.paths, fatlib::Access::ReadWrite)) {
    std::uint64_t removed = 0;
    const std::error_code error = Remove(target, options.recursive, &removed);
    total += removed;
    if (error && !(context.options.force && error == make_error_code(fatlib::Status::NotFound))) {
      context.report.Fail(target.text, error);
    } else {
      context.report.Done();
    }
  }
  context.report.Object()["removed"] = total;
  return context.report.Finish();
}

}  // namespace

void AddRm(Grammar& grammar) {
  RmOptions* options = nullptr;
  Syntax verb = grammar.Add("rm", "Remove files and empty directories", RunRm, &options);
  verb.Positionals("IMAGE:/PATH", &options->paths, "What is to go");
  verb.Flag("-r,--recursive", &options->recursive, "Remove directories with all that is in them");
}

}  // namespace fatimg
