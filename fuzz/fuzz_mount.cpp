/// @file fuzz_mount.cpp
/// Boot sector and mount: the image is mounted and unmounted, twice when the first time works.

#include "Harness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  CInput input(data, size);
  const SPARSE_IMAGE image = SPARSE_IMAGE::Parse(input);
  CFuzzRun run;
  CFatFileSystem* mounted = run.Mount(image);
  if (mounted == nullptr) return 0;
  run.Unmount(mounted);
  run.Unmount(run.MountAgain());
  return 0;
}
