/// @file StreamBench.cpp
/// W2 and W3: a file of 256 MiB written and, with the library cold, read back in requests of one size.

#include <cstring>

#include "Report.h"

namespace {

constexpr unsigned int FILE_BYTES = 256 * MIB;
constexpr unsigned int BLOCK_BYTES = 256 * KIB;  // of the library's cache

void Stream(BENCH& bench, const std::string& directory, unsigned int fatBits, BACKEND backend, unsigned int request) {
  const VOLUME volume = {fatBits, backend, 320ULL * MIB, fatBits == 32 ? 8u : 16u};
  const bool file = backend == BACKEND::File;
  CMedium medium(directory, volume);
  CMedium raw(directory, volume);
  CBuffer buffer(request);
  CBuffer copy(request);
  CRing ring;
  CBuffer target(request);
  buffer.MakeBinary();
  const unsigned long long rawBase = 32ULL * MIB;
  // A block that a request overwrites in part only is read first, so the raw calls read it too. What was written into
  // the cache goes to the file when its memory is needed for something else; with `atOnce` before the next request,
  // while the processor still has all of it at hand.
  const auto rawWritePass = [&](bool atOnce) {
    const unsigned int delay = atOnce || !file ? 0 : CRing::SIZE;
    for (unsigned int offset = 0; offset < FILE_BYTES; offset += request) {
      unsigned char* cached = file ? ring.Next(request) : buffer.Data();
      if (delay != 0 && offset >= delay) raw.Write(cached, request, rawBase + offset - delay);
      if (request < BLOCK_BYTES) raw.Read(file ? cached : copy.Data(), request, rawBase + offset);
      if (file) std::memcpy(cached, buffer.Data(), request);
      if (delay == 0) raw.Write(cached, request, rawBase + offset);
    }
    for (unsigned int offset = FILE_BYTES - delay; offset < FILE_BYTES; offset += request) {
      raw.Write(ring.Next(request), request, rawBase + offset);
    }
  };
  const auto rawReadPass = [&] {
    for (unsigned int offset = 0; offset < FILE_BYTES; offset += request) {
      unsigned char* cached = ring.Next(request);
      raw.Read(cached, request, rawBase + offset);
      if (file) std::memcpy(target.Data(), cached, request);
    }
  };
  {
    // The first pass over either medium pays for its pages: it is not measured.
    CMounted mounted(medium);
    CHandle handle(CHandle::Create("big", FILE_BYTES));
    for (unsigned int offset = 0; offset < FILE_BYTES; offset += request) handle.Write(offset, request, buffer.Data());
  }
  rawWritePass(true);

  std::vector<double> writes;
  std::vector<double> writesAtOnce;
  std::vector<double> reads;
  TRAFFIC written;
  TRAFFIC readBack;
  CChecksum checksum;
  for (unsigned int round = 0; round < ROUNDS; ++round) {
    const double rawWrite = Measure([&] { rawWritePass(false); });
    const double rawWriteAtOnce = file ? Measure([&] { rawWritePass(true); }) : rawWrite;
    {
      written = TRAFFIC();
      CMounted mounted(medium, &written);
      const double write = Measure([&] {
        {
          CHandle handle(CHandle::Open("big"));
          for (unsigned int offset = 0; offset < FILE_BYTES; offset += request)
            handle.Write(offset, request, buffer.Data());
        }
        mounted.Unmount();
      });
      writes.push_back(write / rawWrite);
      writesAtOnce.push_back(write / rawWriteAtOnce);
    }
    const double rawRead = Measure(rawReadPass);
    {
      readBack = TRAFFIC();
      CMounted mounted(medium, &readBack);
      const double read = Measure([&] {
        CHandle handle(CHandle::Open("big"));
        for (unsigned int offset = 0; offset < FILE_BYTES; offset += request)
          handle.Read(offset, request, target.Data());
      });
      reads.push_back(read / rawRead);
    }
    Require(std::memcmp(target.Data(), buffer.Data(), request) == 0, "contents read back");
    checksum.Add(target.Data(), request);
  }
  const std::string pieces = " 256 MiB in " + std::to_string(request / KIB) + " KiB requests";
  const std::string baseline = file ? "raw calls + memcpy" : "memcpy";
  const double limit = file ? 1.25 : 2.5;
  const double goal = file ? 1.1 : 2.1;
  const std::string name = directory == bench.Directory ? volume.Name() : "FAT" + std::to_string(fatBits) + " disk";
  bench.Report.Add(
      {"W2", "write" + pieces + ", unmount", name, Median(writes), baseline, limit, goal, written, checksum.Value()});
  if (file) {
    bench.Report.Add({"W2", "write" + pieces + ", unmount", name, Median(writesAtOnce), "each written at once", 0, 0,
                      written, checksum.Value()});
  }
  bench.Report.Add(
      {"W3", "read" + pieces + ", cold", name, Median(reads), baseline, limit, goal, readBack, checksum.Value()});
}

}  // namespace

void StreamWorkloads(BENCH& bench) {
  for (unsigned int fatBits : {16u, 32u}) {
    for (const BACKEND backend : {BACKEND::File, BACKEND::Memory}) {
      for (unsigned int request : {64 * KIB, MIB}) Stream(bench, bench.Directory, fatBits, backend, request);
    }
  }
  if (bench.Disk.empty()) return;
  for (unsigned int request : {64 * KIB, MIB}) Stream(bench, bench.Disk, 32, BACKEND::File, request);
}
