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
    BadFirstEntries,      ///< FAT entries 0 or 1 are not what the media byte says
    NotCleanlyUnmounted,  ///< the mark in FAT entry 1
    FsInfoInvalid,        ///< its signatures
    FsInfoWrongCount,     ///< number: what it says; count: what is true
    BootSectorsDiffer,    ///< FAT32: the backup is not as the first
    AmbiguousType,        ///< 4085 or 4086 clusters
    FatTooSmall,          ///< the FAT has not an entry for each cluster that the sizes give
    VolumeTooLarge,       ///< the boot sector claims more sectors than the device has
    ChainLoops,           ///< number: the cluster that was reached twice
    ChainBroken,          ///< number: the entry that is free, bad, reserved or out of range
    CrossLinked,          ///< number: the cluster that another path has too; other: that path
    LostChain,            ///< number: its first cluster; count: clusters
    SizeBeyondChain,      ///< the size needs more clusters than the chain has
    ChainBeyondSize,      ///< the chain has clusters that the size does not need
    FirstClusterInvalid,  ///< number: the cluster
    DirectoryHasSize,
    EmptyDirectoryChain,  ///< a directory without cluster
    DotMissing,
    DotDotMissing,
    DotWrong,
    DotDotWrong,
    OrphanLongName,
    BadLongName,
    BadShortName,
    BadAttributes,  ///< number: slot
    DuplicateShortName,
    DuplicateLongName,
    BadStamp,  ///< a date or time that is none
    SecondLabel,
    DirectoryTooLong,  ///< more than 65,536 slots
    TooDeep,           ///< directories below each other to no end: not followed
    Unreadable,        ///< the device failed there; number: cluster or slot
  } kind;
  std::string path;  ///< what is concerned, as Path::ToUtf8; empty when it is the volume
  std::uint64_t number = 0;
  std::uint64_t count = 0;
  std::string other;
};

/// A stable name for scripts, "cross-linked".
const char* DefectName(Defect::Kind kind);
/// One sentence for people, with path and numbers.
std::string DefectText(const Defect& defect);

struct CheckReport {
  std::vector<Defect> defects;
  std::uint64_t files = 0;
  std::uint64_t directories = 0;   ///< without the root
  std::uint64_t usedClusters = 0;  ///< reached from the root
  std::uint64_t freeClusters = 0;  ///< 0 in the FAT
  std::uint64_t badClusters = 0;
  std::uint64_t lostClusters = 0;
  std::uint64_t fragmentedFiles = 0;  ///< files in more than one run
  std::uint64_t runs = 0;             ///< of all files
};

/// @return a failure only when the volume cannot be looked at at all; defects are none
[[nodiscard]] std::error_code Check(Medium* medium, CheckReport* report, const Progress& progress = {});

}  // namespace fatlib

#endif  // FATLIB_CHECK_H
