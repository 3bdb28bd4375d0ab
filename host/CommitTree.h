/// @file CommitTree.h
/// Which clusters of a volume are parts of directories, and which directory is in which. Not part of the face for
/// hosts.

#ifndef FATLIB_COMMITTREE_H
#define FATLIB_COMMITTREE_H

#include <cstdint>
#include <set>
#include <unordered_map>
#include <vector>

#include "Medium.h"

namespace fatlib {

/// Directories are known by their place: the first cluster, or Medium::ROOT.
class CommitTree {
 public:
  using PLACES = std::set<DirectoryPlace>;

  /// Looks at all directories of a volume. What has a cluster of another directory is left out.
  /// @return DiskCorrupt when a chain is broken or shared, with all that is sound in the tree; or what the device
  ///         returned
  [[nodiscard]] std::error_code Build(Medium* medium);

  bool HasCluster(std::uint32_t cluster) const { return m_Owners.count(cluster) != 0; }
  /// @return false when no directory has the cluster
  bool FindOwner(std::uint32_t cluster, DirectoryPlace* place) const;
  /// Whether a directory is one of these, or below one of them.
  bool IsIn(DirectoryPlace place, const PLACES& places) const;
  const std::unordered_map<DirectoryPlace, DirectoryPlace>& Parents() const { return m_Parents; }
  const std::unordered_map<std::uint32_t, DirectoryPlace>& Owners() const { return m_Owners; }

  /// Forgets directories and all that is below them.
  void Remove(const PLACES& places);
  /// Follows the chain of a directory anew, which has become longer or shorter.
  [[nodiscard]] std::error_code Refresh(Medium* medium, DirectoryPlace place);
  /// Adds a directory and all that is below it. @return as Build
  [[nodiscard]] std::error_code Add(Medium* medium, DirectoryPlace place, DirectoryPlace parent);

 private:
  std::error_code Claim(Medium* medium, DirectoryPlace place);

  std::unordered_map<std::uint32_t, DirectoryPlace> m_Owners;    // by cluster
  std::unordered_map<DirectoryPlace, DirectoryPlace> m_Parents;  // of all directories but the root
};

}  // namespace fatlib

#endif  // FATLIB_COMMITTREE_H
