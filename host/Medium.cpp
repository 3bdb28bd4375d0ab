/// @file Medium.cpp
/// The volume as a whole, the FAT and its chains, the bytes of files.

#include "Medium.h"

#include <algorithm>

#include "BootSector.h"
#include "Error.h"
#include "MediumState.h"
#include "Narrow.h"

namespace fatlib {

Medium::Medium() = default;
Medium::Medium(Medium&&) noexcept = default;
Medium& Medium::operator=(Medium&&) noexcept = default;
Medium::~Medium() = default;

std::error_code Medium::Open(Device* device) {
  BootSector boot;
  if (const std::error_code error = device->Read(0, &boot, sizeof boot)) return error;
  Geometry geometry;
  if (const std::error_code error = ReadBootSector(boot, &geometry)) return error;
  m_pState = std::make_unique<State>(device, geometry);
  return {};
}

const Geometry& Medium::Layout() const { return m_pState->geometry; }

Device* Medium::Base() const { return m_pState->pDevice; }

void Medium::Forget() {
  m_pState->fat.Forget();
  m_pState->ForgetChains();
}

// ---------------------------------------------------------------------------------------------- the FAT

std::error_code Medium::FatEntry(std::uint32_t cluster, std::uint32_t* next) {
  if (cluster > m_pState->geometry.clusters + 1) return Status::InvalidParameter;
  if (!m_pState->fat.GetNear(cluster, next)) {
    if (const std::error_code error = m_pState->fat.Get(cluster, next)) return error;
  }
  if (m_pState->geometry.type == FatType::Fat32) *next &= 0x0FFFFFFF;
  return {};
}

bool Medium::IsEndOfChain(std::uint32_t entry) const {
  switch (m_pState->geometry.type) {
    case FatType::Fat12:
      return entry >= 0xFF8;
    case FatType::Fat16:
      return entry >= 0xFFF8;
    default:
      return entry >= 0x0FFFFFF8;
  }
}

bool Medium::IsBadCluster(std::uint32_t entry) const {
  switch (m_pState->geometry.type) {
    case FatType::Fat12:
      return entry == 0xFF7;
    case FatType::Fat16:
      return entry == 0xFFF7;
    default:
      return entry == 0x0FFFFFF7;
  }
}

std::error_code Medium::CountFree(std::uint32_t* clusters) { return m_pState->fat.CountFree(clusters); }

std::error_code Medium::SetFatEntry(std::uint32_t cluster, std::uint32_t value) {
  if (cluster > m_pState->geometry.clusters + 1) return Status::InvalidParameter;
  m_pState->ForgetChains();
  if (m_pState->geometry.type == FatType::Fat32) value &= 0x0FFFFFFF;
  return m_pState->fat.Set(cluster, value);
}

// ---------------------------------------------------------------------------------------------- chains

namespace {

void Append(std::uint32_t cluster, std::vector<Extent>* extents) {
  if (!extents->empty() && extents->back().first + extents->back().count == cluster) {
    ++extents->back().count;
  } else {
    extents->push_back({cluster, 1});
  }
}

void Truncate(std::uint32_t clusters, std::vector<Extent>* extents) {
  std::uint32_t before = 0;
  std::size_t kept = 0;
  for (; kept < extents->size() && before < clusters; ++kept) {
    Extent& extent = (*extents)[kept];
    extent.count = std::min(extent.count, clusters - before);
    before += extent.count;
  }
  extents->resize(kept);
}

}  // namespace

// A chain that returns to a cluster it has passed never ends. A mark is set anew after 1, 2, 4, 8 ... steps; once it
// lies on the loop, the loop leads back to it before it moves on, and the steps since then are the loop's length. The
// loop begins where two walkers meet that are this length apart. No set of the clusters passed is needed.
std::error_code Medium::Chain(std::uint32_t first, std::vector<Extent>* extents) {
  extents->clear();
  if (first == 0) return {};
  std::uint32_t cluster = first;
  std::uint32_t mark = 0;
  std::uint32_t stepsToMark = 1;
  std::uint32_t steps = 0;
  while (cluster != mark) {
    if (!m_pState->geometry.IsCluster(cluster)) return Status::DiskCorrupt;
    Append(cluster, extents);
    if (++steps == stepsToMark) {
      mark = cluster;
      steps = 0;
      stepsToMark *= 2;
    }
    if (const std::error_code error = FatEntry(cluster, &cluster)) return error;
    if (IsEndOfChain(cluster)) return {};
  }

  const std::uint32_t length = steps + 1;
  std::uint32_t ahead = first;
  for (std::uint32_t i = 0; i < length; ++i) {
    if (const std::error_code error = FatEntry(ahead, &ahead)) return error;
  }
  std::uint32_t behind = first;
  std::uint32_t before = 0;  // clusters in front of the loop
  for (; behind != ahead; ++before) {
    if (const std::error_code error = FatEntry(ahead, &ahead)) return error;
    if (const std::error_code error = FatEntry(behind, &behind)) return error;
  }
  Truncate(before + length, extents);
  return Status::DiskCorrupt;
}

const FollowedChain& Medium::State::Follow(Medium* medium, std::uint32_t first, FollowedChain* chain) {
  if (chain->valid && chain->first == first) return *chain;
  std::vector<Extent> extents;
  chain->valid = false;
  chain->error = medium->Chain(first, &extents);
  chain->map = ClusterMap(std::move(extents));
  chain->first = first;
  chain->valid = !chain->error || chain->error == Status::DiskCorrupt;  // a failed read is tried again
  return *chain;
}

// ---------------------------------------------------------------------------------------------- files

const FollowedChain& Medium::State::FollowFile(Medium* medium, std::uint32_t first) {
  for (const FollowedChain& chain : files) {
    if (chain.valid && chain.first == first) return chain;
  }
  FollowedChain& oldest = files[oldestFile];
  oldestFile = (oldestFile + 1) % files.size();
  return Follow(medium, first, &oldest);
}

std::error_code Medium::ReadFile(const RawEntry& entry, std::uint64_t offset, void* buffer, std::size_t size,
                                 std::size_t* done) {
  *done = 0;
  if (offset >= entry.size || size == 0) return {};
  size = ToSize(std::min<std::uint64_t>(size, entry.size - offset));
  const Geometry& geometry = m_pState->geometry;
  const FollowedChain& chain = m_pState->FollowFile(this, entry.firstCluster);
  auto* out = static_cast<unsigned char*>(buffer);
  while (size != 0) {
    const auto index = static_cast<std::uint32_t>(offset / geometry.bytesPerCluster);
    if (index >= chain.map.Clusters()) return chain.error ? chain.error : Status::DiskCorrupt;
    const Extent together = chain.map.From(index);
    const std::uint64_t inside = offset % geometry.bytesPerCluster;
    const auto bytes =
        ToSize(std::min<std::uint64_t>(size, std::uint64_t{together.count} * geometry.bytesPerCluster - inside));
    if (const std::error_code error =
            m_pState->pDevice->Read(geometry.ClusterPosition(together.first) + inside, out, bytes)) {
      return error;
    }
    out += bytes;
    offset += bytes;
    size -= bytes;
    *done += bytes;
  }
  return {};
}

}  // namespace fatlib
