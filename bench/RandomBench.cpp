/// @file RandomBench.cpp
/// W4 and W5: random 4 KiB requests in a working set that fits the block cache (48 MiB) and in one that does not
/// (512 MiB).

#include <cstring>

#include "Report.h"

namespace {

constexpr unsigned int PIECE = 4 * KIB;
constexpr unsigned int BLOCK = 256 * KIB;
constexpr unsigned int SMALL_SET = 48 * MIB;
constexpr unsigned int LARGE_SET = 512 * MIB;
constexpr unsigned int SMALL_REQUESTS = 200000;
constexpr unsigned int LARGE_REQUESTS = 4000;

void MakeFile(CMedium& medium, unsigned int bytes) {
  CMounted mounted(medium);
  CBuffer buffer(MIB);
  buffer.MakeBinary();
  CHandle handle(CHandle::Create("data", bytes));
  for (unsigned int offset = 0; offset < bytes; offset += MIB) handle.Write(offset, MIB, buffer.Data());
}

std::vector<std::uint32_t> Offsets(unsigned int bytes, unsigned int count) {
  CRandom random(bytes);
  std::vector<std::uint32_t> offsets(count);
  for (std::uint32_t& offset : offsets) offset = random.Below(bytes / PIECE) * PIECE;
  return offsets;
}

void SmallSet(BENCH& bench, const VOLUME& volume) {
  CMedium medium(bench.Directory, volume);
  CMedium raw(bench.Directory, volume);
  MakeFile(medium, SMALL_SET);
  CBuffer memory(SMALL_SET);
  CBuffer piece(PIECE);
  const std::vector<std::uint32_t> reads = Offsets(SMALL_SET, SMALL_REQUESTS);
  std::vector<std::uint32_t> pieces = CRandom(5).Order(SMALL_SET / PIECE);
  const auto rawPass = [&](bool write) {
    for (unsigned int offset = 0; offset < SMALL_SET; offset += BLOCK) {
      if (write) {
        raw.Write(memory.Data() + offset, BLOCK, 16ULL * MIB + offset);
      } else {
        raw.Read(memory.Data() + offset, BLOCK, 16ULL * MIB + offset);
      }
    }
  };
  rawPass(true);
  std::vector<double> readRatios;
  std::vector<double> writeRatios;
  TRAFFIC readTraffic;
  TRAFFIC writeTraffic;
  CChecksum checksum;
  for (unsigned int round = 0; round < ROUNDS; ++round) {
    const double copies = Measure([&] {
      for (std::uint32_t offset : reads) std::memcpy(piece.Data(), memory.Data() + offset, PIECE);
    });
    {
      readTraffic = TRAFFIC();
      CMounted mounted(medium, &readTraffic);
      CHandle handle(CHandle::Open("data"));
      for (unsigned int offset = 0; offset < SMALL_SET; offset += BLOCK) handle.Read(offset, PIECE, piece.Data());
      readRatios.push_back(Measure([&] {
                             for (std::uint32_t offset : reads) handle.Read(offset, PIECE, piece.Data());
                           }) /
                           copies);
      checksum.Add(piece.Data(), PIECE);
    }
    const double overwrites = Measure([&] {
      rawPass(false);
      for (std::uint32_t i : pieces) std::memcpy(memory.Data() + std::size_t{i} * PIECE, piece.Data(), PIECE);
      rawPass(true);
    });
    {
      writeTraffic = TRAFFIC();
      CMounted mounted(medium, &writeTraffic);
      const double ours = Measure([&] {
        {
          CHandle handle(CHandle::Open("data"));
          for (std::uint32_t i : pieces) handle.Write(std::uint64_t{i} * PIECE, PIECE, piece.Data());
        }
        mounted.Unmount();
      });
      writeRatios.push_back(ours / overwrites);
    }
  }
  bench.Report.Add({"W4", "random 4 KiB reads in 48 MiB", volume.Name(), Median(readRatios), "memcpy", 1.8, 1.3,
                    readTraffic, checksum.Value()});
  bench.Report.Add({"W5", "random 4 KiB overwrites in 48 MiB, unmount", volume.Name(), Median(writeRatios),
                    "48 MiB raw + memcpy", 1.5, 1.1, writeTraffic, checksum.Value()});
}

void LargeSet(BENCH& bench, const VOLUME& volume) {
  CMedium medium(bench.Directory, volume);
  MakeFile(medium, LARGE_SET);
  CRing ring;
  CBuffer piece(PIECE);
  const std::vector<std::uint32_t> reads = Offsets(LARGE_SET, LARGE_REQUESTS);
  std::vector<double> ratios;
  TRAFFIC traffic;
  CChecksum checksum;
  for (unsigned int round = 0; round < ROUNDS; ++round) {
    std::vector<unsigned long long> blocks;
    double ours = 0;
    {
      traffic = TRAFFIC();
      CMounted mounted(medium, &traffic);
      CHandle handle(CHandle::Open("data"));
      traffic.ReadOffsets = &blocks;
      ours = Measure([&] {
        for (std::uint32_t offset : reads) handle.Read(offset, PIECE, piece.Data());
      });
      traffic.ReadOffsets = nullptr;
      checksum.Add(piece.Data(), PIECE);
    }
    const double raw = Measure([&] {
      for (unsigned long long offset : blocks) medium.Read(ring.Next(BLOCK), BLOCK, offset);
    });
    ratios.push_back(ours / raw);
  }
  bench.Report.Add({"W4", "random 4 KiB reads in 512 MiB", volume.Name(), Median(ratios), "reading its 256 KiB blocks",
                    1.25, 1.0, traffic, checksum.Value()});
}

}  // namespace

void RandomWorkloads(BENCH& bench) {
  for (unsigned int fatBits : {16u, 32u}) {
    for (const BACKEND backend : {BACKEND::File, BACKEND::Memory}) {
      SmallSet(bench, {fatBits, backend, 96ULL * MIB, fatBits == 32 ? 1u : 4u});
      LargeSet(bench, {fatBits, backend, 640ULL * MIB, fatBits == 32 ? 8u : 32u});
    }
  }
}
