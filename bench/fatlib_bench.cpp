/// @file fatlib_bench.cpp
/// Measures the library against raw calls on the same page-cached image, in the same run.
///
///   fatlib_bench [--dir DIRECTORY] [WORKLOAD ...]     --dir: where the images go, default /dev/shm or the current
///   directory
///
/// Every figure is CPU seconds, the median of three rounds in which the library and its baseline take turns. A ratio is
/// the library's time divided by that of the baseline named in the line. Times per file count in raw 64-byte pwrite
/// calls. The exit status tells only whether the work was done rightly: no figure is judged here but beside its limit
/// in the table.

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <map>

#include "Workbench.h"

namespace {

constexpr unsigned int ROUNDS = 3;
constexpr unsigned int MIB = 1024 * 1024;
constexpr unsigned int RAW_CALLS = 200000;

std::string s_Directory;

void PrintRow(const std::string& name, double value, const char* unit, double limit) {
  if (limit > 0) {
    std::printf("%-58s %10.3f %-22s limit %.2f\n", name.c_str(), value, unit, limit);
  } else {
    std::printf("%-58s %10.3f %-22s\n", name.c_str(), value, unit);
  }
  std::fflush(stdout);
}

/// CPU seconds of one raw 64-byte pwrite call on an image file.
double RawCallSeconds(const CRawFile& raw) {
  unsigned char bytes[64];
  std::memset(bytes, 0x55, sizeof(bytes));
  // The volume's last sectors, which no workload uses.
  return Measure([&] {
           for (unsigned int i = 0; i < RAW_CALLS; ++i) raw.Write(bytes, sizeof(bytes), 16ULL * MIB + i % 1024 * 64ULL);
         }) /
         RAW_CALLS;
}

std::string LongName(unsigned int i) {
  char name[64];
  std::snprintf(name, sizeof(name), "Name %06u.d", i);
  return name;
}

void WriteFile(const std::string& name, CBuffer& buffer, unsigned int bytes, unsigned int request) {
  CPath path(name);
  const int handle = Fat_CreateFile(path.Get(), bytes, 0x20);
  Require(handle >= 0, "create");
  for (unsigned int offset = 0; offset < bytes; offset += request) {
    unsigned int done = 0;
    Require(Fat_WriteFileEx(handle, offset, request, buffer.Data(), &done) == 1, "write");
  }
  Require(Fat_CloseFile(handle) == 1, "close");
}

// Reads a 256 MiB file in 1 MiB requests, library cold, against pread and one memcpy of the same bytes; and the same
// for writing, unmount included.
void Sequential() {
  constexpr unsigned int BYTES = 256 * MIB;
  constexpr unsigned int REQUEST = MIB;
  CImage image(s_Directory, 600ULL * MIB, "-F 32 -s 8");
  CImage rawImage(s_Directory, 600ULL * MIB, "-F 32 -s 8");
  CRawFile raw(rawImage.Path());
  CBuffer buffer(REQUEST);
  CBuffer copy(REQUEST);
  for (unsigned int offset = 0; offset < BYTES; offset += REQUEST)
    raw.Write(buffer.Data(), REQUEST, 16ULL * MIB + offset);
  {
    CMounted mounted(image);
    WriteFile("big", buffer, BYTES, REQUEST);
  }
  std::vector<double> readRatios;
  std::vector<double> writeRatios;
  for (unsigned int round = 0; round < ROUNDS; ++round) {
    const double rawRead = Measure([&] {
      for (unsigned int offset = 0; offset < BYTES; offset += REQUEST) {
        raw.Read(buffer.Data(), REQUEST, 16ULL * MIB + offset);
        std::memcpy(copy.Data(), buffer.Data(), REQUEST);
      }
    });
    {
      CMounted mounted(image);
      CPath path("big");
      const int handle = Fat_OpenFile(path.Get());
      Require(handle >= 0, "open");
      CBuffer target(REQUEST);
      const double read = Measure([&] {
        for (unsigned int offset = 0; offset < BYTES; offset += REQUEST) {
          unsigned int done = 0;
          Require(Fat_ReadFileEx(handle, offset, REQUEST, target.Data(), &done) == 1, "read");
        }
      });
      Require(std::memcmp(target.Data(), copy.Data(), REQUEST) == 0, "contents read back");
      Require(Fat_CloseFile(handle) == 1, "close");
      readRatios.push_back(read / rawRead);
    }
    const double rawWrite = Measure([&] {
      for (unsigned int offset = 0; offset < BYTES; offset += REQUEST) {
        std::memcpy(copy.Data(), buffer.Data(), REQUEST);
        raw.Write(copy.Data(), REQUEST, 16ULL * MIB + offset);
      }
    });
    {
      CMounted mounted(image);
      CPath path("big");
      const int handle = Fat_OpenFile(path.Get());
      Require(handle >= 0, "open");
      const double write = Measure([&] {
        for (unsigned int offset = 0; offset < BYTES; offset += REQUEST) {
          unsigned int done = 0;
          Require(Fat_WriteFileEx(handle, offset, REQUEST, buffer.Data(), &done) == 1, "write");
        }
        Require(Fat_CloseFile(handle) == 1, "close");
        mounted.Unmount();
      });
      writeRatios.push_back(write / rawWrite);
    }
  }
  PrintRow("sequential read, 256 MiB in 1 MiB requests", Median(readRatios), "x (pread + memcpy)", 1.4);
  PrintRow("sequential write, 256 MiB in 1 MiB requests, unmount", Median(writeRatios), "x (pwrite + memcpy)", 1.4);
}

// Mounts a FAT32 volume against reading its FAT with pread in 256 KiB pieces.
void MountVolume(unsigned int millionClusters) {
  const unsigned long long clusters = millionClusters * 1000000ULL;
  CImage image(s_Directory, clusters * 512 + 256ULL * MIB, "-F 32 -s 1");
  CRawFile raw(image.Path());
  CBuffer buffer(std::size_t{256} * 1024);
  std::vector<double> ratios;
  for (unsigned int round = 0; round < ROUNDS; ++round) {
    const double rawRead = Measure([&] {
      for (unsigned long long offset = 0; offset < clusters * 4; offset += buffer.Size()) {
        raw.Read(buffer.Data(), buffer.Size(), 16384 + offset);
      }
    });
    CMounted* mounted = nullptr;
    const double mount = Measure([&] { mounted = new CMounted(image); });
    delete mounted;
    ratios.push_back(mount / rawRead);
  }
  PrintRow("mount, FAT32, " + std::to_string(millionClusters) + " million clusters", Median(ratios),
           "x pread of its FAT", 5);
}

// Per file: create empty files with long names in one directory, open each once, open one again and again, list,
// delete.
void Directory(unsigned int nFiles, std::map<std::string, double>& perFile) {
  CImage image(s_Directory, 600ULL * MIB, "-F 32 -s 8");
  CImage rawImage(s_Directory, 600ULL * MIB, "-F 32 -s 8");
  CRawFile raw(rawImage.Path());
  std::map<std::string, std::vector<double>> rounds;
  for (unsigned int round = 0; round < ROUNDS; ++round) {
    const double rawCall = RawCallSeconds(raw);
    CMounted mounted(image);
    const auto perFileOf = [&](const char* what, unsigned int count, const std::function<void()>& work) {
      rounds[what].push_back(Measure(work) / count / rawCall);
    };
    CPath directory("Directory");
    Require(Fat_CreateDir(directory.Get(), 0) == 1, "create directory");
    std::vector<CPath> paths;
    for (unsigned int i = 0; i < nFiles; ++i) paths.emplace_back("Directory\\" + LongName(i));
    perFileOf("create", nFiles, [&] {
      for (CPath& path : paths) {
        const int handle = Fat_CreateFile(path.Get(), 0, 0x20);
        Require(handle >= 0, "create");
        Fat_CloseFile(handle);
      }
    });
    perFileOf("open", nFiles, [&] {
      for (CPath& path : paths) {
        const int handle = Fat_OpenFile(path.Get());
        Require(handle >= 0, "open");
        Fat_CloseFile(handle);
      }
    });
    perFileOf("open cached", RAW_CALLS, [&] {
      for (unsigned int i = 0; i < RAW_CALLS; ++i) {
        const int handle = Fat_OpenFile(paths[nFiles - 1].Get());
        Require(handle >= 0, "open");
        Fat_CloseFile(handle);
      }
    });
    perFileOf("list", nFiles, [&] {
      WIN_FIND_DATA data;
      unsigned int nListed = 1;
      const int handle = Fat_FindFirstFile(directory.Get(), &data);
      Require(handle >= 0, "list");
      while (Fat_FindNextFile(handle, &data) == 1) ++nListed;
      Fat_CloseFindHandle(handle);
      Require(nListed == nFiles + 2, "every entry listed");
    });
    perFileOf("delete", nFiles, [&] {
      for (CPath& path : paths) Require(Fat_DeleteFile(path.Get()) == 1, "delete");
    });
    Require(Fat_DeleteFile(directory.Get()) == 1, "delete directory");
  }
  for (const auto& [what, values] : rounds) perFile[what] = Median(values);
}

void Directories() {
  const char* const whats[] = {"create", "open", "open cached", "list", "delete"};
  std::map<unsigned int, std::map<std::string, double>> results;
  for (unsigned int nFiles : {1000u, 10000u, 30000u}) {
    Directory(nFiles, results[nFiles]);
    for (const char* what : whats) {
      const double limit = std::strcmp(what, "open cached") == 0 ? 5 : std::strcmp(what, "list") == 0 ? 1 : 0;
      PrintRow(std::string(what) + ", per file, " + std::to_string(nFiles) + " in one directory", results[nFiles][what],
               "x 64-byte pwrite", limit);
    }
  }
  for (const char* what : whats) {
    PrintRow(std::string(what) + ", per file, 30000 against 1000", results[30000][what] / results[1000][what], "x", 2);
  }
}

struct WORKLOAD {
  const char* Name;
  std::function<void()> Run;
};

}  // namespace

int main(int argc, char** argv) {
  const WORKLOAD workloads[] = {
      {"sequential", Sequential},
      {"mount",
       [] {
         MountVolume(2);
         MountVolume(16);
       }},
      {"directory", Directories},
  };
  struct stat info = {};
  s_Directory = stat("/dev/shm", &info) == 0 ? "/dev/shm" : ".";
  std::vector<std::string> wanted;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--dir") == 0 && i + 1 < argc) {
      s_Directory = argv[++i];
    } else {
      wanted.emplace_back(argv[i]);
    }
  }
  for (const std::string& name : wanted) {
    bool known = false;
    for (const WORKLOAD& workload : workloads) known = known || name == workload.Name;
    if (!known) Fail("no workload is called " + name + "; there are: sequential, mount, directory");
  }
  std::printf("fatlib_bench: %zu-bit library, images in %s\n", sizeof(void*) * 8, s_Directory.c_str());
  Fat_LibInitialize();
  for (const WORKLOAD& workload : workloads) {
    bool run = wanted.empty();
    for (const std::string& name : wanted) run = run || name == workload.Name;
    if (run) workload.Run();
  }
  return Fat_LibTerminate() == 1 ? 0 : 1;
}
