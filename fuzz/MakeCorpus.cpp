/// @file MakeCorpus.cpp
/// Writes the corpus: small damaged volumes, each with one defect and a name, from which the fuzzers start and which
/// the tests of damaged images read.
///   fuzz_corpus DIRECTORY
/// The files under fuzz/corpus are its output, but for those named "found-...", which a fuzzer made.

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>

#include "SparseImage.h"
#include "support/ImageBuilder.h"

namespace {

using BYTES = std::vector<std::uint8_t>;
using BUILDER = CImageBuilder;

std::string s_Directory;

void Save(const std::string& target, const std::string& name, const BYTES& bytes) {
  (void)mkdir((s_Directory + "/" + target).c_str(), 0777);
  const std::string path = s_Directory + "/" + target + "/" + name;
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size() || std::fclose(file) != 0) {
    std::fprintf(stderr, "cannot write %s\n", path.c_str());
    std::exit(1);
  }
}

// ---------------------------------------------------------------------------------------------- encoding

constexpr std::size_t LITERAL = 96;  // most bytes of a piece that is not repeated
constexpr std::size_t MAX_GAP = 10;  // zeros that are cheaper inside a piece than between two

// How often the `period` bytes at `at` follow there again.
std::size_t Repeats(const BYTES& bytes, std::size_t at, std::size_t period, std::size_t end) {
  std::size_t same = 0;
  while (at + period + same < end && bytes[at + same] == bytes[at + period + same]) ++same;
  return same / period;
}

SPARSE_IMAGE Encode(const CDiskImage& disk) {
  SPARSE_IMAGE image;
  const std::uint64_t size = disk.Size() < SPARSE_IMAGE::MAX_BYTES ? disk.Size() : SPARSE_IMAGE::MAX_BYTES;
  image.Units = static_cast<std::uint32_t>(size / SPARSE_IMAGE::UNIT_BYTES);
  const BYTES bytes = disk.ReadBytes(0, image.Size());
  std::size_t at = 0;
  while (at < bytes.size()) {
    if (bytes[at] == 0) {
      ++at;
      continue;
    }
    // The run ends before a gap of zeros.
    std::size_t end = at;
    for (std::size_t zeros = 0; end + zeros < bytes.size() && zeros <= MAX_GAP;) {
      if (bytes[end + zeros] == 0) {
        ++zeros;
      } else {
        end += zeros + 1;
        zeros = 0;
      }
    }
    IMAGE_PIECE literal;
    const auto flush = [&] {
      if (!literal.Bytes.empty()) image.Pieces.push_back(literal);
      literal.Bytes.clear();
    };
    while (at < end) {
      std::size_t period = 0;
      std::size_t repeats = 0;
      for (const std::size_t p : {1u, 2u, 4u, 26u, 32u}) {
        const std::size_t n = Repeats(bytes, at, p, end);
        if (n >= 3 && n * p >= 24 && n * p > repeats * period) {
          period = p;
          repeats = n < 0xFFFF ? n : 0xFFFF;
        }
      }
      if (period != 0) {
        flush();
        IMAGE_PIECE piece;
        piece.Offset = static_cast<std::uint32_t>(at);
        piece.Repeat = static_cast<std::uint32_t>(repeats);
        piece.Bytes.assign(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                           bytes.begin() + static_cast<std::ptrdiff_t>(at + period));
        image.Pieces.push_back(piece);
        at += (repeats + 1) * period;
        continue;
      }
      if (literal.Bytes.size() == LITERAL) flush();
      if (literal.Bytes.empty()) literal.Offset = static_cast<std::uint32_t>(at);
      literal.Bytes.push_back(bytes[at++]);
    }
    flush();
  }
  if (image.Pieces.size() > SPARSE_IMAGE::MAX_PIECES) {
    std::fprintf(stderr, "an image has more than %zu pieces\n", SPARSE_IMAGE::MAX_PIECES);
    std::exit(1);
  }
  return image;
}

void SaveImage(const std::string& target, const std::string& name, const CDiskImage& disk, const BYTES& tail = {},
               unsigned int options = 0, unsigned int failTransfer = 0, unsigned int failAllocation = 0) {
  SPARSE_IMAGE image = Encode(disk);
  image.Options = options;
  image.FailTransfer = failTransfer;
  image.FailAllocation = failAllocation;
  BYTES bytes = image.Serialize();
  bytes.insert(bytes.end(), tail.begin(), tail.end());
  Save(target, name, bytes);
}

