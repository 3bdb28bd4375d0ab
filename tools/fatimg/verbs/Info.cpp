/// @file Info.cpp
/// info: what kind of volume it is and how it is used; or the partitions of an image.

#include <fatlib/Check.h>
#include <fatlib/Text.h>

#include <cstdio>

#include "../ByteCount.h"
#include "../EntryText.h"
#include "../PartitionTable.h"
#include "LookVerbs.h"
#include "Looking.h"

namespace fatimg {

namespace {

struct InfoOptions {
  std::string image = ":/";
  bool partitions = false;
};

using Rows = std::vector<std::vector<std::string>>;

std::string VolumeIdText(std::uint32_t id) {
  char text[16];
  std::snprintf(text, sizeof text, "%04X-%04X", id >> 16, id & 0xFFFFu);
  return text;
}

std::string BytesText(std::uint64_t bytes) { return std::to_string(bytes) + " (" + ByteCountText(bytes) + ")"; }

// Of all files that have clusters, how many of their runs begin somewhere else than behind the run before.
double Fragmentation(const fatlib::CheckReport& found) {
  return found.files == 0 ? 0.0 : 100.0 * static_cast<double>(found.fragmentedFiles) / static_cast<double>(found.files);
}

Json GeometryJson(const fatlib::Geometry& layout) {
  Json json;
  json["bytesPerSector"] = layout.bytesPerSector;
  json["sectorsPerCluster"] = layout.sectorsPerCluster;
  json["bytesPerCluster"] = layout.bytesPerCluster;
  json["reservedSectors"] = layout.reservedSectors;
  json["fats"] = layout.fats;
  json["sectorsPerFat"] = layout.sectorsPerFat;
  json["rootEntries"] = layout.rootEntries;
  json["rootCluster"] = layout.rootCluster;
  json["totalSectors"] = layout.totalSectors;
  json["firstDataSector"] = layout.firstDataSector;
  json["clusters"] = layout.clusters;
  json["media"] = layout.media;
  json["fsInfoSector"] = layout.fsInfoSector;
  json["backupBootSector"] = layout.backupBootSector;
  return json;
}

Json UseJson(const fatlib::CheckReport& found) {
  Json json;
  json["files"] = found.files;
  json["directories"] = found.directories;
  json["usedClusters"] = found.usedClusters + found.lostClusters;
  json["freeClusters"] = found.freeClusters;
  json["badClusters"] = found.badClusters;
  json["lostClusters"] = found.lostClusters;
  json["fragmentedFiles"] = found.fragmentedFiles;
  json["runs"] = found.runs;
  json["defects"] = found.defects.size() + found.moreDefects;
  return json;
}

Rows GeometryRows(const fatlib::Geometry& layout) {
  Rows rows;
  rows.push_back({"size:", BytesText(layout.totalSectors * layout.bytesPerSector)});
  rows.push_back(
      {"sectors:", std::to_string(layout.totalSectors) + " of " + std::to_string(layout.bytesPerSector) + " bytes"});
  rows.push_back(
      {"clusters:", std::to_string(layout.clusters) + " of " + std::to_string(layout.bytesPerCluster) + " bytes"});
  rows.push_back({"FATs:", std::to_string(layout.fats) + " of " + std::to_string(layout.sectorsPerFat) + " sectors"});
  rows.push_back({"reserved sectors:", std::to_string(layout.reservedSectors)});
  rows.push_back({"root directory:", layout.type == fatlib::FatType::Fat32
                                         ? "from cluster " + std::to_string(layout.rootCluster)
                                         : std::to_string(layout.rootEntries) + " entries"});
  rows.push_back({"first data sector:", std::to_string(layout.firstDataSector)});
  return rows;
}

Rows UseRows(const fatlib::CheckReport& found, const fatlib::Geometry& layout) {
  const std::uint64_t used = found.usedClusters + found.lostClusters;
  char fragmentation[96];
  std::snprintf(fragmentation, sizeof fragmentation, "%llu files in %llu runs, %.1f%% in more than one",
                static_cast<unsigned long long>(found.files), static_cast<unsigned long long>(found.runs),
                Fragmentation(found));
  Rows rows;
  rows.push_back({"used clusters:", std::to_string(used) + ", " + ByteCountText(used * layout.bytesPerCluster)});
  rows.push_back({"free clusters:", std::to_string(found.freeClusters) + ", " +
                                        ByteCountText(found.freeClusters * layout.bytesPerCluster)});
  if (found.badClusters != 0) rows.push_back({"bad clusters:", std::to_string(found.badClusters)});
  rows.push_back({"files:", std::to_string(found.files)});
  rows.push_back({"directories:", std::to_string(found.directories)});
  rows.push_back({"fragmentation:", fragmentation});
  return rows;
}

Exit ShowVolume(Context& context, const Operand& operand) {
  fatlib::Volume& volume = context.session.Open(operand, fatlib::Access::ReadOnly);
  std::u16string label;
  fatlib::Medium* medium = nullptr;
  fatlib::CheckReport found;
  std::error_code error = volume.Label(&label);
  if (!error) error = volume.Raw(&medium);
  if (!error) error = fatlib::Check(medium, &found);
  if (error) throw Failure(error, operand.ImageText());
  const fatlib::Geometry& layout = medium->Layout();
  const std::string type = layout.TypeText();

  Json& json = context.report.Object();
  json["image"] = operand.ImageText();
  json["offset"] = context.session.OffsetOf(operand);
  json["type"] = type;
  json["ambiguousType"] = layout.ambiguous;
  json["label"] = fatlib::ToUtf8(label);
  json["volumeId"] = VolumeIdText(layout.volumeId);
  json["bytes"] = layout.totalSectors * layout.bytesPerSector;
  json["geometry"] = GeometryJson(layout);
  json["use"] = UseJson(found);

  Rows rows;
  rows.push_back({"image:", context.report.Shown(operand.ImageText())});
  rows.push_back({"offset:", std::to_string(context.session.OffsetOf(operand))});
  rows.push_back({"type:", type + (layout.ambiguous ? ", taken for FAT16 by other systems" : "")});
  rows.push_back({"label:", context.report.Shown(fatlib::ToUtf8(label))});
  rows.push_back({"volume id:", VolumeIdText(layout.volumeId)});
  for (const auto& row : GeometryRows(layout)) rows.push_back(row);
  for (const auto& row : UseRows(found, layout)) rows.push_back(row);
  context.report.Print(TableText(rows, {false, false}));
  const std::uint64_t defects = found.defects.size() + found.moreDefects;
  if (defects != 0) {
    context.report.Warn(operand.ImageText(),
                        "the volume has " + std::to_string(defects) + " defects; \"fatimg check\" tells them");
  }
  return context.report.Finish();
}

const char* KindText(PartitionTable::Kind kind) {
  switch (kind) {
    case PartitionTable::None:
      return "none";
    case PartitionTable::Mbr:
      return "mbr";
    case PartitionTable::Gpt:
      return "gpt";
  }
  return "none";
}

Exit ShowPartitions(Context& context, const Operand& operand) {
  if (operand.where.kind != Where::Whole) {
    throw Failure(Exit::Usage, operand.ImageText(), "the partitions of a whole image are meant, not of a part");
  }
  const PartitionTable table = context.session.TableOf(operand);
  Json list = Json::array();
  Rows rows{{"NUMBER", "OFFSET", "BYTES", "TYPE", "BOOT", "NAME"}};
  for (const Partition& partition : table.partitions) {
    rows.push_back({std::to_string(partition.number), std::to_string(partition.offset),
                    std::to_string(partition.length), partition.type, partition.bootable ? "yes" : "no",
                    context.report.Shown(partition.name)});
    Json json;
    json["number"] = partition.number;
    json["offset"] = partition.offset;
    json["bytes"] = partition.length;
    json["type"] = partition.type;
    json["name"] = partition.name;
    json["bootable"] = partition.bootable;
    list.push_back(std::move(json));
  }
  Json& json = context.report.Object();
  json["image"] = operand.ImageText();
  json["table"] = KindText(table.kind);
  json["backupTable"] = table.backup;
  json["bytesPerSector"] = table.bytesPerSector;
  json["partitions"] = std::move(list);
  if (table.kind == PartitionTable::None) {
    throw Failure(Exit::NotFound, operand.ImageText(), "the image has no partition table");
  }
  if (table.backup) {
    context.report.Warn(operand.ImageText(), "the first partition table is damaged; this is the one at the end");
  }
  context.report.Print(TableText(rows, {true, true, true, false, false, false}));
  return context.report.Finish();
}

Exit RunInfo(Context& context, const InfoOptions& options) {
  const Operand operand = context.session.Complete(ParseImage(options.image));
  return options.partitions ? ShowPartitions(context, operand) : ShowVolume(context, operand);
}

}  // namespace

void AddInfo(Grammar& grammar) {
  InfoOptions* options = nullptr;
  Syntax verb = grammar.Add("info", "Tell type, geometry and use of a volume", RunInfo, &options);
  verb.Flag("--partitions", &options->partitions, "List the partitions of the image instead");
  verb.Positional("IMAGE", &options->image, "The volume; may be left out in run", Syntax::Need::Optional);
}

}  // namespace fatimg
