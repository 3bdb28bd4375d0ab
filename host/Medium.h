/// @file Medium.h
/// The bytes of a FAT volume, read and changed directly: what the library's functions do not tell (the root's entries,
/// stored times, chains, free clusters, FAT copies) and what they do not change (times, label, FSInfo). Only for a
/// volume that the library has not mounted: Volume takes care of that. Nothing here trusts the medium: every number is
/// checked, every walk ends.

#ifndef FATLIB_MEDIUM_H
#define FATLIB_MEDIUM_H

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "Device.h"
#include "Time.h"

namespace fatlib {

enum class FatType { Fat12 = 12, Fat16 = 16, Fat32 = 32 };

/// What a boot sector says, checked.
struct Geometry {
  static constexpr std::uint32_t SLOT_BYTES = 32;  ///< of one entry of a directory

  FatType type = FatType::Fat12;  ///< as the library sees it: FAT32 when the 16-bit FAT size is 0, else FAT12 up to
                                  ///< 4086 clusters, else FAT16
  bool ambiguous = false;         ///< 4085 or 4086 clusters: others take the volume for FAT16
  std::uint32_t bytesPerSector = 0;
  std::uint32_t sectorsPerCluster = 0;
  std::uint32_t bytesPerCluster = 0;
  std::uint32_t reservedSectors = 0;
  std::uint32_t fats = 0;
  std::uint32_t sectorsPerFat = 0;
  std::uint32_t rootEntries = 0;       ///< slots of the fixed root; 0 on FAT32
  std::uint32_t rootCluster = 0;       ///< FAT32
  std::uint32_t fsInfoSector = 0;      ///< FAT32; 0: none
  std::uint32_t backupBootSector = 0;  ///< FAT32; 0: none
  std::uint64_t totalSectors = 0;
  std::uint64_t firstDataSector = 0;  ///< of cluster 2
  std::uint32_t clusters = 0;         ///< their numbers are 2 .. clusters + 1
  std::uint8_t media = 0;
  std::uint32_t volumeId = 0;
  std::string oemName;  ///< 8 bytes as stored
  std::string
      bootLabel;  ///< the label of the boot sector as stored, without trailing spaces; empty if "NO NAME" or none

  bool IsCluster(std::uint32_t cluster) const { return cluster >= 2 && cluster - 2 < clusters; }
  std::uint64_t ClusterPosition(std::uint32_t cluster) const {  ///< bytes
    return (firstDataSector + std::uint64_t{cluster - 2} * sectorsPerCluster) * bytesPerSector;
  }
  std::uint64_t FatPosition(std::uint32_t copy) const {  ///< bytes
    return (std::uint64_t{reservedSectors} + std::uint64_t{copy} * sectorsPerFat) * bytesPerSector;
  }
  std::uint64_t RootPosition() const { return FatPosition(fats); }  ///< bytes; of the fixed root
  std::uint64_t FsInfoPosition() const { return std::uint64_t{fsInfoSector} * bytesPerSector; }  ///< bytes
  bool HasFsInfo() const { return type == FatType::Fat32 && fsInfoSector != 0; }
  /// Clusters that so many bytes take, which a file can have.
  std::uint32_t ClustersOf(std::uint64_t bytes) const {
    return static_cast<std::uint32_t>((bytes + bytesPerCluster - 1) / bytesPerCluster);
  }
  /// Entries of a directory that a cluster holds.
  std::uint32_t SlotsPerCluster() const { return bytesPerCluster / SLOT_BYTES; }
  /// Whether an unmount overwrites what lies behind the only FAT, or other systems see the volume as of another type.
  bool IsHarmedByWriting() const { return fats == 1 || ambiguous; }
  std::string TypeText() const { return "FAT" + std::to_string(static_cast<int>(type)); }  ///< "FAT16"
};

enum Attribute : std::uint8_t {
  READ_ONLY = 0x01,
  HIDDEN = 0x02,
  SYSTEM = 0x04,
  LABEL = 0x08,
  DIRECTORY = 0x10,
  ARCHIVE = 0x20,
};

/// The attributes that a host can choose; the others say what an entry is.
inline constexpr std::uint8_t SETTABLE_ATTRIBUTES = READ_ONLY | HIDDEN | SYSTEM | ARCHIVE;

/// One entry of a directory as it lies on the medium.
struct RawEntry {
  std::u16string name;  ///< the long name, or the short one as BASE.EXT (bytes over 0x7F by code page 437)
  bool hasLongName = false;
  std::array<unsigned char, 11> shortName{};  ///< as stored, but a first byte 05 is E5
  std::uint8_t caseFlags =
      0;  ///< byte 12: 08 base, 10 extension in lower case. `name` of an entry without long name follows it
  std::uint8_t attributes = 0;
  std::uint32_t size = 0;
  std::uint32_t firstCluster = 0;
  Times times;
  std::uint32_t firstSlot = 0;  ///< of its first long-name entry, or of the short entry
  std::uint32_t slots = 1;      ///< up to and with the short entry

