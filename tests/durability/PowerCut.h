/// @file PowerCut.h
/// Power cuts. A medium records every write with its bytes; a replayer then lays each beginning of that record over
/// the image that was there before, the write at the cut whole or torn at a sector boundary; and a fixture looks at
/// what a host would find afterwards, with the library and with a reader that shares nothing with it.

#ifndef FATLIB_TESTS_POWERCUT_H
#define FATLIB_TESTS_POWERCUT_H

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "support/DiskImage.h"
#include "support/FaultStorage.h"
#include "support/ImageBuilder.h"
#include "support/LibFixture.h"

using BYTES = std::vector<unsigned char>;

// ---------------------------------------------------------------- replaying

/// What of the write at the cut has arrived.
enum class TEAR {
  None,   // nothing: the cut fell between two writes
  First,  // its first sectors
  Last,   // its last sectors: a device may write a request in any order
};
struct POWER_CUT {
  std::size_t Writes = 0;  // writes that arrived whole
  TEAR Tear = TEAR::None;
  std::size_t Sectors = 0;  // sectors of the next one that arrived
};
std::ostream& operator<<(std::ostream& out, const POWER_CUT& cut);

/// How many cuts were looked at.
struct CUT_COUNT {
  unsigned int Replayed = 0;   // cuts
  unsigned int Different = 0;  // images among them; cuts that leave the same image as the one before are judged once
};

/// Lays a write, or the bytes [from, to) of it, over an image.
void Replay(CDiskImage& image, const MEDIUM_WRITE& write);
void Replay(CDiskImage& image, const MEDIUM_WRITE& write, std::size_t from, std::size_t to);

/// Calls `judge` with the image that each cut leaves: before the first write, and for every write torn at each of its
/// sector boundaries (its beginning arrived, its end arrived) and whole.
CUT_COUNT ForEachCut(const CDiskImage& start, const std::vector<MEDIUM_WRITE>& writes, unsigned int sectorBytes,
                     const std::function<void(const CDiskImage&, const POWER_CUT&)>& judge);

// ---------------------------------------------------------------- volumes

/// FAT12, FAT16 and FAT32, each with two FATs and with one.
struct CUT_VOLUME {
  unsigned int FatBits;
  unsigned int Fats;
};
std::ostream& operator<<(std::ostream& out, const CUT_VOLUME& volume);
const std::vector<CUT_VOLUME>& AllVolumes();
/// Those with two FATs.
const std::vector<CUT_VOLUME>& TwoFatVolumes();

/// A volume as its last unmount left it, made without the library: sectors and clusters of 512 bytes, everything in
/// the first sector of the FAT. The clusters that are free hold old directories, which name clusters now in use and
/// themselves.
struct START_VOLUME {
  CDiskImage Image;
  FAT_GEOMETRY Geometry;
  std::map<std::string, BYTES> Files;

  std::uint64_t FatOffset() const { return std::uint64_t{Geometry.ReservedSectors} * Geometry.BytesPerSector; }
  std::uint64_t FatBytes() const { return std::uint64_t{Geometry.SectorsPerFat} * Geometry.BytesPerSector; }
};
FAT_GEOMETRY SmallGeometry(const CUT_VOLUME& volume);
/// Fills the first 250 free clusters with old directories. Each holds itself, as GHOSTDIR, and a file GHOST.TXT of 600
/// bytes that begins in the cluster `named`.
void FillFreeClusters(CImageBuilder& builder, std::uint32_t named);
/// @param crowd  with a directory CROWD of 160 empty files besides, for ForgetObjects
const START_VOLUME& StartVolume(const CUT_VOLUME& volume, bool crowd = false);

// ---------------------------------------------------------------- judging

/// What can be wrong with a volume, in the terms of a reader that shares nothing with the library.
enum class DAMAGE {
  FatsDiffer,     // the two FATs
  LostClusters,   // marked used, reached by nothing
  FreeCluster,    // an entry or a chain leads to a cluster that is free
  SharedCluster,  // two chains, or two entries, hold one cluster
  WrongSize,      // the chain is longer or shorter than the size says
  ForeignDir,     // a directory whose cluster shows what the disk held before
  TornName,       // a long name without its end or its beginning
  NameTwice,      // in one directory
  Other,
};
using DAMAGES = std::set<DAMAGE>;
std::string ToText(const DAMAGES& damages);
/// The damage that a reader finds. `text`, if not null, gets its words.
DAMAGES DamageOf(const CDiskImage& image, std::string* text = nullptr);

/// What the library shows of a volume.
struct LIBRARY_VIEW {
  bool Mounted = false;
  std::map<std::string, BYTES> Files;  // those that could be read to their end
  std::set<std::string> Unreadable;    // those that could not be opened or read
  std::set<std::string> Directories;   // those that could be listed
};

class CPowerCutFixture : public CLibFixture {
 protected:
  /// Mounts the start image on a recording medium, calls `change`, and unmounts. @return the writes
  static std::vector<MEDIUM_WRITE> Record(const CDiskImage& start, const std::function<void()>& change) {
    return Record(start, change, true);
  }
  /// The same without the unmount: what had been written when the change returned.
  static std::vector<MEDIUM_WRITE> RecordWithoutUnmount(const CDiskImage& start, const std::function<void()>& change) {
    return Record(start, change, false);
  }

  /// Mounts an image, lists every directory, reads every file. Nothing may be written by that. Fails the test when a
  /// directory tree goes on for ever.
  LIBRARY_VIEW ViewOf(const CDiskImage& image);
  /// The files of `files` that do not have these very bytes for the library, and for a reader that shares nothing with
  /// it.
  static std::set<std::string> Missing(const LIBRARY_VIEW& view, const std::map<std::string, BYTES>& files);
  static std::set<std::string> MissingForReader(const CDiskImage& image, const std::map<std::string, BYTES>& files);

  /// Opens the 160 files of CROWD, so that the library forgets, and writes, every other object that nobody holds.
  static void ForgetObjects();

  // ---- calls that must succeed
  static void MakeFile(const std::string& path, std::size_t size);
  static void MakeDir(const std::string& path);
  static void Overwrite(const std::string& path, std::uint32_t seed);
  static void Resize(const std::string& path, unsigned int size);
  static void Rename(const std::string& path, const std::string& name);
  static void Move(const std::string& path, const std::string& directory);
  static void Delete(const std::string& path);

 private:
  static std::vector<MEDIUM_WRITE> Record(const CDiskImage& start, const std::function<void()>& change,
                                          bool withUnmount);
  void Walk(CFatFileSystem* fileSystem, const std::string& path, unsigned int depth, LIBRARY_VIEW& view);
};

#endif  // FATLIB_TESTS_POWERCUT_H
