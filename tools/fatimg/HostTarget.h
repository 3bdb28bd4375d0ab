/// @file HostTarget.h
/// The host as the destination of a copy. Names from an image are checked: none leads out of the destination.

#ifndef FATIMG_HOSTTARGET_H
#define FATIMG_HOSTTARGET_H

#include <string>

#include "CopyTarget.h"

namespace fatimg {

class HostTarget : public CopyTarget {
 public:
  /// @param base  the file or directory that the copy's root becomes
  explicit HostTarget(std::string base) : m_Base(std::move(base)) {}

  void BeginPlan(Count) override {}
  std::string Shown(const fatlib::Path& relative) const override;
  std::u16string Key(const std::u16string& name) const override { return name; }
  std::error_code CheckPath(const fatlib::Path& relative) const override;
  std::uint64_t MaxFileBytes() const override;
  std::error_code Look(const fatlib::Path& relative, bool* exists, Existing* existing) override;

  std::uint32_t UnitBytes() const override;
  std::error_code FreeUnits(std::uint64_t* units) override;
  std::error_code PlanEntry(const fatlib::Path& relative, bool directory, std::uint64_t* units) override;

  std::error_code MakeDirectory(const fatlib::Path& relative, std::uint8_t attributes) override;
  /// A file that is replaced keeps its bytes until all new ones are written, and its permissions. What is no regular
  /// file, as /dev/null or a pipe, is written to.
  std::error_code WriteFile(const WriteOrder& order, ByteSource* bytes, const Advance& advance,
                            std::uint64_t* written) override;
  std::error_code SetTime(const fatlib::Path& relative, const std::timespec& modified) override;

 private:
  std::string m_Base;
  Pump m_Pump;
};

}  // namespace fatimg

#endif  // FATIMG_HOSTTARGET_H
