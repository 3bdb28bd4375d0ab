/// @file Put.cpp
/// put: files of the host go into the image.

#include <fatlib/Text.h>

#include <utility>

#include "../Exclude.h"
#include "../HostTree.h"
#include "../ImageTarget.h"
#include "../StandardInput.h"
#include "ChangeVerbs.h"
#include "Copying.h"

namespace fatimg {

namespace {

/// The name that a host path ends in; empty for "." and "/", whose contents are meant.
/// @throws Failure (Refused) for a name that is not UTF-8
std::u16string NameOf(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  const std::string name = path.substr(path.rfind('/') + 1);
  if (name == "." || name == ".." || name.empty()) return {};
  std::u16string units;
  if (!fatlib::FromUtf8(name, &units)) throw Failure(Exit::Refused, path, "the name is not UTF-8");
  return units;
}

/// @param image  the host path of the image
/// @param into   each source goes into the destination under its name
void GatherHostItems(const CopyingOptions& options, const std::string& image, bool into, std::vector<CopyItem>* items,
                     std::vector<FailedItem>* failures) {
  HostTreeOptions tree;
  tree.recursive = options.recursive;
  tree.followLinks = !options.noFollow;
  tree.image = image;
  tree.excluded = Exclude(options.exclude);
  for (const std::string& source : options.Sources()) {
    const fatlib::Path relative = into ? fatlib::Path() / NameOf(source) : fatlib::Path();
    ScanHost(source, relative, tree, items, failures);
  }
}

Exit RunPut(Context& context, const CopyingOptions& options) {
  options.Check();
  const bool piped = options.operands.size() == 2 && options.operands[0] == "-";
  const Destination destination =
      DestinationOf(context, options.Destination(), options.operands.size() > 2, options.recursive);
  const fatlib::Zone zone = Session::OptionsOf(context.options).zone;
  ImageTarget target(destination.volume, destination.path, destination.operand.Text(""), zone);
  const CopyOptions copy = CopyOptionsOf(context, options);
  std::vector<CopyItem> items;
  std::vector<FailedItem> failures;
  if (!piped) {
    GatherHostItems(options, context.session.Complete(destination.operand).image, destination.into, &items, &failures);
    HostSource source;
    RunCopy(context, items, failures, &source, &target, copy);
    return context.report.Finish();
  }
  if (destination.into) {
    throw Failure(Exit::Refused, options.Destination(), "is a directory; name the file that standard input becomes");
  }
  StandardInput source;
  if (const std::error_code error = source.Take(target.MaxFileBytes(), &items.emplace_back())) {
    throw Failure(error, "standard input");
  }
  RunCopy(context, items, failures, &source, &target, copy);
  return context.report.Finish();
}

}  // namespace

void AddPut(Grammar& grammar) {
  CopyingOptions* options = nullptr;
  Syntax verb = grammar.Add("put", "Copy files of the host into the image", RunPut, &options);
  AddCopyingOptions(&verb, "FILE... IMAGE:/PATH", options);
  verb.Flag("--no-follow", &options->noFollow, "Report symbolic links as failed instead of following them");
}

}  // namespace fatimg
