/// @file Targets.cpp

#include "Targets.h"

#include <fatlib/Error.h>
#include <fatlib/Text.h>

#include "../Glob.h"
#include "../Interrupt.h"

namespace fatimg {

namespace {

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

fatlib::Path PathOf(const Operand& operand) {
  std::u16string units;
  if (!fatlib::FromUtf8(operand.path, &units)) throw Failure(Exit::Usage, operand.Text(), "the path is not UTF-8");
  return operand.path;
}

}  // namespace

void CatchSignals() { static const Interrupt interrupt; }

fatlib::Volume& OpenForWriting(Context& context, const Operand& operand) {
  CatchSignals();
  return context.session.Open(operand, fatlib::Access::ReadWrite);
}

std::vector<fatlib::Path> PathsOf(const Context& context, fatlib::Volume& volume, const Operand& operand) {
  const fatlib::Path path = PathOf(operand);
  if (context.options.noGlob || !IsPattern(operand.path)) return {path};
  std::vector<fatlib::Path> paths = ExpandGlob(volume, path);
  if (paths.empty()) throw Failure(Exit::NotFound, operand.Text(), "nothing fits this pattern");
  return paths;
}

std::vector<Target> TargetsOf(Context& context, const std::vector<std::string>& operands, fatlib::Access access) {
  std::vector<Target> targets;
  for (const std::string& text : operands) {
    const Operand operand = ParseOperand(text);
    if (!operand.hasPath) throw Failure(Exit::Usage, text, "no path is named; write IMAGE:/PATH");
    fatlib::Volume& volume =
        access == fatlib::Access::ReadWrite ? OpenForWriting(context, operand) : context.session.Open(operand, access);
    try {
      for (const fatlib::Path& path : PathsOf(context, volume, operand)) {
        targets.push_back({&volume, path, operand.Text(path.ToUtf8()), EndsWith(operand.path, "/.")});
      }
    } catch (const Failure& failure) {
      context.report.Fail(failure);
    }
  }
  return targets;
}

bool MustBeDirectory(const std::string& path) { return EndsWith(path, "/") || EndsWith(path, "/."); }

Destination DestinationOf(Context& context, const std::string& text, bool several, bool recursive) {
  Destination destination;
  destination.operand = ParseOperand(text);
  const Operand& operand = destination.operand;
  if (!operand.hasPath) throw Failure(Exit::Usage, text, "no path is named; write IMAGE:/PATH");
  destination.volume = &OpenForWriting(context, operand);
  destination.path = PathOf(operand);
  const bool mustExist = several || (MustBeDirectory(operand.path) && !recursive);
  fatlib::Entry entry;
  std::error_code error = destination.volume->Stat(destination.path, &entry);
  destination.into = !error && entry.IsDirectory();
  if (destination.into) return destination;
  if (!error && (several || MustBeDirectory(operand.path))) error = fatlib::Status::NotADirectory;
  if (error && (error != fatlib::Status::NotFound || mustExist)) throw Failure(error, operand.Text());
  const fatlib::Path parent = destination.path.Parent();
  error = destination.volume->Stat(parent, &entry);
  if (!error && !entry.IsDirectory()) error = fatlib::Status::NotADirectory;
  if (error) throw Failure(error, operand.Text(parent.ToUtf8()));
  return destination;
}

}  // namespace fatimg
