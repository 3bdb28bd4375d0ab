/// @file VolumeMount.cpp
/// Mounting and detaching, and what the library remembers meanwhile.

#include "Text.h"
#include "VolumeState.h"

namespace fatlib {

// ---------------------------------------------------------------------------------------------- mounting

std::error_code VolumeState::Mount() {
  if (m_pFileSystem != nullptr) {
    SetCurrentFileSystem(m_pFileSystem);
    return {};
  }
  // Counted while the medium is current; from then on what changes is counted along.
  std::uint32_t clusters;
  if (IsWritable()) {
    if (const std::error_code error = FreeClusters(&clusters)) return error;
  }
  LibraryUse::BeforeMount();
  const std::uint64_t failures = Failures();
  m_pStorage = new DeviceStorage;
  m_pFileSystem = Fat_Mount(m_pStorage, &m_Log);
  if (m_pFileSystem != nullptr) return {};
  m_pStorage = nullptr;  // the failed mount has released it
  LibraryUse::Unmounted();
  return Reason(failures, Status::DiskCorrupt);
}

void VolumeState::Unmount() {
  handles::CloseAllOf(m_pFileSystem);
  // Of a volume on which nothing was changed nothing is written, though the library would.
  m_Log.dropWrites = !m_bDirty || !IsWritable();
  const std::uint64_t failures = Failures();
  if (Fat_Unmount(m_pFileSystem) == 0) {
    (void)m_pStorage->Close();
    if (Failures() == failures) Note(Status::IoError);
  }
  m_Log.dropWrites = false;
  ::operator delete(m_pStorage);
  m_pStorage = nullptr;
  m_pFileSystem = nullptr;
  LibraryUse::Unmounted();
  ++m_nMount;
}

std::error_code VolumeState::Detach() {
  const std::error_code noted = m_FirstFailure;
  m_FirstFailure = {};
  const std::uint64_t failures = Failures();
  if (m_pFileSystem != nullptr) Unmount();
  if (m_bDirty || m_bUnsettled) {
    m_bDirty = m_bUnsettled = false;
    m_bFreeKnown = false;
    m_Medium.Forget();
    if (Failures() != failures) SuspectAll();
    Reconcile(m_Root.content.get());
    if (Layout().type == FatType::Fat32) Note(m_Medium.WriteFsInfo());
  }
  const std::error_code error = Failures() != failures ? m_Log.last : m_FirstFailure;
  if (noted) m_FirstFailure = noted;
  return error;
}

// ---------------------------------------------------------------------------------------------- what only the face
// knows

void VolumeState::Reconcile(DirectoryNode* directory) {
  if (directory == nullptr || !directory->changedBelow) return;
  directory->changedBelow = false;
  if (directory->changed) {
    for (const auto& [slot, entry] : directory->Entries()) SettleTimes(entry.get());
    std::error_code error = Read(directory->self);
    if (error) {
      directory->suspect = true;
    } else {
      error = ReconcileEntries(directory);
    }
    directory->changed = false;
    Note(error);
    if (error) TryAgain(directory);
  }
  for (const auto& [slot, entry] : directory->Entries()) Reconcile(entry->content.get());
}

// Directories come before what is in them, so that their clusters are known when it is their turn.
std::error_code VolumeState::ReconcileEntries(DirectoryNode* directory) {
  const std::uint32_t place = directory->self->IsRoot() ? Medium::ROOT : directory->self->raw.firstCluster;
  std::vector<EntryChange> changes;
  for (const auto& [slot, entry] : directory->Entries()) {
    const RawEntry& raw = entry->raw;
    if (entry->standIn != standin::NONE) {
      changes.push_back({raw.firstSlot, raw.slots, entry->standInShort, raw.shortName, raw.name,
                         entry->timesAhead ? &raw.times : nullptr});
    } else if (entry->timesAhead) {
      changes.push_back({raw.firstSlot, raw.slots, raw.shortName, raw.shortName, {}, &raw.times});
    }
    if (entry->dotDotAhead) {
      entry->dotDotAhead = false;
      if (Layout().IsCluster(raw.firstCluster)) Note(m_Medium.SetDotDot(raw.firstCluster, 0));
    }
  }
  if (const std::error_code error = m_Medium.ChangeEntries(place, changes)) {
    // Some may have been changed: which, only the medium tells.
    if (Read(directory->self)) directory->suspect = true;
    return error;
  }
  for (const auto& [slot, entry] : directory->Entries()) {
    entry->timesAhead = false;
    directory->DropStandIn(entry.get());
  }
  return {};
}

// At the next Detach. Until then the library knows entries by their stand-ins.
void VolumeState::TryAgain(DirectoryNode* directory) {
  m_bUnsettled = true;
  MarkToReconcile(directory);
}

// ---------------------------------------------------------------------------------------------- what the library
// remembers

bool VolumeState::IsStale(const EntryNode* entry) const {
  for (; !entry->IsRoot(); entry = entry->parent->self) {
    if (entry->staleIn == m_nMount) return true;
  }
  return false;
}

bool VolumeState::IsStaleName(const DirectoryNode* directory, const std::u16string& upper) const {
  return directory->staleNamesIn == m_nMount && directory->staleNames.count(upper) != 0;
}

bool VolumeState::HasStaleName(const EntryNode* entry) const {
  return !entry->IsRoot() && entry->parent->staleNamesIn == m_nMount &&
         IsStaleName(entry->parent, UpCase(entry->LibraryName()));
}

void VolumeState::Touch(EntryNode* entry) const {
  for (; !entry->IsRoot() && entry->touchedIn != m_nMount; entry = entry->parent->self) entry->touchedIn = m_nMount;
}

std::error_code VolumeState::Use(EntryNode* entry, Lookup lookup) {
  if (!entry->IsReachable()) return Status::Unreachable;
  EntryNode* const parent = entry->IsRoot() ? entry : entry->parent->self;
  const bool stale = lookup == Lookup::Parent ? IsStale(parent) || HasStaleName(entry) : IsStale(entry);
  if (m_pFileSystem != nullptr && stale) {
    if (const std::error_code error = Detach()) return error;
  }
  if (const std::error_code error = Mount()) return error;
  if (entry->IsGone()) return Status::DiskCorrupt;
  Touch(lookup == Lookup::Entry ? entry : parent);
  return {};
}

std::error_code VolumeState::UseName(DirectoryNode* directory, const std::u16string& upper) {
  EntryNode* const self = directory->self;
  if (m_pFileSystem != nullptr && IsStaleName(directory, upper)) {
    if (const std::error_code error = Detach()) return error;
  }
  return Use(self);
}

void VolumeState::LeavesPath(EntryNode* entry) const {
  if (entry->touchedIn != m_nMount) return;
  entry->staleIn = m_nMount;
  DirectoryNode* const directory = entry->parent;
  if (directory->staleNamesIn != m_nMount) directory->staleNames.clear();
  directory->staleNamesIn = m_nMount;
  directory->staleNames.insert(UpCase(entry->LibraryName()));
}

void VolumeState::EntersPath(EntryNode* entry) const {
  if (HasStaleName(entry)) entry->staleIn = entry->touchedIn = m_nMount;
}

std::error_code VolumeState::Reason(std::uint64_t failuresBefore, Status otherwise) const {
  return Failures() != failuresBefore ? m_Log.last : make_error_code(otherwise);
}

std::error_code VolumeState::ChangeFailed(std::uint64_t failuresBefore, Status otherwise) {
  const std::error_code error = Reason(failuresBefore, otherwise);
  m_bDirty = m_bUnflushed = true;
  SuspectAll();
  (void)Detach();  // the first failure is the one to report
  return error;
}

}  // namespace fatlib
