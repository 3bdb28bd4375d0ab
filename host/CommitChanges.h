/// @file CommitChanges.h
/// What a commit changes in a volume. Not part of the face for hosts.

#ifndef FATLIB_COMMITCHANGES_H
#define FATLIB_COMMITCHANGES_H

#include <unordered_set>
#include <utility>
#include <vector>

#include "CommitFat.h"
#include "CommitSectors.h"
#include "CommitSlots.h"
#include "CommitTree.h"
#include "Medium.h"

namespace fatlib {

class CommitChanges {
 public:
  /// To be called once.
  /// @param before  the volume as it is, `tree` its directories
  /// @param after   the volume with what is held
  [[nodiscard]] std::error_code Find(Medium* before, Medium* after, const CommitSectors& held, const CommitTree& tree);

  std::vector<FatChange> fat;                ///< in the order of the clusters
  std::vector<DirectoryChange> directories;  ///< but for those that nothing leads to once `removed` have gone
  std::vector<SlotPatch> patches;            ///< of files whose chains are changed, and not their entries
  std::unordered_set<std::uint32_t> lost;    ///< clusters that directories lose
  CommitTree::PLACES removed;                ///< directories that lose their entries, though they may get others
  CommitTree::PLACES resized;
  std::vector<std::pair<DirectoryPlace, DirectoryPlace>> added;  ///< directories that get an entry, and their parents

 private:
  void FindDirectories(CommitTree::PLACES* places);
  std::error_code CompareDirectories();
  std::error_code FindOwners(SlotComparison* comparison);
  std::error_code LookForOwners(SlotComparison* comparison, DirectoryPlace place, std::uint64_t* steps);

  Medium* m_pBefore = nullptr;
  Medium* m_pAfter = nullptr;
  const CommitSectors* m_pHeld = nullptr;
  const CommitTree* m_pTree = nullptr;
  std::unordered_set<std::uint32_t> m_Cut;  // clusters whose links become others, and whose file is not known yet
};

}  // namespace fatlib

#endif  // FATLIB_COMMITCHANGES_H
