/// @file DirEnt.h
/// The two kinds of 32-byte directory entry as they lie on the medium: the short (8.3) entry, and the long-name entry
/// laid over the same bytes.
///
/// A name that does not fit 8.3 is stored as a run of long-name entries directly before its short entry, 13 UTF-16
/// units in each, the last piece of the name first. Piece k (ordinal k, counted from 1) holds units 13(k-1) to 13k-1.
/// The last piece has ordinal bit 0x40; when the name does not fill it, a 0x0000 unit follows the name and 0xFFFF units
/// fill the rest. Each piece carries a checksum of the 11 name bytes of the short entry, by which a run is known to
/// belong to it.
///
/// So "Report of May.txt" (17 units, short name REPORT~1.TXT) is three entries:
///
///     42 '.' 't' 'x' 't' ...   ordinal 2, the last: units 13..16, 0x0000, eight 0xFFFF
///     01 'R' 'e' 'p' 'o' ...   ordinal 1: units 0..12
///     "REPORT~1TXT" ...        the short entry
///
/// Everything here is bytes in place: no alignment is needed, and the structures may be laid over any buffer.

#ifndef FATLIB_DIRENT_H
#define FATLIB_DIRENT_H

#include "platform/stdafx.h"

// Attribute byte.
constexpr unsigned char ATTR_READ_ONLY = 0x01;
constexpr unsigned char ATTR_HIDDEN = 0x02;
constexpr unsigned char ATTR_SYSTEM = 0x04;
constexpr unsigned char ATTR_VOLUME_ID = 0x08;
constexpr unsigned char ATTR_DIRECTORY = 0x10;
constexpr unsigned char ATTR_ARCHIVE = 0x20;
constexpr unsigned char ATTR_LFN = 0x0F;  // exactly this value marks a long-name entry

// First byte of an entry. No other value is special when reading.
constexpr unsigned char DIRENT_END = 0x00;      // this slot and all later ones are free
constexpr unsigned char DIRENT_DELETED = 0xE5;  // this slot is free

constexpr unsigned int DIRENT_SIZE = 32;          // bytes per entry
constexpr unsigned int SHORT_NAME_SIZE = 11;      // base name and extension, each padded with spaces
constexpr unsigned int SHORT_BASE_SIZE = 8;       // of them before the dot that is not stored
constexpr unsigned int SHORT_EXTENSION_SIZE = 3;  // and after it

constexpr unsigned int LFN_LAST = 0x40;          // ordinal bit of the piece that ends the name
constexpr unsigned int LFN_ORDINAL_MASK = 0x3F;  // ordinal bits
constexpr unsigned int LFN_UNITS = 13;           // units per piece
constexpr unsigned int LFN_MAX_ORDINAL = 20;     // pieces per name: 260 units

struct CLfnDirEnt;

/// Short entry. may_alias: the same bytes are also read as a long-name entry and written as raw buffers.
struct [[gnu::may_alias]] CDirEnt {
  unsigned char Name[SHORT_NAME_SIZE];  // 0x00  base name 8, extension 3; the first byte doubles as a marker
  unsigned char Attribute;              // 0x0B
  unsigned char CaseFlags;              // 0x0C  always written as 0, never applied
  unsigned char CreateTenths;           // 0x0D  always written as 0
  le16 CreateTime;                      // 0x0E  bits 15-11 hours, 10-5 minutes, 4-0 seconds / 2
  le16 CreateDate;                      // 0x10  bits 15-9 years since 1980, 8-5 month 1-12, 4-0 day 1-31
  le16 AccessDate;                      // 0x12
  le16 ClusterHigh;                     // 0x14  high half of the start cluster
  le16 WriteTime;                       // 0x16
  le16 WriteDate;                       // 0x18
  le16 ClusterLow;                      // 0x1A  low half of the start cluster
  le32 FileSize;                        // 0x1C  bytes; 0 for a directory

  bool IsLfn() const { return Attribute == ATTR_LFN; }
  /// The same 32 bytes as a long-name entry.
  CLfnDirEnt* ToLfn();
  const CLfnDirEnt* ToLfn() const;
  /// True for a long-name entry too: test IsLfn first.
  bool IsVolumeId() const { return (Attribute & ATTR_VOLUME_ID) != 0; }
  bool IsEmpty() const { return Name[0] == DIRENT_END; }
  bool IsDeleted() const { return Name[0] == DIRENT_DELETED; }
  bool IsDir() const { return (Attribute & ATTR_DIRECTORY) != 0; }
  void SetDir() { Attribute |= ATTR_DIRECTORY; }

  // The high half is read and written on every FAT width, not only on FAT32: one code path, and the cluster numbers of
  // the narrow widths leave it 0 when the library writes them.
  unsigned int GetStartClustNo() const {
    return static_cast<unsigned int>(ClusterHigh.Load()) << 16 | ClusterLow.Load();
  }
  void SetStartClustNo(unsigned int cluster) {
    ClusterLow.Store(static_cast<std::uint16_t>(cluster));
    ClusterHigh.Store(static_cast<std::uint16_t>(cluster >> 16));
  }
  void CloneStartClustNo(const CDirEnt* from) {
    ClusterLow = from->ClusterLow;
    ClusterHigh = from->ClusterHigh;
  }

