/// @file Df.cpp
/// df: how full volumes are.

#include <fatlib/Text.h>

#include "../ByteCount.h"
#include "../EntryText.h"
#include "LookVerbs.h"
#include "Looking.h"

namespace fatimg {

namespace {

struct DfOptions {
  std::vector<std::string> images{":/"};
  bool human = false;
};

std::string Percent(std::uint64_t part, std::uint64_t whole) {
  return whole == 0 ? "-" : std::to_string((part * 100 + whole - 1) / whole) + "%";
}

Exit RunDf(Context& context, const DfOptions& options) {
  const auto bytes = [&options](std::uint64_t count) {
    return options.human ? ByteCountText(count) : std::to_string(count);
  };
  std::vector<std::vector<std::string>> rows{{"IMAGE", "TYPE", "BYTES", "USED", "FREE", "USE", "LABEL"}};
  Json volumes = Json::array();
  for (const std::string& text : options.images) {
    const Operand operand = ParseImage(text);
    try {
      fatlib::Volume& volume = context.session.Open(operand, fatlib::Access::ReadOnly);
      const fatlib::Geometry layout = volume.Layout();
      std::uint32_t freeClusters = 0;
      std::u16string label;
      std::error_code error = volume.FreeClusters(&freeClusters);
      if (!error) error = volume.Label(&label);
      if (error) throw Failure(error, operand.ImageText());
      const std::uint64_t total = std::uint64_t{layout.clusters} * layout.bytesPerCluster;
      const std::uint64_t free = std::uint64_t{freeClusters} * layout.bytesPerCluster;
      const std::string type = layout.TypeText();
      rows.push_back({context.report.Shown(operand.ImageText()), type, bytes(total), bytes(total - free), bytes(free),
                      Percent(total - free, total), context.report.Shown(fatlib::ToUtf8(label))});
      Json json;
      json["image"] = operand.ImageText();
      json["type"] = type;
      json["label"] = fatlib::ToUtf8(label);
      json["bytes"] = total;
      json["used"] = total - free;
      json["free"] = free;
      json["clusters"] = layout.clusters;
      json["freeClusters"] = freeClusters;
      json["bytesPerCluster"] = layout.bytesPerCluster;
      volumes.push_back(std::move(json));
      context.report.Done();
    } catch (const Failure& failure) {
      context.report.Fail(failure);
    }
  }
  context.report.Object()["volumes"] = std::move(volumes);
  context.report.Print(TableText(rows, {false, false, true, true, true, true, false}));
  return context.report.Finish();
}

}  // namespace

void AddDf(Grammar& grammar) {
  DfOptions* options = nullptr;
  Syntax verb = grammar.Add("df", "Tell how full volumes are", RunDf, &options);
  verb.Flag("-h,--human", &options->human, "With units: 1.5 MiB");
  verb.Positionals("IMAGE", &options->images, "Volumes", Syntax::Need::Optional);
}

}  // namespace fatimg
