/// @file ModelRun.h
/// Runs calls against the library and the twin and compares, and makes a failing run short.

#ifndef FATLIB_TESTS_MODEL_MODELRUN_H
#define FATLIB_TESTS_MODEL_MODELRUN_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "interface/FatLibIntf.h"
#include "model/Operation.h"
#include "support/DiskImage.h"
#include "support/FaultStorage.h"
#include "support/LibFixture.h"
#include "support/MemHooks.h"
#include "support/Process.h"

/// A volume to run on.
struct MODEL_VOLUME {
  const char* Name;
  /// Arguments of mkfs.fat; empty: the volume is built with the fields below, for what mkfs.fat does not make.
  std::vector<std::string> Mkfs;
  unsigned int KiB = 0;
  FAT_GEOMETRY Geometry;
  BACKEND Backend = BACKEND::Memory;
  unsigned int MaxFileBytes = 40000;
  /// With a period, only that many clusters in each period are free, around its multiples; the others are marked bad.
  unsigned int FreePeriod = 0;
  unsigned int FreeInPeriod = 0;
};

/// Data blocks that the library gets. With all of its 256 blocks, small volumes never make it evict one, and the counts
/// that transfers report are compared; with fewer blocks it evicts all the time, and the counts are taken as they come.
enum class POOL : unsigned int { ExactCounts = 256, Evicting = 9, Single = 1 };

struct MODEL_CONFIG {
  std::vector<MODEL_VOLUME> Volumes;
  POOL Pool = POOL::ExactCounts;
  bool Fsck = true;  ///< have fsck.fat look at the volumes too, where it can
  CANARY Canary = CANARY::None;
};

/// The library, up for as long as the object lives.
class CLibrary {
 public:
  explicit CLibrary(POOL pool);
  ~CLibrary();
  CLibrary(const CLibrary&) = delete;
  CLibrary& operator=(const CLibrary&) = delete;

  POOL Pool() const { return m_Pool; }
  CFixedClock& Clock() { return m_Clock; }
  /// Stops the library. @return what is wrong then; empty when nothing is
  std::string Stop();

 private:
  POOL m_Pool;
  std::string m_Locale;  // LC_ALL as it was
  bool m_bLocaleSet = false;
  bool m_bUp = true;
  std::unique_ptr<CMemHooks> m_pMemory;
  CFixedClock m_Clock;
};

/// One run: volumes freshly made, calls, a last look. It does not stop at a difference by itself: look at Failure.
class CModelRun final : public IRunView {
 public:
  CModelRun(const MODEL_CONFIG& config, CLibrary& library);
  ~CModelRun() override;
  CModelRun(const CModelRun&) = delete;
  CModelRun& operator=(const CModelRun&) = delete;

  /// Makes one call of both and compares. @return false when they differ
  bool Step(const OPERATION& operation);
  /// Makes one call of the library, also one that the twin avoids. From the first of those on nothing is compared any
  /// more: the volumes are a mess then, as stated, and all that is asked is that the process survives.
  /// @return false when they differ before that
  bool StepIntoMess(const OPERATION& operation);
  /// Goes through what is left of the volumes, before and after an unmount, and closes everything.
  void FinishMess();
  /// Unmounts, has the images checked, mounts, reads everything back, closes everything. @return false as above
  bool Finish();
  /// What differed; empty when nothing did.
  const std::string& Failure() const { return m_Failure; }
  /// Calls left out because the twin avoids them, even after an unmount.
  unsigned int LeftOut() const { return m_nLeftOut; }
  unsigned int Remounts() const { return m_nRemounts; }
  bool IsMess() const { return m_bMess; }

  const CTwin& Twin() const override { return m_Twin; }
  int FileHandle(unsigned int variable) const override { return m_FileHandles[variable]; }
  int FindHandle(unsigned int variable) const override { return m_FindHandles[variable]; }

 private:
  class CMounted;

  bool Fail(const std::string& what);
  template <class T>
  bool Same(const char* what, const T& library, const T& twin);
  bool Calibrate();
  bool MountVolume(std::size_t volume);
  bool UnmountVolume(std::size_t volume);
  bool Remount(std::size_t volume);
  bool CheckImage(std::size_t volume, const CByteStore& store);
  bool CheckWithFsck(std::size_t volume);
  bool RunOnce(const OPERATION& operation);
  bool RunOnFile(const OPERATION& operation, int handle);
  bool RunTransfer(const OPERATION& operation, int handle);
  bool ComparePath(const OPERATION& operation);
  bool ReadBack(const OPERATION& readBack, const NAME& path);
  bool ListAll(std::size_t volume, const NAME& path);
  bool NullArguments(int handle);
  bool NoVolume(const OPERATION& operation, int handle);
  bool SameFound(const WIN_FIND_DATA& data, const TWIN_FOUND& found);
  void CallLibrary(const OPERATION& operation);
  void CallOnHandle(const OPERATION& operation, int handle);
  void Wander(const NAME& path, unsigned int depth, unsigned int& calls);
  void CloseAll();
  NAME Resolved(NAME path) const;
  void Use(std::size_t volume);
  void Tick();

  MODEL_CONFIG m_Config;
  CLibrary* m_pLibrary;
  CTwin m_Twin;
  std::vector<std::unique_ptr<CMounted>> m_Volumes;
  std::vector<int> m_FileHandles;
  std::vector<int> m_FindHandles;
  std::string m_Failure;
  unsigned int m_nLeftOut = 0;
  unsigned int m_nRemounts = 0;
  bool m_bExactCounts;
  bool m_bMess = false;
  std::time_t m_Now;
};

/// What a seed gave.
struct SEED_RESULT {
  std::vector<OPERATION> Operations;
  std::string Failure;  ///< empty: none
  unsigned int LeftOut = 0;
  unsigned int Remounts = 0;
};
SEED_RESULT RunSeed(const MODEL_CONFIG& config, std::unique_ptr<CLibrary>& library, unsigned int seed,
                    unsigned int operations);
/// Runs calls as given. @return the failure; empty when there is none
std::string Replay(const MODEL_CONFIG& config, std::unique_ptr<CLibrary>& library,
                   const std::vector<OPERATION>& operations);

/// Leaves out calls as long as `fails` stays true, at most `maxTries` times.
std::vector<OPERATION> Shrink(std::vector<OPERATION> operations, unsigned int maxTries,
                              const std::function<bool(const std::vector<OPERATION>&)>& fails);
/// The calls, one a line.
std::string ToText(const std::vector<OPERATION>& operations);

/// Notes what is being run, to be printed when the process dies.
void NoteRunning(const std::string& what);

#endif  // FATLIB_TESTS_MODEL_MODELRUN_H
