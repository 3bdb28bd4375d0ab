/// @file Tree.cpp
/// tree: directories with what is in them, drawn.

#include "../EntryText.h"
#include "LookVerbs.h"
#include "Looking.h"

namespace fatimg {

namespace {

struct TreeOptions {
  std::vector<std::string> operands{":/"};
  bool all = false;
  bool directoriesOnly = false;
  bool rawOrder = false;
  std::string level;
};

class Drawer {
 public:
  Drawer(Context& context, const TreeOptions& options) : m_Context(context), m_Options(options) {
    if (!options.level.empty()) m_nLevels = ParseCount("-L", options.level);
  }

  void Run() {
    const Order order = m_Options.rawOrder ? Order::AsOnMedium : Order::Sorted;
    Json trees = Json::array();
    for (const Sight& sight : LookAt(m_Context, m_Options.operands, order)) {
      sight.reader->Restart();
      m_Context.report.Print(m_Context.report.Shown(sight.text) + "\n");
      Json tree = EntryJson(sight.node);
      tree["image"] = sight.operand.ImageText();
      const std::size_t failed = m_nFailed;
      if (sight.node.IsDirectory()) DrawBelow(sight, sight.node, "", 0, &tree);
      if (failed == m_nFailed) m_Context.report.Done();
      trees.push_back(std::move(tree));
    }
    m_Context.report.Print("\n" + std::to_string(m_nDirectories) + " directories, " + std::to_string(m_nFiles) +
                           " files\n");
    Json& object = m_Context.report.Object();
    object["trees"] = std::move(trees);
    object["directories"] = m_nDirectories;
    object["files"] = m_nFiles;
  }

 private:
  void DrawBelow(const Sight& sight, const Node& directory, const std::string& indent, unsigned int level, Json* tree) {
    if (level >= m_nLevels) return;
    std::vector<Node> children;
    const std::error_code error = sight.reader->Enter(directory, &children);
    if (error) {
      m_Context.report.Fail(sight.TextOf(directory.path), error);
      ++m_nFailed;
    }
    std::vector<Node> shown;
    for (Node& child : children) {
      const bool hidden = (child.raw.attributes & fatlib::HIDDEN) != 0 && !m_Options.all;
      if (!hidden && (child.IsDirectory() || !m_Options.directoriesOnly)) shown.push_back(std::move(child));
    }
    Json below = Json::array();
    for (std::size_t i = 0; i < shown.size(); ++i) {
      const bool last = i + 1 == shown.size();
      const Node& child = shown[i];
      m_Context.report.Print(indent + (last ? "└── " : "├── ") + m_Context.report.Shown(child.Utf8Name()) + "\n");
      ++(child.IsDirectory() ? m_nDirectories : m_nFiles);
      Json json = EntryJson(child);
      if (child.IsDirectory()) DrawBelow(sight, child, indent + (last ? "    " : "│   "), level + 1, &json);
      below.push_back(std::move(json));
    }
    (*tree)["children"] = std::move(below);
  }

  Context& m_Context;
  const TreeOptions& m_Options;
  unsigned int m_nLevels = TreeReader::MAX_DEPTH + 1;
  std::uint64_t m_nDirectories = 0;
  std::uint64_t m_nFiles = 0;
  std::size_t m_nFailed = 0;
};

Exit RunTree(Context& context, const TreeOptions& options) {
  Drawer(context, options).Run();
  return context.report.Finish();
}

}  // namespace

void AddTree(Grammar& grammar) {
  TreeOptions* options = nullptr;
  Syntax verb = grammar.Add("tree", "Draw directories with all that is below", RunTree, &options);
  verb.Flag("-a,--all", &options->all, "Entries with the hidden attribute too");
  verb.Flag("-d,--directories", &options->directoriesOnly, "Directories only");
  verb.Option("-L,--level", "N", &options->level, "Not deeper than N directories");
  verb.Flag("--raw-order", &options->rawOrder, "In the order of the medium, not sorted");
  verb.Positionals("IMAGE:/PATH", &options->operands, "Directories; without a path the root", Syntax::Need::Optional);
}

}  // namespace fatimg
