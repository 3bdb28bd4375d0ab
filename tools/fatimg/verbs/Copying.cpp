/// @file Copying.cpp

#include "Copying.h"

#include "../Exclude.h"
#include "../ImageTree.h"

namespace fatimg {

void CopyingOptions::Check() const {
  if (operands.size() < 2) throw Failure(Exit::Usage, operands[0], "where is it to go? There is one operand only");
}

void AddCopyingOptions(Syntax* verb, const char* operands, CopyingOptions* options) {
  verb->Positionals(operands, &options->operands, "Sources, and at the end where they go");
  verb->Flag("-r,--recursive", &options->recursive, "Copy directories with all that is in them");
  verb->Flag("-t,--times", &options->times, "Keep the modification times");
  verb->Flag("-n,--no-clobber", &options->noClobber, "Leave files that exist as they are, without a word");
  verb->Options("--exclude", "PATTERN", &options->exclude, "Leave out what fits; may be given several times");
}

CopyOptions CopyOptionsOf(const Context& context, const CopyingOptions& options) {
  CopyOptions copy;
  if (options.noClobber) {
    copy.clobber = Clobber::Skip;
  } else if (context.options.force) {
    copy.clobber = Clobber::Replace;
  }
  copy.times = options.times;
  copy.withoutBytes = context.options.dryRun;
  const fatlib::VolumeOptions volume = Session::OptionsOf(context.options);
  if (context.options.reproducible && volume.clock) copy.latest = volume.clock();
  return copy;
}

void GatherImageItems(const Context& context, const std::vector<Target>& sources, bool into,
                      const CopyingOptions& options, std::vector<CopyItem>* items, std::vector<FailedItem>* failures) {
  ImageTreeOptions tree;
  tree.recursive = options.recursive;
  tree.zone = Session::OptionsOf(context.options).zone;
  tree.excluded = Exclude(options.exclude);
  for (const Target& source : sources) {
    const std::string label = source.text.substr(0, source.text.size() - source.path.ToUtf8().size());
    tree.shown = [label](const fatlib::Path& path) { return label + path.ToUtf8(); };
    const bool named = into && !source.contents && !source.path.IsRoot();
    const fatlib::Path relative = named ? fatlib::Path() / source.path.Name() : fatlib::Path();
    ScanImage(source.volume, source.path, relative, tree, items, failures);
  }
}

}  // namespace fatimg
