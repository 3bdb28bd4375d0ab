/// @file Volume.cpp

#include "Volume.h"

namespace {

constexpr unsigned int ENTRY_BYTES = 32;
constexpr unsigned int ROOT_ENTRIES = 512;
constexpr unsigned int MAX_DIRECTORY_CLUSTERS = 90;  // of the directory under test, from cluster 3 (RootChain: 2) on

struct GEOMETRY {
  unsigned int FatBits;
  unsigned int SectorBytes;  // and of a cluster
  unsigned int Reserved;
  unsigned int FatSectors;
  unsigned int Clusters;

  std::uint32_t Fat(unsigned int copy) const { return (Reserved + copy * FatSectors) * SectorBytes; }
  std::uint32_t Root() const { return Fat(2); }
  std::uint32_t RootBytes() const { return FatBits == 32 ? 0 : ROOT_ENTRIES * ENTRY_BYTES; }
  std::uint32_t Cluster(std::uint32_t n) const { return Root() + RootBytes() + (n - 2) * SectorBytes; }
};

constexpr GEOMETRY FAT12 = {12, 512, 1, 9, 2800};
constexpr GEOMETRY FAT32 = {32, 128, 32, 2051, 65600};

void SetNext(const GEOMETRY& geometry, std::uint8_t (&table)[ROOT_ENTRIES * 2], std::uint32_t cluster,
             std::uint32_t next) {
  if (geometry.FatBits == 32) {
    for (unsigned int i = 0; i < 4; ++i) table[cluster * 4 + i] = static_cast<std::uint8_t>(next >> (8 * i));
    return;
  }
  std::uint8_t* at = table + cluster * 3 / 2;
  if (cluster % 2 == 0) {
    at[0] = static_cast<std::uint8_t>(next);
    at[1] = static_cast<std::uint8_t>((at[1] & 0xF0) | (next >> 8 & 0x0F));
  } else {
    at[0] = static_cast<std::uint8_t>((at[0] & 0x0F) | (next << 4 & 0xF0));
    at[1] = static_cast<std::uint8_t>(next >> 4);
  }
}

void PutEntry(std::uint32_t offset, const char (&name)[12], unsigned int attributes, unsigned int cluster) {
  CMedium::Put(offset, name, 11);
  CMedium::Put8(offset + 11, attributes);
  CMedium::Put16(offset + 26, cluster);
}

}  // namespace

void MakeVolume(DIRECTORY_PLACE place, const std::vector<std::uint8_t>& bytes, bool dots) {
  const GEOMETRY& g = place == DIRECTORY_PLACE::RootChain ? FAT32 : FAT12;
  const std::uint32_t total = g.Cluster(g.Clusters + 2) / g.SectorBytes;
  CMedium::Reset(total * g.SectorBytes);
  CMedium::Put8(0, 0xEB);
  CMedium::Put16(11, g.SectorBytes);
  CMedium::Put8(13, 1);
  CMedium::Put16(14, g.Reserved);
  CMedium::Put8(16, 2);
  CMedium::Put8(21, 0xF8);
  CMedium::Put16(510, 0xAA55);
  if (g.FatBits == 32) {
    CMedium::Put32(32, total);
    CMedium::Put32(36, g.FatSectors);
    CMedium::Put32(44, 2);
    CMedium::Put16(48, 8);
    CMedium::Put32(1024, 0x41615252);
    CMedium::Put32(1024 + 484, 0x61417272);
    CMedium::Put32(1024 + 508, 0xAA550000);
  } else {
    CMedium::Put16(17, ROOT_ENTRIES);
    CMedium::Put16(19, total);
    CMedium::Put16(22, g.FatSectors);
  }

  const std::uint32_t END = 0x0FFFFFFF;
  const unsigned int head = place == DIRECTORY_PLACE::Subdirectory && dots ? 2 * ENTRY_BYTES : 0;
  const std::uint32_t first = place == DIRECTORY_PLACE::RootChain ? 2 : 3;
  std::uint32_t clusters = (head + static_cast<std::uint32_t>(bytes.size()) + g.SectorBytes - 1) / g.SectorBytes;
  if (clusters == 0) clusters = 1;
  if (clusters > MAX_DIRECTORY_CLUSTERS) clusters = MAX_DIRECTORY_CLUSTERS;
  std::uint32_t room = clusters * g.SectorBytes;
  std::uint32_t at = g.Cluster(first);

  std::uint8_t table[ROOT_ENTRIES * 2] = {};
  SetNext(g, table, 0, 0x0FFFFFF8);
  SetNext(g, table, 1, END);
  for (std::uint32_t n = 0; n < clusters; ++n) SetNext(g, table, first + n, n + 1 < clusters ? first + n + 1 : END);
  for (std::uint32_t n = 100; n <= 107; ++n) SetNext(g, table, n, n < 107 ? n + 1 : END);
  SetNext(g, table, 200, 202);
  SetNext(g, table, 202, 201);
  SetNext(g, table, 201, END);
  CMedium::Put(g.Fat(0), table, sizeof(table));
  CMedium::Put(g.Fat(1), table, sizeof(table));

  if (place == DIRECTORY_PLACE::FixedRoot) {
    at = g.Root();
    room = g.RootBytes();
  } else if (place == DIRECTORY_PLACE::Subdirectory) {
    PutEntry(g.Root(), "D          ", 0x10, first);
    PutEntry(g.Root() + ENTRY_BYTES, "FILE    TXT", 0x20, 100);
    CMedium::Put32(g.Root() + ENTRY_BYTES + 28, 4000);
    if (dots) {
      PutEntry(at, ".          ", 0x10, first);
      PutEntry(at + ENTRY_BYTES, "..         ", 0x10, 0);
    }
  }
  const std::uint32_t count = static_cast<std::uint32_t>(bytes.size());
  CMedium::Put(at + head, bytes.data(), count < room - head ? count : room - head);
}
