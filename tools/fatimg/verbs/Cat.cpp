/// @file Cat.cpp
/// cat: the bytes of files.

#include <vector>

#include "LookVerbs.h"
#include "Targets.h"

namespace fatimg {

namespace {

constexpr std::size_t PIECE_BYTES = 256u << 10;

struct CatOptions {
  std::vector<std::string> files;
};

// @return false when there is no use in going on
bool CatFile(Context& context, const Target& target) {
  fatlib::File file;
  std::error_code error = target.volume->OpenFile(target.path, fatlib::Access::ReadOnly, &file);
  std::vector<unsigned char> piece(PIECE_BYTES);
  for (std::uint64_t offset = 0; !error && offset < file.Size();) {
    std::size_t done = 0;
    error = file.Read(offset, piece.data(), piece.size(), &done);
    if (!context.report.Write(piece.data(), done)) return false;
    if (done == 0) break;
    offset += done;
  }
  if (error) {
    context.report.Fail(target.text, error);
  } else {
    context.report.Done();
  }
  return true;
}

Exit RunCat(Context& context, const CatOptions& options) {
  if (context.options.json) throw Failure(Exit::Usage, "--json", "the bytes of files are not reported as JSON");
  for (const Target& target : TargetsOf(context, options.files, fatlib::Access::ReadOnly)) {
    if (!CatFile(context, target)) break;
  }
  return context.report.Finish();
}

}  // namespace

void AddCat(Grammar& grammar) {
  CatOptions* options = nullptr;
  Syntax verb = grammar.Add("cat", "Write the bytes of files to standard output", RunCat, &options);
  verb.Positionals("IMAGE:/PATH", &options->files, "Files");
}

}  // namespace fatimg
