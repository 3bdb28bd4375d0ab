/// @file CopyTarget.h
/// Where a copy goes: a directory or file of an image, or of the host. A plan asks it what is there already, and what
/// it can hold; then the copy is made through it. Paths are relative to the destination; the root is the destination.

#ifndef FATIMG_COPYTARGET_H
#define FATIMG_COPYTARGET_H

#include <cstdint>
#include <string>
#include <system_error>

#include "CopyItem.h"
#include "Pump.h"

namespace fatimg {

/// Something that is at the destination.
struct Existing {
  bool directory = false;
  std::uint64_t size = 0;
};

/// How a file is written.
struct WriteOrder {
  fatlib::Path relative;
  std::uint64_t size = 0;       ///< bytes that are planned for
  bool replace = false;         ///< a file of this name exists and goes
  std::uint8_t attributes = 0;  ///< for an image
  bool withoutBytes = false;    ///< only tried: nothing is read and written
};

class CopyTarget {
 public:
  /// How a plan finds out what room there is.
  enum class Count {
    Rough,  ///< quickly, and rather too little room than too much
    Exact,
  };

  virtual ~CopyTarget() = default;

  // ---- asked by a plan

  /// What the plan before this one noted is forgotten.
  virtual void BeginPlan(Count count) = 0;

  /// How messages call a path.
  virtual std::string Shown(const fatlib::Path& relative) const = 0;
  /// Two names with one key are one name.
  virtual std::u16string Key(const std::u16string& name) const = 0;
  /// Whether something of this path can be made.
  [[nodiscard]] virtual std::error_code CheckPath(const fatlib::Path& relative) const = 0;
  virtual std::uint64_t MaxFileBytes() const = 0;
  /// @param exists  out: whether there is anything of this path
  [[nodiscard]] virtual std::error_code Look(const fatlib::Path& relative, bool* exists, Existing* existing) = 0;

  /// Space is counted in units of this many bytes.
  virtual std::uint32_t UnitBytes() const = 0;
  [[nodiscard]] virtual std::error_code FreeUnits(std::uint64_t* units) = 0;
  /// Notes that an entry is to be made in a directory, which exists or was noted before.
  /// @param units  out: by which the directory grows for it, and those of the new directory itself
  /// @return DiskFull when a directory cannot hold more entries
  [[nodiscard]] virtual std::error_code PlanEntry(const fatlib::Path& relative, bool directory,
                                                  std::uint64_t* units) = 0;

  // ---- asked by a copy

  [[nodiscard]] virtual std::error_code MakeDirectory(const fatlib::Path& relative, std::uint8_t attributes) = 0;
  /// Writes a whole file: as many bytes as are planned for, or fewer when the source ends before. A new file that fails
  /// is taken back; one that is replaced keeps what was written.
  /// @param advance  called with the bytes of each piece; false stops the copy, which fails with Cancelled
  /// @param written  out: bytes of the file
  /// @return also what the source failed with
  [[nodiscard]] virtual std::error_code WriteFile(const WriteOrder& order, ByteSource* bytes, const Advance& advance,
                                                  std::uint64_t* written) = 0;
  /// @param modified  since 1970-01-01 UTC
  [[nodiscard]] virtual std::error_code SetTime(const fatlib::Path& relative, const std::timespec& modified) = 0;
};

}  // namespace fatimg

#endif  // FATIMG_COPYTARGET_H
