/// @file RenameWork.cpp
/// Renaming and moving. The library gives a new name, or moves under the same name; everything else is made of these
/// two, by way of a name that nothing has.

#include <string>

#include "FileWork.h"
#include "NameWork.h"
#include "Text.h"

namespace fatlib {

namespace {

bool IsCased(const std::u16string& name) {
  ShortName ignored;
  return FormOf(name, &ignored) == NameForm::Cased;
}

/// Whether the library can move an entry under the name that it knows it by.
bool CanBeMoved(const EntryNode* entry, const DirectoryNode& target) {
  if (target.HasShortName(entry->raw.shortName)) return false;
  const std::u16string name = entry->LibraryName();
  if (target.FindStandIn(name) != nullptr) return false;
  return entry->standIn == standin::NONE || (target.Find(name) == nullptr && !target.HasShortName(entry->standInShort));
}

/// What may be in the way of an entry that gets a new path.
std::error_code CheckReplacement(VolumeState* state, const EntryNode* entry, EntryNode* inTheWay, bool replace) {
  if (!replace) return Status::NameExists;
  if (entry->IsDirectory() && !inTheWay->IsDirectory()) return Status::NotADirectory;
  if (!entry->IsDirectory() && inTheWay->IsDirectory()) return Status::IsADirectory;
  if (!inTheWay->IsReachable()) return Status::Unreachable;
  if (inTheWay->IsDirectory()) {
    DirectoryNode* content;
    if (const std::error_code error = state->Load(inTheWay, &content)) return error;
    if (!content->IsEmpty()) return Status::NotEmpty;
  }
  return CheckChain(state, inTheWay);
}

}  // namespace

std::u16string UnusedName(const DirectoryNode& directory, const DirectoryNode& other, const std::u16string& wanted) {
  for (unsigned int number = 0;; ++number) {
    std::u16string name = u"~FAT";
    for (const char digit : std::to_string(number)) name += static_cast<char16_t>(digit);
    name += u".TMP";
    ShortName shortName{};
    (void)FormOf(name, &shortName);
    const auto unused = [&](const DirectoryNode& node) {
      return node.Find(name) == nullptr && !node.HasShortName(shortName);
    };
    if (unused(directory) && unused(other) && !SameName(name, wanted)) return name;
  }
}

std::error_code ChangeName(VolumeState* state, EntryNode* entry, const std::u16string& name) {
  DirectoryNode* const directory = entry->parent;
  Naming naming;
  if (const std::error_code error = PrepareName(state, directory, name, entry, &naming)) return error;
  SlotPlan plan;
  if (const std::error_code error = state->Plan(directory->self, SlotsOfName(name), 0, &plan, entry)) return error;
  if (const std::error_code error = state->Use(entry, VolumeState::Lookup::Parent)) return error;
  // A name that is the same but for case the library gives only by way of another. This is known only now: detaching
  // puts the name itself in place of a stand-in.
  if (SameName(entry->LibraryName(), naming.libraryName)) {
    if (const std::error_code error = ChangeName(state, entry, UnusedName(*directory, *directory, name))) return error;
    return entry->IsGone() ? Status::DiskCorrupt : ChangeName(state, entry, name);
  }
  handles::CloseBelow(entry);
  const CLocaleScope locale;
  const std::uint64_t failures = state->Failures();
  SetCurrentFileSystem(state->FileSystem());
  state->MarkChanged(directory);
  if (Fat_RenameFile(LibraryPath(entry).Get(), LibraryPath(*directory, naming.libraryName).Get()) == 0) {
    return state->ChangeFailed(failures, Status::DiskCorrupt);
  }
  LibraryUse::Number() = naming.number;
  state->LeavesPath(entry);
  (void)state->TimesOf(entry);  // the library has stamped the new entry
  std::unique_ptr<EntryNode> owned = directory->Extract(entry);
  TakeNaming(name, naming, entry);
  entry->raw.firstSlot = plan.first;
  entry->timesAhead = entry->timesAhead || state->Options().times;
  entry->touchedIn = 0;
  state->Planned(directory, plan);
  (void)directory->Insert(std::move(owned));
  state->EntersPath(entry);
  return plan.slides ? state->Detach() : std::error_code();
}

std::error_code ChangeDirectory(VolumeState* state, EntryNode* entry, DirectoryNode* target) {
  SlotPlan plan;
  if (const std::error_code error = state->Plan(target->self, entry->raw.slots, 0, &plan)) return error;
  if (const std::error_code error = state->Use(target->self)) return error;
  // The library sets ".." of a directory where it believes the directory to be.
  const auto lookup = entry->IsDirectory() ? VolumeState::Lookup::Once : VolumeState::Lookup::Parent;
  if (const std::error_code error = state->Use(entry, lookup)) return error;
  if (target->self->IsGone()) return Status::DiskCorrupt;
  state->Touch(target->self);
  handles::CloseBelow(entry);
  const CLocaleScope locale;
  const std::uint64_t failures = state->Failures();
  SetCurrentFileSystem(state->FileSystem());
  DirectoryNode* const source = entry->parent;
  state->MarkChanged(source);
  state->MarkChanged(target);
  const bool toRoot = target->self->IsRoot();
  LibraryPath targetPath(target->self);
  if (Fat_MoveFile(LibraryPath(entry).Get(), toRoot ? nullptr : targetPath.Get()) == 0) {
    return state->ChangeFailed(failures, Status::DiskCorrupt);
  }
  state->LeavesPath(entry);
  std::unique_ptr<EntryNode> owned = source->Extract(entry);
  entry->raw.firstSlot = plan.first;
  entry->dotDotAhead = entry->IsDirectory() && toRoot;
  entry->touchedIn = 0;
  state->Planned(target, plan);
  (void)target->Insert(std::move(owned));
  state->EntersPath(entry);
  return plan.slides ? state->Detach() : std::error_code();
}

std::error_code RenameEntry(VolumeState* state, EntryNode* entry, DirectoryNode* parent, const std::u16string& name,
                            EntryNode* inTheWay, bool replace) {
  if (parent->self->IsAtOrBelow(entry)) return Status::Refused;
  if (!entry->IsReachable() || !parent->self->IsReachable()) return Status::Unreachable;
  const bool stays = entry->parent == parent;
  if (stays && entry->raw.name == name) return {};
  if (stays && entry->standIn != standin::NONE && IsCased(name) && SameName(entry->raw.name, name)) {
    entry->raw.name = name;  // the stand-in is that of both
    state->MarkChanged(parent);
    return {};
  }
  if (inTheWay == entry) inTheWay = nullptr;
  if (inTheWay != nullptr) {
    if (const std::error_code error = CheckReplacement(state, entry, inTheWay, replace)) return error;
  }
  if (const std::error_code error = CheckChain(state, entry)) return error;
  SlotPlan room;
  if (const std::error_code error =
          state->Plan(parent->self, SlotsOfName(name), 0, &room, inTheWay, stays ? entry : nullptr)) {
    return error;
  }
  if (inTheWay != nullptr) {
    if (const std::error_code error = RemoveEntry(state, inTheWay)) return error;
  }
  if (entry->IsGone() || parent->self->IsGone()) return Status::DiskCorrupt;
  if (stays) return ChangeName(state, entry, name);
  if (entry->raw.name == name && CanBeMoved(entry, *parent)) return ChangeDirectory(state, entry, parent);
  if (const std::error_code error = ChangeName(state, entry, UnusedName(*entry->parent, *parent, name))) return error;
  if (entry->IsGone() || parent->self->IsGone()) return Status::DiskCorrupt;
  if (const std::error_code error = ChangeDirectory(state, entry, parent)) return error;
  return entry->IsGone() ? Status::DiskCorrupt : ChangeName(state, entry, name);
}

}  // namespace fatlib
