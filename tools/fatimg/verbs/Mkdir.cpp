/// @file Mkdir.cpp
/// mkdir: makes directories.

#include "ChangeVerbs.h"
#include "Targets.h"

namespace fatimg {

namespace {

struct MkdirOptions {
  std::vector<std::string> directories;
  bool parents = false;
};

Exit RunMkdir(Context& context, const MkdirOptions& options) {
  for (const std::string& text : options.directories) {
    const Operand operand = ParseOperand(text);
    fatlib::Volume& volume = OpenForWriting(context, operand);
    const fatlib::Path path = operand.path;  // names to be: nothing in them is a pattern
    std::error_code error = path.Check();
    if (!error) error = options.parents ? volume.CreateDirectories(path) : volume.CreateDirectory(path);
    if (error) {
      context.report.Fail(operand.Text(), error);
    } else {
      context.report.Done();
    }
  }
  return context.report.Finish();
}

}  // namespace

void AddMkdir(Grammar& grammar) {
  MkdirOptions* options = nullptr;
  Syntax verb = grammar.Add("mkdir", "Make directories", RunMkdir, &options);
  verb.Positionals("IMAGE:/PATH", &options->directories, "Directories");
  verb.Flag("-p,--parents", &options->parents, "Make parents too; a directory that exists is no failure");
}

}  // namespace fatimg
