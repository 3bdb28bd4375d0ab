/// @file fatlib_bench.cpp
/// Measures the library against raw calls on the same page-cached image, in the same run.
///
///   fatlib_bench [--dir DIRECTORY] [--disk DIRECTORY] [--json FILE] [--tools DIRECTORY] [WORKLOAD ...]
///
/// --dir says where the images go (default /dev/shm, or the current directory), --disk in which folder on a disk the
/// streams are measured once more (default the current directory), --json where the results are written as JSON too,
/// --tools where fatwrite is (without it the whole-tree jobs are left out, and said to be). Workloads: mount, stream,
/// random, directory, tree, growth, text, command; default all.
///
/// Every figure is CPU time, the median of rounds in which the library and its baseline take turns; a ratio is the
/// library's time divided by that of the baseline named in the line. The exit status tells only whether the work was
/// done rightly: a figure over its limit is marked "!" and judged by the reader, because machines are noisy.

#include <sys/stat.h>
#include <sys/vfs.h>

#include <cstdio>
#include <cstring>

#include "Report.h"

namespace {

struct WORKLOAD {
  const char* Name;
  void (*pfnRun)(BENCH& bench);
};

constexpr WORKLOAD WORKLOADS[] = {
    {"mount", MountWorkloads},         {"stream", StreamWorkloads},   {"random", RandomWorkloads},
    {"directory", DirectoryWorkloads}, {"tree", TreeWorkloads},       {"growth", GrowthWorkloads},
    {"text", TextWorkloads},           {"command", CommandWorkloads},
};

bool IsInMemory(const std::string& directory) {
  constexpr unsigned int TMPFS = 0x01021994;
  struct statfs info = {};
  return statfs(directory.c_str(), &info) == 0 && static_cast<unsigned int>(info.f_type) == TMPFS;
}

}  // namespace

int main(int argc, char** argv) {
  struct stat info = {};
  std::string directory = stat("/dev/shm", &info) == 0 ? "/dev/shm" : ".";
  std::string disk = ".";
  std::string json;
  std::string tools;
  std::vector<std::string> wanted;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    std::string* const value = argument == "--dir"     ? &directory
                               : argument == "--disk"  ? &disk
                               : argument == "--json"  ? &json
                               : argument == "--tools" ? &tools
                                                       : nullptr;
    if (value == nullptr) {
      wanted.push_back(argument);
    } else if (++i < argc) {
      *value = argv[i];
    } else {
      Fail(argument + " needs a value");
    }
  }
  for (const std::string& name : wanted) {
    bool known = false;
    for (const WORKLOAD& workload : WORKLOADS) known = known || name == workload.Name;
    if (!known) Fail("no workload is called " + name);
  }

  CReport report(json);
  if (IsInMemory(disk)) {
    std::printf("%s is no disk: streams are measured in %s only\n", disk.c_str(), directory.c_str());
    disk.clear();
  }
  BENCH bench = {directory, disk, tools, report};
  CReport::Heading(directory);
  Fat_LibInitialize();
  for (const WORKLOAD& workload : WORKLOADS) {
    bool run = wanted.empty();
    for (const std::string& name : wanted) run = run || name == workload.Name;
    if (!run) continue;
    if (workload.pfnRun == CommandWorkloads && tools.empty()) {
      std::printf("the whole-tree jobs are left out: --tools does not say where fatwrite is\n");
      continue;
    }
    workload.pfnRun(bench);
  }
  Require(Fat_LibTerminate() == 1, "every handle closed");
  report.Finish(directory);
  return 0;
}
