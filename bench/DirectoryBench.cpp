/// @file DirectoryBench.cpp
/// W6 to W9 and W12: many files with long names in one directory are made, opened, listed, renamed and deleted. Times
/// are per file, counted in raw 64-byte pwrite calls. The names take one entry besides the short one, so that 30,000 of
/// them come close to the 65,536 entries that a directory holds; 65,000 files have names that need none.

#include <malloc.h>

#include <cstdio>
#include <map>

#include "Report.h"

namespace {

struct STEP {
  const char* Workload;
  const char* What;
  double Limit;
  double Goal;
};
const STEP STEPS[] = {
    {"W6", "create", 30, 17},         {"W7", "open, cold", 13, 7},     {"W7", "open, hot", 10, 5},
    {"W7", "open, not there", 10, 4}, {"W8", "list, cold", 1.7, 0.85}, {"W8", "list, hot", 0.85, 0.4},
    {"W9", "delete", 24, 12},         {"W12", "rename", 40, 20},
};

struct FIGURE {
  std::vector<double> Ratios;
  TRAFFIC Traffic;
};

enum class NAMES { Long, Short };

std::vector<CPath> Paths(NAMES names, const char* stem, unsigned int count) {
  std::vector<CPath> paths;
  for (unsigned int i = 0; i < count; ++i) {
    char name[64];
    std::snprintf(name, sizeof(name), names == NAMES::Long ? "Directory\\%s %05u.data" : "Directory\\%s%05u.DAT", stem,
                  i);
    paths.emplace_back(name);
  }
  return paths;
}

std::size_t AllocatedBytes() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

class CDirectoryRun {
 public:
  CDirectoryRun(BENCH& bench, unsigned int fatBits, BACKEND backend, NAMES names, unsigned int nFiles)
      : m_Volume{fatBits, backend, fatBits == 32 ? 600ULL * MIB : 200ULL * MIB, fatBits == 32 ? 8u : 16u},
        m_Medium(bench.Directory, m_Volume),
        m_Raw(bench.Directory, {32, BACKEND::File, 64ULL * MIB, 1}),
        m_Names(names),
        m_nFiles(nFiles) {}

  void Round() {
    m_dRawCall = RawCallSeconds(m_Raw);
    std::vector<CPath> paths = Paths(m_Names, "A", m_nFiles);
    std::vector<CPath> renamed = Paths(m_Names, "B", m_nFiles);
    std::vector<CPath> absent = Paths(m_Names, "C", m_nFiles);
    const std::vector<std::uint32_t> order = CRandom(m_nFiles).Order(m_nFiles);
    CPath directory("Directory");
    const auto open = [](unsigned short* path) {
      const int handle = Fat_OpenFile(path);
      Require(handle >= 0, "open");
      Fat_CloseFile(handle);
    };
    const auto notThere = [](unsigned short* path) { Require(Fat_OpenFile(path) == -1, "a name that is not there"); };
    {
      CMounted mounted(m_Medium, &m_Traffic);
      Require(Fat_CreateDir(directory.Get(), 0) == 1, "create directory");
      Step("create", [&] {
        for (CPath& path : paths) {
          const int handle = Fat_CreateFile(path.Get(), 0, 0x20);
          Require(handle >= 0, "create");
          Fat_CloseFile(handle);
        }
      });
    }
    {
      CMounted mounted(m_Medium, &m_Traffic);
      const std::size_t before = AllocatedBytes();
      Step("list, cold", [&] { List(directory); });
      m_nBytesPerEntry = static_cast<double>(AllocatedBytes() - before) / m_nFiles;
      Step("list, hot", [&] { List(directory); });
    }
    {
      CMounted mounted(m_Medium, &m_Traffic);
      StepInOrder("open, cold", paths, order, open);
      StepInOrder("open, hot", paths, order, open);
      StepInOrder("open, not there", absent, order, notThere);
    }
    {
      CMounted mounted(m_Medium, &m_Traffic);
      Step("rename", [&] {
        for (unsigned int i = 0; i < m_nFiles; ++i)
          Require(Fat_RenameFile(paths[i].Get(), renamed[i].Get()) == 1, "rename");
      });
    }
    {
      CMounted mounted(m_Medium, &m_Traffic);
      Step("delete", [&] {
        for (CPath& path : renamed) Require(Fat_DeleteFile(path.Get()) == 1, "delete");
      });
      Require(Fat_DeleteFile(directory.Get()) == 1, "delete directory");
    }
  }

