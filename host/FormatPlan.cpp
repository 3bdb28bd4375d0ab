/// @file FormatPlan.cpp
/// Where everything of a new volume lies.
///
/// The type of a volume follows from its count of clusters, and systems do not agree on the exact bounds: around 4085
/// and 65525 clusters one sees FAT12 where another sees FAT16, or refuses. No volume is made within 16 clusters of a
/// bound. A count just above a type's last good one is brought down to it by reserved sectors; one just below its first
/// cannot be raised, and is refused.

#include <algorithm>

#include "Error.h"
#include "Format.h"
#include "Label.h"
#include "Narrow.h"

namespace fatlib {

namespace {

constexpr std::uint64_t KIB = 1024;
constexpr std::uint64_t MIB = 1024 * KIB;
constexpr std::uint64_t GIB = 1024 * MIB;

constexpr std::uint32_t MAX_SECTORS_PER_CLUSTER = 128;
constexpr std::uint32_t MAX_BYTES_PER_CLUSTER = 256 * 1024;
constexpr std::uint32_t MAX_RESERVED_SECTORS = 0xFFFF;
constexpr std::uint32_t RESERVED_SECTORS_FAT32 = 32;
constexpr std::uint32_t DIRECTORY_ENTRY_BYTES = 32;

struct TypeBounds {
  std::uint32_t least;
  std::uint32_t most;
  std::uint32_t lowered;  // counts up to here are brought down to `most`
};

constexpr std::uint32_t BOUND_12_16 = 4085;
constexpr std::uint32_t BOUND_16_32 = 65525;
constexpr TypeBounds FAT12_BOUNDS{1, BOUND_12_16 - 16, BOUND_12_16 + 15};
constexpr TypeBounds FAT16_BOUNDS{BOUND_12_16 + 16, BOUND_16_32 - 16, BOUND_16_32 + 15};
constexpr TypeBounds FAT32_BOUNDS{BOUND_16_32 + 16, 0x0FFFFFF0, 0x0FFFFFFF};  // numbers from 0FFFFFF7 on are marks

constexpr TypeBounds BoundsOf(int bits) { return bits == 12 ? FAT12_BOUNDS : bits == 16 ? FAT16_BOUNDS : FAT32_BOUNDS; }

struct Floppy {
  std::uint64_t bytes;
  std::uint32_t bytesPerCluster;
  std::uint32_t rootEntries;
  std::uint8_t media;
};

constexpr Floppy FLOPPIES[] = {
    {360 * KIB, 1024, 112, 0xFD}, {720 * KIB, 1024, 112, 0xF9},  {1200 * KIB, 512, 224, 0xF9},
    {1440 * KIB, 512, 224, 0xF0}, {2880 * KIB, 1024, 224, 0xF0},
};

const Floppy* FloppyOf(std::uint64_t bytes, std::uint32_t bytesPerSector) {
  if (bytesPerSector != 512) return nullptr;
  const auto* const found =
      std::find_if(std::begin(FLOPPIES), std::end(FLOPPIES), [bytes](const Floppy& f) { return f.bytes == bytes; });
  return found != std::end(FLOPPIES) ? found : nullptr;
}

// Where the search for a cluster size begins.
struct ClusterSuggestion {
  std::uint64_t upToBytes;
  std::uint32_t bytesPerCluster;
};

constexpr ClusterSuggestion FAT12_CLUSTERS[] = {{~0ull, 512}};
constexpr ClusterSuggestion FAT16_CLUSTERS[] = {{16 * MIB, 1024},  {128 * MIB, 2048}, {256 * MIB, 4096},
                                                {512 * MIB, 8192}, {GIB, 16384},      {2 * GIB, 32768},
                                                {4 * GIB, 65536},  {~0ull, 131072}};
constexpr ClusterSuggestion FAT32_CLUSTERS[] = {
    {260 * MIB, 512}, {8 * GIB, 4096}, {16 * GIB, 8192}, {32 * GIB, 16384}, {~0ull, 32768}};

std::uint32_t SuggestedCluster(int bits, std::uint64_t bytes) {
  const ClusterSuggestion* suggestion = bits == 12 ? FAT12_CLUSTERS : bits == 16 ? FAT16_CLUSTERS : FAT32_CLUSTERS;
  while (bytes > suggestion->upToBytes) ++suggestion;
  return suggestion->bytesPerCluster;
}

std::uint64_t DivideRoundUp(std::uint64_t value, std::uint64_t by) { return (value + by - 1) / by; }

enum class Fit { Good, TooFew, TooMany, Impossible };

// The layout for one type and cluster size.
class Layouter {
 public:
  Layouter(int bits, std::uint64_t sectors, std::uint32_t bytesPerCluster, const FormatOptions& options)
      : m_nBits(bits),
        m_nSectors(sectors),
        m_nBytesPerSector(options.bytesPerSector),
        m_nSectorsPerCluster(bytesPerCluster / options.bytesPerSector),
        m_nAlignment(std::max(options.alignment / options.bytesPerSector, 1u)),
        m_nReservedLeast(bits == 32 ? RESERVED_SECTORS_FAT32 : 1) {
    if (bits != 32) m_nRootSectors = RootEntries(options) * DIRECTORY_ENTRY_BYTES / m_nBytesPerSector;
  }