  /// The label bit makes an entry a label, whatever other bits it has.
  bool IsLabel() const { return (attributes & LABEL) != 0; }
  bool IsDirectory() const { return (attributes & (LABEL | DIRECTORY)) == DIRECTORY; }
  bool IsDot() const;  ///< "." or ".."
  /// Of its short entry; the last of its slots.
  std::uint32_t ShortSlot() const { return firstSlot + slots - 1; }
  /// The short name as BASE.EXT; bytes over 0x7F by code page 437. A zero byte ends the part that it is in.
  std::u16string ShortNameText() const;
};

/// What an entry is to become, in the slots that it has.
struct EntryChange {
  std::uint32_t firstSlot = 0;
  std::uint32_t slots = 1;
  std::array<unsigned char, 11> stored{};     ///< its short name, as in RawEntry
  std::array<unsigned char, 11> shortName{};  ///< the new one; only with `name`
  std::u16string_view name;                   ///< the new long name; empty: both names stay
  const Times* times = nullptr;               ///< null: they stay
};

/// A run of clusters.
struct Extent {
  std::uint32_t first = 0;
  std::uint32_t count = 0;
};

/// Something wrong inside a directory, in the terms of slots.
struct SlotDefect {
  enum Kind {
    OrphanLongName,       ///< a long-name entry, or the first of several, that belongs to no short entry
    BadLongNameChecksum,  ///< the first entry of a long name with the checksum of another short name, or an entry with
                          ///< another checksum than those before it
    BadLongNameOrder,  ///< an ordinal that is not the next one, or is none; a deleted slot among the entries of a name
    BadLongNameUnits,  ///< the first entry of a long name that is empty or longer than 255 units, holds units that no
                       ///< name can have, or has anything but FFFF behind its end
    BadShortName,      ///< bytes that no short name can have
    BadAttributes,     ///< bits that have no meaning, or that exclude each other
  } kind;
  std::uint32_t slot;
};

/// Where a directory lies: its first cluster, or 0 for the root (of any type).
using DirectoryPlace = std::uint32_t;

class Medium {
 public:
  static constexpr DirectoryPlace ROOT = 0;
  static constexpr std::uint32_t MAX_DIRECTORY_SLOTS = 0x10000;

  Medium();
  Medium(Medium&&) noexcept;
  Medium& operator=(Medium&&) noexcept;
  ~Medium();

  /// To be called before any other function. A device may be shorter than the boot sector says: the rest reads as
  /// zeros.
  /// @param device  must live as long as the object
  /// @return NotAVolume when the boot sector is that of no FAT volume, or of one that the library refuses
  [[nodiscard]] std::error_code Open(Device* device);
  const Geometry& Layout() const;
  Device* Base() const;

  // ---- the FAT. Its first copy is read in blocks on demand; the last 64 MiB of them are kept until Forget.

  /// @param cluster  0 to clusters + 1: InvalidParameter beyond
  /// @param next     out: the entry as stored, 12, 16 or 28 bits wide
  [[nodiscard]] std::error_code FatEntry(std::uint32_t cluster, std::uint32_t* next);
  bool IsEndOfChain(std::uint32_t entry) const;  ///< F8 and above, in the type's width
  bool IsBadCluster(std::uint32_t entry) const;  ///< F7
  /// Follows a chain.
  /// @param first    0: there is no chain, and no extent
  /// @param extents  out: replaced by what was reached before the end or the defect, each cluster once
  /// @return DiskCorrupt when the chain leads to itself, or to a free, bad, reserved or missing cluster
  [[nodiscard]] std::error_code Chain(std::uint32_t first, std::vector<Extent>* extents);
  /// Counts entries that are 0. Reads the whole FAT once, then answers from memory until Forget.
  [[nodiscard]] std::error_code CountFree(std::uint32_t* clusters);
  /// Changes one entry in every copy of the FAT. The top four bits of a FAT32 entry become 0, as when the library
  /// writes one.
  /// @return DiskCorrupt when the FAT is too short to have that entry
  [[nodiscard]] std::error_code SetFatEntry(std::uint32_t cluster, std::uint32_t value);