  const VOLUME& Volume() const { return m_Volume; }
  const FIGURE& Figure(const char* what) { return m_Figures[what]; }
  double BytesPerEntry() const { return m_nBytesPerEntry; }
  unsigned long long Checksum() const { return m_Checksum.Value(); }

 private:
  void Step(const char* what, const std::function<void()>& work) {
    m_Traffic = TRAFFIC();
    Note(what, Measure(work));
  }

  // Works on every path in that order. The next paths are brought together outside the time: fetching texts from all
  // over the memory is the host's affair.
  void StepInOrder(const char* what, std::vector<CPath>& paths, const std::vector<std::uint32_t>& order,
                   void (*work)(unsigned short*)) {
    constexpr std::size_t BATCH = 500;
    std::vector<CPath> batch;
    double seconds = 0;
    m_Traffic = TRAFFIC();
    for (std::size_t first = 0; first < order.size(); first += BATCH) {
      batch.clear();
      for (std::size_t i = first; i < order.size() && i < first + BATCH; ++i) batch.push_back(paths[order[i]]);
      seconds += Measure([&] {
        for (CPath& path : batch) work(path.Get());
      });
    }
    Note(what, seconds);
  }

  void Note(const char* what, double seconds) {
    FIGURE& figure = m_Figures[what];
    figure.Ratios.push_back(seconds / m_nFiles / m_dRawCall);
    figure.Traffic = m_Traffic;
  }

  void List(CPath& directory) {
    WIN_FIND_DATA data;
    unsigned int nListed = 1;
    const int handle = Fat_FindFirstFile(directory.Get(), &data);
    Require(handle >= 0, "list");
    while (Fat_FindNextFile(handle, &data) == 1) ++nListed;
    Fat_CloseFindHandle(handle);
    Require(nListed == m_nFiles + 2, "every entry listed");
    m_Checksum.Add(data.cFileName, 32);
  }

  VOLUME m_Volume;
  CMedium m_Medium;
  CMedium m_Raw;
  NAMES m_Names;
  unsigned int m_nFiles;
  double m_dRawCall = 0;
  double m_nBytesPerEntry = 0;
  TRAFFIC m_Traffic;
  CChecksum m_Checksum;
  std::map<std::string, FIGURE> m_Figures;
};

// Returns the ratios by step, in the order of STEPS.
std::vector<double> Measured(BENCH& bench, unsigned int fatBits, BACKEND backend, NAMES names, unsigned int nFiles) {
  CDirectoryRun run(bench, fatBits, backend, names, nFiles);
  for (unsigned int round = 0; round < ROUNDS; ++round) run.Round();
  std::vector<double> ratios;
  const std::string files = std::to_string(nFiles) + (names == NAMES::Long ? " files" : " 8.3 files");
  for (const STEP& step : STEPS) {
    const FIGURE& figure = run.Figure(step.What);
    ratios.push_back(Median(figure.Ratios));
    bench.Report.Add({step.Workload, std::string(step.What) + ", " + files + ", per file", run.Volume().Name(),
                      ratios.back(), "64-byte pwrite", step.Limit, step.Goal, figure.Traffic, run.Checksum()});
  }
  bench.Report.Add({"W8",
                    "memory of the loaded directory, " + files,
                    run.Volume().Name(),
                    run.BytesPerEntry(),
                    "bytes per entry",
                    sizeof(void*) == 4 ? 160.0 : 0.0,
                    0,
                    {},
                    run.Checksum()});
  return ratios;
}

// The larger count against the smaller one.
void Growth(BENCH& bench, NAMES names, const std::vector<unsigned int>& counts) {
  std::vector<std::vector<double>> ratios;
  ratios.reserve(counts.size());
  for (unsigned int nFiles : counts) ratios.push_back(Measured(bench, 32, BACKEND::File, names, nFiles));
  for (unsigned int i = 0; i < std::size(STEPS); ++i) {
    bench.Report.Add({STEPS[i].Workload,
                      std::string(STEPS[i].What) + ", growth",
                      "FAT32 file",
                      ratios.back()[i] / ratios.front()[i],
                      std::to_string(counts.back()) + " against " + std::to_string(counts.front()),
                      1.5,
                      0,
                      {},
                      0});
  }
}

}  // namespace

void DirectoryWorkloads(BENCH& bench) {
  Growth(bench, NAMES::Long, {1000, 10000, 30000});
  Growth(bench, NAMES::Short, {1000, 10000, 65000});
  Measured(bench, 32, BACKEND::Memory, NAMES::Long, 10000);
  Measured(bench, 16, BACKEND::File, NAMES::Long, 10000);
  Measured(bench, 16, BACKEND::Memory, NAMES::Long, 10000);
}