// ---------------------------------------------------------------------------------------------- the healthy volumes

constexpr unsigned int SECTOR = 512;

// The bytes of every file: the alphabet over and over.
BYTES Letters(std::size_t count) {
  BYTES bytes(count);
  for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<std::uint8_t>('a' + i % 26);
  return bytes;
}

FAT_GEOMETRY Geometry(unsigned int bits) {
  FAT_GEOMETRY geometry;
  geometry.FatBits = bits;
  geometry.Clusters = bits == 12 ? 1000 : bits == 16 ? 4200 : 2000;
  return geometry;
}

BUILDER::DIRECTORY s_Dir;  // of the volume made last: "DIR", in cluster 20
unsigned int s_FileSlot;   // slot of FILE.BIN in the root

// FILE.BIN of 1500 bytes in clusters 5, 6, 7; «Other file.txt» of 600 in 8, 9 (both less where clusters are small); DIR
// in 20, with SUB.TXT of 100 bytes in 10 and the directory «Nested» in 21.
void Populate(BUILDER& builder) {
  const std::size_t cluster = builder.ClusterBytes();
  s_FileSlot = builder.AddFile(BUILDER::Root(), "FILE.BIN", Letters(cluster < SECTOR ? 3 * cluster : 1500), {5, 6, 7});
  (void)builder.AddFile(BUILDER::Root(), "Other file.txt", Letters(cluster < SECTOR ? 2 * cluster : 600), {8, 9});
  s_Dir = builder.AddDir(BUILDER::Root(), "DIR", {20});
  (void)builder.AddFile(s_Dir, "SUB.TXT", Letters(100), {10});
  (void)builder.AddDir(s_Dir, "Nested", {21});
}

std::string Suffix(unsigned int bits) { return "-fat" + std::to_string(bits); }

// A healthy volume with one defect.
void Damaged(const std::string& target, const std::string& name, const FAT_GEOMETRY& geometry,
             const std::function<void(BUILDER&)>& damage) {
  BUILDER builder(geometry);
  Populate(builder);
  damage(builder);
  // What the boot sector claims behind the medium's end is read in these, all of it.
  const bool large = name.find("fat32-limit") != std::string::npos || name.find("million") != std::string::npos;
  SaveImage(target, name, builder.Image(), {}, large ? SPARSE_IMAGE::LARGE_CLAIMS : 0);
}

// The same defect on all three widths.
void DamagedOnAll(const std::string& name, const std::function<void(BUILDER&, std::uint32_t)>& damage) {
  for (const unsigned int bits : {12u, 16u, 32u}) {
    const std::uint32_t mask = bits == 32 ? 0x0FFFFFFF : (1u << bits) - 1;
    Damaged("image", name + Suffix(bits), Geometry(bits), [&](BUILDER& builder) { damage(builder, mask); });
  }
}

void SetStart(BUILDER& builder, std::uint32_t cluster) {
  RAW_ENTRY entry = builder.Entry(BUILDER::Root(), s_FileSlot);
  entry[26] = static_cast<unsigned char>(cluster);
  entry[27] = static_cast<unsigned char>(cluster >> 8);
  entry[20] = static_cast<unsigned char>(cluster >> 16);
  entry[21] = static_cast<unsigned char>(cluster >> 24);
  builder.SetEntry(BUILDER::Root(), s_FileSlot, entry);
}

void SetSize(BUILDER& builder, std::uint32_t size) {
  RAW_ENTRY entry = builder.Entry(BUILDER::Root(), s_FileSlot);
  for (unsigned int i = 0; i < 4; ++i) entry[28 + i] = static_cast<unsigned char>(size >> (8 * i));
  builder.SetEntry(BUILDER::Root(), s_FileSlot, entry);
}

// ---------------------------------------------------------------------------------------------- chains and entries

