/// @file Session.h
/// The images that a run of the command works on. Each volume is opened once and stays open until the session ends, so
/// that many verbs work in one mount.

#ifndef FATIMG_SESSION_H
#define FATIMG_SESSION_H

#include <fatlib/Device.h>
#include <fatlib/Volume.h>

#include <memory>
#include <string>
#include <vector>

#include "Operand.h"
#include "Options.h"
#include "PartitionTable.h"

namespace fatimg {

class Session {
 public:
  /// @param options  those of the command line that began the session: force, dryRun and reproducible count
  explicit Session(const CommonOptions& options);
  /// Closes without a word; call Close before to learn of failures.
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// The image that operands without one (":/PATH") are meant for.
  void SetDefault(const Operand& operand) { m_Default = operand; }
  /// The operand with the default image when it names none.
  /// @throws Failure (Usage) when there is no default
  Operand Complete(const Operand& operand) const;

  /// The volume that an operand names. Open already, it is taken as it is; but one that is open for reading only is
  /// opened anew when it is to be written. A verb that needs two volumes opens the one that it writes first: opening
  /// for writing closes what is open for reading of the same image.
  ///
  /// With ReadOnly nothing of the image changes, not even at the end, and others may read it at the same time; with
  /// ReadWrite the image is locked. In a dry run the changes stay in memory.
  /// @return valid until the session closes, or Release
  /// @throws Failure
  fatlib::Volume& Open(const Operand& given, fatlib::Access access);

  /// The bytes of the volume that an operand names, whatever is in them: for a verb that makes a volume. A volume that
  /// is open there is closed before.
  /// @throws Failure
  std::unique_ptr<fatlib::Device> OpenDevice(const Operand& given, fatlib::Access access);

  /// Takes a device that OpenDevice gave, or that takes the place of an image in a dry run, as what the operand names
  /// from now on: what comes next sees what was written to it.
  /// @throws Failure
  void Adopt(const Operand& given, std::unique_ptr<fatlib::Device> device);

  /// Where the part of the image begins that an operand names, in bytes. @throws Failure
  std::uint64_t OffsetOf(const Operand& given) const;
  /// The partitions of an image. @throws Failure when it cannot be read
  PartitionTable TableOf(const Operand& operand) const;

  /// Closes the volume that an operand names, if it is open.
  /// @throws Failure
  void Release(const Operand& operand);
  /// Writes everything of all volumes. @throws Failure, the first
  void Sync();
  /// Closes all volumes. @throws Failure, the first, when all are closed
  void Close();

  /// The volume options that follow from the command's.
  /// @throws Failure (Usage) when SOURCE_DATE_EPOCH is no number of seconds
  static fatlib::VolumeOptions OptionsOf(const CommonOptions& options);

 private:
  struct OpenVolume;
  struct FileId;

  OpenVolume* Find(const Operand& operand);
  fatlib::Volume& OpenOn(const Operand& operand, fatlib::Access access, std::unique_ptr<fatlib::Device> device);
  void CloseReaders(const FileId& file);

  CommonOptions m_Options;
  Operand m_Default;
  std::vector<std::unique_ptr<OpenVolume>> m_Volumes;
};

}  // namespace fatimg

#endif  // FATIMG_SESSION_H
