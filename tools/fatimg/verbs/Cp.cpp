/// @file Cp.cpp
/// cp: copies inside an image, or from one into another.

#include "../ImageTarget.h"
#include "../ImageTree.h"
#include "ChangeVerbs.h"
#include "Copying.h"

namespace fatimg {

namespace {

/// Nothing is copied onto itself, and no directory into itself, which would never end.
void CheckNotIntoItself(const Destination& destination, const std::vector<Target>& sources) {
  for (const Target& source : sources) {
    if (source.volume != destination.volume) continue;
    const bool named = destination.into && !source.contents && !source.path.IsRoot();
    const fatlib::Path path = named ? destination.path / source.path.Name() : destination.path;
    if (path == source.path) throw Failure(Exit::Refused, source.text, "is copied onto itself");
    fatlib::Entry entry;
    if (path.IsAtOrBelow(source.path) && !source.volume->Stat(source.path, &entry) && entry.IsDirectory()) {
      throw Failure(Exit::Refused, source.text, "is copied into itself");
    }
  }
}

Exit RunCp(Context& context, const CopyingOptions& options) {
  options.Check();
  // The one that is written is opened first.
  (void)OpenForWriting(context, ParseOperand(options.Destination()));
  const std::vector<Target> sources = TargetsOf(context, options.Sources(), fatlib::Access::ReadOnly);
  if (sources.empty()) return context.report.Finish();
  const Destination destination = DestinationOf(context, options.Destination(), sources.size() > 1, options.recursive);
  CheckNotIntoItself(destination, sources);
  std::vector<CopyItem> items;
  std::vector<FailedItem> failures;
  GatherImageItems(context, sources, destination.into, options, &items, &failures);
  CopyOptions copy = CopyOptionsOf(context, options);
  copy.attributes = true;
  const fatlib::Zone zone = Session::OptionsOf(context.options).zone;
  ImageTarget target(destination.volume, destination.path, destination.operand.Text(""), zone);
  ImageSource source;
  RunCopy(context, items, failures, &source, &target, copy);
  return context.report.Finish();
}

}  // namespace

void AddCp(Grammar& grammar) {
  CopyingOptions* options = nullptr;
  Syntax verb = grammar.Add("cp", "Copy inside the image, or from one image into another", RunCp, &options);
  AddCopyingOptions(&verb, "IMAGE:/PATH... IMAGE:/PATH", options);
}

}  // namespace fatimg
