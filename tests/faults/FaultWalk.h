/// @file FaultWalk.h
/// Walks one operation through every fault that can meet it. An operation is done again and again on a fresh copy of
/// the same volume, each time with another fault:
///
///  - transfer 1, then 2, then 3, ... fails, until a run finishes untouched: the one transfer; that one and all after
///    it up to the end of the operation; that one and all after it up to the end of the unmount;
///  - read 1, 2, 3, ... and write 1, 2, 3, ... moves half of its bytes, or none, once or from then on. A short transfer
///    counts as success: what a read does not deliver is zeros;
///  - allocation 1, 2, 3, ... of the operation gives null, once or from then on.
///
/// After each: the operation had its stated result; the library still answers; no handle, no block of the pool and no
/// allocation is left; the volume, as an independent reader sees it, has no damage but what the operation names here;
/// and the library can mount the volume again and use everything on it.
///
/// No operation may harm what takes no part in it, with one exception: zeros that a short read delivered in place of
/// directory entries are written back with the directory, and what was there is gone.

#ifndef FATLIB_TESTS_FAULTWALK_H
#define FATLIB_TESTS_FAULTWALK_H

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "file/FatFile.h"
#include "support/LibFixture.h"
#include "support/VolumeReader.h"

namespace faultwalk {

using BYTES = std::vector<unsigned char>;

/// A shape of volume.
struct SHAPE {
  unsigned int FatBits;
  unsigned int Fats;
  unsigned int BytesPerSector;
  unsigned int SectorsPerCluster;
  unsigned int Clusters;

  unsigned int ClusterBytes() const { return BytesPerSector * SectorsPerCluster; }
  std::string Name() const;
};
/// The eight shapes of one FAT width: one and two FATs, sectors of 512 and 4096 bytes, small and large clusters.
std::vector<SHAPE> Shapes(unsigned int fatBits);

// ---------------------------------------------------------------------------------------------- the volume

/// What is on every volume. All files are patterns; all but the first two directories are for operations to change.
constexpr const char* KEEP = "KEEP.TXT";                                    // in the root
constexpr const char* KEEP_LONG = "Keep this long name.bin";                // in the root, two fragments
constexpr const char* OTHER = "OTHER\\Nobody touches this.bin";             // in a directory of its own
constexpr const char* FILE_IN_DIR = "DIR\\IN.TXT";                          // two fragments and a half cluster
constexpr const char* NEIGHBOUR = "DIR\\A neighbour with a long name.txt";  // in the same directory
constexpr const char* DEEP = "DIR\\Sub\\deep.txt";
constexpr const char* EMPTY_DIR = "DIR\\Empty directory";
constexpr const char* TARGET = "TARGET";
constexpr const char* IN_TARGET = "TARGET\\There.txt";
constexpr const char* ROOT_FILE = "A file in the root.dat";

/// A file or directory as it should be.
struct CONTENT {
  bool Dir = false;
  unsigned int Size = 0;
  BYTES Known;             // the first bytes; the rest is whatever the medium held
  std::uint64_t Hash = 0;  // of all bytes, when all are known

  static CONTENT Directory();
  static CONTENT File(unsigned int size, const BYTES& known = {});
};
/// What takes part in an operation, by path; what is not named is not there.
using STATE = std::map<std::string, CONTENT>;

/// The content that a file of the volume has from the start.
BYTES ContentOf(const std::string& path, const SHAPE& shape);
unsigned int SizeOf(const std::string& path, const SHAPE& shape);

// ---------------------------------------------------------------------------------------------- damage

/// What may be wrong with that which takes part. Never allowed: harm to anything else, a cluster that belongs to
/// something else, a handle or memory left.
enum HARM : unsigned int {
  NO_HARM = 0,
  LOST_CLUSTERS = 1,    ///< clusters in use that nothing names
  BROKEN_CHAIN = 2,     ///< chain and size of an entry do not fit, or the chain runs into a free cluster
  TWO_COPIES = 4,       ///< old and new name, both with the clusters
  NO_COPY = 8,          ///< neither
  TORN_DIRECTORY = 16,  ///< in the directories that are written: half a set of entries, or a set twice
  RAW_DIRECTORY = 32,   ///< a new directory holds what the medium held
  OLD_DOTDOT = 64,      ///< ".." does not name the directory that it is in
  MIXED_CONTENT = 128,  ///< some bytes are old and some new
  FAT_COPIES = 256,     ///< the second FAT is old
};

// ---------------------------------------------------------------------------------------------- the operation

/// What part of a medium a transfer touches.
enum class PART { Boot, FsInfo, FirstFat, SecondFat, Root, Data };

/// One mounted volume.
struct SESSION {
  CMedium& Medium;
  const SHAPE& Shape;
  bool Exact;                 ///< no transfer is short
  std::vector<int> Handles;   ///< closed at the end
  std::vector<int> Searches;  ///< closed at the end
};

struct OPERATION {
  /// Adds to the volume what only this operation needs.
  std::function<void(CImageBuilder&)> Build = [](CImageBuilder&) {};
  /// Done before, without faults.
  std::function<void(SESSION&)> Prepare = [](SESSION&) {};
  /// @return what the library said: true for success. An operation without this is not walked
  std::function<bool(SESSION&)> Run;

