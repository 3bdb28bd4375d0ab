/// @file fuzz_image.cpp
/// A whole image: mounted, walked, read, changed, walked again, unmounted; then mounted and walked once more. The bytes
/// behind the image choose the changes.

#include "Walk.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  CInput input(data, size);
  const SPARSE_IMAGE image = SPARSE_IMAGE::Parse(input);
  CFuzzRun run;
  CFatFileSystem* mounted = run.Mount(image);
  if (mounted == nullptr) return 0;
  {
    CWalker walker(mounted);
    walker.WalkAll();
    walker.ChangeAll(input);
    walker.WalkAll();
  }
  run.Unmount(mounted);
  mounted = run.MountAgain();
  if (mounted == nullptr) return 0;
  CWalker walker(mounted);
  walker.WalkAll();
  run.Unmount(mounted);
  return 0;
}
