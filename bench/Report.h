/// @file Report.h
/// The table that a run prints, a line per workload and volume, and the same as JSON.

#ifndef FATLIB_BENCH_REPORT_H
#define FATLIB_BENCH_REPORT_H

#include <string>
#include <vector>

#include "Workbench.h"

/// What a line of the table says.
struct RESULT {
  std::string Workload;             ///< "W2"
  std::string What;                 ///< "write 256 MiB in 64 KiB requests, with unmount"
  std::string Volume;               ///< "FAT32 file"
  double Ratio = 0;                 ///< the library's time divided by the baseline's
  std::string Baseline;             ///< what the ratio is counted in
  double Limit = 0;                 ///< at most this; 0: no limit
  double Goal = 0;                  ///< what a careful implementation reaches; 0: none
  TRAFFIC Traffic;                  ///< of one round
  unsigned long long Checksum = 0;  ///< the same in every run that did the same work
};

class CReport {
 public:
  /// @param jsonPath  empty: no file is written
  explicit CReport(std::string jsonPath) : m_JsonPath(std::move(jsonPath)) {}
  static void Heading(const std::string& directory);
  /// Prints the line at once.
  void Add(const RESULT& result);
  /// Writes the JSON file and a last line.
  void Finish(const std::string& directory);

 private:
  std::string m_JsonPath;
  std::vector<RESULT> m_Results;
};

/// What the workloads are given.
struct BENCH {
  std::string Directory;  ///< where images go
  std::string Disk;       ///< a folder on a disk, where streams are measured once more; empty: they are not
  std::string Tools;      ///< where fatwrite is, empty: unknown
  CReport& Report;
};

void MountWorkloads(BENCH& bench);      // W1
void StreamWorkloads(BENCH& bench);     // W2, W3
void RandomWorkloads(BENCH& bench);     // W4, W5
void DirectoryWorkloads(BENCH& bench);  // W6 to W9, W12
void TreeWorkloads(BENCH& bench);       // W10
void GrowthWorkloads(BENCH& bench);     // W11
void TextWorkloads(BENCH& bench);       // W13
void CommandWorkloads(BENCH& bench);    // whole trees by a command, against mcopy

#endif  // FATLIB_BENCH_REPORT_H