  /// @return the checksum of this entry's name, which the long-name entries before it carry
  unsigned char ComputeLfnChecksum() const { return ComputeLfnChecksum(Name); }
  /// The same of 11 given name bytes, spaces included.
  static unsigned char ComputeLfnChecksum(const unsigned char* name);

  /// Fills in all 32 bytes of a new entry, stamped with the current local time as creation and last write time and its
  /// date as last access date. A clock outside the years 1980 to 2107 stamps zeros.
  /// @param name     11 bytes, base name and extension padded with spaces
  /// @param size     in bytes
  /// @param cluster  start cluster, 0 for none
  void Initialize(const unsigned char* name, unsigned char attribute, unsigned int size, unsigned int cluster);
};

/// The raw record, as an object holds a copy of its own short entry.
using _DIRENT = CDirEnt;

/// Long-name entry.
struct [[gnu::may_alias]] CLfnDirEnt {
  unsigned char OrdinalByte;  // 0x00  bits 5-0 position of this piece in the name, 1..20; bit 6: last piece
  le16 Name1[5];              // 0x01  units 0-4 of this piece
  unsigned char Attribute;    // 0x0B  ATTR_LFN
  unsigned char Type;         // 0x0C  0
  unsigned char Checksum;     // 0x0D  of the owning short entry's name
  le16 Name2[6];              // 0x0E  units 5-10
  le16 StartCluster;          // 0x1A  0
  le16 Name3[2];              // 0x1C  units 11-12

  bool IsLast() const { return (OrdinalByte & LFN_LAST) != 0; }
  unsigned int Ordinal() const { return OrdinalByte & LFN_ORDINAL_MASK; }

  /// Copies the units of this piece in order, up to the first 0x0000 unit. 0xFFFF does not end a name.
  /// @param out  room for LFN_UNITS units; no terminator is written
  /// @return the units copied, 0 to 13
  unsigned int NameUCharCount(unsigned short* out) const;

  /// Fills in all 32 bytes.
  /// @param ordinalByte  position of the piece, 1..20, with LFN_LAST for the last one
  /// @param units        LFN_UNITS units, the terminator and the 0xFFFF filling included where they belong
  void Initialize(unsigned int ordinalByte, const unsigned short* units, unsigned char checksum);
};

inline CLfnDirEnt* CDirEnt::ToLfn() { return reinterpret_cast<CLfnDirEnt*>(this); }
inline const CLfnDirEnt* CDirEnt::ToLfn() const { return reinterpret_cast<const CLfnDirEnt*>(this); }

/// Makes `to` a directory's entry (attribute exactly 0x10) with all times of another one. For "." and "..", which show
/// the times of the directory they belong to.
void CopyDETime(CDirEnt* to, const _DIRENT& from);

static_assert(sizeof(CDirEnt) == DIRENT_SIZE && alignof(CDirEnt) == 1, "exactly one slot of a directory");
static_assert(offsetof(CDirEnt, Name) == 0x00, "layout is fixed by the medium");
static_assert(offsetof(CDirEnt, Attribute) == 0x0B, "layout is fixed by the medium");
static_assert(offsetof(CDirEnt, CaseFlags) == 0x0C, "layout is fixed by the medium");
static_assert(offsetof(CDirEnt, CreateTenths) == 0x0D, "layout is fixed by the medium");
static_assert(offsetof(CDirEnt, CreateTime) == 0x0E, "layout is fixed by the medium");
static_assert(offsetof(CDirEnt, CreateDate) == 0x10, "layout is fixed by the medium");
static_assert(offsetof(CDirEnt, AccessDate) == 0x12, "layout is fixed by the medium");
static_assert(offsetof(CDirEnt, ClusterHigh) == 0x14, "layout is fixed by the medium");
static_assert(offsetof(CDirEnt, WriteTime) == 0x16, "layout is fixed by the medium");
static_assert(offsetof(CDirEnt, WriteDate) == 0x18, "layout is fixed by the medium");
static_assert(offsetof(CDirEnt, ClusterLow) == 0x1A, "layout is fixed by the medium");
static_assert(offsetof(CDirEnt, FileSize) == 0x1C, "layout is fixed by the medium");

static_assert(sizeof(CLfnDirEnt) == DIRENT_SIZE && alignof(CLfnDirEnt) == 1, "exactly one slot of a directory");
static_assert(offsetof(CLfnDirEnt, OrdinalByte) == 0x00, "layout is fixed by the medium");
static_assert(offsetof(CLfnDirEnt, Name1) == 0x01, "layout is fixed by the medium");
static_assert(offsetof(CLfnDirEnt, Attribute) == 0x0B, "layout is fixed by the medium");
static_assert(offsetof(CLfnDirEnt, Type) == 0x0C, "layout is fixed by the medium");
static_assert(offsetof(CLfnDirEnt, Checksum) == 0x0D, "layout is fixed by the medium");
static_assert(offsetof(CLfnDirEnt, Name2) == 0x0E, "layout is fixed by the medium");
static_assert(offsetof(CLfnDirEnt, StartCluster) == 0x1A, "layout is fixed by the medium");
static_assert(offsetof(CLfnDirEnt, Name3) == 0x1C, "layout is fixed by the medium");

#endif  // FATLIB_DIRENT_H
