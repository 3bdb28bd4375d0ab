/// @file Verify.cpp
/// verify: whether a tree of an image and one of the host are equal.

#include <fatlib/Text.h>

#include <algorithm>
#include <map>

#include "../Exclude.h"
#include "../HostTree.h"
#include "LookVerbs.h"
#include "Looking.h"

namespace fatimg {

namespace {

constexpr std::size_t PIECE_BYTES = 1u << 20;

struct VerifyOptions {
  std::string host;
  std::string operand;
  std::vector<std::string> exclude;
  bool times = false;
};

class Verifier {
 public:
  Verifier(Context& context, const VerifyOptions& options)
      : m_Context(context),
        m_Options(options),
        m_Exclude(options.exclude),
        m_HostPiece(PIECE_BYTES),
        m_ImagePiece(PIECE_BYTES) {}

  Exit Run() {
    const std::vector<Sight> sights = LookAt(m_Context, {m_Options.operand});
    if (sights.size() > 1) throw Failure(Exit::Usage, m_Options.operand, "the pattern fits several paths");
    if (!sights.empty()) {
      m_pSight = sights.data();
      CollectBelow(m_pSight->node, "");
      CompareAll();
    }
    Json& json = m_Context.report.Object();
    json["equal"] = m_Differences.empty() && m_Context.report.Status() == Exit::Done;
    json["files"] = m_nFiles;
    json["directories"] = m_nDirectories;
    json["bytes"] = m_nBytes;
    const bool equal = m_Differences.empty();
    json["differences"] = std::move(m_Differences);
    if (!sights.empty()) {
      m_Context.report.Print(std::to_string(m_nFiles) + " files, " + std::to_string(m_nDirectories) + " directories, " +
                             std::to_string(m_nBytes) + " bytes compared\n");
    }
    return m_Context.report.Finish(equal ? Exit::Done : Exit::SomeFailed);
  }

 private:
  // Names are one name in whatever case. The key is the path from the top.
  static std::u16string KeyOf(const fatlib::Path& path) {
    std::u16string key;
    for (const std::u16string& component : path.Components()) key += u"/" + fatlib::UpCase(component);
    return key;
  }

  fatlib::Path FromTop(const fatlib::Path& path) const {
    fatlib::Path relative;
    const std::vector<std::u16string>& components = path.Components();
    for (std::size_t i = m_pSight->node.path.Components().size(); i < components.size(); ++i) {
      relative = relative / components[i];
    }
    return relative;
  }

  void CollectBelow(const Node& node, const std::string& relative) {
    m_Image[KeyOf(FromTop(node.path))] = node;
    if (!node.IsDirectory()) return;
    std::vector<Node> children;
    const std::error_code error = m_pSight->reader->Enter(node, &children);
    if (error) m_Context.report.Fail(m_pSight->TextOf(node.path), error);
    for (const Node& child : children) {
      const std::string below = (relative.empty() ? "" : relative + "/") + child.Utf8Name();
      if (!m_Exclude(below)) CollectBelow(child, below);
    }
  }

  void CompareAll() {
    HostTreeOptions scan;
    scan.recursive = true;
    scan.excluded = [this](const std::string& relative) { return m_Exclude(relative); };
    std::vector<CopyItem> items;
    std::vector<FailedItem> failures;
    ScanHost(m_Options.host, fatlib::Path(), scan, &items, &failures);
    for (const FailedItem& failure : failures) {
      const std::string reason = failure.reason.empty() ? failure.error.message() : failure.reason;
      m_Context.report.Fail(failure.place, failure.error ? ExitOf(failure.error) : Exit::Refused, reason);
    }
    if (items.empty()) return;
    for (const CopyItem& item : items) {
      const auto found = m_Image.find(KeyOf(item.relative));
      if (found == m_Image.end()) {
        Differ("missing", item.relative, "only on the host");
        continue;
      }
      Compare(item, found->second);
      m_Image.erase(found);
    }
    for (const auto& [key, node] : m_Image) Differ("extra", FromTop(node.path), "only in the image");
  }