  STATE New;                         ///< after success
  std::vector<std::string> Paths;    ///< what takes part, besides what New names
  std::vector<STATE> AfterFailure;   ///< what may be left by a failure, besides what was there before
  std::string From, To;              ///< of one thing that changes its name
  std::vector<std::string> Written;  ///< the directories that are written; "" is the root

  unsigned int HarmAfterFailure = NO_HARM;  ///< the operation failed, and the unmount went well
  unsigned int HarmAfterCut = NO_HARM;      ///< writes failed up to, or during, the unmount
  unsigned int HarmAfterShort = NO_HARM;    ///< writes were short; besides HarmAfterCut

  /// Transfers whose failure the operation does not report.
  std::function<bool(const IO_RECORD&, PART)> Swallowed = [](const IO_RECORD&, PART) { return false; };
  unsigned int PoolBlocks = 8;
  bool ReadsOnly = false;             ///< nothing is written; after a failure the operation succeeds when tried again
  bool MemoryGoneAtUnmount = false;   ///< memory does not come back before the unmount is over
  bool LosesBlocks = false;           ///< a write that makes room in the pool may fail, which costs the pool a block
  unsigned int Transfers = 0;         ///< that the operation makes at least
  unsigned int Allocations = 0;       ///< that the operation makes at least
  unsigned int UnmountTransfers = 3;  ///< that the unmount makes at least
};

// ---------------------------------------------------------------------------------------------- the walk

/// A storage on a CMedium that keeps what the copy of a single FAT goes over. That copy is made at unmount, whether
/// there is a second FAT or not, and wipes out what lies behind a single one: the fixed root directory, for one.
struct WALK_MEDIUM {
  explicit WALK_MEDIUM(const CDiskImage& image) : Medium(image) {}
  void PutBack();

  CMedium Medium;
  long long BehindFat = -1;  // where a single FAT is copied to; -1 when there are two
  unsigned long long FatBytes = 0;
  BYTES Kept;
};

class FaultWalk : public CLibFixture, public ::testing::WithParamInterface<unsigned int> {
 protected:
  using DESCRIPTION = std::function<OPERATION(const SHAPE&)>;

  void SetUp() override;
  void TearDown() override;

  /// Walks an operation on every shape of this test's FAT width.
  /// @param bytes  what the operation puts on the volume besides, in bytes
  void Walk(const DESCRIPTION& description, unsigned int bytes = 0);
  /// Walks an operation on one shape.
  void WalkShape(const SHAPE& shape, const OPERATION& operation);
  /// Walks the mounting of one shape.
  void WalkMount(const SHAPE& shape);
  /// Brings the library up with a pool of this many blocks.
  static void Start(unsigned int poolBlocks);

  static CDiskImage MakeImage(const SHAPE& shape, const std::function<void(CImageBuilder&)>& build,
                              WALK_MEDIUM* medium = nullptr);
  /// Fills a directory's clusters with entries, up to the last slot.
  static void FillDirectory(CImageBuilder& builder, CImageBuilder::DIRECTORY directory);
  static CFatFileSystem* MountOn(WALK_MEDIUM& medium, CVolumeStorage*& storage);

  // ---- shorthands for operations
  static int Open(SESSION& session, const std::string& path);
  static void Cache(const std::string& path) { EXPECT_TRUE(Exists(path)) << path; }
  static bool Create(const std::string& path, unsigned int size);
  static bool Write(int handle, long long offset, BYTES bytes);
  /// Reads from the session's first handle, a file with this content, to an even address or an odd one.
  static bool Read(const SESSION& session, const BYTES& content, unsigned int offset, unsigned int count,
                   unsigned int misalign = 0);

  unsigned int m_nFaults[4] = {};  // walked: transfers, short reads, short writes, allocations

 private:
  struct VOLUME;
  struct FAULT;
  struct REFERENCE;
  struct RESULT;

  bool Try(const VOLUME& volume, const OPERATION& operation, const FAULT& fault, REFERENCE* reference);
  void CheckResult(const VOLUME& volume, const OPERATION& operation, const FAULT& fault, const RESULT& result);
  void Remount(const VOLUME& volume, const OPERATION& operation, const CDiskImage& image, bool fired);
  static void ExpectSame(const VOLUME& volume, const CDiskImage& image, bool butSecondFat);
  std::string Damage(const VOLUME& volume, const OPERATION& operation, const CDiskImage& image,
                     const std::vector<STATE>& states, unsigned int harm, const std::set<std::string>& blind);

  CFixedClock m_Clock{1750000000};
  unsigned int m_nHarmMet = NO_HARM;
  std::set<std::string> m_Judged;  // what runs left, and what was allowed to them
};

inline std::string WidthName(const ::testing::TestParamInfo<unsigned int>& bits) {
  return "Fat" + std::to_string(bits.param);
}

}  // namespace faultwalk

#endif  // FATLIB_TESTS_FAULTWALK_H
