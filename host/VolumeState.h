/// @file VolumeState.h
/// What is behind a Volume: the device, the mirror of its directories, and whether the library works on it. Not part of
/// the face for hosts.
///
/// A volume is one of
///   DETACHED  the library has not mounted it. The medium is current, and can be read and changed directly
///   MOUNTED   the library may hold changes back. The medium is current only for what was not changed since
///
/// Mount brings it from the first to the second, Detach back. Mounting is put off until a file is read or something is
/// changed. Detach writes what only this face knows, and compares the changed directories with the medium.
///
/// Entries that turn out not to be there any more are kept until the next call of the host, marked as gone. Whoever
/// holds a node across Mount, Detach, Use or Plan looks at that mark before using it; Use does so itself.

#ifndef FATLIB_VOLUMESTATE_H
#define FATLIB_VOLUMESTATE_H

#include <array>
#include <memory>
#include <optional>

#include "DeviceStorage.h"
#include "Library.h"
#include "Mirror.h"
#include "OpenFiles.h"
#include "Volume.h"

namespace fatlib {

/// The path of an entry, as the library takes it.
class LibraryPath {
 public:
  /// Of a reachable entry that is not the root.
  explicit LibraryPath(const EntryNode* entry);
  /// Of an entry that is to be made, by the name that the library is given.
  LibraryPath(const DirectoryNode& directory, std::u16string_view name);
  unsigned short* Get() { return m_Units.data(); }

 private:
  std::size_t Append(const EntryNode* entry);
  void Append(std::u16string_view name, StandInBase standIn, std::size_t at);

  std::array<unsigned short, Path::MAX_PATH_UNITS + 1> m_Units{};
};

/// Where a new entry set goes, and what that takes.
struct SlotPlan {
  std::uint32_t first = 0;
  std::uint32_t grow = 0;  // clusters that the library adds to the directory
  bool slides = false;     // the library slides other entries together: the volume is to be detached right after
};

class VolumeState {
 public:
  explicit VolumeState(VolumeOptions options) : m_Options(std::move(options)) {}
  ~VolumeState();
  VolumeState(const VolumeState&) = delete;
  VolumeState& operator=(const VolumeState&) = delete;

  [[nodiscard]] std::error_code Open(std::unique_ptr<Device> device);
  [[nodiscard]] std::error_code Close();
  [[nodiscard]] std::error_code Sync();
  bool IsDirty() const { return m_bUnflushed || m_bUnsettled; }

  /// Detaches.
  [[nodiscard]] std::error_code StoreLabel(const std::u16string& text);

  /// To be called first in each call of the host.
  void Begin();
  /// The same, for a call that changes something. @return Refused, WriteProtected
  [[nodiscard]] std::error_code BeginChange();

  const Geometry& Layout() const { return m_Medium.Layout(); }
  Device* Base() const { return m_pDevice.get(); }
  Medium* Bytes() { return &m_Medium; }
  bool IsClosed() const { return m_pDevice == nullptr; }
  bool IsWritable() const { return m_pDevice->Mode() == Access::ReadWrite; }
  const VolumeOptions& Options() const { return m_Options; }

  // ---- the mirror

  EntryNode* Root() { return &m_Root; }
  /// Reads a directory unless it is known. @return NotADirectory, DiskCorrupt, ...
  [[nodiscard]] std::error_code Load(EntryNode* directory, DirectoryNode** content);
  /// @return NotFound, NotADirectory, ...
  [[nodiscard]] std::error_code Find(const Path& path, EntryNode** entry);
  /// The directory that holds or would hold the last component of a path that is not the root's, and the entry of that
  /// name, or null.
  [[nodiscard]] std::error_code FindPlace(const Path& path, DirectoryNode** directory, EntryNode** entry);
  /// Says that the library holds changes of a directory, or of an entry of it, back.
  void MarkChanged(DirectoryNode* directory);
  void BuryEntry(std::unique_ptr<EntryNode> entry) { Bury(std::move(entry), &m_Graveyard); }
  /// Something may have been changed behind the mirror: all that is known is compared with the medium before it is
  /// used.
  void SuspectAll();
  Stamp Now() const;
  /// Gives a file a new modification time.
  void MarkModified(EntryNode* entry);
  const Times& TimesOf(EntryNode* entry) const;

  // ---- the library