  void Compare(const CopyItem& item, const Node& node) {
    if (item.directory != node.IsDirectory()) {
      return Differ("type", item.relative,
                    item.directory ? "a directory on the host, a file in the image"
                                   : "a file on the host, a directory in the image");
    }
    m_Context.report.Done();
    ++(item.directory ? m_nDirectories : m_nFiles);
    if (item.directory) return;
    if (item.size != node.raw.size) {
      return Differ(
          "size", item.relative,
          std::to_string(item.size) + " bytes on the host, " + std::to_string(node.raw.size) + " in the image");
    }
    CompareBytes(item, node);
    if (!m_Options.times) return;
    const fatlib::Zone zone = m_Context.options.reproducible ? fatlib::Zone::Utc : fatlib::Zone::Local;
    const fatlib::Stamp stamp = fatlib::ToStamp(item.modified.tv_sec, item.modified.tv_nsec, zone);
    const fatlib::Stamp& stored = node.raw.times.modified;
    if (stamp.date != stored.date || stamp.time != stored.time) {
      Differ("time", item.relative,
             "modified " + fatlib::ToIso8601(stamp) + " on the host, " + fatlib::ToIso8601(stored) + " in the image");
    }
  }

  void CompareBytes(const CopyItem& item, const Node& node) {
    std::unique_ptr<ByteSource> source;
    std::error_code error = HostSource().Open(item, &source);
    if (error) return m_Context.report.Fail(item.place, error);
    for (std::uint64_t offset = 0; offset < item.size;) {
      std::size_t hostBytes = 0;
      std::size_t imageBytes = 0;
      error = source->Read(m_HostPiece.data(), m_HostPiece.size(), &hostBytes);
      if (error) return m_Context.report.Fail(item.place, error);
      error = m_pSight->reader->Medium().ReadFile(node.raw, offset, m_ImagePiece.data(), hostBytes, &imageBytes);
      const std::size_t both = std::min(hostBytes, imageBytes);
      const auto end = m_HostPiece.begin() + static_cast<std::ptrdiff_t>(both);
      const auto different = std::mismatch(m_HostPiece.begin(), end, m_ImagePiece.begin()).first;
      m_nBytes += both;
      if (different != end) {
        const auto at = offset + static_cast<std::uint64_t>(different - m_HostPiece.begin());
        return Differ("bytes", item.relative, "the first different byte is " + std::to_string(at));
      }
      if (error) return m_Context.report.Fail(m_pSight->TextOf(node.path), error);
      if (both == 0 || imageBytes < hostBytes) {
        return Differ("size", item.relative, "a file changed its size while it was read");
      }
      offset += both;
    }
  }

  void Differ(const char* kind, const fatlib::Path& path, const std::string& text) {
    m_Context.report.Print(m_Context.report.Shown(path.ToUtf8()) + ": " + text + "\n");
    Json json;
    json["difference"] = kind;
    json["path"] = path.ToUtf8();
    json["text"] = text;
    m_Differences.push_back(std::move(json));
  }

  Context& m_Context;
  const VerifyOptions& m_Options;
  Exclude m_Exclude;
  const Sight* m_pSight = nullptr;
  std::map<std::u16string, Node> m_Image;
  std::vector<unsigned char> m_HostPiece;
  std::vector<unsigned char> m_ImagePiece;
  Json m_Differences = Json::array();
  std::uint64_t m_nFiles = 0;
  std::uint64_t m_nDirectories = 0;
  std::uint64_t m_nBytes = 0;
};

Exit RunVerify(Context& context, const VerifyOptions& options) { return Verifier(context, options).Run(); }

}  // namespace

void AddVerify(Grammar& grammar) {
  VerifyOptions* options = nullptr;
  Syntax verb = grammar.Add("verify", "Compare a tree of an image with one of the host", RunVerify, &options);
  verb.Options("--exclude", "PATTERN", &options->exclude, "Leave out what fits, on both sides");
  verb.Flag("--times", &options->times, "Compare the times of modification too");
  verb.Positional("HOSTDIR", &options->host, "The host's directory");
  verb.Positional("IMAGE:/PATH", &options->operand, "The image's; without a path the root");
}

}  // namespace fatimg
