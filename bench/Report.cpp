/// @file Report.cpp

#include "Report.h"

#include <cstdio>

namespace {

// Names and texts of this program are plain ASCII without quotes.
std::string Quoted(const std::string& text) { return '"' + text + '"'; }

}  // namespace

void CReport::Heading(const std::string& directory) {
  std::printf("fatlib_bench: %zu-bit library, images in %s; medians of %u rounds, CPU time\n\n", sizeof(void*) * 8,
              directory.c_str(), ROUNDS);
  std::printf("%-4s %-50s %-12s %9s  %-24s %6s %6s %10s %13s  %s\n", "", "workload", "volume", "ratio", "to", "limit",
              "goal", "transfers", "bytes", "checksum");
}

void CReport::Add(const RESULT& result) {
  m_Results.push_back(result);
  const auto limit = [](double value) {
    char text[16] = "";
    if (value > 0) std::snprintf(text, sizeof(text), "%.2f", value);
    return std::string(text);
  };
  const TRAFFIC& traffic = result.Traffic;
  std::printf("%-4s %-50s %-12s %9.3f%c %-24s %6s %6s %10llu %13llu  %016llx\n", result.Workload.c_str(),
              result.What.c_str(), result.Volume.c_str(), result.Ratio,
              result.Limit > 0 && result.Ratio > result.Limit ? '!' : ' ', result.Baseline.c_str(),
              limit(result.Limit).c_str(), limit(result.Goal).c_str(), traffic.Reads + traffic.Writes,
              traffic.BytesRead + traffic.BytesWritten, result.Checksum);
  std::fflush(stdout);
}

void CReport::Finish(const std::string& directory) {
  unsigned int over = 0;
  for (const RESULT& result : m_Results) over += result.Limit > 0 && result.Ratio > result.Limit ? 1 : 0;
  std::printf("\n%zu figures, %u over their limit\n", m_Results.size(), over);
  if (m_JsonPath.empty()) return;
  std::FILE* file = std::fopen(m_JsonPath.c_str(), "w");
  if (file == nullptr) Fail("cannot write " + m_JsonPath);
  std::fprintf(file,
               "{\n  \"version\": 1,\n  \"bits\": %zu,\n  \"directory\": %s,\n  \"rounds\": %u,\n  \"results\": [",
               sizeof(void*) * 8, Quoted(directory).c_str(), ROUNDS);
  const char* separator = "\n";
  for (const RESULT& result : m_Results) {
    const TRAFFIC& traffic = result.Traffic;
    std::fprintf(file,
                 "%s    {\"workload\": %s, \"what\": %s, \"volume\": %s, \"ratio\": %.4f, \"baseline\": %s, "
                 "\"limit\": %.2f, \"goal\": %.2f, \"reads\": %llu, \"writes\": %llu, \"bytes_read\": %llu, "
                 "\"bytes_written\": %llu, \"checksum\": \"%016llx\"}",
                 separator, Quoted(result.Workload).c_str(), Quoted(result.What).c_str(), Quoted(result.Volume).c_str(),
                 result.Ratio, Quoted(result.Baseline).c_str(), result.Limit, result.Goal, traffic.Reads,
                 traffic.Writes, traffic.BytesRead, traffic.BytesWritten, result.Checksum);
    separator = ",\n";
  }
  std::fprintf(file, "\n  ]\n}\n");
  if (std::fclose(file) != 0) Fail("cannot write " + m_JsonPath);
}
