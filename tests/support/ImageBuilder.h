/// @file ImageBuilder.h
/// Builds FAT volumes in memory, or changes one that a tool has made. It shares no code with the library, and does what
/// it is told: fragmented, cross-linked and damaged volumes are as easy as healthy ones. Mistakes of the caller throw
/// std::logic_error.
///
///     FAT_GEOMETRY geometry;
///     geometry.FatBits = 16;
///     geometry.Clusters = 5000;
///     CImageBuilder builder(geometry);
///     auto dir = builder.AddDir(builder.Root(), "DIR");
///     builder.AddFile(dir, "Long name.txt", CImageBuilder::Pattern(3000, 7), {10, 12, 11, 40, 41, 42});

#ifndef FATLIB_TESTS_IMAGEBUILDER_H
#define FATLIB_TESTS_IMAGEBUILDER_H

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support/DiskImage.h"
#include "support/Utf16.h"

/// What the boot sector says. A 0 in a field marked "auto" is replaced by the smallest value that works.
struct FAT_GEOMETRY {
  unsigned int FatBits = 16;           ///< 12, 16 or 32: how FAT entries are packed, and which boot sector is written.
                                       ///< The count of clusters must suit it: a reader goes by that
  unsigned int BytesPerSector = 512;   ///< 128 to 4096
  unsigned int SectorsPerCluster = 1;  ///< 1 to 128
  unsigned int ReservedSectors = 0;    ///< auto: enough for the 512 bytes of the boot sector; 32 on FAT32
  unsigned int NumberOfFats = 2;
  unsigned int RootEntries = 0;    ///< auto: 512 on FAT12/16; stays 0 on FAT32
  unsigned int SectorsPerFat = 0;  ///< auto: holds Clusters + 2 entries
  unsigned int Clusters = 0;       ///< auto: 1000, 5000 or 70000 for the three widths
  std::uint32_t TotalSectors = 0;  ///< auto: ends after the last cluster
  enum TOTAL_FIELD { TotalAuto, Total16, Total32, TotalBoth } TotalField = TotalAuto;  ///< auto: 16 bits when it fits
  unsigned int Media = 0xF8;
  unsigned int Jump = 0xEB;       ///< the first byte
  std::uint32_t RootCluster = 2;  ///< FAT32: first cluster of the root directory, which is made with one cluster
  unsigned int FsInfoSector = 0;  ///< FAT32, auto: the first one behind the boot sector's 512 bytes
  std::uint32_t FsInfoFree = 0xFFFFFFFF;
  std::uint32_t FsInfoNext = 0xFFFFFFFF;
};

/// 32 bytes of a directory.
using RAW_ENTRY = std::array<unsigned char, 32>;
/// The 11 bytes of a short name: base and extension, padded with spaces.
using SHORT_NAME = std::array<unsigned char, 11>;

/// What an entry gets besides name and content.
struct ENTRY_OPTIONS {
  unsigned int Attributes = 0x20;  ///< AddDir adds 0x10
  std::string ShortName;           ///< 11 bytes; empty: made from the name
  bool ForceLongName = false;      ///< a long-name run even where the short name says it all
  bool NoLongName = false;         ///< the short entry alone
  bool SetSize = false;            ///< take Size instead of the content's length
  std::uint32_t Size = 0;
  bool SetFirstCluster = false;  ///< take FirstCluster instead of the chain's first (for damaged entries)
  std::uint32_t FirstCluster = 0;
  unsigned int Date = 0x5A21;  ///< 2025-01-01, stored as creation, access and write date
  unsigned int Time = 0x6000;  ///< 12:00:00
};

class CImageBuilder {
 public:
  /// Names a directory of this builder. Root() is the root directory.
  using DIRECTORY = unsigned int;
  /// End of chain as this builder writes it (cut to the width of the FAT).
  static constexpr std::uint32_t END_OF_CHAIN = 0x0FFFFFFF;

  /// Formats a new image in memory.
  explicit CImageBuilder(const FAT_GEOMETRY& geometry);
  /// Takes a formatted volume as it is, its geometry from the boot sector. The store must outlive the builder.
  explicit CImageBuilder(CByteStore& volume);

  const FAT_GEOMETRY& Geometry() const { return m_Geometry; }  ///< with the automatic values filled in
  CByteStore& Store() { return *m_pStore; }
  const CByteStore& Store() const { return *m_pStore; }
  /// The image of a builder that made one. Copy it to keep this state.
  CDiskImage& Image();

  // ---- where things lie, in bytes from the start
  std::uint64_t FatOffset(unsigned int copy) const;
  std::uint64_t FatBytes() const;
  /// The fixed root area; on FAT32 the root's first cluster.
  std::uint64_t RootOffset() const;
  std::uint64_t DataOffset() const;
  std::uint64_t ClusterOffset(std::uint32_t cluster) const;
  std::uint64_t FsInfoOffset() const;
  unsigned int ClusterBytes() const { return m_Geometry.BytesPerSector * m_Geometry.SectorsPerCluster; }

