/// @file OrderedDevice.cpp
/// What is written at once, what is kept, and the writing of what was kept.

#include "OrderedDevice.h"

#include <algorithm>
#include <new>
#include <vector>

#include "CommitPlan.h"
#include "CommitSectors.h"
#include "CommitTree.h"
#include "Error.h"
#include "Medium.h"
#include "Narrow.h"

namespace fatlib {

struct OrderedDevice::State {
  State(std::unique_ptr<Device> device, const Geometry& layout, Barriers use);

  std::error_code LookAtDirectories();
  void MarkClusters();
  std::error_code Write(std::uint64_t position, const unsigned char* bytes, std::size_t size);
  std::error_code Commit();
  std::error_code WritePhases(const CommitPlan& plan);
  std::error_code FollowTree(const CommitPlan& plan);

  bool IsDirectory(std::uint64_t index) const { return (marks[ToSize(index >> 6)] >> (index & 63) & 1) != 0; }

  std::unique_ptr<Device> base;
  Geometry geometry;
  Barriers barriers;
  CommitSectors held;
  CommitTree tree;                   // as committed
  std::vector<std::uint64_t> marks;  // a bit for each cluster, from 0 on: part of a committed directory
  std::uint64_t dataStart;
  std::uint64_t dataEnd;  // of the last cluster
  unsigned clusterShift = 0;
  // A commit failed: what is committed is not known before the next one looks. Until then everything is kept.
  bool unknown = false;
};

OrderedDevice::State::State(std::unique_ptr<Device> device, const Geometry& layout, Barriers use)
    : base(std::move(device)),
      geometry(layout),
      barriers(use),
      held(base.get(), layout.bytesPerSector),
      marks((std::size_t{layout.clusters} + 63) / 64),
      dataStart(layout.firstDataSector * layout.bytesPerSector),
      dataEnd(dataStart + std::uint64_t{layout.clusters} * layout.bytesPerCluster) {
  while ((1u << clusterShift) < layout.bytesPerCluster) ++clusterShift;
}

std::error_code OrderedDevice::State::LookAtDirectories() {
  Medium medium;
  tree = {};
  const std::error_code error = medium.Open(base.get());
  if (error) return error == Status::NotAVolume ? Status::DiskCorrupt : error;
  return tree.Build(&medium);
}

void OrderedDevice::State::MarkClusters() {
  std::fill(marks.begin(), marks.end(), 0);
  for (const auto& [cluster, place] : tree.Owners()) {
    const std::uint32_t index = cluster - 2;
    if (index >= geometry.clusters) continue;  // of another volume, which was written over this one
    marks[index >> 6] |= std::uint64_t{1} << (index & 63);
  }
}

std::error_code OrderedDevice::State::Write(std::uint64_t position, const unsigned char* bytes, std::size_t size) {
  while (size != 0) {
    std::size_t piece = size;
    bool keep = true;
    if (position < dataStart) {
      piece = ToSize(std::min<std::uint64_t>(size, dataStart - position));
    } else if (position >= dataEnd) {
      keep = false;
    } else {
      // As many clusters as are of the same kind.
      const std::uint64_t last = (std::min(position + size, dataEnd) - 1 - dataStart) >> clusterShift;
      std::uint64_t index = (position - dataStart) >> clusterShift;
      keep = IsDirectory(index);
      while (index != last && IsDirectory(index + 1) == keep) ++index;
      piece = ToSize(std::min<std::uint64_t>(size, dataStart + ((index + 1) << clusterShift) - position));
      keep = keep || unknown;
    }
    const std::error_code error = keep ? held.Write(position, bytes, piece) : base->Write(position, bytes, piece);
    if (error) return error;
    position += piece;
    bytes += piece;
    size -= piece;
  }
  return {};
}

// ---------------------------------------------------------------------------------------------- commits

std::error_code OrderedDevice::State::Commit() {
  if (const std::error_code error = base->Flush()) return error;
  if (held.Sectors().empty() && !unknown) return {};
  const bool retry = unknown;
  unknown = true;
  if (retry) {
    const std::error_code error = LookAtDirectories();
    if (error && error != Status::DiskCorrupt) return error;
  }
  CommitPlan plan;
  if (const std::error_code error = PlanCommit(base.get(), &held, tree, &plan)) return error;
  if (const std::error_code error = WritePhases(plan)) return error;
  held.Clear();
  const std::error_code error = retry ? LookAtDirectories() : FollowTree(plan);
  if (error && error != Status::DiskCorrupt) return error;
  MarkClusters();
  unknown = false;
  return {};
}

std::error_code OrderedDevice::State::WritePhases(const CommitPlan& plan) {
  for (const CommitPhase& phase : plan.phases) {
    const bool isLast = &phase == &plan.phases.back();
    for (const CommitWrite& write : phase) {
      // What is read must not change with the device below.
      if (const std::error_code error = held.Keep(write.position, write.bytes.size())) return error;
      if (const std::error_code error = base->Write(write.position, write.bytes.data(), write.bytes.size())) {
        return error;
      }
    }
    if (isLast || barriers == Barriers::Flush) {
      if (const std::error_code error = base->Flush()) return error;
    }
  }
  return {};
}

/// Keeps up with the directories that were made, removed, moved and resized. What does not fit together is looked for
/// anew.
std::error_code OrderedDevice::State::FollowTree(const CommitPlan& plan) {
  if (plan.removed.empty() && plan.resized.empty() && plan.added.empty()) return {};
  Medium medium;
  std::error_code error = medium.Open(base.get());
  if (error) return error;
  tree.Remove(plan.removed);
  for (const DirectoryPlace place : plan.resized) {
    const bool there = place == Medium::ROOT || tree.Parents().count(place) != 0;
    if (there && !error) error = tree.Refresh(&medium, place);
  }
  for (const auto& [place, parent] : plan.added) {
    if (!error && medium.Layout().IsCluster(place)) error = tree.Add(&medium, place, parent);
  }
  return error == Status::DiskCorrupt ? tree.Build(&medium) : error;
}

// ---------------------------------------------------------------------------------------------- the device

OrderedDevice::OrderedDevice(std::unique_ptr<State> state) : m_pState(std::move(state)) {}
OrderedDevice::~OrderedDevice() = default;

std::error_code OrderedDevice::Open(std::unique_ptr<Device> base, std::unique_ptr<OrderedDevice>* device,
                                    Barriers barriers) try {
  Medium medium;
  if (const std::error_code error = medium.Open(base.get())) return error;
  auto state = std::make_unique<State>(std::move(base), medium.Layout(), barriers);
  if (state->base->Mode() == Access::ReadWrite) {
    if (const std::error_code error = state->LookAtDirectories()) return error;
    state->MarkClusters();
  }
  *device = std::unique_ptr<OrderedDevice>(new OrderedDevice(std::move(state)));
  return {};
} catch (const std::bad_alloc&) {
  return Status::NoMemory;
}

std::error_code OrderedDevice::Read(std::uint64_t position, void* buffer, std::size_t size) {
  return m_pState->held.Read(position, buffer, size);
}

std::error_code OrderedDevice::Write(std::uint64_t position, const void* buffer, std::size_t size) try {
  if (Mode() != Access::ReadWrite) return Status::WriteProtected;
  if (size > UINT64_MAX - position) return Status::IoError;
  return m_pState->Write(position, static_cast<const unsigned char*>(buffer), size);
} catch (const std::bad_alloc&) {
  return Status::NoMemory;
}

std::error_code OrderedDevice::Flush() try { return m_pState->Commit(); } catch (const std::bad_alloc&) {
  return Status::NoMemory;
}

std::uint64_t OrderedDevice::Size() const { return m_pState->base->Size(); }

Access OrderedDevice::Mode() const { return m_pState->base->Mode(); }

std::uint64_t OrderedDevice::HeldBytes() const {
  return std::uint64_t{m_pState->held.Sectors().size()} * m_pState->held.BytesPerSector();
}

}  // namespace fatlib
