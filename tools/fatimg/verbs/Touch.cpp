/// @file Touch.cpp
/// touch: sets modification times, and makes files that are not there.

#include <fatlib/Error.h>
#include <sys/stat.h>

#include "../DateText.h"
#include "../HostFile.h"
#include "ChangeVerbs.h"
#include "Targets.h"

namespace fatimg {

namespace {

struct TouchOptions {
  std::vector<std::string> paths;
  std::string date;
  std::string reference;
  bool noCreate = false;
};

std::timespec TimeOfReference(Context& context, const std::string& reference, fatlib::Zone zone) {
  std::timespec time{};
  if (IsImageOperand(reference)) {
    const Operand operand = ParseOperand(reference);
    fatlib::Entry entry;
    fatlib::Volume& volume = context.session.Open(operand, fatlib::Access::ReadOnly);
    if (const std::error_code error = volume.Stat(operand.path, &entry)) throw Failure(error, reference);
    if (!fatlib::FromStamp(entry.times.modified, zone, &time.tv_sec, &time.tv_nsec)) {
      throw Failure(Exit::NotFound, reference, "has no time");
    }
    return time;
  }
  struct stat status {};
  if (stat(reference.c_str(), &status) != 0) throw Failure(LastError(), reference);
  return status.st_mtim;
}

std::timespec TimeOf(Context& context, const TouchOptions& options, const fatlib::VolumeOptions& volume) {
  if (!options.reference.empty() && !options.date.empty()) {
    throw Failure(Exit::Usage, {}, "--date and --reference do not go together");
  }
  if (!options.reference.empty()) return TimeOfReference(context, options.reference, volume.zone);
  if (options.date.empty()) return volume.Now();
  std::timespec time{};
  if (!ParseTime(options.date, volume.zone, &time)) {
    throw Failure(Exit::Usage, options.date,
                  "is no time from 1980 to 2107; write 2026-03-14T15:09:26, 2026-03-14 or @SECONDS");
  }
  return time;
}

std::error_code Touch(const Target& target, const TouchOptions& options, const std::timespec& time, fatlib::Zone zone) {
  if (target.path.IsRoot()) return fatlib::Status::Refused;  // it has no entry
  fatlib::Entry entry;
  std::error_code error = target.volume->Stat(target.path, &entry);
  if (error == make_error_code(fatlib::Status::NotFound)) {
    if (options.noCreate) return {};
    fatlib::File file;
    error = target.volume->CreateFile(target.path, 0, fatlib::File::Fill::Zeros, fatlib::ARCHIVE, &file);
    if (!error) error = target.volume->Stat(target.path, &entry);
  }
  if (error) return error;
  entry.times.modified = fatlib::ToStamp(time.tv_sec, time.tv_nsec, zone);
  entry.times.accessed = entry.times.modified;
  entry.times.accessed.time = 0;
  return target.volume->SetTimes(target.path, entry.times);
}

Exit RunTouch(Context& context, const TouchOptions& options) {
  const fatlib::VolumeOptions volume = Session::OptionsOf(context.options);
  const std::vector<Target> targets = TargetsOf(context, options.paths, fatlib::Access::ReadWrite);
  const std::timespec time = TimeOf(context, options, volume);
  for (const Target& target : targets) {
    if (const std::error_code error = Touch(target, options, time, volume.zone)) {
      context.report.Fail(target.text, error);
    } else {
      context.report.Done();
    }
  }
  return context.report.Finish();
}

}  // namespace

void AddTouch(Grammar& grammar) {
  TouchOptions* options = nullptr;
  Syntax verb = grammar.Add("touch", "Set modification times, and make files that are not there", RunTouch, &options);
  verb.Positionals("IMAGE:/PATH", &options->paths, "Files and directories");
  verb.Option("-d,--date", "TIME", &options->date, "This time: 2026-03-14T15:09:26, or @SECONDS");
  verb.Option("-r,--reference", "FILE", &options->reference, "The time of this file, of the host or IMAGE:/PATH");
  verb.Flag("-c,--no-create", &options->noCreate, "Make no files");
}

}  // namespace fatimg
