/// @file Copy.cpp

#include "Copy.h"

#include <fatlib/Error.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <utility>

#include "Interrupt.h"
#include "ProgressBar.h"

namespace fatimg {

namespace {

ProgressMode ModeOf(const CommonOptions& options) {
  if (options.progress == "bar") return ProgressMode::Bar;
  if (options.progress == "plain") return ProgressMode::PlainLines;
  if (options.progress == "json") return ProgressMode::JsonLines;
  const bool shown = options.progress == "auto" && !options.quiet && isatty(STDERR_FILENO) != 0;
  return shown ? ProgressMode::Bar : ProgressMode::None;
}

/// Remembers whether it was the source that failed.
class WatchedSource : public ByteSource {
 public:
  explicit WatchedSource(ByteSource* source) : m_pSource(source) {}
  std::error_code Read(void* buffer, std::size_t size, std::size_t* done) override {
    const std::error_code error = m_pSource->Read(buffer, size, done);
    m_bFailed = m_bFailed || error;
    return error;
  }
  bool Failed() const { return m_bFailed; }

 private:
  ByteSource* m_pSource;
  bool m_bFailed = false;
};

class Copier {
 public:
  Copier(Context& context, const std::vector<CopyItem>& items, CopySource* source, CopyTarget* target,
         const CopyOptions& options)
      : m_Context(context),
        m_Items(items),
        m_pSource(source),
        m_pTarget(target),
        m_Options(options),
        m_Progress(ModeOf(context.options)) {}

  void Run(const CopyPlan& plan) {
    m_Progress.Start(plan.bytes, plan.steps.size());
    for (const CopyStep& step : plan.steps) {
      if (Interrupt::Signal() != 0) break;
      const CopyItem& item = m_Items[step.item];
      if (IsBelowFailed(item)) continue;
      Carry(step, item);
      m_Progress.ItemDone();
    }
    // A directory's time is changed by what is made in it.
    for (; !m_Entered.empty(); m_Entered.pop_back()) SetTime(*m_Entered.back());
    m_Progress.Finish();
    if (Interrupt::Signal() != 0) m_Context.report.Fail({}, Exit::SomeFailed, "interrupted; the rest was not copied");
  }

  std::uint64_t Files() const { return m_nFiles; }
  std::uint64_t Directories() const { return m_nDirectories; }
  std::uint64_t Bytes() const { return m_nBytes; }

 private:
  void Carry(const CopyStep& step, const CopyItem& item) {
    switch (step.kind) {
      case CopyStep::SkipFile:
        Told("left as it is: ", item);
        return;
      case CopyStep::EnterDirectory:
        m_Context.report.Done();
        return;
      case CopyStep::MakeDirectory:
        MakeDirectory(item);
        return;
      case CopyStep::WriteFile:
      case CopyStep::ReplaceFile:
        CopyFile(item, step.kind == CopyStep::ReplaceFile);
    }
  }

  void MakeDirectory(const CopyItem& item) {
    const std::error_code error = m_pTarget->MakeDirectory(item.relative, Attributes(item));
    if (error) {
      m_Failed.push_back(item.relative);
      return Fail(m_pTarget->Shown(item.relative), error);
    }
    ++m_nDirectories;
    m_Context.report.Done();
    Told("made: ", item);
    if (m_Options.times) m_Entered.push_back(&item);
  }

  void CopyFile(const CopyItem& item, bool replace) {
    std::unique_ptr<ByteSource> bytes;
    if (const std::error_code error = m_pSource->Open(item, &bytes)) return Fail(item.place, error);
    WatchedSource watched(bytes.get());
    WriteOrder order;
    order.relative = item.relative;
    order.size = item.size;
    order.replace = replace;
    order.attributes = Attributes(item);
    order.withoutBytes = m_Options.withoutBytes;
    std::uint64_t written = 0;
    const auto advance = [this, replace](std::size_t count) {
      m_Progress.Advance(count);
      return replace || Interrupt::Signal() == 0;
    };
    if (const std::error_code error = m_pTarget->WriteFile(order, &watched, advance, &written)) {
      if (error == make_error_code(fatlib::Status::Cancelled)) return;  // which is told once, at the end
      return Fail(watched.Failed() ? item.place : m_pTarget->Shown(item.relative), error);
    }
    ++m_nFiles;
    m_nBytes += written;
    if (m_Options.times) SetTime(item);
    if (written != item.size || (!order.withoutBytes && HasMore(&watched))) {
      m_Progress.Hide();
      return m_Context.report.Fail(item.place, Exit::Io, "changed while it was copied");
    }
    m_Context.report.Done();
    Told("copied: ", item);
  }

