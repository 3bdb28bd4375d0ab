/// @file GrowthBench.cpp
/// W11: one file grows by 64 KiB a thousand times on a volume whose free space lies in pieces of 16 KiB, each step
/// written at once.

#include "Report.h"

namespace {

constexpr unsigned int STEPS = 1000;
constexpr unsigned int STEP_BYTES = 64 * KIB;
constexpr unsigned int PIECE = 16 * KIB;

// Takes every other 16 KiB of the volume by marking them in both FATs, as files of other systems would.
void Fragment(CMedium& medium, const VOLUME& volume) {
  const unsigned int clusterBytes = volume.SectorsPerCluster * 512;
  const unsigned int perPiece = PIECE / clusterBytes;
  const unsigned int entryBytes = volume.FatBits / 8;
  CBuffer fat(static_cast<std::size_t>(medium.FatBytes()));
  medium.Read(fat.Data(), fat.Size(), medium.FatOffset());
  const unsigned int nClusters =
      static_cast<unsigned int>((medium.Bytes() - medium.FatOffset() - 2 * medium.FatBytes()) / clusterBytes);
  for (unsigned int cluster = 16; cluster < nClusters; ++cluster) {
    if (cluster / perPiece % 2 == 0) continue;
    for (unsigned int i = 0; i < entryBytes; ++i) {
      fat.Data()[std::size_t{cluster} * entryBytes + i] = i == 3 ? 0x0F : 0xFF;
    }
  }
  for (unsigned int copy = 0; copy < 2; ++copy) {
    medium.Write(fat.Data(), fat.Size(), medium.FatOffset() + copy * medium.FatBytes());
  }
}

double Grow(BENCH& bench, unsigned int fatBits, BACKEND backend, unsigned int mebibytes, unsigned int sectorsPerCluster,
            unsigned int steps) {
  const VOLUME volume = {fatBits, backend, std::uint64_t{mebibytes} * MIB, sectorsPerCluster};
  CMedium medium(bench.Directory, volume);
  CMedium raw(bench.Directory, {32, backend, 320ULL * MIB, 8});
  Fragment(medium, volume);
  CBuffer buffer(STEP_BYTES);
  const auto rawPass = [&] {
    for (unsigned int i = 0; i < steps * (STEP_BYTES / PIECE); ++i) {
      raw.Write(buffer.Data(), PIECE, 16ULL * MIB + std::uint64_t{i} * 2 * PIECE);
    }
  };
  rawPass();
  std::vector<double> ratios;
  TRAFFIC traffic;
  CChecksum checksum;
  for (unsigned int round = 0; round <= ROUNDS; ++round) {
    const double rawWrites = Measure(rawPass);
    traffic = TRAFFIC();
    CMounted mounted(medium, &traffic);
    { CHandle other(CHandle::Create("other", 1)); }  // the bitmap of free clusters is there before the clock starts
    Require(Fat_DeleteFile(CPath("other").Get()) == 1, "delete");
    const double ours = Measure([&] {
      {
        CHandle handle(CHandle::Create("growing", 0));
        for (unsigned int i = 1; i <= steps; ++i) {
          handle.SetSize(i * STEP_BYTES);
          handle.Write(std::uint64_t{i - 1} * STEP_BYTES, STEP_BYTES, buffer.Data());
        }
      }
      mounted.Unmount();
    });
    // The first round pays for pages that were never touched.
    if (round > 0) ratios.push_back(ours / rawWrites);
    CMounted again(medium);
    {
      CHandle handle(CHandle::Open("growing"));
      handle.Read(std::uint64_t{steps - 1} * STEP_BYTES, STEP_BYTES, buffer.Data());
    }
    checksum.Add(buffer.Data(), STEP_BYTES);
    Require(Fat_DeleteFile(CPath("growing").Get()) == 1, "delete");
  }
  const bool judged = backend == BACKEND::File && steps == STEPS;
  bench.Report.Add({"W11",
                    "grow by 64 KiB " + std::to_string(steps) + " times, " + std::to_string(mebibytes) + " MiB volume",
                    volume.Name(), Median(ratios), "16 KiB raw writes", judged ? 2.8 : 0.0, judged ? 1.9 : 0.0, traffic,
                    checksum.Value()});
  return Median(ratios);
}

}  // namespace

void GrowthWorkloads(BENCH& bench) {
  const double smallVolume = Grow(bench, 32, BACKEND::File, 320, 8, STEPS);
  Grow(bench, 32, BACKEND::File, 1280, 8, STEPS);
  const double largeVolume = Grow(bench, 32, BACKEND::File, 5120, 8, STEPS);
  bench.Report.Add({"W11",
                    "growing, 16 times larger volume",
                    "FAT32 file",
                    largeVolume / smallVolume,
                    "5120 MiB against 320",
                    1.5,
                    0,
                    {},
                    0});
  const double few = Grow(bench, 32, BACKEND::File, 320, 8, STEPS / 4);
  bench.Report.Add(
      {"W11", "growing, 4 times as many steps", "FAT32 file", smallVolume / few, "per step", 1.5, 0, {}, 0});
  Grow(bench, 16, BACKEND::File, 512, 32, STEPS);
  Grow(bench, 16, BACKEND::Memory, 512, 32, STEPS);
  Grow(bench, 32, BACKEND::Memory, 320, 8, STEPS);
}