  // ---- directories

  /// The entries in slot order, without those that are deleted or only parts of a long name; "." and ".." and labels
  /// included. Ends at the first slot that was never used. What a long name's malformation leaves is its short entry.
  /// A long name may have up to 260 units, as the library takes it; an empty one counts as none.
  /// @param entries  out: replaced. After a failure: what was read
  /// @param defects  out, unless null: replaced
  /// @param slots    out, unless null: how many slots the directory has, and whether each is in use (0 deleted or never
  ///                 used, 1 in use)
  /// @return DiskCorrupt when its chain is broken; IoError or what the device returns
  [[nodiscard]] std::error_code ReadDirectory(DirectoryPlace place, std::vector<RawEntry>* entries,
                                              std::vector<SlotDefect>* defects = nullptr,
                                              std::vector<bool>* slots = nullptr);
  /// Where a slot lies on the medium, in bytes.
  [[nodiscard]] std::error_code SlotPosition(DirectoryPlace place, std::uint32_t slot, std::uint64_t* position);

  /// Reads bytes of a file's chain. The entry's size is the limit.
  /// @param done  out: bytes read; fewer than asked for at the end of the file, or after a failure
  /// @return DiskCorrupt where the chain ends before the size does
  [[nodiscard]] std::error_code ReadFile(const RawEntry& entry, std::uint64_t offset, void* buffer, std::size_t size,
                                         std::size_t* done);

  // ---- changes that the library's functions do not offer

  /// Stores times in a short entry. @return NotFound when it is not in its slot any more
  [[nodiscard]] std::error_code SetTimes(DirectoryPlace place, const RawEntry& entry, const Times& times);
  /// Changes entries in their slots. What lies close together is read, and written, at once.
  /// @param changes  in the order of their slots
  /// @return NotFound when one is not in its slots any more; InvalidParameter, with nothing changed, for a name that
  ///         takes other slots than the entry has. After another failure any of them may be changed, or changed in part
  [[nodiscard]] std::error_code ChangeEntries(DirectoryPlace place, const std::vector<EntryChange>& changes);
  /// Appends zeroed clusters to a directory's chain, in all copies of the FAT, data before links.
  /// @return DiskFull, with nothing changed, when there are too few, for a fixed root, and when the directory would
  /// have
  ///         more than MAX_DIRECTORY_SLOTS
  [[nodiscard]] std::error_code GrowDirectory(DirectoryPlace place, std::uint32_t clusters);
  /// Makes ".." of a directory name `parent` (0 for the root). @return DiskCorrupt when its second slot is not ".."
  [[nodiscard]] std::error_code SetDotDot(DirectoryPlace place, std::uint32_t parent);
  /// Sets the label in the root directory and in the boot sectors; an empty one removes it. At most 11 characters of
  /// code page 437, made upper case. InvalidName otherwise.
  /// @param modified  stored in the root's entry, unless it is none
  /// @return DiskFull when a fixed root has no slot left for it
  [[nodiscard]] std::error_code SetLabel(std::u16string_view label, const Stamp& modified = {});
  /// @param label  out: of the root's label entry, else of the boot sector; empty when there is none
  [[nodiscard]] std::error_code Label(std::u16string* label);
  /// Writes the true count of free clusters into the FSInfo sector of a FAT32 volume that has a valid one.
  [[nodiscard]] std::error_code WriteFsInfo();

  /// Drops what was read: the device was changed by someone else.
  void Forget();

 private:
  using ShortName11 = std::array<std::uint8_t, 11>;

  std::error_code SetRootLabel(const ShortName11& name, const Stamp& modified);
  std::error_code AddRootLabel(const ShortName11& name, const Stamp& modified, const std::vector<bool>& used);
  std::error_code DeleteRootLabels(std::size_t kept);
  std::error_code SetBootLabel(std::uint32_t sector, const ShortName11& name);

  struct State;  // of host/MediumState.h
  std::unique_ptr<State> m_pState;
};

}  // namespace fatlib

#endif  // FATLIB_MEDIUM_H
