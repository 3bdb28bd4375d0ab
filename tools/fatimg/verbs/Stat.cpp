/// @file Stat.cpp
/// stat: all that is known of files and directories.

#include <fatlib/Text.h>

#include "../ClusterText.h"
#include "../EntryText.h"
#include "LookVerbs.h"
#include "Looking.h"

namespace fatimg {

namespace {

struct StatOptions {
  std::vector<std::string> operands;
};

std::string OrNone(const std::string& text) { return text.empty() ? "none" : text; }

void Show(Context& context, const Sight& sight, const std::vector<fatlib::Extent>& extents) {
  const fatlib::RawEntry& raw = sight.node.raw;
  const std::uint64_t clusters = ClusterCount(extents);
  const std::uint64_t bytes = clusters * sight.reader->Medium().Layout().bytesPerCluster;
  if (context.report.IsJson()) {
    Json item = EntryJson(sight.node);
    item["image"] = sight.operand.ImageText();
    item["firstCluster"] = extents.empty() ? Json(nullptr) : Json(extents[0].first);
    item["clusters"] = clusters;
    item["runs"] = extents.size();
    item["allocated"] = bytes;
    context.report.Object()["items"].push_back(std::move(item));
    return;
  }
  std::vector<std::vector<std::string>> rows;
  rows.push_back({"path:", context.report.Shown(sight.node.path.ToUtf8())});
  if (!sight.node.root) rows.push_back({"short name:", context.report.Shown(fatlib::ToUtf8(raw.ShortNameText()))});
  rows.push_back({"type:", sight.node.root ? "root directory" : sight.node.IsDirectory() ? "directory" : "file"});
  if (!sight.node.IsDirectory()) rows.push_back({"size:", std::to_string(raw.size)});
  rows.push_back({"allocated:", std::to_string(bytes) + " in " + std::to_string(clusters) + " clusters, " +
                                    std::to_string(extents.size()) + " runs"});
  if (!extents.empty()) rows.push_back({"first cluster:", std::to_string(extents[0].first)});
  if (!sight.node.root) {
    rows.push_back({"attributes:", AttributeText(raw)});
    rows.push_back({"created:", OrNone(fatlib::ToIso8601(raw.times.created))});
    rows.push_back({"modified:", OrNone(fatlib::ToIso8601(raw.times.modified))});
    rows.push_back({"accessed:", OrNone(fatlib::ToIso8601(raw.times.accessed, true))});
  }
  context.report.Print(TableText(rows, {false, false}));
}

Exit RunStat(Context& context, const StatOptions& options) {
  context.report.Object()["items"] = Json::array();
  bool first = true;
  for (const Sight& sight : LookAt(context, options.operands)) {
    std::vector<fatlib::Extent> extents;
    const std::error_code error = sight.reader->Clusters(sight.node, &extents);
    if (!first) context.report.Print("\n");
    first = false;
    Show(context, sight, extents);
    if (error) {
      context.report.Fail(sight.text, error);
    } else {
      context.report.Done();
    }
  }
  return context.report.Finish();
}

}  // namespace

void AddStat(Grammar& grammar) {
  StatOptions* options = nullptr;
  Syntax verb = grammar.Add("stat", "Tell all that is known of files and directories", RunStat, &options);
  verb.Positionals("IMAGE:/PATH", &options->operands, "Files and directories");
}

}  // namespace fatimg
