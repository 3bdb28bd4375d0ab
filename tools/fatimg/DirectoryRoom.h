/// @file DirectoryRoom.h
/// How many clusters a directory will gain by names that are to be created in it. The slots of an entry
/// (fatlib::SlotsOfName) lie side by side, in the first gap that is long enough, else at the end, where the directory
/// grows by clusters.

#ifndef FATIMG_DIRECTORYROOM_H
#define FATIMG_DIRECTORYROOM_H

#include <cstdint>
#include <vector>

namespace fatimg {

class DirectoryRoom {
 public:
  static constexpr std::uint32_t MAX_SLOTS = 0x10000;

  /// @param used             for each slot of the directory, whether an entry has it
  /// @param slotsPerCluster  0: the directory cannot grow, its entries can be slid together instead
  DirectoryRoom(const std::vector<bool>& used, std::uint32_t slotsPerCluster);
  /// A directory still to be made: one cluster, which holds "." and "..".
  static DirectoryRoom OfNewDirectory(std::uint32_t slotsPerCluster);

  /// Takes `slots` (1 to 21) for one entry.
  /// @param clusters  out: clusters by which the directory grows for it
  /// @return false, and nothing taken, when the directory cannot hold them
  [[nodiscard]] bool Take(std::uint32_t slots, std::uint32_t* clusters);

 private:
  std::vector<std::uint32_t> m_Gaps;  // lengths of the free runs in front of the last entry, in their order
  std::uint32_t m_nTail = 0;          // free slots behind it
  std::uint32_t m_nSlots;
  std::uint32_t m_nSlotsPerCluster;
};

}  // namespace fatimg

#endif  // FATIMG_DIRECTORYROOM_H
