/// @file CheckTree.cpp
/// Everything that is reached from the root: directories, their entries, and the chains of those.
///
/// A directory is looked into once, whoever names it, and only when none of its clusters is part of another directory:
/// so directories that contain themselves or each other end there, and what is read is never more than the volume. What
/// shares clusters with a file and does not begin as a directory does is not taken for one: the bytes of a file would
/// make a thousand defects.

#include <algorithm>
#include <optional>
#include <string>
#include <unordered_map>

#include "BootSector.h"
#include "CheckParts.h"
#include "Error.h"
#include "Path.h"
#include "Text.h"

namespace fatlib {

namespace {

constexpr std::uint64_t MAX_SLOTS_READ = 1u << 20;
constexpr std::size_t MAX_PATH_UNITS = 4096;
constexpr std::size_t ROOT_NODE = 0;

struct DirectoryNode {
  std::size_t parent = ROOT_NODE;
  std::u16string name;
  std::size_t pathUnits = 0;
  DirectoryPlace place = Medium::ROOT;
  std::uint32_t first = 0;  // 0: a fixed root
  bool shared = false;      // another chain has some of its clusters
  bool hasEntries = true;   // false: it is no directory after all
};

bool IsBadStamp(const Stamp& stamp) {
  std::time_t seconds = 0;
  long nanoseconds = 0;
  return stamp.date != 0 && (stamp.tenMilliseconds > 199 || !FromStamp(stamp, Zone::Utc, &seconds, &nanoseconds));
}

class TreeCheck {
 public:
  TreeCheck(Medium* medium, ClusterUse* use, CheckReport* report, CheckProgress* progress)
      : m_pMedium(medium),
        m_Geometry(medium->Layout()),
        m_pUse(use),
        m_pReport(report),
        m_Defects(report),
        m_pProgress(progress),
        m_InDirectory(use->End()) {}

  void Run() {
    if (!OpenRoot()) return;
    for (std::size_t i = 0; i < m_Directories.size() && m_pProgress->Report(m_pUse->Reached()); ++i) LookInto(i);
    CompareLabels();
    m_pReport->usedClusters = m_pUse->Reached();
    NameOwners();
  }

 private:
  bool OpenRoot();
  void LookInto(std::size_t directory);
  void TellSlotDefects(std::size_t directory, const std::vector<RawEntry>& entries,
                       const std::vector<SlotDefect>& defects);
  bool CheckDots(std::size_t directory, const std::vector<RawEntry>& entries);
  void CheckEntry(std::size_t directory, const RawEntry& entry);
  void CheckLabel(std::size_t directory, const RawEntry& entry);
  void CheckFile(std::size_t directory, const RawEntry& entry);
  void CheckSubdirectory(std::size_t directory, const RawEntry& entry);
  bool ClaimForDirectory(const ChainSurvey& chain, std::uint32_t first);
  bool FollowChain(const std::string& path, std::uint32_t first, ChainSurvey* chain);
  void CompareLabels();
  void NameOwners();
  void NoteOwner(std::uint32_t first, std::size_t directory, const RawEntry* entry);

  std::string PathOf(std::size_t directory) const;
  std::string PathOf(std::size_t directory, const RawEntry& entry) const {
    return (directory == ROOT_NODE ? std::string() : PathOf(directory)) + "/" + ToUtf8(entry.name);
  }
  std::uint64_t PositionOf(const DirectoryNode& node) const {
    return node.first == 0 ? m_Geometry.RootPosition() : m_Geometry.ClusterPosition(node.first);
  }

