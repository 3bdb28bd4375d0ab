/// @file Ls.cpp
/// ls: what is in directories.

#include <fatlib/Text.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>

#include "../EntryText.h"
#include "LookVerbs.h"
#include "Looking.h"

namespace fatimg {

namespace {

struct LsOptions {
  std::vector<std::string> operands{":/"};
  bool details = false;
  bool recursive = false;
  bool onePerLine = false;
  bool all = false;
  bool directoryItself = false;
  bool rawOrder = false;
  bool shortNames = false;
};

// Columns of a terminal; 0 when standard output is none.
std::size_t TerminalWidth() {
  winsize size{};
  if (isatty(STDOUT_FILENO) != 1) return 0;
  return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

// Names in columns, downwards, as few lines as possible.
std::string ColumnsText(const std::vector<std::string>& names, std::size_t width) {
  std::size_t widest = 0;
  for (const std::string& name : names) widest = std::max(widest, CharactersOf(name) + 2);
  const std::size_t columns = std::max<std::size_t>(1, width / std::max<std::size_t>(widest, 1));
  const std::size_t lines = (names.size() + columns - 1) / columns;
  std::string text;
  for (std::size_t line = 0; line < lines; ++line) {
    for (std::size_t i = line; i < names.size(); i += lines) {
      text += names[i];
      if (i + lines < names.size()) text.append(widest - CharactersOf(names[i]), ' ');
    }
    text += '\n';
  }
  return text;
}

class Lister {
 public:
  Lister(Context& context, const LsOptions& options) : m_Context(context), m_Options(options) {}

  void Run() {
    const Order order = m_Options.rawOrder ? Order::AsOnMedium : Order::Sorted;
    const std::vector<Sight> sights = LookAt(m_Context, m_Options.operands, order);
    m_bHeadings = m_Options.recursive || sights.size() > 1;
    ShowAlone(sights);
    for (const Sight& sight : sights) {
      if (IsAlone(sight)) continue;
      sight.reader->Restart();
      ListDirectory(sight, sight.node);
    }
    m_Context.report.Object()["listings"] = std::move(m_Listings);
  }

 private:
  bool IsAlone(const Sight& sight) const { return !sight.node.IsDirectory() || m_Options.directoryItself; }

  // What was named itself and is not a directory to look into: first, and each image for itself.
  void ShowAlone(const std::vector<Sight>& sights) {
    for (std::size_t i = 0; i < sights.size();) {
      const std::shared_ptr<TreeReader>& reader = sights[i].reader;
      const std::string image = sights[i].operand.ImageText();
      std::vector<Node> alone;
      for (; i < sights.size() && sights[i].reader == reader; ++i) {
        if (!IsAlone(sights[i])) continue;
        alone.push_back(sights[i].node);
        m_Context.report.Done();
      }
      if (!alone.empty()) Show(image, alone);
    }
  }

  void ListDirectory(const Sight& sight, const Node& directory) {
    std::vector<Node> children;
    const std::error_code error = sight.reader->Enter(directory, &children);
    if (error) {
      m_Context.report.Fail(sight.TextOf(directory.path), error);
    } else {
      m_Context.report.Done();
    }
    if (!m_Options.all) {
      const auto hidden = [](const Node& node) { return (node.raw.attributes & fatlib::HIDDEN) != 0; };
      children.erase(std::remove_if(children.begin(), children.end(), hidden), children.end());
    }
    if (m_bHeadings) {
      m_Context.report.Print((m_bFirst ? "" : "\n") + m_Context.report.Shown(sight.TextOf(directory.path)) + ":\n");
    }
    Show(sight.operand.ImageText(), children, &directory);
    if (!m_Options.recursive) return;
    for (const Node& child : children) {
      if (child.IsDirectory()) ListDirectory(sight, child);
    }
  }

  // @param directory  null for files that were named themselves; these are called by their paths
  void Show(const std::string& image, const std::vector<Node>& nodes, const Node* directory = nullptr) {
    m_bFirst = false;
    if (m_Context.report.IsJson()) {
      Json listing;
      listing["image"] = image;
      listing["path"] = directory != nullptr ? Json(directory->path.ToUtf8()) : Json(nullptr);
      Json entries = Json::array();
      for (const Node& node : nodes) entries.push_back(EntryJson(node));
      listing["entries"] = std::move(entries);
      m_Listings.push_back(std::move(listing));
      return;
    }
    std::vector<std::string> names;
    names.reserve(nodes.size());
    for (const Node& node : nodes) names.push_back(NameOf(node, directory != nullptr));
    const std::size_t width = m_Options.onePerLine ? 0 : TerminalWidth();
    if (m_Options.details) {
      m_Context.report.Print(DetailsText(nodes, names));
    } else if (width > 0 && !names.empty()) {
      m_Context.report.Print(ColumnsText(names, width));
    } else {
      for (const std::string& name : names) m_Context.report.Print(name + "\n");
    }
  }

  std::string NameOf(const Node& node, bool inDirectory) const {
    if (!inDirectory) return m_Context.report.Shown(node.path.ToUtf8());
    return m_Context.report.Shown(m_Options.shortNames && !m_Options.details ? fatlib::ToUtf8(node.raw.ShortNameText())
                                                                             : node.Utf8Name());
  }

  std::string DetailsText(const std::vector<Node>& nodes, const std::vector<std::string>& names) const {
    std::vector<std::vector<std::string>> rows;
    for (std::size_t i = 0; i < nodes.size(); ++i) {
      const fatlib::RawEntry& raw = nodes[i].raw;
      std::vector<std::string> row{AttributeText(raw), nodes[i].IsDirectory() ? "-" : std::to_string(raw.size),
                                   TimeText(raw.times.modified)};
      if (m_Options.shortNames) row.push_back(m_Context.report.Shown(fatlib::ToUtf8(raw.ShortNameText())));
      row.push_back(names[i]);
      rows.push_back(std::move(row));
    }
    return TableText(rows, {false, true, false, false, false});
  }

  Context& m_Context;
  const LsOptions& m_Options;
  Json m_Listings = Json::array();
  bool m_bHeadings = false;
  bool m_bFirst = true;
};

Exit RunLs(Context& context, const LsOptions& options) {
  Lister(context, options).Run();
  return context.report.Finish();
}

}  // namespace

void AddLs(Grammar& grammar) {
  LsOptions* options = nullptr;
  Syntax verb = grammar.Add("ls", "List directories", RunLs, &options);
  verb.Flag("-l", &options->details, "Attributes, size and time of modification");
  verb.Flag("-R,--recursive", &options->recursive, "All directories below too");
  verb.Flag("-1", &options->onePerLine, "One name a line, also on a terminal");
  verb.Flag("-a,--all", &options->all, "Entries with the hidden attribute too");
  verb.Flag("-d,--directory", &options->directoryItself, "Directories themselves, not what is in them");
  verb.Flag("--raw-order", &options->rawOrder, "In the order of the medium, not sorted");
  verb.Flag("--short-names", &options->shortNames, "Short names; with -l beside the long ones");
  verb.Positionals("IMAGE:/PATH", &options->operands, "Directories and files; without a path the root",
                   Syntax::Need::Optional);
}

}  // namespace fatimg