  // ---- the FAT
  /// The entry's bits; on FAT32 all 32.
  std::uint32_t FatEntry(std::uint32_t cluster, unsigned int copy = 0) const;
  void SetFatEntry(std::uint32_t cluster, std::uint32_t value);                       ///< in every copy
  void SetFatEntryIn(unsigned int copy, std::uint32_t cluster, std::uint32_t value);  ///< in one copy
  /// Links the clusters in the order given and ends the chain.
  void SetChain(const std::vector<std::uint32_t>& clusters);
  /// Follows a chain in the first copy, ends at anything that is no cluster, and stops after `limit` clusters.
  std::vector<std::uint32_t> Chain(std::uint32_t first, std::size_t limit = 1u << 20) const;
  /// The lowest free clusters from `from` on, linked to a chain.
  std::vector<std::uint32_t> Allocate(unsigned int count, std::uint32_t from = 2);
  unsigned int CountFree() const;

  // ---- cluster contents
  std::vector<unsigned char> Cluster(std::uint32_t cluster) const;
  /// Puts bytes at the start of a chain's clusters; the rest of the last one stays.
  void WriteClusters(const std::vector<std::uint32_t>& clusters, const std::vector<unsigned char>& bytes);

  // ---- directories and files
  static constexpr DIRECTORY Root() { return 0; }
  /// Adds a file. Its data goes to `clusters` in that order when some are given (they are linked, whatever they were),
  /// else to the lowest free ones. No data and no clusters: start cluster 0.
  /// @param name  UTF-8; stored short-only when it is a plain upper-case 8.3 name, else as a long name as well
  /// @return the slot of its short entry
  unsigned int AddFile(DIRECTORY parent, std::string_view name, const std::vector<unsigned char>& content = {},
                       const std::vector<std::uint32_t>& clusters = {}, const ENTRY_OPTIONS& options = {});
  /// Adds a directory with "." and "..", in the clusters given or the lowest free one.
  DIRECTORY AddDir(DIRECTORY parent, std::string_view name, const std::vector<std::uint32_t>& clusters = {},
                   const ENTRY_OPTIONS& options = {});
  /// Adds the volume label entry (11 bytes, padded); in the root the boot sector gets the same label.
  void AddLabel(DIRECTORY parent, std::string_view label);
  /// Puts one raw entry, or several, behind the last one added. @return the slot of the first.
  unsigned int Append(DIRECTORY directory, const RAW_ENTRY& entry);
  unsigned int Append(DIRECTORY directory, const std::vector<RAW_ENTRY>& entries);

  RAW_ENTRY Entry(DIRECTORY directory, unsigned int slot) const;
  void SetEntry(DIRECTORY directory, unsigned int slot, const RAW_ENTRY& entry);
  /// All slots of the directory, used or not.
  std::vector<RAW_ENTRY> Entries(DIRECTORY directory) const;
  unsigned int SlotCount(DIRECTORY directory) const;
  /// Where Append puts the next entry.
  unsigned int NextSlot(DIRECTORY directory) const { return m_Directories.at(directory).NextSlot; }
  void SetNextSlot(DIRECTORY directory, unsigned int slot) { m_Directories.at(directory).NextSlot = slot; }
  /// Byte position of a slot in the image.
  std::uint64_t SlotOffset(DIRECTORY directory, unsigned int slot) const;
  const std::vector<std::uint32_t>& DirectoryClusters(DIRECTORY directory) const {
    return m_Directories.at(directory).Clusters;
  }
  /// Takes a directory that another tool made: its chain is followed from its first cluster.
  DIRECTORY AdoptDir(std::uint32_t firstCluster);

  // ---- raw pieces
  static SHORT_NAME ShortName(std::string_view base, std::string_view extension = {});
  static SHORT_NAME ShortName11(std::string_view elevenBytes);
  static RAW_ENTRY ShortEntry(const SHORT_NAME& name, unsigned int attributes, std::uint32_t cluster,
                              std::uint32_t size, unsigned int date = 0x5A21, unsigned int time = 0x6000);
  static unsigned char Checksum(const SHORT_NAME& name);
  /// The long-name entries as they stand on the medium: the last piece first. Up to 63 pieces are made.
  static std::vector<RAW_ENTRY> LongEntries(const UTF16& name, unsigned char checksum);
  /// Long-name run and short entry.
  static std::vector<RAW_ENTRY> EntrySet(const UTF16& name, const RAW_ENTRY& shortEntry);

  /// Bytes that differ from place to place and from seed to seed.
  static std::vector<unsigned char> Pattern(std::size_t count, std::uint32_t seed);
  static std::vector<unsigned char> Bytes(std::string_view text);

 private:
  struct DIRECTORY_STATE {
    std::vector<std::uint32_t> Clusters;  // empty for the fixed root
    bool FixedRoot = false;
    unsigned int NextSlot = 0;
  };

  void Format();
  void ReadGeometry();
  void OpenRoot();
  unsigned int AddEntry(DIRECTORY parent, std::string_view name, std::uint32_t cluster, std::uint32_t size,
                        unsigned int attributes, const ENTRY_OPTIONS& options);
  void Extend(DIRECTORY directory, unsigned int slots);
  std::uint32_t EndMark() const;

  FAT_GEOMETRY m_Geometry;
  std::shared_ptr<CDiskImage> m_pOwned;  // null when the volume was given
  CByteStore* m_pStore;
  std::vector<DIRECTORY_STATE> m_Directories;
  std::uint32_t m_nAllocateFrom = 2;  // no cluster below is free, unless a test freed it
};

#endif  // FATLIB_TESTS_IMAGEBUILDER_H