  Fit Lay(Geometry* geometry) {
    if (m_nRootSectors * m_nBytesPerSector / DIRECTORY_ENTRY_BYTES > 0xFFFF) return Fit::Impossible;
    const TypeBounds bounds = BoundsOf(m_nBits);
    std::uint64_t fat = SmallestFat();
    std::uint64_t data = DataStart(fat);
    std::uint64_t clusters = Clusters(data);
    if (clusters > bounds.lowered) return Fit::TooMany;
    if (clusters > bounds.most) {
      fat = FatFor(bounds.most);
      const std::uint64_t most = std::uint64_t{bounds.most} * m_nSectorsPerCluster + (m_nSectorsPerCluster - 1);
      data = DivideRoundUp(m_nSectors - most, m_nAlignment) * m_nAlignment;
      clusters = Clusters(data);
    }
    if (clusters < bounds.least) return Fit::TooFew;
    const std::uint64_t reserved = data - 2 * fat - m_nRootSectors;
    if (reserved > MAX_RESERVED_SECTORS) return Fit::Impossible;
    geometry->reservedSectors = static_cast<std::uint32_t>(reserved);
    geometry->sectorsPerFat = static_cast<std::uint32_t>(fat);
    geometry->firstDataSector = data;
    geometry->clusters = static_cast<std::uint32_t>(clusters);
    geometry->sectorsPerCluster = m_nSectorsPerCluster;
    geometry->bytesPerCluster = m_nSectorsPerCluster * m_nBytesPerSector;
    geometry->rootEntries = m_nRootSectors * m_nBytesPerSector / DIRECTORY_ENTRY_BYTES;
    return Fit::Good;
  }

 private:
  // In whole sectors: a root that ended inside one would make readers disagree on where the clusters begin.
  static std::uint32_t RootEntries(const FormatOptions& options) {
    std::uint32_t entries = options.rootEntries;
    const Floppy* floppy = FloppyOf(options.bytes, options.bytesPerSector);
    if (entries == 0) entries = floppy != nullptr ? floppy->rootEntries : 512;
    const std::uint32_t perSector = options.bytesPerSector / DIRECTORY_ENTRY_BYTES;
    return (entries + perSector - 1) / perSector * perSector;
  }

  std::uint64_t FatFor(std::uint64_t clusters) const {
    const std::uint64_t bits = (clusters + 2) * static_cast<std::uint64_t>(m_nBits);
    return DivideRoundUp(bits, std::uint64_t{8} * m_nBytesPerSector);
  }

  std::uint64_t DataStart(std::uint64_t fat) const {
    return DivideRoundUp(m_nReservedLeast + 2 * fat + m_nRootSectors, m_nAlignment) * m_nAlignment;
  }

  std::uint64_t Clusters(std::uint64_t dataStart) const {
    return dataStart < m_nSectors ? (m_nSectors - dataStart) / m_nSectorsPerCluster : 0;
  }

  // A larger FAT leaves fewer clusters, so from some size on every FAT is large enough.
  std::uint64_t SmallestFat() const {
    std::uint64_t low = 1;
    std::uint64_t high = FatFor(m_nSectors / m_nSectorsPerCluster);
    while (low < high) {
      const std::uint64_t middle = (low + high) / 2;
      if (FatFor(Clusters(DataStart(middle))) <= middle) {
        high = middle;
      } else {
        low = middle + 1;
      }
    }
    return low;
  }