void MakeImages() {
  DamagedOnAll("healthy", [](BUILDER&, std::uint32_t) {});
  DamagedOnAll("chain-loops-on-itself", [](BUILDER& b, std::uint32_t) { b.SetFatEntry(5, 5); });
  DamagedOnAll("chain-of-two-loops", [](BUILDER& b, std::uint32_t) { b.SetFatEntry(6, 5); });
  DamagedOnAll("chain-loops-at-its-end", [](BUILDER& b, std::uint32_t) { b.SetFatEntry(7, 6); });
  DamagedOnAll("chains-cross-linked", [](BUILDER& b, std::uint32_t) { b.SetFatEntry(8, 6); });
  // Behind the last cluster that the size needs, so that only the link itself can be what is refused.
  DamagedOnAll("link-to-0", [](BUILDER& b, std::uint32_t) { b.SetFatEntry(7, 0); });
  DamagedOnAll("link-to-1", [](BUILDER& b, std::uint32_t) { b.SetFatEntry(7, 1); });
  DamagedOnAll("link-to-bad", [](BUILDER& b, std::uint32_t mask) { b.SetFatEntry(7, mask - 8); });
  DamagedOnAll("link-to-reserved", [](BUILDER& b, std::uint32_t mask) { b.SetFatEntry(7, mask - 15); });
  DamagedOnAll("link-out-of-range", [](BUILDER& b, std::uint32_t) { b.SetFatEntry(7, b.Geometry().Clusters + 2); });
  DamagedOnAll("link-to-last-cluster", [](BUILDER& b, std::uint32_t) {
    const std::uint32_t last = b.Geometry().Clusters + 1;
    b.SetFatEntry(6, last);
    b.SetFatEntry(last, BUILDER::END_OF_CHAIN);
  });
  DamagedOnAll("link-to-lowest-end-mark", [](BUILDER& b, std::uint32_t mask) { b.SetFatEntry(7, mask - 7); });
  DamagedOnAll("start-at-1", [](BUILDER& b, std::uint32_t) { SetStart(b, 1); });
  DamagedOnAll("start-out-of-range", [](BUILDER& b, std::uint32_t) { SetStart(b, b.Geometry().Clusters + 2); });
  DamagedOnAll("start-at-0-with-a-size", [](BUILDER& b, std::uint32_t) { SetStart(b, 0); });
  DamagedOnAll("start-at-all-ones", [](BUILDER& b, std::uint32_t) { SetStart(b, 0xFFFFFFFF); });
  DamagedOnAll("size-beyond-chain", [](BUILDER& b, std::uint32_t) { SetSize(b, 1537); });
  DamagedOnAll("size-far-beyond-chain", [](BUILDER& b, std::uint32_t) { SetSize(b, 0xFFFFFFFF); });
  DamagedOnAll("size-below-chain", [](BUILDER& b, std::uint32_t) { SetSize(b, 100); });
  DamagedOnAll("directory-contains-itself", [](BUILDER& b, std::uint32_t) {
    (void)b.Append(s_Dir, BUILDER::ShortEntry(BUILDER::ShortName("SELF"), 0x10, 20, 0));
  });
  DamagedOnAll("directory-contains-its-parent", [](BUILDER& b, std::uint32_t) {
    const BUILDER::DIRECTORY nested = b.AdoptDir(21);
    (void)b.Append(nested, BUILDER::ShortEntry(BUILDER::ShortName("UP"), 0x10, 20, 0));
  });
  DamagedOnAll("directory-chain-loops", [](BUILDER& b, std::uint32_t) { b.SetFatEntry(20, 20); });
  DamagedOnAll("directory-chain-leaves-volume",
               [](BUILDER& b, std::uint32_t) { b.SetFatEntry(20, b.Geometry().Clusters + 2); });
  DamagedOnAll("directory-without-cluster", [](BUILDER& b, std::uint32_t) {
    (void)b.Append(BUILDER::Root(), BUILDER::ShortEntry(BUILDER::ShortName("EMPTY"), 0x10, 0, 0));
  });
  DamagedOnAll("directory-in-a-file", [](BUILDER& b, std::uint32_t) {
    (void)b.Append(BUILDER::Root(), BUILDER::ShortEntry(BUILDER::ShortName("FILEDIR"), 0x10, 5, 0));
  });
  DamagedOnAll("file-in-a-directory", [](BUILDER& b, std::uint32_t) {
    (void)b.Append(BUILDER::Root(), BUILDER::ShortEntry(BUILDER::ShortName("DIRFILE"), 0x20, 20, 512));
  });

  FAT_GEOMETRY fat32 = Geometry(32);
  fat32.FsInfoFree = 1234;
  fat32.FsInfoNext = 56;
  const auto rootCluster = [&](const char* name, std::uint32_t cluster) {
    Damaged("mount", name, fat32, [&](BUILDER& b) { b.Store().Set32(44, cluster); });
  };
  rootCluster("root-cluster-0", 0);
  rootCluster("root-cluster-1", 1);
  rootCluster("root-cluster-last", fat32.Clusters + 1);
  rootCluster("root-cluster-out-of-range", fat32.Clusters + 2);
  rootCluster("root-cluster-all-ones", 0xFFFFFFFF);
  Damaged("mount", "root-chain-loops", fat32, [](BUILDER& b) { b.SetFatEntry(2, 2); });
  Damaged("mount", "root-chain-is-free", fat32, [](BUILDER& b) { b.SetFatEntry(2, 0); });
  Damaged("mount", "root-chain-leaves-volume", fat32, [](BUILDER& b) { b.SetFatEntry(2, b.Geometry().Clusters + 2); });
  Damaged("image", "link-with-top-bits-fat32", fat32, [](BUILDER& b) { b.SetFatEntry(6, 0xF0000007); });
  Damaged("image", "free-cluster-with-top-bits-fat32", fat32, [](BUILDER& b) { b.SetFatEntry(3, 0xF0000000); });
  const auto fsInfo = [&](const char* name, std::uint64_t offset, std::uint32_t value) {
    Damaged("mount", name, fat32, [&](BUILDER& b) { b.Store().Set32(b.FsInfoOffset() + offset, value); });
  };
  fsInfo("fsinfo-lead-signature-wrong", 0, 0x41615253);
  fsInfo("fsinfo-structure-signature-wrong", 484, 0);
  fsInfo("fsinfo-trail-signature-wrong", 508, 0xAA550001);
  fsInfo("fsinfo-counts-wrong", 488, 0x12345678);
  Damaged("mount", "fsinfo-sector-0", fat32, [](BUILDER& b) { b.Store().Set16(48, 0); });
  Damaged("mount", "fsinfo-sector-beyond-volume", fat32, [](BUILDER& b) { b.Store().Set16(48, 0xFFFF); });

  // A full, dense directory as long as the medium allows, and one that contains itself.
  for (const bool self : {false, true}) {
    FAT_GEOMETRY geometry = Geometry(16);
    geometry.SectorsPerCluster = 8;
    geometry.Clusters = 4100;
    BUILDER builder(geometry);
    std::vector<std::uint32_t> clusters(self ? 120 : 900);
    for (std::size_t i = 0; i < clusters.size(); ++i) clusters[i] = 2 + static_cast<std::uint32_t>(i);
    (void)builder.AddDir(BUILDER::Root(), "DENSE", {clusters[0]});
    const RAW_ENTRY entry =
        BUILDER::ShortEntry(BUILDER::ShortName(self ? "DENSE" : "SAME"), self ? 0x10 : 0x20, self ? 2 : 0, 0);
    IMAGE_PIECE fill;
    fill.Bytes.assign(entry.begin(), entry.end());
    fill.Offset = static_cast<std::uint32_t>(builder.ClusterOffset(2) + 2 * sizeof(RAW_ENTRY));
    // The chain: 900 entries that count up.
    builder.SetChain(clusters);
    SPARSE_IMAGE image = Encode(builder.Image());
    image.Units = SPARSE_IMAGE::MAX_UNITS;
    // Every slot behind "." and "..".
    for (std::size_t left = clusters.size() * 128 - 2; left != 0;) {
      const std::size_t entries = left < 0x10000 ? left : 0x10000;
      fill.Repeat = static_cast<std::uint32_t>(entries - 1);
      image.Pieces.push_back(fill);
      fill.Offset += static_cast<std::uint32_t>(entries * sizeof(RAW_ENTRY));
      left -= entries;
    }
    Save("image", self ? "directory-dense-contains-itself" : "directory-dense-with-one-name", image.Serialize());
  }
}

