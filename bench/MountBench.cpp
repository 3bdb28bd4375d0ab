/// @file MountBench.cpp
/// W1: a large FAT32 volume, from the mount to the first allocation, and its unmount.

#include "Report.h"

namespace {

// A small volume is mounted in a millisecond: it takes more rounds to be sure.
constexpr unsigned int MOUNT_ROUNDS = 9;

void Mount(BENCH& bench, BACKEND backend, unsigned int millionClusters) {
  const VOLUME volume = {32, backend, millionClusters * 512000000ULL + 2ULL * 4000000 * millionClusters + 16ULL * MIB,
                         1};
  CMedium medium(bench.Directory, volume);
  CBuffer buffer(std::size_t{256} * KIB);
  std::vector<double> mounts;
  std::vector<double> unmounts;
  TRAFFIC mounting;
  TRAFFIC all;
  CChecksum checksum;
  const auto eachPiece = [&](const std::function<void(unsigned long long, std::size_t)>& work) {
    for (unsigned long long done = 0; done < medium.FatBytes(); done += buffer.Size()) {
      const unsigned long long rest = medium.FatBytes() - done;
      work(medium.FatOffset() + done, rest < buffer.Size() ? static_cast<std::size_t>(rest) : buffer.Size());
    }
  };
  for (unsigned int round = 0; round < MOUNT_ROUNDS; ++round) {
    const double read =
        Measure([&] { eachPiece([&](unsigned long long at, std::size_t n) { medium.Read(buffer.Data(), n, at); }); });
    const double copy = Measure([&] {
      eachPiece([&](unsigned long long at, std::size_t n) {
        medium.Read(buffer.Data(), n, at);
        medium.Write(buffer.Data(), n, at + medium.FatBytes());
      });
    });
    all = TRAFFIC();
    std::unique_ptr<CMounted> mounted;
    mounts.push_back(Measure([&] {
                       mounted = std::make_unique<CMounted>(medium, &all);
                       CHandle first(CHandle::Create("FIRST" + std::to_string(round), 1));
                     }) /
                     read);
    mounting = all;
    unmounts.push_back(Measure([&] { mounted->Unmount(); }) / copy);
  }
  all.Reads -= mounting.Reads;
  all.Writes -= mounting.Writes;
  all.BytesRead -= mounting.BytesRead;
  all.BytesWritten -= mounting.BytesWritten;
  // Both FATs hold what the rounds allocated.
  for (unsigned int fat = 0; fat < 2; ++fat) {
    medium.Read(buffer.Data(), 4096, medium.FatOffset() + fat * medium.FatBytes());
    checksum.Add(buffer.Data(), 4096);
  }
  const std::string size = std::to_string(millionClusters) + " million clusters";
  bench.Report.Add({"W1", "mount and first allocation, " + size, volume.Name(), Median(mounts), "reading its FAT", 5,
                    3.5, mounting, checksum.Value()});
  bench.Report.Add(
      {"W1", "unmount, " + size, volume.Name(), Median(unmounts), "copying its FAT", 3, 2, all, checksum.Value()});
}

}  // namespace

void MountWorkloads(BENCH& bench) {
  for (unsigned int millionClusters : {2u, 4u, 8u, 16u}) Mount(bench, BACKEND::File, millionClusters);
  Mount(bench, BACKEND::Memory, 2);
}
