/// @file Defect.cpp
/// What defects are called.

#include "Check.h"

namespace fatlib {

namespace {

// In the text, %n stands for the number, %c for the count and %o for the other path.
struct Wording {
  Defect::Kind kind;
  const char* name;
  const char* text;
};

constexpr Wording WORDINGS[] = {
    {Defect::FatCopiesDiffer, "fat-copies-differ",
     "entries in which the copies of the FAT differ: %c, first that of cluster %n"},
    {Defect::BadFirstEntries, "bad-first-entries", "entry %n of the FAT is %c, which does not go with the media byte"},
    {Defect::NotCleanlyUnmounted, "not-cleanly-unmounted",
     "the volume is marked (%n) as in use or as having had errors"},
    {Defect::FatReservedBits, "fat-reserved-bits",
     "entries of the FAT that have reserved bits set: %c, first that of cluster %n"},
    {Defect::FsInfoInvalid, "fsinfo-invalid", "sector %n is no FSInfo sector"},
    {Defect::FsInfoWrongCount, "fsinfo-wrong-count", "FSInfo says that %n clusters are free, but there are %c"},
    {Defect::BootSectorsDiffer, "boot-sectors-differ",
     "bytes in which the backup of the boot sector differs: %c, first byte %n"},
    {Defect::AmbiguousType, "ambiguous-type",
     "with %n clusters the volume is FAT12 to some systems and FAT16 to others"},
    {Defect::FatTooSmall, "fat-too-small", "of %n clusters the FAT has entries for %c only"},
    {Defect::VolumeTooLarge, "volume-too-large", "the volume has %n bytes by its boot sector, and the device only %c"},
    {Defect::ChainLoops, "chain-loops", "the chain leads back to its cluster %n"},
    {Defect::ChainBroken, "chain-broken", "the chain breaks off at cluster %n, whose entry is %c"},
    {Defect::CrossLinked, "cross-linked", "cluster %n also belongs to %o"},
    {Defect::LostChain, "lost-chain", "the chain from cluster %n on is in use, but belongs to nothing; clusters: %c"},
    {Defect::SizeBeyondChain, "size-beyond-chain", "the size is %n bytes, but the chain's clusters are too few: %c"},
    {Defect::ChainBeyondSize, "chain-beyond-size", "the size is %n bytes, but the chain's clusters are too many: %c"},
    {Defect::FirstClusterInvalid, "first-cluster-invalid", "the first cluster is %n, which the volume does not have"},
    {Defect::DirectoryHasSize, "directory-has-size", "the directory's size should be 0, and is %n"},
    {Defect::EmptyDirectoryChain, "empty-directory-chain", "the directory has no cluster"},
    {Defect::DotMissing, "dot-missing", "the directory's first entry is not \".\""},
    {Defect::DotDotMissing, "dot-dot-missing", "the directory's second entry is not \"..\""},
    {Defect::DotWrong, "dot-wrong", "\".\" names cluster %n, or is no directory"},
    {Defect::DotDotWrong, "dot-dot-wrong", "\"..\" names cluster %n, or is no directory"},
    {Defect::OrphanLongName, "orphan-long-name", "the long name in slot %n belongs to no entry"},
    {Defect::BadLongName, "bad-long-name", "the long name in slot %n is malformed"},
    {Defect::BadShortName, "bad-short-name", "the short name in slot %n is none"},
    {Defect::BadAttributes, "bad-attributes", "the attributes in slot %n contradict each other"},
    {Defect::DuplicateShortName, "duplicate-short-name", "the short name in slot %n is also that of %o"},
    {Defect::DuplicateLongName, "duplicate-long-name", "the name in slot %n is also that of %o"},
    {Defect::BadStamp, "bad-stamp", "a date or time in slot %n is none"},
    {Defect::LabelsDiffer, "labels-differ", "the root directory and the boot sector have different labels"},
    {Defect::SecondLabel, "second-label", "the entry in slot %n is a second label"},
    {Defect::LabelNotInRoot, "label-not-in-root", "the entry in slot %n is a label, but not in the root directory"},
    {Defect::DirectoryTooLong, "directory-too-long", "the directory has %n slots, more than 65536"},
    {Defect::TooDeep, "too-deep", "the directory lies too deep, and was not looked into"},
    {Defect::Unreadable, "unreadable", "the device could not be read at byte %n of the volume or behind"},
};

constexpr bool AreInOrder() {
  int kind = 0;
  for (const Wording& wording : WORDINGS) {
    if (wording.kind != kind++) return false;
  }
  return kind == Defect::KINDS;
}
static_assert(AreInOrder(), "each kind has its wording at its place");

}  // namespace

const char* DefectName(Defect::Kind kind) { return WORDINGS[kind].name; }

std::string DefectText(const Defect& defect) {
  std::string text = defect.path.empty() ? std::string() : defect.path + ": ";
  for (const char* at = WORDINGS[defect.kind].text; *at != '\0'; ++at) {
    if (*at != '%') {
      text += *at;
      continue;
    }
    ++at;
    text += *at == 'o' ? defect.other : std::to_string(*at == 'n' ? defect.number : defect.count);
  }
  return text;
}

}  // namespace fatlib