// ---------------------------------------------------------------------------------------------- geometry

void MakeGeometries() {
  const auto boot = [](const char* name, unsigned int bits, unsigned int offset, unsigned int bytes,
                       std::uint32_t value) {
    Damaged("mount", std::string("boot-") + name, Geometry(bits), [&](BUILDER& b) {
      for (unsigned int i = 0; i < bytes; ++i) b.Store().Set8(offset + i, value >> (8 * i) & 0xFF);
    });
  };
  boot("signature-wrong", 12, 510, 2, 0xAA54);
  boot("jump-wrong", 12, 0, 1, 0xEA);
  boot("jump-0x49", 12, 0, 1, 0x49);
  boot("sector-64-bytes", 12, 11, 2, 64);
  boot("sector-768-bytes", 12, 11, 2, 768);
  boot("sector-8192-bytes", 12, 11, 2, 8192);
  boot("sectors-per-cluster-0", 12, 13, 1, 0);
  boot("sectors-per-cluster-3", 12, 13, 1, 3);
  boot("reserved-sectors-0", 12, 14, 2, 0);
  boot("fats-0", 12, 16, 1, 0);
  boot("root-entries-0", 12, 17, 2, 0);
  boot("total-0", 12, 19, 2, 0);
  boot("media-0x12", 12, 21, 1, 0x12);
  boot("media-0xFA", 12, 21, 1, 0xFA);
  boot("fat-size-0", 32, 36, 4, 0);
  boot("fat32-version-1", 32, 42, 2, 1);
  boot("mirroring-off", 32, 40, 2, 0x80);
  boot("mirroring-off-on-fat16", 16, 40, 2, 0x80);
  boot("total-beyond-medium", 16, 19, 2, 0xFFFF);

  for (const unsigned int bits : {12u, 16u, 32u}) {
    const FAT_GEOMETRY geometry = BUILDER(Geometry(bits)).Geometry();
    const std::uint32_t overhead =
        geometry.ReservedSectors + 2 * geometry.SectorsPerFat + geometry.RootEntries * 32 / SECTOR;
    const auto setTotal = [bits](BUILDER& b, std::uint32_t total) {
      b.Store().Set16(19, bits == 32 ? 0 : total);
      b.Store().Set32(32, bits == 32 ? total : 0);
    };
    Damaged("mount", "total-below-overhead" + Suffix(bits), geometry, [&](BUILDER& b) { setTotal(b, overhead - 1); });
    Damaged("mount", "total-equals-overhead" + Suffix(bits), geometry, [&](BUILDER& b) { setTotal(b, overhead); });
    // One FAT sector, where the clusters need more: the rest of the table is what lies behind it.
    FAT_GEOMETRY shorter = geometry;
    shorter.SectorsPerFat = 1;
    shorter.Clusters = bits == 32 ? 126 : bits == 16 ? 254 : 339;
    BUILDER builder(shorter);
    Populate(builder);
    const std::uint32_t more = (bits == 16 ? 4200u : 1000u) - shorter.Clusters;
    CDiskImage image = builder.Image();
    const std::uint32_t total = static_cast<std::uint32_t>(image.Size() / SECTOR) + more;
    image.Resize(static_cast<std::uint64_t>(total) * SECTOR);
    image.Set16(19, bits == 32 ? 0 : total);
    image.Set32(32, bits == 32 ? total : 0);
    SaveImage("mount", "fat-shorter-than-clusters" + Suffix(bits), image);
  }

  // Divided by 64 sectors per cluster, what the subtraction gives is a count that FAT32 may have.
  FAT_GEOMETRY large = Geometry(32);
  large.SectorsPerCluster = 64;
  large.Clusters = 60;
  Damaged("mount", "total-below-overhead-large-clusters", large, [](BUILDER& b) { b.Store().Set32(32, 33); });

  // Counts at the borders between the widths. The FAT is packed as the library takes it, which the customary bounds are
  // not.
  const auto count = [](const std::string& name, unsigned int bits, std::uint32_t clusters) {
    FAT_GEOMETRY geometry;
    geometry.FatBits = bits;
    geometry.Clusters = clusters;
    geometry.BytesPerSector = clusters > 5000 ? 128 : 512;
    Damaged("mount", name, geometry, [](BUILDER&) {});
  };
  count("clusters-4085", 12, 4085);
  count("clusters-4086", 12, 4086);
  count("clusters-4087", 16, 4087);
  for (const std::uint32_t n : {65524u, 65525u, 65526u}) {
    count("clusters-" + std::to_string(n) + "-fat16", 16, n);
    count("clusters-" + std::to_string(n) + "-fat32", 32, n);
  }
  count("clusters-65527-fat16", 16, 65527);
  const auto fat32Limit = [](const char* name, std::uint32_t clusters, std::uint32_t fatSectors) {
    Damaged("mount", name, Geometry(32), [&](BUILDER& b) {
      const std::uint32_t reserved = b.Geometry().ReservedSectors;
      b.Store().Set32(36, fatSectors);
      b.Store().Set8(16, 1);
      b.Store().Set32(32, reserved + fatSectors + clusters);
    });
  };
  fat32Limit("clusters-1-fat32", 1, 8);
  fat32Limit("clusters-at-fat32-limit", 0x0FFFFFF6, 16);
  fat32Limit("clusters-above-fat32-limit", 0x0FFFFFF7, 16);
  fat32Limit("clusters-16-million-fat32", 0x00FFFFFF, 16);
  fat32Limit("fat-of-4-gigabytes", 4000, 0x007FFFFF);

  FAT_GEOMETRY one = Geometry(16);
  one.NumberOfFats = 1;
  Damaged("mount", "one-fat", one, [](BUILDER&) {});
  FAT_GEOMETRY three = Geometry(12);
  three.NumberOfFats = 3;
  Damaged("mount", "three-fats", three, [](BUILDER&) {});
  for (const unsigned int sector : {128u, 1024u, 4096u}) {
    FAT_GEOMETRY geometry = Geometry(12);
    geometry.BytesPerSector = sector;
    geometry.Clusters = 600;
    Damaged("mount", "sector-" + std::to_string(sector) + "-bytes", geometry, [](BUILDER&) {});
  }
  FAT_GEOMETRY odd = Geometry(12);
  odd.RootEntries = 20;  // the root area ends in the middle of a sector
  Damaged("mount", "root-entries-20", odd, [](BUILDER&) {});

  // A medium that ends early.
  BUILDER builder(Geometry(12));
  Populate(builder);
  for (const std::uint32_t bytes : {0u, 128u, 512u, 1024u, 0x2000u}) {
    SPARSE_IMAGE image = Encode(builder.Image());
    image.Units = bytes / SPARSE_IMAGE::UNIT_BYTES;
    Save("mount", "medium-of-" + std::to_string(bytes) + "-bytes", image.Serialize());
  }
}