  static bool HasMore(ByteSource* source) {
    unsigned char byte = 0;
    std::size_t count = 0;
    return !source->Read(&byte, 1, &count) && count != 0;
  }

  void SetTime(const CopyItem& item) {
    std::timespec time = item.modified;
    if (m_Options.latest) {
      const auto seconds = [](const std::timespec& value) { return std::make_tuple(value.tv_sec, value.tv_nsec); };
      if (seconds(time) > seconds(*m_Options.latest)) time = *m_Options.latest;
    }
    if (const std::error_code error = m_pTarget->SetTime(item.relative, time)) {
      Fail(m_pTarget->Shown(item.relative), error);
    }
  }

  bool IsBelowFailed(const CopyItem& item) const {
    return std::any_of(m_Failed.begin(), m_Failed.end(),
                       [&](const fatlib::Path& path) { return item.relative.IsAtOrBelow(path); });
  }

  std::uint8_t Attributes(const CopyItem& item) const {
    if (m_Options.attributes) return item.attributes;
    return item.directory ? std::uint8_t{0} : std::uint8_t{fatlib::ARCHIVE};
  }

  void Fail(const std::string& place, const std::error_code& error) {
    m_Progress.Hide();
    m_Context.report.Fail(place, error);
  }

  void Told(const char* what, const CopyItem& item) {
    if (!m_Context.options.verbose) return;
    m_Progress.Hide();
    m_Context.report.Detail(what + m_pTarget->Shown(item.relative));
  }

  Context& m_Context;
  const std::vector<CopyItem>& m_Items;
  CopySource* m_pSource;
  CopyTarget* m_pTarget;
  const CopyOptions& m_Options;
  ProgressBar m_Progress;
  std::vector<const CopyItem*> m_Entered;  // directories made, whose times are still to be set
  std::vector<fatlib::Path> m_Failed;      // directories that could not be made
  std::uint64_t m_nFiles = 0;
  std::uint64_t m_nDirectories = 0;
  std::uint64_t m_nBytes = 0;
};

}  // namespace

void RunCopy(Context& context, const std::vector<CopyItem>& items, const std::vector<FailedItem>& failures,
             CopySource* source, CopyTarget* target, const CopyOptions& options) {
  for (const FailedItem& failure : failures) {
    if (failure.reason.empty()) {
      context.report.Fail(failure.place, failure.error);
    } else {
      context.report.Fail(failure.place, ExitOf(failure.error), failure.reason);
    }
  }
  CopyPlan plan;
  for (const auto count : {CopyTarget::Count::Rough, CopyTarget::Count::Exact}) {
    target->BeginPlan(count);
    if (const std::error_code error = PlanCopy(items, options.clobber, target, &plan)) {
      throw Failure(error, target->Shown({}));
    }
    if (!plan.LacksSpace()) break;
  }
  for (const CopyProblem& problem : plan.problems) context.report.Fail(problem.place, problem.exit, problem.reason);
  Copier copier(context, items, source, target, options);
  if (plan.problems.empty() && !options.planOnly) copier.Run(plan);
  const bool planned = plan.problems.empty() && options.planOnly;
  Json& object = context.report.Object();
  object["files"] = planned ? plan.files : copier.Files();
  object["directories"] = planned ? plan.directories : copier.Directories();
  object["bytes"] = planned ? plan.bytes : copier.Bytes();
  object["skipped"] = plan.skipped;
  object["dryRun"] = context.options.dryRun;
}

}  // namespace fatimg
