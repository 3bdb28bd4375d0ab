/// @file ImageTarget.h
/// A volume as the destination of a copy.

#ifndef FATIMG_IMAGETARGET_H
#define FATIMG_IMAGETARGET_H

#include <fatlib/Volume.h>

#include <map>
#include <string>
#include <vector>

#include "CopyTarget.h"
#include "DirectoryRoom.h"

namespace fatimg {

class ImageTarget : public CopyTarget {
 public:
  /// @param base   the path that the copy's root becomes
  /// @param label  how messages call the volume, before a path
  /// @param zone   of the stored times
  ImageTarget(fatlib::Volume* volume, fatlib::Path base, std::string label, fatlib::Zone zone)
      : m_pVolume(volume), m_Base(std::move(base)), m_Label(std::move(label)), m_Zone(zone) {}

  /// Rough counts the names in a directory; Exact its slots, for which the volume is synchronised.
  void BeginPlan(Count count) override;
  fatlib::Path Absolute(const fatlib::Path& relative) const;

  std::string Shown(const fatlib::Path& relative) const override;
  std::u16string Key(const std::u16string& name) const override;
  std::error_code CheckPath(const fatlib::Path& relative) const override;
  std::uint64_t MaxFileBytes() const override;
  std::error_code Look(const fatlib::Path& relative, bool* exists, Existing* existing) override;

  std::uint32_t UnitBytes() const override { return m_pVolume->Layout().bytesPerCluster; }
  std::error_code FreeUnits(std::uint64_t* units) override;
  std::error_code PlanEntry(const fatlib::Path& relative, bool directory, std::uint64_t* units) override;

  std::error_code MakeDirectory(const fatlib::Path& relative, std::uint8_t attributes) override;
  std::error_code WriteFile(const WriteOrder& order, ByteSource* bytes, const Advance& advance,
                            std::uint64_t* written) override;
  std::error_code SetTime(const fatlib::Path& relative, const std::timespec& modified) override;

 private:
  struct Folder {
    std::map<std::u16string, Existing> children;  // by key
    std::uint32_t slots = 0;                      // that the names in it take
    DirectoryRoom room{{}, 0};
    bool hasRoom = false;
  };

  std::u16string KeyOf(const fatlib::Path& path) const;
  std::error_code LoadFolder(const fatlib::Path& path, Folder** folder);
  std::error_code LoadRoom(const fatlib::Path& path, Folder* folder);
  std::error_code UsedSlots(const fatlib::Path& path, const Folder& folder, std::vector<bool>* used);

  fatlib::Volume* m_pVolume;
  fatlib::Path m_Base;
  std::string m_Label;
  fatlib::Zone m_Zone;
  Count m_Count = Count::Rough;
  std::map<std::u16string, Folder> m_Folders;  // by the keys of their paths
  Pump m_Pump;
};

}  // namespace fatimg

#endif  // FATIMG_IMAGETARGET_H
