/// @file MediumChange.cpp
/// What the library's functions do not change: the length of directories, "..", free counts.

#include <algorithm>

#include "Error.h"
#include "Layout.h"
#include "Medium.h"
#include "MediumState.h"
#include "Narrow.h"

namespace fatlib {

namespace {

std::error_code WriteZeros(Device* device, std::uint64_t position, std::uint64_t bytes) {
  constexpr std::size_t PIECE_BYTES = std::size_t{256} * 1024;
  const std::vector<unsigned char> zeros(ToSize(std::min<std::uint64_t>(bytes, PIECE_BYTES)));
  while (bytes != 0) {
    const auto piece = ToSize(std::min<std::uint64_t>(bytes, zeros.size()));
    if (const std::error_code error = device->Write(position, zeros.data(), piece)) return error;
    position += piece;
    bytes -= piece;
  }
  return {};
}

std::uint32_t EndMark(FatType type) {
  return type == FatType::Fat12 ? 0xFFFu : type == FatType::Fat16 ? 0xFFFFu : 0x0FFFFFFFu;
}

}  // namespace

std::error_code Medium::GrowDirectory(DirectoryPlace place, std::uint32_t clusters) {
  if (clusters == 0) return {};
  if (place == ROOT && m_pState->HasFixedRoot()) return Status::DiskFull;
  const FollowedChain& chain = m_pState->FollowDirectory(this, place);
  if (chain.error) return chain.error;
  if (chain.map.Clusters() == 0) return Status::DiskCorrupt;  // a FAT32 volume without a root directory
  const Geometry& geometry = m_pState->geometry;
  const std::uint64_t slots =
      (std::uint64_t{chain.map.Clusters()} + clusters) * geometry.bytesPerCluster / sizeof(ShortEntry);
  if (slots > MAX_DIRECTORY_SLOTS) return Status::DiskFull;

  const Extent& end = chain.map.Extents().back();
  const std::uint32_t last = end.first + end.count - 1;
  std::vector<std::uint32_t> added;
  for (std::uint32_t from = last + 1; added.size() < clusters; from = added.back() + 1) {
    std::uint32_t cluster = 0;
    if (const std::error_code error = m_pState->fat.FindFree(from, &cluster)) return error;
    // The search came round to what it gave first: there are no more.
    if (std::find(added.begin(), added.end(), cluster) != added.end()) return Status::DiskFull;
    added.push_back(cluster);
  }
  for (const std::uint32_t cluster : added) {
    if (const std::error_code error =
            WriteZeros(m_pState->pDevice, geometry.ClusterPosition(cluster), geometry.bytesPerCluster)) {
      return error;
    }
  }
  // From the end: whatever is written, the chain that the directory has is whole.
  std::uint32_t next = EndMark(geometry.type);
  for (auto cluster = added.rbegin(); cluster != added.rend(); ++cluster) {
    if (const std::error_code error = SetFatEntry(*cluster, next)) return error;
    next = *cluster;
  }
  return SetFatEntry(last, next);
}

std::error_code Medium::SetDotDot(DirectoryPlace place, std::uint32_t parent) {
  if (place == ROOT || (parent != 0 && !m_pState->geometry.IsCluster(parent))) return Status::InvalidParameter;
  constexpr std::uint32_t DOT_DOT_SLOT = 1;
  std::uint64_t position = 0;
  if (const std::error_code error = SlotPosition(place, DOT_DOT_SLOT, &position)) return Status::DiskCorrupt;
  ShortEntry stored;
  if (const std::error_code error = m_pState->pDevice->Read(position, &stored, sizeof stored)) return error;
  if (stored.name != DOT_DOT_NAME) return Status::DiskCorrupt;
  stored.clusterHigh.Store(parent >> 16);
  stored.clusterLow.Store(parent);
  return m_pState->pDevice->Write(position, &stored, sizeof stored);
}

std::error_code Medium::WriteFsInfo() {
  const Geometry& geometry = m_pState->geometry;
  if (!geometry.HasFsInfo()) return {};
  const std::uint64_t position = geometry.FsInfoPosition();
  FsInfoSector info;
  if (const std::error_code error = m_pState->pDevice->Read(position, &info, sizeof info)) return error;
  if (!info.IsValid()) return {};
  std::uint32_t free = 0;
  if (const std::error_code error = CountFree(&free)) return error;
  if (info.freeClusters.Load() == free) return {};
  info.freeClusters.Store(free);
  return m_pState->pDevice->Write(position, &info, sizeof info);
}

}  // namespace fatlib
