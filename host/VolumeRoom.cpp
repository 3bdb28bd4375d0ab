/// @file VolumeRoom.cpp
/// Free clusters, and room for names in directories.

#include <algorithm>

#include "VolumeState.h"

namespace fatlib {

std::error_code VolumeState::FreeClusters(std::uint32_t* clusters) {
  if (!m_bFreeKnown) {
    if (const std::error_code error = MakeCurrent()) return error;
    if (const std::error_code error = m_Medium.CountFree(&m_nFree)) return error;
    m_bFreeKnown = true;
  }
  *clusters = m_nFree;
  return {};
}

std::error_code VolumeState::NeedClusters(std::uint64_t clusters) {
  std::uint32_t available;
  if (const std::error_code error = FreeClusters(&available)) return error;
  if (clusters <= available) return {};
  // What was counted along may be less than the truth: a removed file can have had more clusters than its size needs.
  if (!m_bDirty) return Status::DiskFull;
  if (const std::error_code error = Detach()) return error;
  if (const std::error_code error = FreeClusters(&available)) return error;
  return clusters <= available ? Status::Success : Status::DiskFull;
}

std::error_code VolumeState::Plan(EntryNode* directory, std::uint32_t count, std::uint32_t clusters, SlotPlan* plan,
                                  const EntryNode* leaving, const EntryNode* alsoLeaving) {
  if (const std::error_code error = NeedClusters(clusters)) return error;
  if (directory->IsGone()) return Status::DiskCorrupt;
  *plan = {};
  const SlotMap* map = &directory->content->slots;
  SlotMap without;
  if (leaving != nullptr || alsoLeaving != nullptr) {
    without = *map;
    for (const EntryNode* entry : {leaving, alsoLeaving}) {
      if (entry != nullptr) without.Release(entry->raw.firstSlot, entry->raw.slots);
    }
    map = &without;
  }
  plan->first = map->FindRun(count);
  if (plan->first != SlotMap::NONE) return {};
  const std::uint32_t vacant = map->Free();
  const bool fixed = directory->IsRoot() && Layout().type != FatType::Fat32;
  if (!fixed) {
    // The library adds clusters for the slots that are missing altogether; that is enough when they come together with
    // those at the end.
    const std::uint32_t perCluster = SlotsPerCluster();
    const std::uint32_t missing = count > vacant ? count - vacant : 0;
    const std::uint32_t apart = count - map->FreeAtEnd();
    const std::uint32_t needed = (apart + perCluster - 1) / perCluster;
    const std::error_code scarce = NeedClusters(std::uint64_t{clusters} + needed);
    if (scarce && scarce != Status::DiskFull) return scarce;
    const bool room = !scarce && map->Total() + std::uint64_t{needed} * perCluster <= Medium::MAX_DIRECTORY_SLOTS;
    if (room && needed == (missing + perCluster - 1) / perCluster) {
      plan->first = map->Total() - map->FreeAtEnd();
      plan->grow = needed;
      return {};
    }
    if (room) {
      if (const std::error_code error = GrowOutside(directory, needed)) return error;
      return Plan(directory, count, clusters, plan, leaving, alsoLeaving);
    }
  }
  if (vacant < count) return Status::DiskFull;
  plan->first = SlotMap::NONE - count;  // known after the volume was detached
  plan->slides = true;
  return {};
}

// Some more than needed, so that a directory in which names come and go is not detached for each of them.
std::error_code VolumeState::GrowOutside(EntryNode* directory, std::uint32_t clusters) {
  if (const std::error_code error = Detach()) return error;
  if (directory->IsGone()) return Status::DiskCorrupt;
  std::uint32_t available;
  if (const std::error_code error = FreeClusters(&available)) return error;
  SlotMap& slots = directory->content->slots;
  const std::uint32_t wished = clusters + slots.Total() / SlotsPerCluster() / 8;
  const std::uint32_t most = (Medium::MAX_DIRECTORY_SLOTS - slots.Total()) / SlotsPerCluster();
  if (wished <= most && wished < available / 16) clusters = wished;
  m_bDirty = m_bUnflushed = true;
  const std::uint32_t place = directory->IsRoot() ? Medium::ROOT : directory->raw.firstCluster;
  if (const std::error_code error = m_Medium.GrowDirectory(place, clusters)) {
    SuspectAll();
    m_bFreeKnown = false;
    return error;
  }
  TakeClusters(clusters);
  slots.Grow(clusters * SlotsPerCluster());
  return {};
}

void VolumeState::Planned(DirectoryNode* directory, const SlotPlan& plan) {
  directory->slots.Grow(plan.grow * SlotsPerCluster());
  TakeClusters(plan.grow);
}

}  // namespace fatlib