// ---------------------------------------------------------------------------------------------- directory bytes

UTF16 Name(std::size_t units) {
  UTF16 name(units);
  for (std::size_t i = 0; i < units; ++i) name[i] = static_cast<unsigned short>('a' + i % 26);
  return name;
}

using SLOTS = std::vector<RAW_ENTRY>;

const RAW_ENTRY& Target() {
  static const RAW_ENTRY entry = BUILDER::ShortEntry(BUILDER::ShortName("TARGET", "TXT"), 0x20, 100, 1000);
  return entry;
}
// The slots of a file with a long name: its pieces, last first, and its short entry TARGET.TXT.
SLOTS Long(const UTF16& name) { return BUILDER::EntrySet(name, Target()); }

void SaveSlots(const std::string& name, const SLOTS& slots, unsigned int options = 0x0E) {
  BYTES bytes(1, static_cast<std::uint8_t>(options));
  for (const RAW_ENTRY& entry : slots) bytes.insert(bytes.end(), entry.begin(), entry.end());
  // One healthy neighbour shows that the damage ends where it should.
  const RAW_ENTRY after = BUILDER::ShortEntry(BUILDER::ShortName("AFTER"), 0x20, 200, 700);
  bytes.insert(bytes.end(), after.begin(), after.end());
  Save("directory", name, bytes);
}

