/// @file TextBench.cpp
/// W13: opening a regular file of text, whose bytes the library looks through as it would through a directory's.

#include "Report.h"

namespace {

constexpr unsigned int BLOCK = 256 * KIB;

// A short file is one of many, each opened once: the raw calls read as many bytes from as many places.
void Text(BENCH& bench, unsigned int fatBits, BACKEND backend, unsigned int mebibytes) {
  const unsigned int bytes = mebibytes * MIB;
  const unsigned int nFiles = mebibytes < 64 ? 64 / mebibytes : 1;
  const bool large = mebibytes >= 1024;
  const VOLUME volume = {fatBits, backend, (std::uint64_t{mebibytes} * nFiles + 80) * MIB,
                         fatBits == 32 ? (large ? 8u : 1u) : (large ? 64u : 8u)};
  CMedium medium(bench.Directory, volume);
  CBuffer buffer(MIB);  // no byte of it is zero
  CRing ring;
  const auto name = [](unsigned int i) { return "text" + std::to_string(i); };
  {
    CMounted mounted(medium);
    for (unsigned int i = 0; i < nFiles; ++i) {
      CHandle handle(CHandle::Create(name(i), bytes));
      for (unsigned int offset = 0; offset < bytes; offset += MIB) handle.Write(offset, MIB, buffer.Data());
    }
  }
  std::vector<double> ratios;
  TRAFFIC traffic;
  CChecksum checksum;
  for (unsigned int round = 0; round < ROUNDS; ++round) {
    const double raw = Measure([&] {
      for (std::uint64_t offset = 0; offset < std::uint64_t{bytes} * nFiles; offset += BLOCK) {
        medium.Read(ring.Next(BLOCK), BLOCK, 16ULL * MIB + offset);
      }
    });
    CMounted mounted(medium, &traffic);
    traffic = TRAFFIC();
    ratios.push_back(Measure([&] {
                       for (unsigned int i = 0; i < nFiles; ++i) CHandle handle(CHandle::Open(name(i)));
                     }) /
                     raw);
    checksum.Add(traffic.BytesRead);
  }
  const std::string what = nFiles > 1 ? std::to_string(nFiles) + " texts of " : "a text of ";
  bench.Report.Add({"W13", "open " + what + std::to_string(mebibytes) + " MiB", volume.Name(), Median(ratios),
                    "reading the file", 2.5, 1.8, traffic, checksum.Value()});
}

}  // namespace

void TextWorkloads(BENCH& bench) {
  for (unsigned int mebibytes : {1u, 100u, 1024u}) {
    Text(bench, 32, BACKEND::File, mebibytes);
    Text(bench, 16, BACKEND::File, mebibytes);
  }
  for (unsigned int mebibytes : {1u, 100u}) {
    Text(bench, 32, BACKEND::Memory, mebibytes);
    Text(bench, 16, BACKEND::Memory, mebibytes);
  }
}
