/// @file fuzz_paths.cpp
/// Path strings: the input is UTF-16 units, zeros between the paths. Every function that takes a path gets each of
/// them, and those that take two get neighbours.

#include <cstring>

#include "Volume.h"
#include "Walk.h"
#include "platform/Platform.h"

namespace {

constexpr std::size_t MAX_PATHS = 24;
constexpr std::size_t MAX_UNITS = 259;

constexpr unsigned short SEPARATOR = '\\';

bool IsForbidden(unsigned short c) {
  static const char FORBIDDEN[] = "\"*/:<>?|\x7F";
  if (c < 0x20) return true;
  for (const char* f = FORBIDDEN; *f != 0; ++f) {
    if (c == static_cast<unsigned char>(*f)) return true;
  }
  return false;
}

// Whether a path is valid, by the rules alone and component by component.
bool IsValid(const UTF16& path) {
  constexpr unsigned short SPACE = ' ';
  constexpr unsigned short DOT = '.';
  std::size_t i = 0;
  const auto skipSpaces = [&] {
    while (i < path.size() && path[i] == SPACE) ++i;
  };
  skipSpaces();
  if (i < path.size() && path[i] == SEPARATOR) {
    ++i;
    skipSpaces();
  }
  std::size_t units = 0;  // of the normalised path before this component, its separator counted
  bool lastKept = false;  // the path has something besides what is trimmed at its end
  while (i < path.size()) {
    std::size_t taken = 0;  // of this component
    std::size_t kept = 0;   // of those, up to the last that is neither space nor dot
    for (; i < path.size() && path[i] != SEPARATOR; ++i) {
      if (IsForbidden(path[i])) return false;
      if (path[i] == DOT && i + 1 < path.size() && path[i + 1] == DOT) return false;
      ++taken;
      if (units + taken > MAX_UNITS) return false;
      if (path[i] != SPACE && path[i] != DOT) kept = taken;
    }
    if (kept != 0) lastKept = true;
    if (i == path.size()) break;
    if (kept == 0) return false;
    units += kept + 1;
    if (units > MAX_UNITS) return false;
    ++i;
    skipSpaces();
  }
  return lastKept;
}

#if defined(FATLIB_CANARY_OVERRUN) || defined(FATLIB_CANARY_LEAK) || defined(FATLIB_CANARY_HANG)
// The canaries: for a path that begins with "BUG" a fault is committed, which proves that the harness would notice one.
void CommitFault(const UTF16& units, const unsigned short* path) {
  static const unsigned short NAME[] = {'B', 'U', 'G'};
  if (units.size() < 3 || std::memcmp(units.data(), NAME, sizeof(NAME)) != 0) return;
#if defined(FATLIB_CANARY_OVERRUN)
  const CExactPath longer(UTF16(path, path + units.size() + 2));
#elif defined(FATLIB_CANARY_LEAK)
  if (osMemAlloc(path[0]) == nullptr) Finding("no memory to lose");
#else
  for (volatile unsigned short unit = path[0]; unit != 0;) {
  }
#endif
}
#else
void CommitFault(const UTF16&, const unsigned short*) {}
#endif

void Use(const UTF16& units, const UTF16& other) {
  const CExactPath path(units);
  const CExactPath second(other);
  CommitFault(units, path);
  const bool refused = !IsValid(units);
  const auto taken = [&refused](bool success) {
    if (success && refused) Finding("an invalid path was taken");
  };
  unsigned int done = 0;
  unsigned char byte = 'x';
  WIN_FIND_DATA data = {};

  int handle = Fat_OpenFile(path);
  taken(handle >= 0);
  (void)Fat_CloseFile(handle);
  handle = Fat_CreateFile(path, 100, 0x20);
  taken(handle >= 0);
  if (handle >= 0) {
    (void)Fat_WriteFile(handle, 1, &byte, &done);
    (void)Fat_GetFileAttribute(handle, &data);
    (void)Fat_CloseFile(handle);
    handle = Fat_OpenFile(path);
    if (handle < 0) Finding("a file that was created cannot be opened by the same path");
    (void)Fat_CloseFile(handle);
  }
  taken(Fat_CreateDir(path, 0) != 0);
  handle = Fat_FindFirstFile(path, &data);
  taken(handle >= 0);
  (void)Fat_FindNextFile(handle, &data);
  (void)Fat_CloseFindHandle(handle);
  taken(Fat_RenameFile(path, second) != 0);
  (void)Fat_MoveFile(path, second);
  (void)Fat_MoveFile(second, path);
  (void)Fat_RenameFile(second, path);
  taken(Fat_MoveFile(path, nullptr) != 0);
  taken(Fat_DeleteFile(path) != 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  CInput input(data, size);
  std::vector<UTF16> paths(1);
  while (!input.Empty() && paths.size() < MAX_PATHS) {
    const unsigned short unit = static_cast<unsigned short>(input.U16());
    if (unit == 0) {
      paths.emplace_back();
    } else if (paths.back().size() < 2 * MAX_UNITS) {
      paths.back().push_back(unit);
    }
  }
  CFuzzRun run;
  MakeVolume(DIRECTORY_PLACE::Subdirectory, {}, true);
  CFatFileSystem* mounted = run.MountAgain();
  if (mounted == nullptr) Finding("a healthy volume is refused");
  for (std::size_t i = 0; i < paths.size(); ++i) Use(paths[i], paths[(i + 1) % paths.size()]);
  CWalker(mounted).WalkAll();
  run.Unmount(mounted);
  mounted = run.MountAgain();
  if (mounted == nullptr) Finding("a volume is refused after names in it were changed");
  for (const UTF16& path : paths) (void)Fat_DeleteFile(CExactPath(path));
  run.Unmount(mounted);
  return 0;
}