void MakeDirectories() {
  const UTF16 name = Name(30);  // three pieces
  const auto changed = [&](const char* file, const std::function<void(SLOTS&)>& change) {
    SLOTS slots = Long(name);
    change(slots);
    SaveSlots(file, slots);
  };
  changed("healthy", [](SLOTS&) {});
  changed("order-swapped", [](SLOTS& s) { std::swap(s[0], s[1]); });
  changed("order-ascending", [](SLOTS& s) { std::swap(s[0], s[2]); });
  changed("piece-repeated", [](SLOTS& s) { s.insert(s.begin() + 1, s[1]); });
  changed("piece-missing", [](SLOTS& s) { s.erase(s.begin() + 1); });
  changed("first-piece-missing", [](SLOTS& s) { s.erase(s.begin() + 2); });
  changed("last-piece-missing", [](SLOTS& s) { s.erase(s.begin()); });
  changed("last-flag-missing", [](SLOTS& s) { s[0][0] = 3; });
  changed("last-flag-on-every-piece", [](SLOTS& s) {
    s[1][0] = 0x42;
    s[2][0] = 0x41;
  });
  changed("ordinal-0", [](SLOTS& s) { s[0][0] = 0x40; });
  changed("ordinal-21", [](SLOTS& s) { s[0][0] = 0x40 | 21; });
  changed("ordinal-63", [](SLOTS& s) { s[0][0] = 0x7F; });
  changed("checksum-of-all-wrong", [](SLOTS& s) {
    for (unsigned int i = 0; i < 3; ++i) s[i][13] = static_cast<unsigned char>(s[i][13] ^ 0x55);
  });
  changed("checksum-of-one-piece-wrong", [](SLOTS& s) { s[1][13] = static_cast<unsigned char>(s[1][13] + 1); });
  changed("short-entry-missing", [](SLOTS& s) { s.pop_back(); });
  changed("short-entry-deleted", [](SLOTS& s) { s.back()[0] = 0xE5; });
  changed("pieces-after-the-short-entry", [](SLOTS& s) { std::swap(s[0], s[3]); });
  changed("piece-deleted-in-between", [](SLOTS& s) { s.insert(s.begin() + 2, RAW_ENTRY{0xE5}); });
  changed("deleted-before-short-entry", [](SLOTS& s) { s.insert(s.begin() + 3, RAW_ENTRY{0xE5}); });
  changed("type-not-zero", [](SLOTS& s) {
    for (unsigned int i = 0; i < 3; ++i) s[i][12] = 7;
  });
  changed("cluster-field-not-zero", [](SLOTS& s) {
    for (unsigned int i = 0; i < 3; ++i) s[i][26] = 5;
  });
  changed("attribute-of-a-piece-wrong", [](SLOTS& s) { s[1][11] = 0x07; });
  changed("attribute-with-more-bits", [](SLOTS& s) { s[1][11] = 0x3F; });
  changed("early-terminator", [](SLOTS& s) { s[1][1] = s[1][2] = 0; });
  changed("empty-last-piece", [](SLOTS& s) { s[0][1] = s[0][2] = 0; });
  SaveSlots("one-empty-piece", [] {
    SLOTS slots = Long(Name(1));
    slots[0][1] = slots[0][2] = 0;
    return slots;
  }());
  changed("label-in-between",
          [](SLOTS& s) { s.insert(s.begin() + 1, BUILDER::ShortEntry(BUILDER::ShortName("LABEL"), 0x08, 0, 0)); });
  changed("label-after-run", [](SLOTS& s) { s[3][11] = 0x08; });
  changed("zero-entry-in-between", [](SLOTS& s) { s.insert(s.begin() + 1, RAW_ENTRY{}); });
  SaveSlots("orphans-only", [&name] {
    SLOTS slots = Long(name);
    slots.pop_back();
    const SLOTS once = slots;
    slots.insert(slots.end(), once.begin(), once.end());
    return slots;
  }());
  for (const std::size_t units : {13u, 14u, 255u, 256u, 257u, 258u, 259u, 260u}) {
    SaveSlots("name-of-" + std::to_string(units) + "-units", Long(Name(units)));
  }
  SaveSlots("name-of-21-pieces", Long(Name(261)));
  SaveSlots("name-with-lone-high-surrogate", Long({'a', 0xD800, 'b'}));
  SaveSlots("name-with-lone-low-surrogate", Long({0xDC00, 'b'}));
  SaveSlots("name-with-reversed-surrogates", Long({'a', 0xDE00, 0xD83D}));
  SaveSlots("name-with-forbidden-units", Long({'a', '*', '?', '\\', 1, '/', ':'}));
  SaveSlots("name-of-spaces-and-dots", Long({' ', '.', ' ', '.', '.'}));
  SaveSlots("names-that-are-equal", [] {
    SLOTS slots = Long(Name(20));
    const SLOTS once = slots;
    slots.insert(slots.end(), once.begin(), once.end());
    return slots;
  }());

  // Short entries.
  const auto entry = [](const char(&eleven)[12], unsigned int attributes, std::uint32_t cluster, std::uint32_t size) {
    return BUILDER::ShortEntry(BUILDER::ShortName11({eleven, 11}), attributes, cluster, size);
  };
  SaveSlots("short-name-of-spaces", {entry("           ", 0x20, 0, 0)});
  SaveSlots("short-name-with-zero-bytes", {entry("AB\0CD\0  TXT", 0x20, 0, 0)});
  SaveSlots("short-name-begins-with-05", {entry("\x05"
                                                "BCDEFG TXT",
                                                0x20, 0, 0)});
  SaveSlots("short-name-of-high-bytes", {entry("\x80\xFF\xC3\xA9\xFE   TXT", 0x20, 0, 0)});
  SaveSlots("short-name-in-lower-case", {entry("lower   txt", 0x20, 0, 0)});
  SaveSlots("short-name-of-dots-only", {entry(".  .  .    ", 0x10, 3, 0)});
  SaveSlots("dot-entries-again", {entry(".          ", 0x10, 3, 0), entry("..         ", 0x10, 0, 0)});
  SaveSlots("attributes-all-set", {entry("ALL        ", 0xFF, 3, 0), entry("ALL2       ", 0xF7, 3, 0)});
  SaveSlots("directory-with-a-size", {entry("SIZED      ", 0x10, 100, 0x12345)});
  SaveSlots("chains-of-all-kinds", {entry("ZERO       ", 0x20, 0, 10), entry("ONE        ", 0x20, 1, 10),
                                    entry("SELF       ", 0x10, 3, 0), entry("FREE       ", 0x20, 300, 10),
                                    entry("FAR        ", 0x20, 0xFFFF, 10), entry("ROOT       ", 0x10, 0xFFFFFFFF, 600),
                                    entry("LARGE      ", 0x20, 100, 0xFFFFFFFF), entry("EMPTY      ", 0x10, 0, 0)});
  SLOTS full;
  for (unsigned int i = 0; i < 62; ++i) {
    full.push_back(entry("NAME00     ", 0x20, 0, 0));
    full.back()[4] = static_cast<unsigned char>('0' + i / 10);
    full.back()[5] = static_cast<unsigned char>('0' + i % 10);
  }
  SaveSlots("full", full);
  for (std::size_t i = 0; i < full.size(); i += 2) full[i] = RAW_ENTRY{0xE5};
  SaveSlots("every-other-slot-deleted", full);
  SaveSlots("every-other-slot-deleted-in-fixed-root", full, 0x08);
  SaveSlots("every-other-slot-deleted-in-root-chain", full, 0x09);
}

