/// @file Map.cpp
/// map: the clusters of files and directories, and where they are in the image.

#include "../ClusterText.h"
#include "../EntryText.h"
#include "LookVerbs.h"
#include "Looking.h"

namespace fatimg {

namespace {

struct MapOptions {
  std::vector<std::string> operands;
};

// The fixed root of FAT12 and FAT16 lies before the clusters.
Json FixedRootJson(const fatlib::Geometry& layout, std::uint64_t imageOffset) {
  Json run;
  run["offset"] = 0;
  run["cluster"] = nullptr;
  run["clusters"] = 0;
  run["bytes"] = std::uint64_t{layout.rootEntries} * fatlib::Geometry::SLOT_BYTES;
  run["position"] = imageOffset + layout.RootPosition();
  return Json::array({run});
}

void Show(Context& context, const Sight& sight, const Json& extents) {
  std::vector<std::vector<std::string>> rows{{"OFFSET", "CLUSTER", "CLUSTERS", "BYTES", "POSITION"}};
  for (const Json& run : extents) {
    rows.push_back({run["offset"].dump(), run["cluster"].is_null() ? "-" : run["cluster"].dump(),
                    run["clusters"].dump(), run["bytes"].dump(), run["position"].dump()});
  }
  context.report.Print(context.report.Shown(sight.text) + ":\n" + TableText(rows, {true, true, true, true, true}));
}

Exit RunMap(Context& context, const MapOptions& options) {
  Json items = Json::array();
  for (const Sight& sight : LookAt(context, options.operands)) {
    const fatlib::Geometry& layout = sight.reader->Medium().Layout();
    const std::uint64_t imageOffset = context.session.OffsetOf(sight.operand);
    std::vector<fatlib::Extent> found;
    const std::error_code error = sight.reader->Clusters(sight.node, &found);
    const bool fixedRoot = sight.node.root && layout.type != fatlib::FatType::Fat32;
    const Json extents = fixedRoot ? FixedRootJson(layout, imageOffset) : ExtentsJson(layout, imageOffset, found);
    Show(context, sight, extents);
    Json item;
    item["image"] = sight.operand.ImageText();
    item["path"] = sight.node.path.ToUtf8();
    item["size"] = sight.node.raw.size;
    item["clusters"] = ClusterCount(found);
    item["extents"] = extents;
    items.push_back(std::move(item));
    if (error) {
      context.report.Fail(sight.text, error);
    } else {
      context.report.Done();
    }
  }
  context.report.Object()["items"] = std::move(items);
  return context.report.Finish();
}

}  // namespace

void AddMap(Grammar& grammar) {
  MapOptions* options = nullptr;
  Syntax verb = grammar.Add("map", "Show the clusters of files and directories", RunMap, &options);
  verb.Positionals("IMAGE:/PATH", &options->operands, "Files and directories; POSITION is in bytes of the image");
}

}  // namespace fatimg
