/// @file NameWork.cpp
/// Making and removing entries. Renaming is in RenameWork.cpp.

#include "NameWork.h"

#include <algorithm>
#include <iterator>

#include "FileWork.h"
#include "Text.h"

namespace fatlib {

namespace {

/// The short name as the library shows it, BASE.EXT, as it is stored.
ShortName Stored(const unsigned short* text) {
  ShortName name;
  name.fill(' ');
  std::size_t at = 0;
  for (std::size_t i = 0; i < 13 && text[i] != 0; ++i) {
    if (text[i] == '.') {
      at = 8;
    } else if (at < name.size()) {
      name[at++] = static_cast<unsigned char>(text[i]);
    }
  }
  return name;
}

/// Makes it. @param shortName  in: the one expected; out: the one given
/// @return a handle, or -1
int CallLibrary(LibraryPath* path, const NewEntry& what, ShortName* shortName) {
  if ((what.attributes & DIRECTORY) != 0) {
    if (Fat_CreateDir(path->Get(), what.attributes) == 0) return FileNode::NO_HANDLE;
  }
  const int handle = (what.attributes & DIRECTORY) != 0 ? Fat_OpenFile(path->Get())
                                                        : Fat_CreateFile(path->Get(), what.size, what.attributes);
  WIN_FIND_DATA data;
  if (handle >= 0 && Fat_GetFileAttribute(handle, &data) != 0) *shortName = Stored(data.cAlternateFileName);
  return handle;
}

RawEntry RawOf(const NewEntry& what, const SlotPlan& plan, const Stamp& now) {
  RawEntry raw;
  raw.attributes = what.attributes;
  raw.size = what.size;
  raw.times.created = now;
  raw.times.modified = raw.times.accessed = now;
  raw.times.modified.tenMilliseconds = raw.times.accessed.tenMilliseconds = 0;
  raw.times.accessed.time = 0;
  raw.firstSlot = plan.first;
  return raw;
}

/// Sees to it that no other entry has a short name that is to be given.
std::error_code FreeShortName(VolumeState* state, DirectoryNode* directory, const std::u16string& name,
                              const ShortName& shortName, const EntryNode* leaving) {
  EntryNode* const other = directory->FindByShortName(shortName, leaving);
  if (other == nullptr) return {};
  if (!other->named) return Status::NameExists;
  // Its own name says nothing of the short one: it gets another, by way of another name.
  const std::u16string own = other->raw.name;
  if (const std::error_code error = ChangeName(state, other, UnusedName(*directory, *directory, name))) return error;
  if (other->IsGone()) return Status::DiskCorrupt;
  return ChangeName(state, other, own);
}

/// The short name that the library will invent.
std::error_code InventShortName(const DirectoryNode& directory, const EntryNode* leaving, Naming* naming) {
  const auto isShort = [&directory, leaving](const ShortName& candidate) {
    return directory.HasOnlyShortName(candidate, leaving);
  };
  for (;;) {
    naming->number = LibraryUse::Number();
    if (!naming->number.Invent(naming->libraryName, isShort, &naming->libraryShort)) return Status::DiskFull;
    if (!directory.HasShortName(naming->libraryShort)) return {};
    if (const std::error_code error = LibraryUse::SkipNumber()) return error;
  }
}

}  // namespace

std::error_code PrepareName(VolumeState* state, DirectoryNode* directory, const std::u16string& name,
                            const EntryNode* leaving, Naming* naming) {
  if (directory->FindStandIn(name) != nullptr) {
    if (const std::error_code error = state->Detach()) return error;
    if (directory->self->IsGone()) return Status::DiskCorrupt;
  }
  *naming = {};
  naming->form = FormOf(name, &naming->shortName);
  naming->libraryName = name;
  if (naming->form != NameForm::Invented) {
    if (const std::error_code error = FreeShortName(state, directory, name, naming->shortName, leaving)) return error;
    naming->libraryShort = naming->shortName;
    naming->number = LibraryUse::Number();
  }
  if (naming->form == NameForm::Cased) {
    naming->standIn = directory->UnusedStandIn(name);
    if (naming->standIn == standin::NONE) return Status::NameExists;
    naming->libraryName = standin::Of(name, naming->standIn);
    return InventShortName(*directory, leaving, naming);
  }
  if (naming->form != NameForm::Invented) return {};
  const std::error_code error = InventShortName(*directory, leaving, naming);
  naming->shortName = naming->libraryShort;
  return error;
}

void TakeNaming(const std::u16string& name, const Naming& naming, EntryNode* entry) {
  RawEntry& raw = entry->raw;
  raw.hasLongName = naming.form != NameForm::Short;
  raw.shortName = naming.shortName;
  raw.name = name;
  raw.caseFlags = 0;
  raw.slots = SlotsOfName(name);
  entry->standIn = naming.standIn;
  entry->standInShort = naming.libraryShort;
}

std::error_code CreateEntry(VolumeState* state, DirectoryNode* parent, const NewEntry& what,
                            std::shared_ptr<FileNode>* file) {
  const bool directory = (what.attributes & DIRECTORY) != 0;
  if (what.size > MaxFileBytes(*state)) return Status::FileTooLarge;
  const std::uint32_t clusters = directory ? 1 : state->ClustersOf(what.size);
  for (;;) {
    Naming naming;
    if (const std::error_code error = PrepareName(state, parent, what.name, nullptr, &naming)) return error;
    SlotPlan plan;
    if (const std::error_code error = state->Plan(parent->self, SlotsOfName(what.name), clusters, &plan)) return error;
    if (const std::error_code error = state->UseName(parent, UpCase(naming.libraryName))) return error;
    handles::MakeRoom();
    SetCurrentFileSystem(state->FileSystem());  // what was closed may be of another volume
    const CLocaleScope locale;
    const std::uint64_t failures = state->Failures();
    ShortName given = naming.libraryShort;
    LibraryPath path(*parent, naming.libraryName);
    state->MarkChanged(parent);
    const int handle = CallLibrary(&path, what, &given);
    if (handle < 0) return state->ChangeFailed(failures, Status::DiskCorrupt);
    LibraryUse::Number() = naming.number;
    if (given != naming.libraryShort) {
      // Somebody else has used the counter. Once its place is known the name can be told again.
      RawEntry named;
      named.shortName = given;
      (void)LibraryUse::Number().GoOnFrom(named.ShortNameText());
      if (parent->HasShortName(given)) {
        (void)Fat_CloseFile(handle);
        if (Fat_DeleteFile(path.Get()) == 0) return state->ChangeFailed(failures, Status::DiskCorrupt);
        state->Planned(parent, plan);
        continue;
      }
      naming.libraryShort = given;
      if (naming.standIn == standin::NONE) naming.shortName = given;
    }
    auto entry = std::make_unique<EntryNode>(parent);
    entry->raw = RawOf(what, plan, state->Now());
    TakeNaming(what.name, naming, entry.get());
    entry->ahead = true;
    entry->timesAhead = state->Options().times;
    state->Planned(parent, plan);
    state->TakeClusters(clusters);
    if (directory) {
      entry->content = std::make_unique<DirectoryNode>(entry.get());
      entry->content->FillNew(state->SlotsPerCluster());
    }
    EntryNode* const node = parent->Insert(std::move(entry));
    state->Touch(node);
    *file = OpenNode(node);
    handles::Enter(file->get(), handle, state->FileSystem());
    if (plan.slides) {
      if (const std::error_code error = state->Detach()) return error;
    }
    return node->IsGone() ? Status::DiskCorrupt : Status::Success;
  }
}

std::error_code RemoveEntry(VolumeState* state, EntryNode* entry) {
  std::uint32_t clusters = state->ClustersOf(entry->raw.size);
  if (entry->IsDirectory()) {
    DirectoryNode* content;
    if (const std::error_code error = state->Load(entry, &content)) return error;
    if (!content->IsEmpty()) return Status::NotEmpty;
    clusters = content->slots.Total() / state->SlotsPerCluster();
  }
  if (const std::error_code error = state->Use(entry)) return error;
  handles::CloseBelow(entry);
  const CLocaleScope locale;
  const std::uint64_t failures = state->Failures();
  DirectoryNode* const parent = entry->parent;
  SetCurrentFileSystem(state->FileSystem());
  state->MarkChanged(parent);
  if (Fat_DeleteFile(LibraryPath(entry).Get()) == 0) return state->ChangeFailed(failures, Status::DiskCorrupt);
  state->ReturnClusters(clusters);
  state->BuryEntry(parent->Extract(entry));
  return {};
}

std::error_code RemoveTree(VolumeState* state, EntryNode* entry, std::uint64_t* removed) {
  if (!entry->IsReachable()) return Status::Unreachable;
  if (entry->IsDirectory()) {
    DirectoryNode* content;
    if (const std::error_code error = state->Load(entry, &content)) return error;
    std::vector<EntryNode*> children;
    for (const auto& [slot, child] : content->Entries()) children.push_back(child.get());
    for (EntryNode* const child : children) {
      if (const std::error_code error = RemoveTree(state, child, removed)) return error;
    }
  }
  if (entry->IsRoot()) return {};
  if (const std::error_code error = RemoveEntry(state, entry)) return error;
  ++*removed;
  return {};
}

}  // namespace fatlib
