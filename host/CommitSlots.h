/// @file CommitSlots.h
/// What a commit changes in one directory, and what of it has to come before the rest. Not part of the face for hosts.
///
/// Between its old and its new state a directory goes through one in which it has lost what it loses, and has not yet
/// got what it gets: entries that go or make room for others are marked deleted, files have the smaller one of their
/// two sizes, and no more than what the clusters hold that their old and new chains begin with.

#ifndef FATLIB_COMMITSLOTS_H
#define FATLIB_COMMITSLOTS_H

#include <array>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "Medium.h"

namespace fatlib {

/// Bytes of a slot that change first.
struct SlotPatch {
  std::uint64_t position = 0;  ///< of the volume
  std::uint32_t count = 0;
  std::array<unsigned char, 6> bytes{};
};

struct DirectoryChange {
  DirectoryPlace place = Medium::ROOT;
  std::vector<SlotPatch> patches;
  std::vector<std::uint32_t> removed;  ///< first clusters of directories that lose their entries here
  std::vector<std::uint32_t> added;    ///< of directories that get one
  std::vector<Extent> lost;            ///< clusters that are no part of the directory any more
  std::vector<std::uint32_t> chains;   ///< first clusters of the files that were taken care of
  std::vector<Extent> clusters;        ///< of the new directory
  std::uint32_t oldEnd = 0;            ///< slots up to the first that was never used
  std::uint32_t newEnd = 0;
};

class SlotComparison {
 public:
  /// @param relinked  whether links of chains become others, and not only ends of chains links
  SlotComparison(Medium* before, Medium* after, bool relinked);

  /// @param change  out: replaced
  [[nodiscard]] std::error_code Compare(DirectoryPlace place, DirectoryChange* change);
  /// The patch that gives a file another size.
  static SlotPatch SizePatch(std::uint64_t slotPosition, std::uint32_t size);
  /// The size that a file keeps while its chain is being changed.
  [[nodiscard]] std::error_code SizeMeanwhile(const RawEntry& was, std::uint32_t sizeAfter, std::uint32_t* size);

 private:
  enum class Fate { Stays, Goes, IsEmptied, Shrinks };

  std::error_code CommonClusters(std::uint32_t first, std::uint32_t* clusters);
  std::error_code Decide(const RawEntry& was, const RawEntry* is, Fate* fate, std::uint32_t* size);
  const RawEntry* FindSuccessor(const RawEntry& was, std::uint32_t commonSlots);
  bool IsInSectorOf(const RawEntry& was, const RawEntry& is, std::uint32_t commonSlots) const;
  void IndexNew();
  bool IsNameTaken(const RawEntry& was, const RawEntry& is);
  std::error_code AllFreed(std::uint32_t first, bool* freed);
  static std::error_code EndSlot(Medium* medium, DirectoryPlace place, const std::vector<bool>& used,
                                 std::uint32_t* end);
  std::error_code CompareChains(DirectoryPlace place, std::uint32_t* commonSlots, DirectoryChange* change);
  std::error_code Patch(const RawEntry& was, Fate fate, std::uint32_t size, DirectoryChange* change);

  Medium* m_pBefore;
  Medium* m_pAfter;
  bool m_bRelinked;
  std::uint64_t m_nSteps;  // that are left to follow chains
  std::vector<RawEntry> m_Old;
  std::vector<RawEntry> m_New;
  // Of m_New, once they are needed: indices.
  std::unordered_map<std::u16string, std::size_t> m_Names;
  std::unordered_map<std::uint32_t, std::size_t> m_Firsts;
};

}  // namespace fatlib

#endif  // FATLIB_COMMITSLOTS_H
