/// @file fuzz_directory.cpp
/// Directory bytes: a healthy volume, one directory of which holds the input. Byte 0 chooses which: bits 0 and 1 a
/// fixed root, a root that is a chain, or a subdirectory; bit 2 "." and ".." in front; bit 3 whether it is changed as
/// well.

#include "Volume.h"
#include "Walk.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  CInput input(data, size);
  const unsigned int options = input.U8();
  CInput choices = input;
  const DIRECTORY_PLACE place = (options & 3) == 0   ? DIRECTORY_PLACE::FixedRoot
                                : (options & 3) == 1 ? DIRECTORY_PLACE::RootChain
                                                     : DIRECTORY_PLACE::Subdirectory;
  CFuzzRun run;
  MakeVolume(place, input.Bytes(input.Left()), (options & 4) != 0);
  std::vector<UTF16> listed;
  {
    CFatFileSystem* mounted = run.MountAgain();
    if (mounted == nullptr) Finding("a healthy volume is refused");
    CWalker walker(mounted);
    walker.WalkAll();
    listed = walker.Paths();
    run.Unmount(mounted);
  }
  CFatFileSystem* mounted = run.MountAgain();
  if (mounted == nullptr) Finding("a volume is refused after it was only read");
  CWalker walker(mounted);
  walker.WalkAll();
  if (walker.Paths() != listed) Finding("reading a directory changed it");
  if ((options & 8) != 0) {
    walker.ChangeAll(choices);
    walker.WalkAll();
    run.Unmount(mounted);
    mounted = run.MountAgain();
    if (mounted == nullptr) Finding("a volume is refused after names in it were changed");
    CWalker(mounted).WalkAll();
  }
  run.Unmount(mounted);
  return 0;
}
