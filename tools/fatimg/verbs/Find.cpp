/// @file Find.cpp
/// find: files and directories of which something holds.

#include <fatlib/Text.h>

#include <optional>

#include "../DateText.h"
#include "../EntryText.h"
#include "../Glob.h"
#include "LookVerbs.h"
#include "Looking.h"

namespace fatimg {

namespace {

struct FindOptions {
  std::vector<std::string> operands{":/"};
  std::string name;
  std::string type;
  std::string size;
  std::string newer;
  std::string older;
  bool zeros = false;
  bool rawOrder = false;
};

std::optional<std::int64_t> ParseSeconds(const char* option, const std::string& text, fatlib::Zone zone) {
  if (text.empty()) return {};
  std::timespec time{};
  if (!ParseTime(text, zone, &time)) {
    throw Failure(Exit::Usage, option, "\"" + text + "\" is no time; write 2026-03-14 or 2026-03-14T15:09:26");
  }
  return time.tv_sec;
}

// What must hold; all of it.
class Condition {
 public:
  Condition(const FindOptions& options, fatlib::Zone zone)
      : m_Type(options.type),
        m_Zone(zone),
        m_Newer(ParseSeconds("--newer", options.newer, zone)),
        m_Older(ParseSeconds("--older", options.older, zone)) {
    if (!options.name.empty() && !fatlib::FromUtf8(options.name, &m_Name)) {
      throw Failure(Exit::Usage, "--name", "the pattern is not UTF-8");
    }
    if (!options.size.empty()) ParseSize(options.size);
  }

  bool Holds(const Node& node) const {
    if (!m_Name.empty() && !GlobMatches(m_Name, node.raw.name)) return false;
    if (!m_Type.empty() && (m_Type == "d") != node.IsDirectory()) return false;
    return SizeHolds(node) && TimeHolds(node.raw.times.modified);
  }

 private:
  void ParseSize(std::string text) {
    if (text[0] == '+' || text[0] == '-') {
      m_SizeSign = text[0];
      text.erase(0, 1);
    }
    std::uint64_t size = 0;
    if (!ParseBytes(text, &size)) {
      throw Failure(Exit::Usage, "--size", "\"" + text + "\" is no number of bytes; write 4096, +1M or -64K");
    }
    m_Size = size;
  }

  bool SizeHolds(const Node& node) const {
    if (!m_Size) return true;
    if (node.IsDirectory()) return false;
    if (m_SizeSign == '+') return node.raw.size > *m_Size;
    if (m_SizeSign == '-') return node.raw.size < *m_Size;
    return node.raw.size == *m_Size;
  }

  bool TimeHolds(const fatlib::Stamp& stamp) const {
    if (!m_Newer && !m_Older) return true;
    std::time_t seconds = 0;
    long nanoseconds = 0;
    if (!fatlib::FromStamp(stamp, m_Zone, &seconds, &nanoseconds)) return false;
    const std::int64_t time = seconds;
    return (!m_Newer || time > *m_Newer) && (!m_Older || time < *m_Older);
  }

  std::u16string m_Name;
  std::string m_Type;
  std::optional<std::uint64_t> m_Size;
  char m_SizeSign = '=';
  fatlib::Zone m_Zone;
  std::optional<std::int64_t> m_Newer;
  std::optional<std::int64_t> m_Older;
};

class Finder {
 public:
  Finder(Context& context, const FindOptions& options)
      : m_Context(context),
        m_Options(options),
        m_Condition(options, context.options.reproducible ? fatlib::Zone::Utc : fatlib::Zone::Local) {}

  void Run() {
    const Order order = m_Options.rawOrder ? Order::AsOnMedium : Order::Sorted;
    const std::vector<Sight> sights = LookAt(m_Context, m_Options.operands, order);
    m_bSeveral = SeveralImages(sights);
    for (const Sight& sight : sights) {
      sight.reader->Restart();
      Visit(sight, sight.node);
    }
    m_Context.report.Object()["entries"] = std::move(m_Entries);
  }

 private:
  void Visit(const Sight& sight, const Node& node) {
    if (m_Condition.Holds(node)) Show(sight, node);
    if (!node.IsDirectory()) return;
    std::vector<Node> children;
    const std::error_code error = sight.reader->Enter(node, &children);
    if (error) {
      m_Context.report.Fail(sight.TextOf(node.path), error);
    } else {
      m_Context.report.Done();
    }
    for (const Node& child : children) Visit(sight, child);
  }

  void Show(const Sight& sight, const Node& node) {
    if (m_Context.report.IsJson()) {
      Json entry = EntryJson(node);
      entry["image"] = sight.operand.ImageText();
      m_Entries.push_back(std::move(entry));
      return;
    }
    const std::string path = m_bSeveral ? sight.TextOf(node.path) : node.path.ToUtf8();
    m_Context.report.Print(m_Options.zeros ? path + '\0' : m_Context.report.Shown(path) + '\n');
  }

  Context& m_Context;
  const FindOptions& m_Options;
  Condition m_Condition;
  Json m_Entries = Json::array();
  bool m_bSeveral = false;
};

Exit RunFind(Context& context, const FindOptions& options) {
  Finder(context, options).Run();
  return context.report.Finish();
}

}  // namespace

void AddFind(Grammar& grammar) {
  FindOptions* options = nullptr;
  Syntax verb = grammar.Add("find", "Find files and directories by name, type, size or time", RunFind, &options);
  verb.Option("--name", "PATTERN", &options->name, "Whose name fits, as \"*.txt\"");
  verb.Choice("--type", {"f", "d"}, &options->type, "Files (f) or directories (d)");
  verb.Option("--size", "[+-]BYTES", &options->size, "Files of this size, of more (+) or less (-), as +1M");
  verb.Option("--newer", "TIME", &options->newer, "Modified after that time, as 2026-03-14T15:09:26");
  verb.Option("--older", "TIME", &options->older, "Modified before that time");
  verb.Flag("-0,--print0", &options->zeros, "End each path with a zero byte, for xargs -0");
  verb.Flag("--raw-order", &options->rawOrder, "In the order of the medium, not sorted");
  verb.Positionals("IMAGE:/PATH", &options->operands, "Where to look; without a path from the root",
                   Syntax::Need::Optional);
}

}  // namespace fatimg
