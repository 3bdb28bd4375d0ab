/// @file Du.cpp
/// du: the room that directories take with all that is below.

#include "../ByteCount.h"
#include "../ClusterText.h"
#include "../EntryText.h"
#include "LookVerbs.h"
#include "Looking.h"

namespace fatimg {

namespace {

struct DuOptions {
  std::vector<std::string> operands{":/"};
  bool all = false;
  bool apparent = false;
  bool human = false;
  bool summary = false;
};

// What a file or a tree takes.
struct USAGE {
  std::uint64_t clusters = 0;
  std::uint64_t bytes = 0;  // of the files' sizes
  std::uint64_t files = 0;
  std::uint64_t directories = 0;
};

class Summer {
 public:
  Summer(Context& context, const DuOptions& options) : m_Context(context), m_Options(options) {}

  void Run() {
    for (const Sight& sight : LookAt(m_Context, m_Options.operands)) {
      sight.reader->Restart();
      m_bFailed = false;
      (void)Sum(sight, sight.node, true);
      if (!m_bFailed) m_Context.report.Done();
    }
    m_Context.report.Object()["items"] = std::move(m_Items);
  }

 private:
  USAGE Sum(const Sight& sight, const Node& node, bool top) {
    USAGE usage;
    std::vector<fatlib::Extent> extents;
    Check(sight, node, sight.reader->Clusters(node, &extents));
    usage.clusters = ClusterCount(extents);
    if (node.IsDirectory()) {
      usage.directories = 1;
      std::vector<Node> children;
      Check(sight, node, sight.reader->Enter(node, &children));
      for (const Node& child : children) {
        const USAGE below = Sum(sight, child, false);
        usage.clusters += below.clusters;
        usage.bytes += below.bytes;
        usage.files += below.files;
        usage.directories += below.directories;
      }
    } else {
      usage.files = 1;
      usage.bytes = node.raw.size;
    }
    if (top || (!m_Options.summary && (node.IsDirectory() || m_Options.all))) Show(sight, node, usage);
    return usage;
  }

  void Check(const Sight& sight, const Node& node, const std::error_code& error) {
    if (!error) return;
    m_Context.report.Fail(sight.TextOf(node.path), error);
    m_bFailed = true;
  }

  void Show(const Sight& sight, const Node& node, const USAGE& usage) {
    const std::uint64_t allocated = usage.clusters * sight.reader->Medium().Layout().bytesPerCluster;
    const std::uint64_t shown = m_Options.apparent ? usage.bytes : allocated;
    m_Context.report.Print((m_Options.human ? ByteCountText(shown) : std::to_string(shown)) + "\t" +
                           m_Context.report.Shown(sight.TextOf(node.path)) + "\n");
    if (!m_Context.report.IsJson()) return;
    Json item;
    item["image"] = sight.operand.ImageText();
    item["path"] = node.path.ToUtf8();
    item["type"] = node.IsDirectory() ? "directory" : "file";
    item["allocated"] = allocated;
    item["clusters"] = usage.clusters;
    item["size"] = usage.bytes;
    item["files"] = usage.files;
    item["directories"] = usage.directories;
    m_Items.push_back(std::move(item));
  }

  Context& m_Context;
  const DuOptions& m_Options;
  Json m_Items = Json::array();
  bool m_bFailed = false;
};

Exit RunDu(Context& context, const DuOptions& options) {
  Summer(context, options).Run();
  return context.report.Finish();
}

}  // namespace

void AddDu(Grammar& grammar) {
  DuOptions* options = nullptr;
  Syntax verb = grammar.Add("du", "Sum up the bytes of the clusters of directories", RunDu, &options);
  verb.Flag("-a,--all", &options->all, "Files too");
  verb.Flag("-b,--apparent-size", &options->apparent, "The sizes of files, not their clusters");
  verb.Flag("-h,--human", &options->human, "With units: 1.5 MiB");
  verb.Flag("-s,--summary", &options->summary, "Only what was named, nothing below");
  verb.Positionals("IMAGE:/PATH", &options->operands, "Directories and files; without a path the root",
                   Syntax::Need::Optional);
}

}  // namespace fatimg
