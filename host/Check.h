/// @file Check.h
/// Looks for every defect of a volume, and changes nothing.

#ifndef FATLIB_CHECK_H
#define FATLIB_CHECK_H

#include <cstdint>
#include <string>
#include <system_error>
#include <vector>

#include "Medium.h"

namespace fatlib {

struct Defect {
  enum Kind {
    FatCopiesDiffer,      ///< number: first cluster whose entry differs; count: how many
    BadFirstEntries,      ///< FAT entries 0 or 1 are not what the media byte says; number: which; count: what it holds
    NotCleanlyUnmounted,  ///< number: 1 the mark of a mounted volume, 2 that of errors, 3 both
    FatReservedBits,    ///< FAT32: number: first cluster whose entry has some of the top four bits set, which only the
                        ///< library takes for part of a cluster number; count: how many
    FsInfoInvalid,      ///< number: its sector, which lies outside the reserved ones or has wrong signatures
    FsInfoWrongCount,   ///< number: what it says; count: what is true
    BootSectorsDiffer,  ///< FAT32: the backup is not as the first; number: first byte that differs; count: how many
    AmbiguousType,      ///< 4085 or 4086 clusters; number: how many
    FatTooSmall,        ///< not an entry for each cluster that the sizes give; number: clusters; count: that have one
    VolumeTooLarge,     ///< number: bytes that the boot sector claims; count: bytes that the device has
    ChainLoops,         ///< number: the cluster that was reached twice
    ChainBroken,      ///< number: the last cluster of the chain; count: its entry, which is free, bad, reserved, out of
                      ///< range or behind the end of the FAT
    CrossLinked,      ///< number: the cluster that another path has too; other: that path
    LostChain,        ///< number: its first cluster; count: clusters
    SizeBeyondChain,  ///< number: the size, for which the chain has too few clusters; count: those that it has
    ChainBeyondSize,  ///< number: the size, for which the chain has too many clusters; count: those that it has
    FirstClusterInvalid,  ///< number: the cluster
    DirectoryHasSize,     ///< number: the size
    EmptyDirectoryChain,  ///< a directory without cluster
    DotMissing,
    DotDotMissing,
    DotWrong,            ///< number: the cluster it names
    DotDotWrong,         ///< number: the cluster it names
    OrphanLongName,      ///< number: slot
    BadLongName,         ///< number: slot
    BadShortName,        ///< number: slot
    BadAttributes,       ///< number: slot
    DuplicateShortName,  ///< number: slot; other: the path of the earlier entry
    DuplicateLongName,   ///< number: slot; other: the path of the entry that has this name as its long or short one
    BadStamp,            ///< a date or time that is none; number: slot
    LabelsDiffer,        ///< the root directory and the boot sector do not have the same label
    SecondLabel,         ///< number: slot
    LabelNotInRoot,      ///< number: slot
    DirectoryTooLong,    ///< more than 65,536 slots; number: how many. Not looked into from 1,048,576 on
    TooDeep,             ///< a directory whose path has more than 4,096 units: not looked into
    Unreadable,          ///< the device failed; number: byte of the volume, there or behind
  } kind;
  static constexpr int KINDS = Unreadable + 1;

  std::string path;  ///< what is concerned, as Path::ToUtf8; empty when it is the volume. Of a slot without an entry:
                     ///< the directory
  std::uint64_t number = 0;
  std::uint64_t count = 0;
  std::string other;
};

/// A stable name for scripts, "cross-linked".
const char* DefectName(Defect::Kind kind);
/// One sentence for people, with path and numbers.
std::string DefectText(const Defect& defect);

struct CheckReport {
  static constexpr std::size_t MAX_DEFECTS = 10000;

  std::vector<Defect> defects;    ///< at most MAX_DEFECTS
  std::uint64_t moreDefects = 0;  ///< that were found beyond those
  std::uint64_t files = 0;
  std::uint64_t directories = 0;   ///< without the root
  std::uint64_t usedClusters = 0;  ///< reached from the root
  std::uint64_t freeClusters = 0;  ///< 0 in the FAT
  std::uint64_t badClusters = 0;
  std::uint64_t lostClusters = 0;
  std::uint64_t fragmentedFiles = 0;  ///< files in more than one run
  std::uint64_t runs = 0;             ///< of all files
};

/// Time and memory follow from the size of the device, whatever the volume on it claims or contains.
/// @param medium    open
/// @param report    out: replaced; after a failure what was found until then
/// @param progress  gets bytes of the volume
/// @return a failure only when the volume cannot be looked at at all, or Cancelled; defects are none
[[nodiscard]] std::error_code Check(Medium* medium, CheckReport* report, const Progress& progress = {});

}  // namespace fatlib

#endif  // FATLIB_CHECK_H
