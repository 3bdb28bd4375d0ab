/// @file Get.cpp
/// get: files of the image go to the host.

#include <sys/stat.h>

#include <algorithm>

#include "../HostTarget.h"
#include "../ImageTree.h"
#include "ChangeVerbs.h"
#include "Copying.h"

namespace fatimg {

namespace {

bool IsHostDirectory(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

void ToStandardOutput(Context& context, const std::vector<Target>& sources) {
  std::vector<unsigned char> piece(Pump::PIECE_BYTES);
  for (const Target& source : sources) {
    fatlib::File file;
    std::error_code error = source.volume->OpenFile(source.path, fatlib::Access::ReadOnly, &file);
    for (std::uint64_t offset = 0; !error && offset < file.Size();) {
      std::size_t done = 0;
      error = file.Read(offset, piece.data(), piece.size(), &done);
      if (!context.report.Write(piece.data(), done) || done == 0) return;
      offset += done;
    }
    if (error) {
      context.report.Fail(source.text, error);
    } else {
      context.report.Done();
    }
  }
}

/// @return whether the sources go into the destination under their names
bool GoesInto(const CopyingOptions& options, std::size_t sources) {
  const std::string& path = options.Destination();
  if (IsHostDirectory(path)) return true;
  if (sources > 1) throw Failure(Exit::NotFound, path, "is no directory, as several sources need one");
  if (MustBeDirectory(path) && !options.recursive) throw Failure(Exit::NotFound, path, "is no directory");
  return false;
}

Exit RunGet(Context& context, const CopyingOptions& options) {
  options.Check();
  CatchSignals();
  const std::vector<Target> sources = TargetsOf(context, options.Sources(), fatlib::Access::ReadOnly);
  if (sources.empty()) return context.report.Finish();
  if (options.Destination() == "-") {
    ToStandardOutput(context, sources);
    return context.report.Finish();
  }
  std::vector<CopyItem> items;
  std::vector<FailedItem> failures;
  GatherImageItems(context, sources, GoesInto(options, sources.size()), options, &items, &failures);
  HostTarget target(options.Destination());
  CopyOptions copy = CopyOptionsOf(context, options);
  copy.planOnly = context.options.dryRun;
  ImageSource source;
  RunCopy(context, items, failures, &source, &target, copy);
  return context.report.Finish();
}

}  // namespace

void AddGet(Grammar& grammar) {
  CopyingOptions* options = nullptr;
  Syntax verb = grammar.Add("get", "Copy files of the image to the host", RunGet, &options);
  AddCopyingOptions(&verb, "IMAGE:/PATH... FILE", options);
}

}  // namespace fatimg
