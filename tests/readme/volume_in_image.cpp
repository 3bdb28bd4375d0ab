/// @file volume_in_image.cpp
/// Runs the README's second program, ReadWholeFile, and that of the page for hosts, CVolumeInImage, which the test has
/// extracted into the two files included here: reads a file of a volume that begins at an offset of an image, and
/// writes it to the output.
///   volume_in_image IMAGE FIRST_BYTE PATH

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "block2.cpp"
#include "block3.cpp"

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  VOLUME_PLACE place = {argv[1], std::atoll(argv[2])};
  Fat_LibInitialize();
  CVolumeInImage* storage = new CVolumeInImage;
  CFatFileSystem* volume = Fat_Mount(storage, &place);
  if (volume == nullptr) return 1;
  std::vector<unsigned short> path(argv[3], argv[3] + std::strlen(argv[3]) + 1);
  std::vector<unsigned char> bytes;
  const bool read = ReadWholeFile(path.data(), bytes);
  std::fwrite(bytes.data(), 1, bytes.size(), stdout);
  const bool unmounted = Fat_Unmount(volume) != 0;
  ::operator delete(storage);
  return Fat_LibTerminate() != 0 && read && unmounted ? 0 : 1;
}