  [[nodiscard]] std::error_code Mount();
  [[nodiscard]] std::error_code Detach();
  /// Brings the medium up to date, if it is not.
  [[nodiscard]] std::error_code MakeCurrent() { return m_bDirty ? Detach() : std::error_code(); }
  /// What the library is going to know under a path.
  enum class Lookup {
    Entry,   ///< the entry, which it may remember from now on
    Once,    ///< the entry, which it will not remember unless it does already
    Parent,  ///< only the directories above, and what it knows already under the entry's own name
  };
  /// Makes sure that the library, mounted and made to work on this volume, knows a path as it is now: detaches and
  /// mounts when it may know what was there before.
  /// @return also Unreachable, DiskCorrupt
  [[nodiscard]] std::error_code Use(EntryNode* entry, Lookup lookup = Lookup::Entry);
  /// The same for a name that is to be created in a directory.
  [[nodiscard]] std::error_code UseName(DirectoryNode* directory, const std::u16string& upper);
  /// The library may remember the entry, and all above.
  void Touch(EntryNode* entry) const;
  /// The library is about to forget a path, under which it may keep what it knows of the entry until the next Detach.
  void LeavesPath(EntryNode* entry) const;
  /// An entry was put into a directory under a name that the library may know from before.
  void EntersPath(EntryNode* entry) const;

  CFatFileSystem* FileSystem() const { return m_pFileSystem; }
  std::uint64_t Failures() const { return m_Log.failures; }
  /// Why a call of the library failed that cannot have changed anything.
  std::error_code Reason(std::uint64_t failuresBefore, Status otherwise) const;
  /// The same of one that can: detaches, and compares everything with the medium before it is used again.
  std::error_code ChangeFailed(std::uint64_t failuresBefore, Status otherwise);

  // ---- room

  [[nodiscard]] std::error_code FreeClusters(std::uint32_t* clusters);
  /// @return DiskFull when there are not that many clusters
  [[nodiscard]] std::error_code NeedClusters(std::uint64_t clusters);
  void TakeClusters(std::uint64_t clusters) { m_nFree -= static_cast<std::uint32_t>(clusters); }
  void ReturnClusters(std::uint64_t clusters) { m_nFree += static_cast<std::uint32_t>(clusters); }
  std::uint32_t ClustersOf(std::uint64_t bytes) const { return Layout().ClustersOf(bytes); }
  std::uint32_t SlotsPerCluster() const { return Layout().SlotsPerCluster(); }
  /// Finds out where the library will put an entry set of `count` slots, and makes the directory larger when it would
  /// have to slide others together. Detaches for that.
  /// @param clusters  needed besides
  /// @param leaving   entries of the directory that will be gone then; may be null
  /// @return DiskFull
  [[nodiscard]] std::error_code Plan(EntryNode* directory, std::uint32_t count, std::uint32_t clusters, SlotPlan* plan,
                                     const EntryNode* leaving = nullptr, const EntryNode* alsoLeaving = nullptr);
  /// Follows what the library has done by a plan.
  void Planned(DirectoryNode* directory, const SlotPlan& plan);

  bool rawGiven = false;  // the host has the bytes, and may have changed them
  std::optional<std::u16string> label;

 private:
  [[nodiscard]] std::error_code Read(EntryNode* directory);
  void Unmount();
  void Reconcile(DirectoryNode* directory);
  [[nodiscard]] std::error_code ReconcileEntries(DirectoryNode* directory);
  void TryAgain(DirectoryNode* directory);
  static void MarkToReconcile(DirectoryNode* directory);
  void SettleTimes(EntryNode* entry) const;
  void Note(const std::error_code& error);
  bool IsStale(const EntryNode* entry) const;
  bool IsStaleName(const DirectoryNode* directory, const std::u16string& upper) const;
  bool HasStaleName(const EntryNode* entry) const;
  [[nodiscard]] std::error_code GrowOutside(EntryNode* directory, std::uint32_t clusters);

  VolumeOptions m_Options;
  std::unique_ptr<Device> m_pDevice;
  std::optional<LibraryUse> m_Library;
  Medium m_Medium;
  TransferLog m_Log;
  DeviceStorage* m_pStorage = nullptr;
  CFatFileSystem* m_pFileSystem = nullptr;  // null: detached
  unsigned int m_nMount = 1;                // number of this or the next mount
  bool m_bDirty = false;                    // the medium is not current
  bool m_bUnsettled = false;                // what only this face knows could not be written: it is tried again
  bool m_bUnflushed = false;
  std::error_code m_FirstFailure;  // since the last Sync, but for those of writes
  bool m_bFreeKnown = false;
  std::uint32_t m_nFree = 0;
  std::time_t m_nStampSecond = -1;  // that m_Stamp is of
  Stamp m_Stamp;
  Graveyard m_Graveyard;
  EntryNode m_Root{nullptr};
};

}  // namespace fatlib

#endif  // FATLIB_VOLUMESTATE_H
