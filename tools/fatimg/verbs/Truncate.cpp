/// @file Truncate.cpp
/// truncate: sets the sizes of files.

#include <fatlib/Error.h>

#include <limits>

#include "ChangeVerbs.h"
#include "Targets.h"

namespace fatimg {

namespace {

struct TruncateOptions {
  std::vector<std::string> files;
  std::string size;
  bool noCreate = false;
};

/// A size, or a difference to the size that is.
struct SizeChange {
  char sign = 0;  // '+', '-' or 0
  std::uint64_t bytes = 0;

  explicit SizeChange(const std::string& text) {
    const bool relative = !text.empty() && (text[0] == '+' || text[0] == '-');
    if (relative) sign = text[0];
    if (!ParseBytes(std::string_view(text).substr(relative ? 1 : 0), &bytes)) {
      throw Failure(Exit::Usage, text, "is no size; write 4096, 64K, 10M, +1K or -1K");
    }
  }

  std::uint64_t Of(std::uint64_t size) const {
    if (sign == '-') return size > bytes ? size - bytes : 0;
    if (sign == 0) return bytes;
    return bytes > std::numeric_limits<std::uint64_t>::max() - size ? bytes : size + bytes;
  }
};

std::error_code Truncate(const Target& target, const SizeChange& change, bool create) {
  fatlib::File file;
  std::error_code error = target.volume->OpenFile(target.path, fatlib::Access::ReadWrite, &file);
  const bool missing = error == make_error_code(fatlib::Status::NotFound);
  if (missing && !create) return {};
  if (missing) error = target.volume->CreateFile(target.path, 0, fatlib::File::Fill::Zeros, fatlib::ARCHIVE, &file);
  if (error) return error;
  error = file.Resize(change.Of(file.Size()));
  if (error && missing) {
    file.Close();
    (void)target.volume->Remove(target.path);  // the first failure is told
  }
  return error;
}

Exit RunTruncate(Context& context, const TruncateOptions& options) {
  if (options.size.empty()) throw Failure(Exit::Usage, {}, "no size is given; write --size SIZE");
  const SizeChange change(options.size);
  for (const Target& target : TargetsOf(context, options.files, fatlib::Access::ReadWrite)) {
    if (const std::error_code error = Truncate(target, change, !options.noCreate)) {
      context.report.Fail(target.text, error);
    } else {
      context.report.Done();
    }
  }
  return context.report.Finish();
}

}  // namespace

void AddTruncate(Grammar& grammar) {
  TruncateOptions* options = nullptr;
  Syntax verb = grammar.Add("truncate", "Set the size of files; what they gain reads as zeros", RunTruncate, &options);
  verb.Positionals("IMAGE:/PATH", &options->files, "Files; they are made when they are not there");
  verb.Option("-s,--size", "SIZE", &options->size, "Bytes, or K, M, G; +SIZE and -SIZE change what is there");
  verb.Flag("-c,--no-create", &options->noCreate, "Make no files");
}

}  // namespace fatimg
