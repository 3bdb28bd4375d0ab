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

RawEntry RawOf(const NewEntry& what, NameForm form, const ShortName& shortName, const SlotPlan& plan,
               const Stamp& now) {
  RawEntry raw;
  raw.hasLongName = form != NameForm::Short;
  raw.shortName = shortName;
  raw.name = raw.hasLongName ? what.name : raw.ShortNameText();
  raw.attributes = what.attributes;
  raw.size = what.size;
  raw.times.created = now;
  raw.times.modified = raw.times.accessed = now;
  raw.times.modified.tenMilliseconds = raw.times.accessed.tenMilliseconds = 0;
  raw.times.accessed.time = 0;
  raw.firstSlot = plan.first;
  raw.slots = SlotsOfName(what.name);
  return raw;
}

}  // namespace

std::error_code PrepareShortName(VolumeState* state, DirectoryNode* directory, const std::u16string& name,
                                 const EntryNode* leaving, ShortName* shortName, ShortNameNumber* number) {
  *number = LibraryUse::Number();
  if (FormOf(name, shortName) != NameForm::Invented) {
    EntryNode* const other = directory->FindByShortName(*shortName, leaving);
    if (other == nullptr) return {};
    if (!other->named) return Status::NameExists;
    // Its own name says nothing of the short one: it gets another, by way of another name.
    const std::u16string own = other->raw.name;
    if (const std::error_code error = ChangeName(state, other, UnusedName(*directory, *directory, name))) return error;
    if (other->IsGone()) return Status::DiskCorrupt;
    if (const std::error_code error = ChangeName(state, other, own)) return error;
    *number = LibraryUse::Number();
    return {};
  }
  const auto isShort = [directory, leaving](const ShortName& candidate) {
    return directory->HasOnlyShortName(candidate, leaving);
  };
  for (;;) {
    *number = LibraryUse::Number();
    if (!number->Invent(name, isShort, shortName)) return Status::DiskFull;
    if (!directory->HasShortName(*shortName)) return {};
    if (const std::error_code error = LibraryUse::SkipNumber()) return error;
  }
}

std::error_code CreateEntry(VolumeState* state, DirectoryNode* parent, const NewEntry& what,
                            std::shared_ptr<FileNode>* file) {
  const bool directory = (what.attributes & DIRECTORY) != 0;
  if (what.size > MaxFileBytes(*state)) return Status::FileTooLarge;
  const std::uint32_t clusters = directory ? 1 : state->ClustersOf(what.size);
  const std::u16string upper = UpCase(what.name);
  for (;;) {
    ShortName expected;
    ShortNameNumber number;
    if (const std::error_code error = PrepareShortName(state, parent, what.name, nullptr, &expected, &number)) {
      return error;
    }
    SlotPlan plan;
    if (const std::error_code error = state->Plan(parent->self, SlotsOfName(what.name), clusters, &plan)) return error;
    if (const std::error_code error = state->UseName(parent, upper)) return error;
    handles::MakeRoom();
    SetCurrentFileSystem(state->FileSystem());  // what was closed may be of another volume
    const CLocaleScope locale;
    const std::uint64_t failures = state->Failures();
    ShortName given = expected;
    LibraryPath path(*parent, what.name);
    state->MarkChanged(parent);
    const int handle = CallLibrary(&path, what, &given);
    if (handle < 0) return state->ChangeFailed(failures, Status::DiskCorrupt);
    LibraryUse::Number() = number;
    if (given != expected) {
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
    }
    auto entry = std::make_unique<EntryNode>(parent);
    entry->raw = RawOf(what, FormOf(what.name, &expected), given, plan, state->Now());
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
