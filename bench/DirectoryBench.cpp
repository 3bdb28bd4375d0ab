/// @file DirectoryBench.cpp
/// W6 to W9 and W12: many files with long names in one directory are made, opened, listed, renamed and deleted. Times
/// are per file, counted in raw 64-byte pwrite calls. The names take one entry besides the short one, so that 30,000 of
/// them come close to the 65,536 entries that a directory holds.

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

std::string Name(const char* stem, unsigned int i) {
  char name[64];
  std::snprintf(name, sizeof(name), "Directory\\%s %05u.data", stem, i);
  return name;
}

std::vector<CPath> Paths(const char* stem, unsigned int count) {
  std::vector<CPath> paths;
  for (unsigned int i = 0; i < count; ++i) paths.emplace_back(Name(stem, i));
  return paths;
}

std::size_t AllocatedBytes() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

class CDirectoryRun {
 public:
  CDirectoryRun(BENCH& bench, unsigned int fatBits, BACKEND backend, unsigned int nFiles)
      : m_Volume{fatBits, backend, fatBits == 32 ? 600ULL * MIB : 200ULL * MIB, fatBits == 32 ? 8u : 16u},
        m_Medium(bench.Directory, m_Volume),
        m_Raw(bench.Directory, {32, BACKEND::File, 64ULL * MIB, 1}),
        m_nFiles(nFiles) {}

  void Round() {
    m_dRawCall = RawCallSeconds(m_Raw);
    std::vector<CPath> paths = Paths("A", m_nFiles);
    std::vector<CPath> renamed = Paths("B", m_nFiles);
    std::vector<CPath> absent = Paths("C", m_nFiles);
    const std::vector<std::uint32_t> order = CRandom(m_nFiles).Order(m_nFiles);
    CPath directory("Directory");
    const auto openAll = [&] {
      for (std::uint32_t i : order) {
        const int handle = Fat_OpenFile(paths[i].Get());
        Require(handle >= 0, "open");
        Fat_CloseFile(handle);
      }
    };
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
      Step("open, cold", openAll);
      Step("open, hot", openAll);
      Step("open, not there", [&] {
        for (CPath& path : absent) Require(Fat_OpenFile(path.Get()) == -1, "a name that is not there");
      });
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
    FIGURE& figure = m_Figures[what];
    figure.Ratios.push_back(Measure(work) / m_nFiles / m_dRawCall);
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
  unsigned int m_nFiles;
  double m_dRawCall = 0;
  double m_nBytesPerEntry = 0;
  TRAFFIC m_Traffic;
  CChecksum m_Checksum;
  std::map<std::string, FIGURE> m_Figures;
};

// Returns the ratios by step, in the order of STEPS.
std::vector<double> Measured(BENCH& bench, unsigned int fatBits, BACKEND backend, unsigned int nFiles) {
  CDirectoryRun run(bench, fatBits, backend, nFiles);
  for (unsigned int round = 0; round < ROUNDS; ++round) run.Round();
  std::vector<double> ratios;
  for (const STEP& step : STEPS) {
    const FIGURE& figure = run.Figure(step.What);
    ratios.push_back(Median(figure.Ratios));
    bench.Report.Add({step.Workload, std::string(step.What) + ", " + std::to_string(nFiles) + " files, per file",
                      run.Volume().Name(), ratios.back(), "64-byte pwrite", step.Limit, step.Goal, figure.Traffic,
                      run.Checksum()});
  }
  bench.Report.Add({"W8",
                    "memory of the loaded directory, " + std::to_string(nFiles) + " files",
                    run.Volume().Name(),
                    run.BytesPerEntry(),
                    "bytes per entry",
                    sizeof(void*) == 4 ? 160.0 : 0.0,
                    0,
                    {},
                    run.Checksum()});
  return ratios;
}

}  // namespace

void DirectoryWorkloads(BENCH& bench) {
  std::map<unsigned int, std::vector<double>> byCount;
  for (unsigned int nFiles : {1000u, 10000u, 30000u}) byCount[nFiles] = Measured(bench, 32, BACKEND::File, nFiles);
  for (unsigned int i = 0; i < std::size(STEPS); ++i) {
    bench.Report.Add({STEPS[i].Workload,
                      std::string(STEPS[i].What) + ", growth",
                      "FAT32 file",
                      byCount[30000][i] / byCount[1000][i],
                      "30000 against 1000",
                      1.5,
                      0,
                      {},
                      0});
  }
  Measured(bench, 32, BACKEND::Memory, 10000);
  Measured(bench, 16, BACKEND::File, 10000);
  Measured(bench, 16, BACKEND::Memory, 10000);
}
