/// @file OrderedDevice.h
/// A device that brings a FAT volume from one sound state to the next: whenever writing ends, be it that the power goes
/// or the program is killed, what is on the medium is as good as a FAT without a journal can be.
///
/// Works with whatever writes a FAT volume in any order and calls Flush when everything is consistent; Volume::Sync
/// does. What was written up to a Flush is a commit. Bytes of files go to the base device at once. What says where they
/// lie (boot sector, FATs, directories) is kept in memory until Flush, and then written in phases.
///
/// After a cut at any time, in a commit or between two of them, the base device holds a volume on which
///
///  - a file that was neither changed, renamed nor moved since the last commit is there with all its bytes, unless a
///    directory above it was renamed or moved, or its entry was brought to another sector of its directory, which
///    happens where the entries of a full directory are slid together;
///  - no two files or directories have a cluster in common, no chain leads to a free cluster or to itself, and none is
///    too short for its file's size;
///  - a file that was changed has its old or its new entry, or one with a smaller size than both, or is not there. It
///    may have any of its old and new bytes, and, when it was cut or removed since the last commit and its clusters
///    were taken by others, bytes of others: what was given up is not kept for it;
///  - what was removed or made may be there or not. What was renamed or moved is there under its old path, under its
///    new one, or not at all: its bytes are then in lost clusters. A directory takes along all that is below it.
///
/// What a check may find then: lost clusters; chains longer than the size needs; the copies of the FAT differing; a
/// wrong count of free clusters; parts of a long name without the entry, or an entry without its long name, where its
/// slots lie in two sectors; the label in one of its two places. On FAT12 an entry of the FAT may lie in two sectors: a
/// cut between them can leave a chain that is broken behind the end of its file, and, on a volume of more than 3,838
/// clusters, one that leads there to any cluster.
///
/// Sectors of the volume's size must be written whole or not at all. Between the phases the base device is flushed, so
/// that it may put off and reorder writes between two flushes as it likes.
///
/// Nothing on the medium is trusted. On a volume that was damaged before, or that is not consistent when Flush is
/// called, all of this holds as far as it can, and the result of the commit is what was written. A volume with another
/// layout can be written over this one, without order; the device is to be opened anew then.

#ifndef FATLIB_ORDEREDDEVICE_H
#define FATLIB_ORDEREDDEVICE_H

#include <cstdint>
#include <memory>
#include <system_error>

#include "Device.h"

namespace fatlib {

class OrderedDevice : public Device {
 public:
  enum class Barriers {
    Flush,  ///< the base device is flushed between the phases
    None    ///< it writes in the order in which it is told, or losing power is not feared
  };

  /// Reads all directories.
  /// @param base    taken over, also on failure; holds a FAT volume without defects but for lost clusters. A ReadOnly
  ///                one is only read
  /// @param device  out: unchanged on failure
  /// @return NotAVolume; DiskCorrupt when directories are broken; NoMemory; or what the base device returned
  [[nodiscard]] static std::error_code Open(std::unique_ptr<Device> base, std::unique_ptr<OrderedDevice>* device,
                                            Barriers barriers = Barriers::Flush);
  /// What was written since the last Flush is not committed.
  ~OrderedDevice() override;
  OrderedDevice(const OrderedDevice&) = delete;
  OrderedDevice& operator=(const OrderedDevice&) = delete;

  /// What was written last, committed or not.
  std::error_code Read(std::uint64_t position, void* buffer, std::size_t size) override;
  /// @return also NoMemory
  std::error_code Write(std::uint64_t position, const void* buffer, std::size_t size) override;
  /// The commit. The base device is flushed first, and last.
  /// @return the first failure. What is not written then is kept, is read as before, and the next Flush tries again;
  ///         until then also the bytes of files stay in memory
  std::error_code Flush() override;
  std::uint64_t Size() const override;
  Access Mode() const override;
  /// What is in memory to be written: whole sectors.
  std::uint64_t HeldBytes() const;

 private:
  struct State;
  explicit OrderedDevice(std::unique_ptr<State> state);
  std::unique_ptr<State> m_pState;
};

}  // namespace fatlib

#endif  // FATLIB_ORDEREDDEVICE_H
