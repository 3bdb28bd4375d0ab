/// @file TreeBench.cpp
/// W10: a tree of 100 directories with 5,000 files of 8 KiB is written and, mounted anew, read.

#include <cstring>

#include "Report.h"

namespace {

constexpr unsigned int DIRECTORIES = 100;
constexpr unsigned int FILES = 5000;
constexpr unsigned int FILE_BYTES = 8 * KIB;

std::string Path(unsigned int i) {
  return "Directory " + std::to_string(i / (FILES / DIRECTORIES)) + "\\Some file " + std::to_string(i) + ".data";
}

void Tree(BENCH& bench, unsigned int fatBits, BACKEND backend) {
  const VOLUME volume = {fatBits, backend, fatBits == 32 ? 320ULL * MIB : 200ULL * MIB, 8};
  CBuffer buffer(FILE_BYTES);
  CBuffer target(FILE_BYTES);
  const auto rawOffset = [](unsigned int i) { return 16ULL * MIB + std::uint64_t{i} * FILE_BYTES; };
  std::vector<double> writes;
  std::vector<double> reads;
  TRAFFIC written;
  TRAFFIC readBack;
  CChecksum checksum;
  for (unsigned int round = 0; round < ROUNDS; ++round) {
    CMedium medium(bench.Directory, volume);
    CMedium raw(bench.Directory, volume);  // the library and the raw calls both write pages that were never touched
    const double rawWrite = Measure([&] {
      for (unsigned int i = 0; i < FILES; ++i) raw.Write(buffer.Data(), FILE_BYTES, rawOffset(i));
    });
    written = TRAFFIC();
    {
      CMounted mounted(medium, &written);
      const double write = Measure([&] {
        for (unsigned int i = 0; i < FILES; ++i) {
          CHandle handle(CHandle::Create(Path(i), FILE_BYTES));
          handle.Write(0, FILE_BYTES, buffer.Data());
        }
        mounted.Unmount();
      });
      writes.push_back(write / rawWrite);
    }
    const double rawRead = Measure([&] {
      for (unsigned int i = 0; i < FILES; ++i) raw.Read(target.Data(), FILE_BYTES, rawOffset(i));
    });
    readBack = TRAFFIC();
    CMounted mounted(medium, &readBack);
    const double read = Measure([&] {
      for (unsigned int i = 0; i < FILES; ++i) {
        CHandle handle(CHandle::Open(Path(i)));
        handle.Read(0, FILE_BYTES, target.Data());
      }
    });
    reads.push_back(read / rawRead);
    Require(std::memcmp(target.Data(), buffer.Data(), FILE_BYTES) == 0, "contents read back");
    checksum.Add(target.Data(), FILE_BYTES);
  }
  const bool file = backend == BACKEND::File;
  bench.Report.Add({"W10", "write 5000 files in 100 directories, unmount", volume.Name(), Median(writes),
                    "8 KiB raw writes", file ? 11.0 : 0.0, file ? 8.0 : 0.0, written, checksum.Value()});
  bench.Report.Add({"W10", "mount, read 5000 files in 100 directories", volume.Name(), Median(reads), "8 KiB raw reads",
                    file ? 5.5 : 0.0, file ? 3.3 : 0.0, readBack, checksum.Value()});
}

}  // namespace

void TreeWorkloads(BENCH& bench) {
  for (unsigned int fatBits : {16u, 32u}) {
    for (const BACKEND backend : {BACKEND::File, BACKEND::Memory}) Tree(bench, fatBits, backend);
  }
}
