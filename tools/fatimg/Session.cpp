/// @file Session.cpp

#include "Session.h"

#include <fatlib/Error.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "Exit.h"
#include "Timeless.h"

namespace fatimg {

namespace {

// The first second that a FAT volume can store, 1980-01-01.
constexpr std::time_t EARLIEST = 315532800;

using fatlib::Access;
using fatlib::Device;
using fatlib::ImageFile;

std::string ListOf(const PartitionTable& table) {
  std::string text;
  for (const Partition& partition : table.partitions) {
    text += (text.empty() ? "" : ", ") + std::to_string(partition.number);
    if (!partition.name.empty()) text += " " + partition.name;
  }
  return text.empty() ? "none" : text;
}

PartitionTable ReadTableOf(const Operand& operand) {
  ImageFile::Options options;
  options.access = Access::ReadOnly;
  options.lock = false;
  std::unique_ptr<ImageFile> disk;
  std::error_code error = ImageFile::Open(operand.image, options, &disk);
  if (error) throw Failure(error, operand.image);
  PartitionTable table;
  error = ReadPartitionTable(disk.get(), &table);
  if (error) throw Failure(error, operand.image);
  return table;
}

std::vector<const Partition*> Chosen(const PartitionTable& table, const Where& where) {
  if (where.kind == Where::Name) return table.ByName(where.name);
  const Partition* partition = table.ByNumber(where.number);
  return partition != nullptr ? std::vector<const Partition*>{partition} : std::vector<const Partition*>{};
}

// The part of the image that an operand names.
void FindWindow(const Operand& operand, ImageFile::Options* options) {
  if (operand.where.kind == Where::Whole) return;
  if (operand.where.kind == Where::Offset) {
    options->offset = operand.where.offset;
    return;
  }
  const PartitionTable table = ReadTableOf(operand);
  const std::vector<const Partition*> found = Chosen(table, operand.where);
  if (found.empty()) {
    struct stat status {};
    const std::string all = operand.image + "@" + operand.whereText;
    if (stat(all.c_str(), &status) == 0) {
      throw Failure(Exit::NotFound, operand.ImageText(), "no such partition; the file of that name is " + all + "@");
    }
    throw Failure(Exit::NotFound, operand.ImageText(),
                  table.kind == PartitionTable::None ? "the image has no partition table"
                                                     : "no such partition; there are: " + ListOf(table));
  }
  if (found.size() > 1) {
    throw Failure(Exit::Usage, operand.ImageText(), "several partitions are called so; take one of: " + ListOf(table));
  }
  options->offset = found[0]->offset;
  options->length = found[0]->length;
}

// What may be wrong when there is no volume: nobody said which partition.
std::string NotAVolumeReason(const Operand& operand) {
  std::string reason = std::error_code(fatlib::Status::NotAVolume).message();
  if (operand.where.kind != Where::Whole) return reason;
  const PartitionTable table = ReadTableOf(operand);
  if (table.kind == PartitionTable::None) return reason;
  return "there is a partition table; name a partition as " + operand.image + "@N, of: " + ListOf(table);
}

std::error_code CloseVolume(const CommonOptions& options, Access access, fatlib::Volume* volume) {
  std::error_code error;
  if (options.reproducible && access == Access::ReadWrite) {
    fatlib::Medium* medium = nullptr;
    error = volume->Raw(&medium);
    if (!error) error = MakeTimeless(medium);
  }
  const std::error_code closed = volume->Close();
  return error ? error : closed;
}

}  // namespace

// An image, whatever path leads to it.
struct Session::FileId {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const FileId& other) const { return device == other.device && inode == other.inode; }

  static FileId Of(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return {};
    return {status.st_dev, status.st_ino};
  }
};

struct Session::OpenVolume {
  Operand operand;
  FileId file;
  Access access = Access::ReadOnly;
  fatlib::Volume volume;
};

Session::Session(const CommonOptions& options) : m_Options(options) {}
Session::~Session() = default;

fatlib::VolumeOptions Session::OptionsOf(const CommonOptions& options) {
  fatlib::VolumeOptions result;
  result.force = options.force;
  if (!options.reproducible) return result;
  result.zone = fatlib::Zone::Utc;
  std::timespec time{EARLIEST, 0};
  if (const char* epoch = std::getenv("SOURCE_DATE_EPOCH")) {
    char* end = nullptr;
    const long long seconds = std::strtoll(epoch, &end, 10);
    if (end == epoch || *end != 0) {
      throw Failure(Exit::Usage, "SOURCE_DATE_EPOCH", "this is no number of seconds");
    }
    // The times that can be stored end with the year 2107, those of a std::time_t of 32 bits with 2038.
    constexpr long long LATEST = std::min<long long>(4354819199, std::numeric_limits<std::time_t>::max());
    const long long bounded = std::clamp<long long>(seconds, EARLIEST, LATEST);
    time.tv_sec = static_cast<std::time_t>(bounded);
  }
  result.clock = [time] { return time; };
  return result;
}