// ---------------------------------------------------------------------------------------------- paths and calls

void SavePaths(const std::string& name, const std::vector<UTF16>& paths) {
  BYTES bytes;
  for (const UTF16& path : paths) {
    for (const unsigned short unit : path) {
      bytes.push_back(static_cast<std::uint8_t>(unit));
      bytes.push_back(static_cast<std::uint8_t>(unit >> 8));
    }
    bytes.insert(bytes.end(), {0, 0});
  }
  Save("paths", name, bytes);
}

void MakePaths() {
  const auto p = [](const char* text) { return ToUtf16(text); };
  SavePaths("plain", {p("A"), p("FILE.TXT"), p("D"), p("D\\NEW.TXT"), p("a longer name.text"), p("X\\Y\\Z\\f")});
  SavePaths("trimmed", {p("\\A"), p(" A "), p("A."), p("A\\"), p("\\ Dir . \\ name. "), p("x\\."), p("a .\\ b")});
  SavePaths("refused",
            {p(""), p("\\"), p("\\\\x"), p("a\\\\b"), p("."), p(".\\x"), p("a..b"), p("a/b"), p("a*b"), p("\x01")});
  SavePaths("surrogates", {{0xD83D, 0xDE00}, {0xD83D}, {0xDE00, 0xD83D}, {'a', 0xFFFF}, {0xFFFE, '\\', 0xD800}});
  SavePaths("unicode", {p("\xC3\xA9t\xC3\xA9"), p("\xC3\x89T\xC3\x89"), p("\xE5\xB0\x80"), p("\xD0\x96.\xD0\xB6"),
                        p("\xE2\x82\xAC.txt")});
  for (const std::size_t units : {255u, 258u, 259u, 260u})
    SavePaths("of-" + std::to_string(units) + "-units", {Name(units)});
  UTF16 deep;
  for (unsigned int i = 0; i < 129; ++i) {
    if (i != 0) deep.push_back('\\');
    deep.push_back(static_cast<unsigned short>('a' + i % 26));
  }
  SavePaths("deep", {deep, p("a\\b"), p("a")});
  SavePaths("short-names", {p("+,;=[]"), p(".profile"), p("a.b.c"), p("NAME~1"), p("averylongname.extension"),
                            p("averylongname2.extension")});
}

void MakeCalls() {
  std::minstd_rand random(1);
  for (unsigned int i = 0; i < 12; ++i) {
    const unsigned int bits = i % 3 == 0 ? 12 : i % 3 == 1 ? 16 : 32;
    BUILDER builder(Geometry(bits));
    Populate(builder);
    BYTES tail(300);
    for (std::uint8_t& byte : tail) byte = static_cast<std::uint8_t>(random() >> 8);
    SaveImage("calls", "random-" + std::to_string(i) + Suffix(bits), builder.Image(), tail, i % 4, i > 8 ? 5 * i : 0,
              i == 4 || i == 7 ? 10 * i : 0);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: fuzz_corpus DIRECTORY\n");
    return 2;
  }
  s_Directory = argv[1];
  (void)mkdir(s_Directory.c_str(), 0777);
  MakeImages();
  MakeGeometries();
  MakeDirectories();
  MakePaths();
  MakeCalls();
  return 0;
}