  int m_nBits;
  std::uint64_t m_nSectors;
  std::uint32_t m_nBytesPerSector;
  std::uint32_t m_nSectorsPerCluster;
  std::uint32_t m_nAlignment;  // sectors
  std::uint32_t m_nReservedLeast;
  std::uint32_t m_nRootSectors = 0;
};

// options.bytes is the size of the volume.
Fit LayWithType(int bits, std::uint64_t sectors, const FormatOptions& options, Geometry* geometry) {
  if (bits == 32 && options.rootEntries != 0) return Fit::Impossible;
  geometry->type = static_cast<FatType>(bits);
  const auto lay = [&](std::uint32_t bytesPerCluster) {
    return Layouter(bits, sectors, bytesPerCluster, options).Lay(geometry);
  };
  if (options.bytesPerCluster != 0) return lay(options.bytesPerCluster);
  const Floppy* floppy = bits == 12 ? FloppyOf(options.bytes, options.bytesPerSector) : nullptr;
  std::uint32_t first = floppy != nullptr ? floppy->bytesPerCluster : SuggestedCluster(bits, options.bytes);
  first = std::max(first, options.bytesPerSector);
  const std::uint32_t last = std::min(MAX_BYTES_PER_CLUSTER, options.bytesPerSector * MAX_SECTORS_PER_CLUSTER);
  Fit fit = Fit::TooFew;
  for (std::uint32_t size = first; fit == Fit::TooFew && size >= options.bytesPerSector; size /= 2) fit = lay(size);
  for (std::uint32_t size = first * 2; fit == Fit::TooMany && size <= last; size *= 2) fit = lay(size);
  return fit;
}

bool AreOptionsPossible(const FormatOptions& options) {
  const std::uint32_t sector = options.bytesPerSector;
  const std::uint32_t cluster = options.bytesPerCluster;
  if (options.bits != 0 && options.bits != 12 && options.bits != 16 && options.bits != 32) return false;
  if (!IsPowerOfTwo(sector) || sector < 512 || sector > 4096) return false;
  if (cluster != 0 && (!IsPowerOfTwo(cluster) || cluster < sector || cluster > MAX_BYTES_PER_CLUSTER)) return false;
  if (cluster / sector > MAX_SECTORS_PER_CLUSTER) return false;
  return options.rootEntries <= 0xFFFF && options.alignment % sector == 0;
}

int SuggestedBits(std::uint64_t bytes) { return bytes < 16 * MIB ? 12 : bytes < 512 * MIB ? 16 : 32; }

}  // namespace

std::error_code PlanFormat(std::uint64_t deviceBytes, const FormatOptions& options, Geometry* geometry) {
  if (!AreOptionsPossible(options) || options.bytes > deviceBytes) return Status::InvalidParameter;
  ShortName11 label{};
  if (EncodeLabel(options.label, &label)) return Status::InvalidParameter;
  FormatOptions exact = options;
  if (exact.bytes == 0) exact.bytes = deviceBytes;
  const std::uint64_t sectors = exact.bytes / exact.bytesPerSector;
  if (sectors == 0 || sectors > 0xFFFFFFFF) return Status::InvalidParameter;

  Geometry plan;
  plan.bytesPerSector = exact.bytesPerSector;
  plan.totalSectors = sectors;
  plan.fats = 2;
  plan.volumeId = exact.volumeId;
  plan.oemName = "FATLIB  ";
  ShortName11 none{};
  (void)EncodeLabel({}, &none);
  if (label != none) plan.bootLabel.assign(label.begin(), label.end());
  plan.bootLabel.erase(plan.bootLabel.find_last_not_of(' ') + 1);
  Fit fit = LayWithType(options.bits != 0 ? options.bits : SuggestedBits(exact.bytes), sectors, exact, &plan);
  for (const int bits : {12, 16, 32}) {
    if (options.bits == 0 && fit != Fit::Good) fit = LayWithType(bits, sectors, exact, &plan);
  }
  if (fit != Fit::Good) return Status::InvalidParameter;
  const Floppy* floppy = plan.type == FatType::Fat12 ? FloppyOf(exact.bytes, exact.bytesPerSector) : nullptr;
  plan.media = floppy != nullptr ? floppy->media : 0xF8;
  if (plan.type == FatType::Fat32) {
    plan.rootCluster = 2;
    plan.fsInfoSector = 1;
    plan.backupBootSector = 6;
  }
  *geometry = plan;
  return {};
}

}  // namespace fatlib
