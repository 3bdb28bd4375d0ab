/// @file CommitPlan.h
/// In which order the changes of a volume are written. Not part of the face for hosts.
///
/// A commit goes through these phases. All of a phase is on the device before the next one begins; inside a phase the
/// order does not matter. What is reached from the root is sound after any part of them:
///
///  1  Clusters that become used get their entries in the FATs. Nothing leads there yet.
///     Directories lose what they lose (see CommitSlots.h). What was there is a lost chain from now on.
///  2  Links that become others are cut: they become ends of chains. Files in the directories are no longer than that.
///     Here and in the next two phases, an entry of FAT12 that lies in two sectors has its upper bits set for a while,
///     so that it leads nowhere whichever of the sectors is written.
///  3  Links get their values, but for those of directories. What leads to a directory's cluster only after this is
///     final: clusters of directories that are gone, or that moved, or are none any more, get their bytes.
///  4  Links of directories get their values: the directories grow.
///  5  Directories become what they shall be, and so do boot sector and FSInfo. Where a directory grows beyond its old
///     last slot into bytes that are not zero, what lies behind that slot comes before it; where it ends earlier, what
///     lies behind its new end comes later.
///  6  Clusters that become free lose their entries. Nothing leads there any more.

#ifndef FATLIB_COMMITPLAN_H
#define FATLIB_COMMITPLAN_H

#include <set>
#include <utility>
#include <vector>

#include "CommitSectors.h"
#include "CommitTree.h"

namespace fatlib {

/// Sorted; of bytes that lie together.
using CommitPhase = std::vector<CommitWrite>;

struct CommitPlan {
  std::vector<CommitPhase> phases;  ///< none is empty
  // What becomes of the tree of directories.
  CommitTree::PLACES removed;
  CommitTree::PLACES resized;
  std::vector<std::pair<DirectoryPlace, DirectoryPlace>> added;  ///< place and parent
};

/// @param base  holds the volume as it is
/// @param held  over `base`: what it is to become
/// @param tree  of the volume as it is
/// @param plan  out: replaced. After all of its writes the device equals `held`
[[nodiscard]] std::error_code PlanCommit(Device* base, CommitSectors* held, const CommitTree& tree, CommitPlan* plan);

}  // namespace fatlib

#endif  // FATLIB_COMMITPLAN_H
