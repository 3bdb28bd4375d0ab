/// @file fatwrite.cpp
/// A host program on fatlib's public interface: copies a tree of files into a volume, and changes what is there.
///
///     fatwrite copy IMAGE FOLDER      everything in FOLDER goes into the root directory
///     fatwrite change IMAGE SCRIPT    carries out a script, one command a line, with tabs between the words:
///
///         mkdir   PATH
///         rename  PATH  NAME
///         move    PATH  DIRECTORY
///         resize  PATH  BYTES         what is added reads as zeros
///         delete  PATH                a file or an empty directory
///
/// Paths are UTF-8 with '/' between the components. What the library has opened under one path it goes on knowing by
/// that path (see FatLibIntf.h), so a script renames and moves only what no earlier line has resized or put something
/// into.
///
/// Exit status: 0 when all was done, 1 when something was not, 2 when the job could not be done.

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "HostVolume.h"

namespace {

constexpr unsigned int REQUEST_BYTES = 1u << 20;
constexpr unsigned int ARCHIVE_BIT = 0x20;

struct HOST_ENTRY {
  std::string Path;  // below the folder
  bool Directory;
  unsigned long long Size;
};

// Everything below a folder, directories before what they hold. @return false when a part of it cannot be read
bool ListTree(const std::string& folder, const std::string& below, std::vector<HOST_ENTRY>& entries) {
  const std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir((folder + "/" + below).c_str()), closedir);
  if (dir == nullptr) return false;
  std::vector<std::string> names;
  while (const dirent* entry = readdir(dir.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    const std::string path = below.empty() ? name : below + "/" + name;
    struct stat info = {};
    if (stat((folder + "/" + path).c_str(), &info) != 0) return false;
    const bool directory = S_ISDIR(info.st_mode);
    entries.push_back({path, directory, static_cast<unsigned long long>(info.st_size)});
    if (directory && !ListTree(folder, path, entries)) return false;
  }
  return true;
}

// Writes a whole file, created with its size: writing never extends it.
bool CopyFile(const std::string& source, const std::string& path, unsigned int size, CProgress& progress) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(source.c_str(), "rb"), std::fclose);
  if (file == nullptr) return false;
  const int handle = Fat_CreateFile(ToPath(path).data(), size, ARCHIVE_BIT);
  if (handle < 0) return false;
  static std::vector<unsigned char> s_Buffer(REQUEST_BYTES);
  bool good = true;
  for (unsigned int offset = 0; good && offset < size;) {
    const unsigned int part = std::min(size - offset, REQUEST_BYTES);
    unsigned int reported = 0;
    good = std::fread(s_Buffer.data(), 1, part, file.get()) == part &&
           Fat_WriteFileEx(handle, offset, part, s_Buffer.data(), &reported) == 1;
    offset += part;
    if (good) progress.Add(part);
  }
  return Fat_CloseFile(handle) == 1 && good;
}

int Copy(const char* image, const std::string& folder) {
  std::vector<HOST_ENTRY> entries;
  if (!ListTree(folder, "", entries)) {
    std::fprintf(stderr, "fatwrite: cannot read %s\n", folder.c_str());
    return 2;
  }
  unsigned long long total = 0;
  for (const HOST_ENTRY& entry : entries) total += entry.Directory ? 0 : entry.Size;
  CVolume volume(image);
  if (!volume.Mounted()) {
    std::fprintf(stderr, "fatwrite: cannot mount %s\n", image);
    return 2;
  }
  unsigned int nFiles = 0;
  unsigned int nDirectories = 0;
  {
    CProgress progress("writing", total);
    for (const HOST_ENTRY& entry : entries) {
      bool good = entry.Size <= UINT32_MAX;
      if (entry.Directory) {
        good = Fat_CreateDir(ToPath(entry.Path).data(), 0) == 1;
        ++nDirectories;
      } else if (good) {
        good = CopyFile(folder + "/" + entry.Path, entry.Path, static_cast<unsigned int>(entry.Size), progress);
        ++nFiles;
      }
      if (!good) {
        std::printf("CANNOT BE WRITTEN: %s\n", entry.Path.c_str());
        return 1;
      }
    }
  }
  if (!volume.Unmount()) {
    std::fprintf(stderr, "fatwrite: cannot unmount %s\n", image);
    return 2;
  }
  std::printf("%u files in %u directories, %llu bytes: written\n", nFiles, nDirectories, total);
  return 0;
}

// Gives a file another size; new bytes are written, for they would show what the disk held before.
bool Resize(const std::string& path, unsigned int size) {
  const int handle = Fat_OpenFile(ToPath(path).data());
  if (handle < 0) return false;
  unsigned int before = 0;
  bool good = Fat_GetFileSize(handle, &before) == 1 && Fat_SetFileSize(handle, size) == 1;
  std::vector<unsigned char> zeros(std::min(size > before ? size - before : 0, REQUEST_BYTES));
  for (unsigned int offset = before; good && offset < size;) {
    const unsigned int part = std::min(size - offset, REQUEST_BYTES);
    unsigned int reported = 0;
    good = Fat_WriteFileEx(handle, offset, part, zeros.data(), &reported) == 1;
    offset += part;
  }
  return Fat_CloseFile(handle) == 1 && good;
}

bool Perform(const std::vector<std::string>& words) {
  const std::string& command = words[0];
  if (command == "mkdir" && words.size() == 2) return Fat_CreateDir(ToPath(words[1]).data(), 0) == 1;
  if (command == "delete" && words.size() == 2) return Fat_DeleteFile(ToPath(words[1]).data()) == 1;
  if (words.size() != 3) return false;
  if (command == "rename") return Fat_RenameFile(ToPath(words[1]).data(), ToPath(words[2]).data()) == 1;
  if (command == "move") return Fat_MoveFile(ToPath(words[1]).data(), ToPath(words[2]).data()) == 1;
  if (command == "resize")
    return Resize(words[1], static_cast<unsigned int>(std::strtoul(words[2].c_str(), nullptr, 10)));
  return false;
}

int Change(const char* image, const char* script) {
  std::ifstream file(script);
  if (!file) {
    std::fprintf(stderr, "fatwrite: cannot read %s\n", script);
    return 2;
  }
  CVolume volume(image);
  if (!volume.Mounted()) {
    std::fprintf(stderr, "fatwrite: cannot mount %s\n", image);
    return 2;
  }
  unsigned int nDone = 0;
  for (std::string line; std::getline(file, line);) {
    std::vector<std::string> words(1);
    for (const char c : line) {
      if (c == '\t') {
        words.emplace_back();
      } else {
        words.back() += c;
      }
    }
    if (!Perform(words)) {
      std::printf("CANNOT BE DONE: %s\n", line.c_str());
      return 1;
    }
    ++nDone;
  }
  if (!volume.Unmount()) {
    std::fprintf(stderr, "fatwrite: cannot unmount %s\n", image);
    return 2;
  }
  std::printf("%u changes: made\n", nDone);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string command = argc == 4 ? argv[1] : "";
  if (command == "copy") return Copy(argv[2], argv[3]);
  if (command == "change") return Change(argv[2], argv[3]);
  std::fprintf(stderr, "usage: fatwrite copy IMAGE FOLDER\n       fatwrite change IMAGE SCRIPT\n");
  return 2;
}