  Medium* m_pMedium;
  const Geometry& m_Geometry;
  ClusterUse* m_pUse;
  CheckReport* m_pReport;
  DefectList m_Defects;
  CheckProgress* m_pProgress;
  std::vector<DirectoryNode> m_Directories;  // in the order in which they are looked into
  std::vector<bool> m_InDirectory;           // by cluster: part of a directory that is in the list
  std::optional<std::string> m_RootLabel;    // 11 bytes
  // Who has a cluster that several chains have: two of them, so that each has another one to name.
  std::unordered_map<std::uint32_t, std::vector<std::string>> m_Owners;
};

std::string TreeCheck::PathOf(std::size_t directory) const {
  if (directory == ROOT_NODE) return "/";
  std::vector<const std::u16string*> names;
  for (std::size_t at = directory; at != ROOT_NODE; at = m_Directories[at].parent) {
    names.push_back(&m_Directories[at].name);
  }
  std::string path;
  for (std::size_t i = names.size(); i-- != 0;) path += "/" + ToUtf8(*names[i]);
  return path;
}

// ---------------------------------------------------------------------------------------------- directories

bool TreeCheck::OpenRoot() {
  DirectoryNode root;
  m_Directories.push_back(root);
  if (m_Geometry.type != FatType::Fat32) return true;
  const std::uint32_t first = m_Geometry.rootCluster;
  ChainSurvey chain;
  if (!FollowChain("/", first, &chain)) return false;
  m_Directories[ROOT_NODE].first = first;
  return ClaimForDirectory(chain, first);
}

void TreeCheck::LookInto(std::size_t directory) {
  std::vector<RawEntry> entries;
  std::vector<SlotDefect> defects;
  const std::error_code error = m_pMedium->ReadDirectory(m_Directories[directory].place, &entries, &defects);
  // A defect of its chain was told when the chain was followed.
  const bool unreadable = error && error != Status::DiskCorrupt;
  if (unreadable) m_Defects.Add(Defect::Unreadable, PathOf(directory), PositionOf(m_Directories[directory]));
  const bool hasDots = directory == ROOT_NODE || (unreadable && entries.size() < 2) || CheckDots(directory, entries);
  if (!hasDots && m_Directories[directory].shared) {
    m_Directories[directory].hasEntries = false;
    return;
  }
  TellSlotDefects(directory, entries, defects);
  for (const NameClash& clash : FindNameClashes(entries)) {
    m_Defects.Add({clash.kind, PathOf(directory, entries[clash.entry]), entries[clash.entry].ShortSlot(), 0,
                   PathOf(directory, entries[clash.other])});
  }
  for (const RawEntry& entry : entries) CheckEntry(directory, entry);
}

void TreeCheck::TellSlotDefects(std::size_t directory, const std::vector<RawEntry>& entries,
                                const std::vector<SlotDefect>& defects) {
  for (const SlotDefect& defect : defects) {
    Defect::Kind kind = Defect::BadLongName;
    if (defect.kind == SlotDefect::OrphanLongName) kind = Defect::OrphanLongName;
    if (defect.kind == SlotDefect::BadShortName) kind = Defect::BadShortName;
    if (defect.kind == SlotDefect::BadAttributes) kind = Defect::BadAttributes;
    const auto next =
        std::upper_bound(entries.begin(), entries.end(), defect.slot,
                         [](std::uint32_t slot, const RawEntry& entry) { return slot < entry.firstSlot; });
    const bool ofEntry = next != entries.begin() && defect.slot <= std::prev(next)->ShortSlot();
    m_Defects.Add(kind, ofEntry ? PathOf(directory, *std::prev(next)) : PathOf(directory), defect.slot);
  }
}

/// "." and ".." are the first two slots of every directory but the root.
/// @return false when both are missing
bool TreeCheck::CheckDots(std::size_t directory, const std::vector<RawEntry>& entries) {
  const DirectoryNode& node = m_Directories[directory];
  const auto check = [&](std::uint32_t slot, std::uint32_t cluster, Defect::Kind missing, Defect::Kind wrong) {
    const auto at = std::find_if(entries.begin(), entries.end(),
                                 [slot](const RawEntry& entry) { return entry.ShortSlot() >= slot; });
    const bool found =
        at != entries.end() && at->ShortSlot() == slot && at->IsDot() && (at->shortName[1] == '.') == (slot == 1);
    if (!found) {
      m_Defects.Add(missing, PathOf(directory));
    } else if (!at->IsDirectory() || at->firstCluster != cluster) {
      m_Defects.Add(wrong, PathOf(directory), at->firstCluster);
    }
    return found;
  };
  const bool dot = check(0, node.first, Defect::DotMissing, Defect::DotWrong);
  const std::uint32_t up = node.parent == ROOT_NODE ? 0 : m_Directories[node.parent].first;
  return check(1, up, Defect::DotDotMissing, Defect::DotDotWrong) || dot;
}

// ---------------------------------------------------------------------------------------------- entries

void TreeCheck::CheckEntry(std::size_t directory, const RawEntry& entry) {
  if (entry.IsDot()) {
    if (directory == ROOT_NODE || entry.ShortSlot() > 1) {
      m_Defects.Add(Defect::BadShortName, PathOf(directory, entry), entry.ShortSlot());
    }
    return;
  }
  if (IsBadStamp(entry.times.created) || IsBadStamp(entry.times.modified) || IsBadStamp(entry.times.accessed)) {
    m_Defects.Add(Defect::BadStamp, PathOf(directory, entry), entry.ShortSlot());
  }
  if (entry.IsLabel()) {
    CheckLabel(directory, entry);
  } else if (entry.IsDirectory()) {
    ++m_pReport->directories;
    CheckSubdirectory(directory, entry);
  } else {
    ++m_pReport->files;
    CheckFile(directory, entry);
  }
}

void TreeCheck::CheckLabel(std::size_t directory, const RawEntry& entry) {
  if (directory != ROOT_NODE) {
    m_Defects.Add(Defect::LabelNotInRoot, PathOf(directory, entry), entry.ShortSlot());
  } else if (m_RootLabel) {
    m_Defects.Add(Defect::SecondLabel, PathOf(directory, entry), entry.ShortSlot());
  } else {
    m_RootLabel.emplace(entry.shortName.begin(), entry.shortName.end());
  }
}

void TreeCheck::CheckFile(std::size_t directory, const RawEntry& entry) {
  const std::string path = PathOf(directory, entry);
  if (entry.firstCluster == 0) {
    if (entry.size != 0) m_Defects.Add(Defect::SizeBeyondChain, path, entry.size, 0);
    return;
  }
  ChainSurvey chain;
  if (!FollowChain(path, entry.firstCluster, &chain)) return;
  m_pReport->runs += chain.runs;
  if (chain.runs > 1) ++m_pReport->fragmentedFiles;
  if (chain.end != ChainSurvey::Ended) return;
  const std::uint32_t needed = m_Geometry.ClustersOf(entry.size);
  if (chain.clusters < needed) m_Defects.Add(Defect::SizeBeyondChain, path, entry.size, chain.clusters);
  if (chain.clusters > needed) m_Defects.Add(Defect::ChainBeyondSize, path, entry.size, chain.clusters);
}

void TreeCheck::CheckSubdirectory(std::size_t directory, const RawEntry& entry) {
  const std::string path = PathOf(directory, entry);
  if (entry.size != 0) m_Defects.Add(Defect::DirectoryHasSize, path, entry.size);
  if (entry.firstCluster == 0) {
    m_Defects.Add(Defect::EmptyDirectoryChain, path);
    return;
  }
  ChainSurvey chain;
  if (!FollowChain(path, entry.firstCluster, &chain)) return;
  const std::uint64_t slots = std::uint64_t{chain.clusters} * m_Geometry.bytesPerCluster / Geometry::SLOT_BYTES;
  if (slots > Medium::MAX_DIRECTORY_SLOTS) m_Defects.Add(Defect::DirectoryTooLong, path, slots);
  if (slots > MAX_SLOTS_READ) return;
  DirectoryNode node;
  node.pathUnits = m_Directories[directory].pathUnits + 1 + entry.name.size();
  if (node.pathUnits > MAX_PATH_UNITS) {
    m_Defects.Add(Defect::TooDeep, path);
    return;
  }
  if (!ClaimForDirectory(chain, entry.firstCluster)) return;
  node.parent = directory;
  node.name = entry.name;
  node.place = node.first = entry.firstCluster;
  node.shared = chain.crossLink != 0;
  m_Directories.push_back(std::move(node));
}

/// @return false when a cluster of the chain is part of a directory already
bool TreeCheck::ClaimForDirectory(const ChainSurvey& chain, std::uint32_t first) {
  std::uint32_t cluster = first;
  for (std::uint32_t i = 0; i < chain.clusters && cluster < m_InDirectory.size(); ++i) {
    if (m_InDirectory[cluster]) return false;
    m_InDirectory[cluster] = true;
    if (m_pMedium->FatEntry(cluster, &cluster)) break;
  }
  return true;
}

/// Tells what is wrong with a chain. @return false when it cannot begin there
bool TreeCheck::FollowChain(const std::string& path, std::uint32_t first, ChainSurvey* chain) {
  if (!m_Geometry.IsCluster(first)) {
    m_Defects.Add(Defect::FirstClusterInvalid, path, first);
    return false;
  }
  *chain = m_pUse->Follow(first);
  if (chain->crossLink != 0) m_Defects.Add(Defect::CrossLinked, path, chain->crossLink);
  if (chain->end == ChainSurvey::Loops) m_Defects.Add(Defect::ChainLoops, path, chain->at);
  if (chain->end == ChainSurvey::Broken) m_Defects.Add(Defect::ChainBroken, path, chain->at, chain->value);
  if (chain->end == ChainSurvey::Unreadable) m_Defects.Add(Defect::Unreadable, path, m_Geometry.FatPosition(0));
  return true;
}

void TreeCheck::CompareLabels() {
  BootSector boot;
  if (m_pMedium->Base()->Read(0, &boot, sizeof boot) || !HasLabel(IdentityOf(boot))) return;
  std::string label = m_RootLabel.value_or(std::string());
  label.erase(label.find_last_not_of(' ') + 1);
  if (!label.empty() && label[0] == '\xE5') label[0] = STORED_E5;
  if (label != m_Geometry.bootLabel) m_Defects.Add(Defect::LabelsDiffer, std::string());
}

// ---------------------------------------------------------------------------------------------- cross-links

// Remembering the owner of each cluster would take far more memory than a bit for each. Cross-links are rare: where
// there are some, all chains are followed once more, in the same order, to see who has the clusters concerned.
void TreeCheck::NameOwners() {
  for (const Defect& defect : m_pReport->defects) {
    if (defect.kind == Defect::CrossLinked) m_Owners[static_cast<std::uint32_t>(defect.number)];
  }
  if (m_Owners.empty()) return;
  const std::uint64_t reached = m_pUse->Reached();
  m_pUse->Clear();
  NoteOwner(m_Directories[ROOT_NODE].first, ROOT_NODE, nullptr);
  for (std::size_t i = 0; i < m_Directories.size() && m_pProgress->Report(reached); ++i) {
    std::vector<RawEntry> entries;
    if (!m_Directories[i].hasEntries) continue;
    (void)m_pMedium->ReadDirectory(m_Directories[i].place, &entries);  // a failure was told before
    for (const RawEntry& entry : entries) {
      if (!entry.IsDot() && !entry.IsLabel()) NoteOwner(entry.firstCluster, i, &entry);
    }
  }
  for (Defect& defect : m_pReport->defects) {
    if (defect.kind != Defect::CrossLinked) continue;
    for (const std::string& path : m_Owners[static_cast<std::uint32_t>(defect.number)]) {
      if (defect.other.empty() || defect.other == defect.path) defect.other = path;
    }
  }
}

/// @param entry  null: the directory itself, which is the root
void TreeCheck::NoteOwner(std::uint32_t first, std::size_t directory, const RawEntry* entry) {
  std::uint32_t cluster = first;
  while (m_Geometry.IsCluster(cluster)) {
    const auto found = m_Owners.find(cluster);
    if (found != m_Owners.end() && found->second.size() < 2) {
      found->second.push_back(entry == nullptr ? PathOf(directory) : PathOf(directory, *entry));
    }
    if (!m_pUse->Mark(cluster) || m_pMedium->FatEntry(cluster, &cluster)) return;
  }
}

}  // namespace

void CheckTree(Medium* medium, ClusterUse* use, CheckReport* report, CheckProgress* progress) {
  TreeCheck(medium, use, report, progress).Run();
}

}  // namespace fatlib