Operand Session::Complete(const Operand& operand) const {
  if (!operand.image.empty()) return operand;
  if (m_Default.image.empty()) throw Failure(Exit::Usage, operand.Text(), "no image is named");
  Operand complete = m_Default;
  complete.path = operand.path;
  complete.hasPath = operand.hasPath;
  return complete;
}

Session::OpenVolume* Session::Find(const Operand& operand) {
  const FileId file = FileId::Of(operand.image);
  for (const auto& open : m_Volumes) {
    // An image that a dry run only imagines is known by its name.
    const bool same = file == FileId() ? open->operand.image == operand.image : open->file == file;
    if (same && open->operand.where == operand.where) return open.get();
  }
  return nullptr;
}

// A lock that is shared with readers of this very process would keep its own writer out.
void Session::CloseReaders(const FileId& file) {
  const auto isReader = [&file](const std::unique_ptr<OpenVolume>& open) {
    return open->access == Access::ReadOnly && open->file == file;
  };
  m_Volumes.erase(std::remove_if(m_Volumes.begin(), m_Volumes.end(), isReader), m_Volumes.end());
}

std::unique_ptr<Device> Session::OpenDevice(const Operand& given, Access access) {
  const Operand operand = Complete(given);
  Release(operand);
  const FileId file = FileId::Of(operand.image);
  if (access == Access::ReadWrite) CloseReaders(file);
  ImageFile::Options options;
  options.access = m_Options.dryRun ? Access::ReadOnly : access;
  // One lock for all volumes of an image, that of the first one that writes.
  options.lock = std::none_of(m_Volumes.begin(), m_Volumes.end(), [&file](const auto& open) {
    return open->access == Access::ReadWrite && open->file == file;
  });
  FindWindow(operand, &options);
  std::unique_ptr<ImageFile> image;
  const std::error_code error = ImageFile::Open(operand.image, options, &image);
  if (error) throw Failure(error, operand.ImageText());
  if (m_Options.dryRun && access == Access::ReadWrite) return std::make_unique<fatlib::Overlay>(std::move(image));
  return image;
}

fatlib::Volume& Session::Open(const Operand& given, Access access) {
  const Operand operand = Complete(given);
  OpenVolume* known = Find(operand);
  if (known != nullptr && (access == Access::ReadOnly || known->access == Access::ReadWrite)) return known->volume;
  return OpenOn(operand, access, OpenDevice(operand, access));
}

fatlib::Volume& Session::OpenOn(const Operand& operand, Access access, std::unique_ptr<Device> device) {
  auto open = std::make_unique<OpenVolume>();
  open->operand = operand;
  open->access = access;
  open->file = FileId::Of(operand.image);
  const std::error_code error = open->volume.Open(std::move(device), OptionsOf(m_Options));
  if (error == fatlib::Status::NotAVolume) {
    throw Failure(Exit::Corrupt, operand.ImageText(), NotAVolumeReason(operand));
  }
  if (error) throw Failure(error, operand.ImageText());
  m_Volumes.push_back(std::move(open));
  return m_Volumes.back()->volume;
}

void Session::Adopt(const Operand& given, std::unique_ptr<Device> device) {
  const Operand operand = Complete(given);
  Release(operand);
  (void)OpenOn(operand, Access::ReadWrite, std::move(device));
}

std::uint64_t Session::OffsetOf(const Operand& given) const {
  ImageFile::Options options;
  FindWindow(Complete(given), &options);
  return options.offset;
}

PartitionTable Session::TableOf(const Operand& operand) const { return ReadTableOf(Complete(operand)); }

void Session::Release(const Operand& operand) {
  OpenVolume* known = Find(Complete(operand));
  if (known == nullptr) return;
  const std::string text = known->operand.ImageText();
  const std::error_code error = CloseVolume(m_Options, known->access, &known->volume);
  const auto same = [known](const std::unique_ptr<OpenVolume>& open) { return open.get() == known; };
  m_Volumes.erase(std::find_if(m_Volumes.begin(), m_Volumes.end(), same));
  if (error) throw Failure(error, text);
}

void Session::Sync() {
  for (const auto& open : m_Volumes) {
    const std::error_code error = open->volume.Sync();
    if (error) throw Failure(error, open->operand.ImageText());
  }
}

void Session::Close() {
  std::error_code first;
  std::string path;
  for (const auto& open : m_Volumes) {
    const std::error_code error = CloseVolume(m_Options, open->access, &open->volume);
    if (error && !first) {
      first = error;
      path = open->operand.ImageText();
    }
  }
  m_Volumes.clear();
  if (first) throw Failure(first, path);
}

}  // namespace fatimg
