/// @file StreamBench.cpp
/// W2 and W3: a file of 256 MiB written and, with the library cold, read back in requests of one size.

#include <cstring>

#include "Report.h"

namespace {

constexpr unsigned int FILE_BYTES = 256 * MIB;
constexpr unsigned int BLOCK_BYTES = 256 * KIB;  // of the library's cache

/// The raw calls that the library is measured against.
class CRawStream {
 public:
  CRawStream(CMedium& medium, CBuffer& source, unsigned int request, bool file)
      : m_Medium(medium), m_Source(source), m_Copy(request), m_nRequest(request), m_bFile(file) {}

  // A block that a request overwrites in part only is read first, so the raw calls read it too. What was written into
  // the cache goes to the file when its memory is needed for something else; with `atOnce` before the next request,
  // while the processor still has all of it at hand.
  void Write(bool atOnce) {
    const unsigned int delay = atOnce || !m_bFile ? 0 : CRing::SIZE;
    for (unsigned int offset = 0; offset < FILE_BYTES; offset += m_nRequest) {
      unsigned char* cached = m_bFile ? m_Ring.Next(m_nRequest) : m_Source.Data();
      if (delay != 0 && offset >= delay) m_Medium.Write(cached, m_nRequest, BASE + offset - delay);
      if (m_nRequest < BLOCK_BYTES) m_Medium.Read(m_bFile ? cached : m_Copy.Data(), m_nRequest, BASE + offset);
      if (m_bFile) std::memcpy(cached, m_Source.Data(), m_nRequest);
      if (delay == 0) m_Medium.Write(cached, m_nRequest, BASE + offset);
    }
    for (unsigned int offset = FILE_BYTES - delay; offset < FILE_BYTES; offset += m_nRequest) {
      m_Medium.Write(m_Ring.Next(m_nRequest), m_nRequest, BASE + offset);
    }
  }

  void Read(unsigned char* target) {
    for (unsigned int offset = 0; offset < FILE_BYTES; offset += m_nRequest) {
      unsigned char* cached = m_Ring.Next(m_nRequest);
      m_Medium.Read(cached, m_nRequest, BASE + offset);
      if (m_bFile) std::memcpy(target, cached, m_nRequest);
    }
  }

 private:
  static constexpr unsigned long long BASE = 32ULL * MIB;
  CMedium& m_Medium;
  CBuffer& m_Source;
  CBuffer m_Copy;
  CRing m_Ring;
  unsigned int m_nRequest;
  bool m_bFile;
};

void Stream(BENCH& bench, const std::string& directory, unsigned int fatBits, BACKEND backend, unsigned int request) {
  const VOLUME volume = {fatBits, backend, 320ULL * MIB, fatBits == 32 ? 8u : 16u};
  const bool file = backend == BACKEND::File;
  CMedium medium(directory, volume);
  CMedium raw(directory, volume);
  CBuffer buffer(request);
  CBuffer target(request);
  buffer.MakeBinary();
  CRawStream calls(raw, buffer, request, file);
  {
    // The first pass over either medium pays for its pages: it is not measured.
    CMounted mounted(medium);
    CHandle handle(CHandle::Create("big", FILE_BYTES));
    for (unsigned int offset = 0; offset < FILE_BYTES; offset += request) handle.Write(offset, request, buffer.Data());
  }
  calls.Write(true);

  std::vector<double> writes;
  std::vector<double> writesAtOnce;
  std::vector<double> reads;
  TRAFFIC written;
  TRAFFIC readBack;
  CChecksum checksum;
  for (unsigned int round = 0; round < ROUNDS; ++round) {
    const double rawWrite = Measure([&] { calls.Write(false); });
    const double rawWriteAtOnce = file ? Measure([&] { calls.Write(true); }) : rawWrite;
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
    const double rawRead = Measure([&] { calls.Read(target.Data()); });
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
