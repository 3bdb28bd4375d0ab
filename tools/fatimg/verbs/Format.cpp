/// @file Format.cpp
/// format: makes an empty volume, in an image of its own or in a part of one.

#include <fatlib/Error.h>
#include <fatlib/Format.h>
#include <fatlib/Text.h>
#include <sys/stat.h>

#include <array>
#include <cstdio>

#include "../PartitionTable.h"
#include "../VolumeId.h"
#include "../ZeroDevice.h"
#include "ChangeVerbs.h"
#include "Targets.h"

namespace fatimg {

namespace {

struct FormatVerbOptions {
  std::string image = ":/";
  std::string bits;  ///< 12, 16, 32 or nothing
  std::string size;
  std::string cluster;
  std::string sector = "512";
  std::string align;
  std::string label;
  std::string volumeId;
};

std::uint64_t Bytes(const std::string& text, const char* option, std::uint64_t most) {
  std::uint64_t bytes = 0;
  if (text.empty()) return 0;
  if (!ParseBytes(text, &bytes) || bytes == 0 || bytes > most) {
    throw Failure(Exit::Usage, text, std::string("is no size for ") + option);
  }
  return bytes;
}

fatlib::FormatOptions OptionsOf(const Context& context, const FormatVerbOptions& verb) {
  constexpr std::uint64_t MOST_IN_32_BITS = std::uint64_t{1} << 31;
  const fatlib::VolumeOptions volume = Session::OptionsOf(context.options);
  const std::timespec now = volume.Now();
  fatlib::FormatOptions options;
  options.bits = verb.bits.empty() ? 0 : std::stoi(verb.bits);
  options.bytesPerSector = static_cast<std::uint32_t>(Bytes(verb.sector, "--sector", MOST_IN_32_BITS));
  options.bytesPerCluster = static_cast<std::uint32_t>(Bytes(verb.cluster, "--cluster", MOST_IN_32_BITS));
  options.alignment = static_cast<std::uint32_t>(Bytes(verb.align, "--align", MOST_IN_32_BITS));
  if (!fatlib::FromUtf8(verb.label, &options.label)) throw Failure(Exit::Usage, verb.label, "the label is not UTF-8");
  options.created = fatlib::ToStamp(now.tv_sec, now.tv_nsec, volume.zone);
  options.volumeId = VolumeIdOfTime(now);
  if (!verb.volumeId.empty() && !ParseVolumeId(verb.volumeId, &options.volumeId)) {
    throw Failure(Exit::Usage, verb.volumeId, "is no volume id; write 1234-ABCD");
  }
  return options;
}

fatlib::Geometry Planned(const Operand& operand, std::uint64_t bytes, const fatlib::FormatOptions& options) {
  fatlib::Geometry geometry;
  const std::error_code error = fatlib::PlanFormat(bytes, options, &geometry);
  if (error == make_error_code(fatlib::Status::InvalidParameter)) {
    throw Failure(
        Exit::Usage, operand.ImageText(),
        "no volume can be made so: the size gives too few or too many clusters for the type, a size is out of "
        "range, or the label cannot be stored");
  }
  if (error) throw Failure(error, operand.ImageText());
  return geometry;
}

/// Refuses to overwrite what is there.
void CheckNothingThere(const Operand& operand, fatlib::Device* device) {
  fatlib::Medium medium;
  if (!medium.Open(device)) {
    throw Failure(Exit::Refused, operand.ImageText(), "there is a volume already; --force makes a new one");
  }
  PartitionTable table;
  if (operand.where.kind == Where::Whole && !ReadPartitionTable(device, &table) && table.kind != PartitionTable::None) {
    throw Failure(Exit::Refused, operand.ImageText(),
                  "there is a partition table; name a partition as " + operand.image + "@N, or use --force");
  }
}

/// Makes the image file, or in a dry run something in memory that takes its place.
std::unique_ptr<fatlib::Device> NewImage(Context& context, const Operand& operand, std::uint64_t bytes) {
  if (operand.where.kind != Where::Whole) {
    throw Failure(Exit::Usage, operand.ImageText(), "--size makes an image; a part of one has its size");
  }
  struct stat status {};
  if (stat(operand.image.c_str(), &status) == 0 && !context.options.force) {
    throw Failure(Exit::Refused, operand.image,
                  "exists; without --size it is formatted as it is, --force makes it anew");
  }
  context.session.Release(operand);
  if (context.options.dryRun) return std::make_unique<fatlib::Overlay>(std::make_unique<ZeroDevice>(bytes));
  std::unique_ptr<fatlib::ImageFile> image;
  const std::error_code error = fatlib::ImageFile::Create(operand.image, bytes, &image);
  if (error) throw Failure(error, operand.image);
  return image;
}

Exit RunFormat(Context& context, const FormatVerbOptions& verb) {
  CatchSignals();
  const Operand operand = context.session.Complete(ParseOperand(verb.image));
  fatlib::FormatOptions options = OptionsOf(context, verb);
  const std::uint64_t size = Bytes(verb.size, "--size", std::uint64_t{1} << 44);
  std::unique_ptr<fatlib::Device> device;
  if (size != 0) {
    (void)Planned(operand, size, options);  // before a file is made
    device = NewImage(context, operand, size);
  } else {
    device = context.session.OpenDevice(operand, fatlib::Access::ReadWrite);
    if (!context.options.force) CheckNothingThere(operand, device.get());
  }
  options.hiddenSectors = static_cast<std::uint32_t>(context.session.OffsetOf(operand) / options.bytesPerSector);
  const fatlib::Geometry geometry = Planned(operand, device->Size(), options);
  if (const std::error_code error = fatlib::Format(device.get(), options)) throw Failure(error, operand.ImageText());
  if (const std::error_code error = device->Flush()) throw Failure(error, operand.ImageText());
  if (context.options.dryRun) context.session.Adopt(operand, std::move(device));

  std::array<char, 16> id{};
  std::snprintf(id.data(), id.size(), "%04X-%04X", options.volumeId >> 16, options.volumeId & 0xFFFF);
  context.report.Detail(operand.ImageText() + " is FAT" + std::to_string(static_cast<int>(geometry.type)) + " with " +
                        std::to_string(geometry.clusters) + " clusters of " + std::to_string(geometry.bytesPerCluster) +
                        " bytes, " + id.data());
  Json& object = context.report.Object();
  object["type"] = geometry.TypeText();
  object["bytesPerSector"] = geometry.bytesPerSector;
  object["bytesPerCluster"] = geometry.bytesPerCluster;
  object["clusters"] = geometry.clusters;
  object["volumeId"] = id.data();
  return context.report.Finish();
}

}  // namespace

void AddFormat(Grammar& grammar) {
  FormatVerbOptions* options = nullptr;
  Syntax verb = grammar.Add("format", "Make an empty volume", RunFormat, &options);
  verb.Positional("IMAGE", &options->image, "The image, or a part of it", Syntax::Need::Optional);
  verb.Choice("-F,--fat", {"12", "16", "32"}, &options->bits, "The type; else what the size suggests");
  verb.Option("--size", "SIZE", &options->size, "Make the image file, of this size: 1440K, 64M, 2G");
  verb.Option("--cluster", "SIZE", &options->cluster, "Bytes of a cluster; else what type and size suggest");
  verb.Option("--sector", "SIZE", &options->sector, "Bytes of a sector: 512 (if not given), 1024, 2048 or 4096");
  verb.Option("--align", "SIZE", &options->align, "Let the first cluster begin at a multiple of this");
  verb.Option("--label", "LABEL", &options->label, "Up to 11 characters");
  verb.Option("--volume-id", "ID", &options->volumeId, "1234-ABCD; else one made from the time");
}

}  // namespace fatimg
