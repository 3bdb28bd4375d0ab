/// @file ImageBuilder.cpp
/// Boot sector, FAT entries, directory entries and clusters, written from the description of the format.

#include "support/ImageBuilder.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace {

[[noreturn]] void Misuse(const std::string& what) { throw std::logic_error("image builder: " + what); }

std::uint64_t RoundUp(std::uint64_t value, std::uint64_t unit) { return (value + unit - 1) / unit * unit; }

void Put16(RAW_ENTRY& entry, std::size_t offset, unsigned int value) {
  entry.at(offset) = static_cast<unsigned char>(value);
  entry.at(offset + 1) = static_cast<unsigned char>(value >> 8);
}

// Upper-case ASCII that stands in a short name as it is.
bool IsShortChar(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         (c != '\0' && std::strchr("!#$%&'()-@^_`{}~", c) != nullptr);
}

// A name that its short entry says completely.
bool IsPlainShortName(std::string_view name, std::string_view& base, std::string_view& extension) {
  const std::size_t dot = name.find('.');
  base = name.substr(0, dot);
  extension = dot == std::string_view::npos ? std::string_view() : name.substr(dot + 1);
  if (base.empty() || base.size() > 8 || extension.size() > 3) return false;
  if (dot != std::string_view::npos && extension.empty()) return false;
  return std::all_of(base.begin(), base.end(), IsShortChar) &&
         std::all_of(extension.begin(), extension.end(), IsShortChar);
}

}  // namespace

// ---------------------------------------------------------------- making and taking volumes

CImageBuilder::CImageBuilder(const FAT_GEOMETRY& geometry)
    : m_Geometry(geometry), m_pOwned(std::make_shared<CDiskImage>()), m_pStore(m_pOwned.get()) {
  Format();
  OpenRoot();
}

CImageBuilder::CImageBuilder(CByteStore& volume) : m_pStore(&volume) {
  ReadGeometry();
  OpenRoot();
}

CDiskImage& CImageBuilder::Image() {
  if (m_pOwned == nullptr) Misuse("the volume was given");
  return *m_pOwned;
}

void CImageBuilder::Format() {
  FAT_GEOMETRY& g = m_Geometry;
  const bool fat32 = g.FatBits == 32;
  if (g.FatBits != 12 && g.FatBits != 16 && !fat32) Misuse("FAT width");
  if (g.BytesPerSector == 0 || g.SectorsPerCluster == 0) Misuse("sector or cluster size");
  const unsigned int bootSectors = (512 + g.BytesPerSector - 1) / g.BytesPerSector;
  if (g.ReservedSectors == 0) g.ReservedSectors = fat32 ? std::max(32u, 3 * bootSectors) : bootSectors;
  if (g.RootEntries == 0 && !fat32) g.RootEntries = 512;
  if (g.Clusters == 0) g.Clusters = fat32 ? 70000 : g.FatBits == 16 ? 5000 : 1000;
  if (g.FsInfoSector == 0 && fat32) g.FsInfoSector = bootSectors;
  const std::uint64_t entries = static_cast<std::uint64_t>(g.Clusters) + 2;
  const std::uint64_t fatBytes = g.FatBits == 12 ? (entries * 3 + 1) / 2 : entries * (g.FatBits / 8);
  if (g.SectorsPerFat == 0)
    g.SectorsPerFat = static_cast<unsigned int>(RoundUp(fatBytes, g.BytesPerSector) / g.BytesPerSector);
  if (g.TotalSectors == 0) {
    const std::uint64_t sectors =
        DataOffset() / g.BytesPerSector + static_cast<std::uint64_t>(g.Clusters) * g.SectorsPerCluster;
    if (sectors > 0xFFFFFFFFu) Misuse("more sectors than the boot sector can say");
    g.TotalSectors = static_cast<std::uint32_t>(sectors);
  }
  if (g.TotalField == FAT_GEOMETRY::TotalAuto) {
    g.TotalField = !fat32 && g.TotalSectors < 0x10000 ? FAT_GEOMETRY::Total16 : FAT_GEOMETRY::Total32;
  }

  m_pOwned->Resize(static_cast<std::uint64_t>(g.TotalSectors) * g.BytesPerSector);
  CByteStore& store = *m_pStore;
  store.Set8(0, g.Jump);
  store.Set8(1, fat32 ? 0x58 : 0x3C);
  store.Set8(2, 0x90);
  store.Write(3, "FATTEST ", 8);
  store.Set16(11, g.BytesPerSector);
  store.Set8(13, g.SectorsPerCluster);
  store.Set16(14, g.ReservedSectors);
  store.Set8(16, g.NumberOfFats);
  store.Set16(17, g.RootEntries);
  const bool in16 = g.TotalField == FAT_GEOMETRY::Total16 || g.TotalField == FAT_GEOMETRY::TotalBoth;
  const bool in32 = g.TotalField == FAT_GEOMETRY::Total32 || g.TotalField == FAT_GEOMETRY::TotalBoth;
  store.Set16(19, in16 ? g.TotalSectors : 0);
  store.Set8(21, g.Media);
  store.Set16(22, fat32 ? 0 : g.SectorsPerFat);
  store.Set16(24, 63);
  store.Set16(26, 255);
  store.Set32(32, in32 ? g.TotalSectors : 0);
  const std::uint64_t ext = fat32 ? 64 : 36;  // drive number, signature, serial, label, type
  if (fat32) {
    store.Set32(36, g.SectorsPerFat);
    store.Set32(44, g.RootCluster);
    store.Set16(48, g.FsInfoSector);
    const std::uint64_t info = FsInfoOffset();
    store.Set32(info, 0x41615252);
    store.Set32(info + 484, 0x61417272);
    store.Set32(info + 488, g.FsInfoFree);
    store.Set32(info + 492, g.FsInfoNext);
    store.Set32(info + 508, 0xAA550000);
  }
  store.Set8(ext, 0x80);
  store.Set8(ext + 2, 0x29);
  store.Set32(ext + 3, 0x12345678);
  store.Write(ext + 7, "NO NAME    ", 11);
  store.Write(ext + 18, fat32 ? "FAT32   " : g.FatBits == 16 ? "FAT16   " : "FAT12   ", 8);
  store.Set16(510, 0xAA55);
  // The customary second boot sector, where there is a place for it.
  const std::uint64_t backup = 6ull * g.BytesPerSector;
  if (fat32 && g.ReservedSectors > 6 && (FsInfoOffset() + 512 <= backup || FsInfoOffset() >= backup + 512)) {
    store.Set16(50, 6);
    store.WriteBytes(backup, store.ReadBytes(0, 512));
  }

  SetFatEntry(0, 0x0FFFFF00u | g.Media);
  SetFatEntry(1, END_OF_CHAIN);
  if (fat32 && g.RootCluster >= 2 && g.RootCluster - 2 < g.Clusters) SetFatEntry(g.RootCluster, END_OF_CHAIN);
}

void CImageBuilder::ReadGeometry() {
  FAT_GEOMETRY& g = m_Geometry;
  const CByteStore& store = *m_pStore;
  g.BytesPerSector = store.Get16(11);
  g.SectorsPerCluster = store.Get8(13);
  g.ReservedSectors = store.Get16(14);
  g.NumberOfFats = store.Get8(16);
  g.RootEntries = store.Get16(17);
  g.Media = store.Get8(21);
  g.Jump = store.Get8(0);
  const bool fat32 = store.Get16(22) == 0;
  g.TotalField = store.Get16(19) != 0 ? FAT_GEOMETRY::Total16 : FAT_GEOMETRY::Total32;
  g.TotalSectors = store.Get16(19) != 0 ? store.Get16(19) : store.Get32(32);
  g.SectorsPerFat = fat32 ? store.Get32(36) : store.Get16(22);
  g.RootCluster = fat32 ? store.Get32(44) : 0;
  g.FsInfoSector = fat32 ? store.Get16(48) : 0;
  g.FatBits = fat32 ? 32 : 16;
  if (g.BytesPerSector == 0 || g.SectorsPerCluster == 0) Misuse("no volume");
  const std::uint64_t overhead = DataOffset() / g.BytesPerSector;
  if (overhead > g.TotalSectors) Misuse("no volume");
  g.Clusters = static_cast<unsigned int>((g.TotalSectors - overhead) / g.SectorsPerCluster);
  if (!fat32 && g.Clusters <= 4086) g.FatBits = 12;
}

void CImageBuilder::OpenRoot() {
  DIRECTORY_STATE root;
  root.FixedRoot = m_Geometry.FatBits != 32;
  if (!root.FixedRoot) root.Clusters = Chain(m_Geometry.RootCluster);
  m_Directories.push_back(root);
  const std::vector<RAW_ENTRY> entries = Entries(Root());
  while (m_Directories[0].NextSlot < entries.size() && entries[m_Directories[0].NextSlot][0] != 0) {
    ++m_Directories[0].NextSlot;
  }
}

CImageBuilder::DIRECTORY CImageBuilder::AdoptDir(std::uint32_t firstCluster) {
  DIRECTORY_STATE state;
  state.Clusters = Chain(firstCluster);
  if (state.Clusters.empty()) Misuse("directory without clusters");
  m_Directories.push_back(state);
  const DIRECTORY directory = static_cast<DIRECTORY>(m_Directories.size() - 1);
  const std::vector<RAW_ENTRY> entries = Entries(directory);
  unsigned int slot = 0;
  while (slot < entries.size() && entries[slot][0] != 0) ++slot;
  m_Directories[directory].NextSlot = slot;
  return directory;
}

// ---------------------------------------------------------------- layout

std::uint64_t CImageBuilder::FatBytes() const {
  return static_cast<std::uint64_t>(m_Geometry.SectorsPerFat) * m_Geometry.BytesPerSector;
}

std::uint64_t CImageBuilder::FatOffset(unsigned int copy) const {
  return static_cast<std::uint64_t>(m_Geometry.ReservedSectors) * m_Geometry.BytesPerSector + copy * FatBytes();
}

std::uint64_t CImageBuilder::RootOffset() const {
  return m_Geometry.FatBits == 32 ? ClusterOffset(m_Geometry.RootCluster) : FatOffset(m_Geometry.NumberOfFats);
}

std::uint64_t CImageBuilder::DataOffset() const {
  return FatOffset(m_Geometry.NumberOfFats) +
         RoundUp(static_cast<std::uint64_t>(m_Geometry.RootEntries) * 32, m_Geometry.BytesPerSector);
}

std::uint64_t CImageBuilder::ClusterOffset(std::uint32_t cluster) const {
  if (cluster < 2) Misuse("cluster 0 and 1 have no place");
  return DataOffset() + static_cast<std::uint64_t>(cluster - 2) * ClusterBytes();
}

std::uint64_t CImageBuilder::FsInfoOffset() const {
  return static_cast<std::uint64_t>(m_Geometry.FsInfoSector) * m_Geometry.BytesPerSector;
}

// ---------------------------------------------------------------- the FAT

std::uint32_t CImageBuilder::EndMark() const {
  return m_Geometry.FatBits == 32 ? END_OF_CHAIN : m_Geometry.FatBits == 16 ? 0xFFFFu : 0xFFFu;
}

std::uint32_t CImageBuilder::FatEntry(std::uint32_t cluster, unsigned int copy) const {
  const std::uint64_t fat = FatOffset(copy);
  const std::uint64_t n = cluster;
  if (m_Geometry.FatBits == 32) return m_pStore->Get32(fat + n * 4);
  if (m_Geometry.FatBits == 16) return m_pStore->Get16(fat + n * 2);
  const unsigned int pair = m_pStore->Get16(fat + n * 3 / 2);
  return n % 2 == 0 ? pair & 0xFFFu : pair >> 4;
}

void CImageBuilder::SetFatEntryIn(unsigned int copy, std::uint32_t cluster, std::uint32_t value) {
  const std::uint64_t fat = FatOffset(copy);
  const std::uint64_t n = cluster;
  if (m_Geometry.FatBits == 32) {
    m_pStore->Set32(fat + n * 4, value);
  } else if (m_Geometry.FatBits == 16) {
    m_pStore->Set16(fat + n * 2, value & 0xFFFFu);
  } else {
    const unsigned int pair = m_pStore->Get16(fat + n * 3 / 2);
    m_pStore->Set16(fat + n * 3 / 2,
                    n % 2 == 0 ? (pair & 0xF000u) | (value & 0xFFFu) : (pair & 0xFu) | (value & 0xFFFu) << 4);
  }
}

void CImageBuilder::SetFatEntry(std::uint32_t cluster, std::uint32_t value) {
  for (unsigned int copy = 0; copy < m_Geometry.NumberOfFats; ++copy) SetFatEntryIn(copy, cluster, value);
  if (value == 0) m_nAllocateFrom = std::min(m_nAllocateFrom, std::max(cluster, 2u));
}

void CImageBuilder::SetChain(const std::vector<std::uint32_t>& clusters) {
  for (std::size_t i = 0; i < clusters.size(); ++i) {
    SetFatEntry(clusters[i], i + 1 < clusters.size() ? clusters[i + 1] : EndMark());
  }
}

std::vector<std::uint32_t> CImageBuilder::Chain(std::uint32_t first, std::size_t limit) const {
  const std::uint32_t mask = m_Geometry.FatBits == 32 ? 0x0FFFFFFFu : 0xFFFFFFFFu;
  std::vector<std::uint32_t> clusters;
  for (std::uint32_t c = first; c >= 2 && c - 2 < m_Geometry.Clusters && clusters.size() < limit;
       c = FatEntry(c) & mask) {
    clusters.push_back(c);
  }
  return clusters;
}

std::vector<std::uint32_t> CImageBuilder::Allocate(unsigned int count, std::uint32_t from) {
  std::vector<std::uint32_t> clusters;
  std::uint32_t c = std::max({from, m_nAllocateFrom, 2u});
  for (; clusters.size() < count; ++c) {
    if (c - 2 >= m_Geometry.Clusters) Misuse("volume full");
    if (FatEntry(c) == 0) clusters.push_back(c);
  }
  if (from <= m_nAllocateFrom && count != 0) m_nAllocateFrom = c;
  SetChain(clusters);
  return clusters;
}

unsigned int CImageBuilder::CountFree() const {
  unsigned int free = 0;
  for (std::uint32_t c = 2; c - 2 < m_Geometry.Clusters; ++c) free += FatEntry(c) == 0 ? 1u : 0u;
  return free;
}

// ---------------------------------------------------------------- clusters

std::vector<unsigned char> CImageBuilder::Cluster(std::uint32_t cluster) const {
  return m_pStore->ReadBytes(ClusterOffset(cluster), ClusterBytes());
}

void CImageBuilder::WriteClusters(const std::vector<std::uint32_t>& clusters, const std::vector<unsigned char>& bytes) {
  std::size_t done = 0;
  for (const std::uint32_t cluster : clusters) {
    if (done == bytes.size()) return;
    const std::size_t part = std::min<std::size_t>(ClusterBytes(), bytes.size() - done);
    m_pStore->Write(ClusterOffset(cluster), bytes.data() + done, part);
    done += part;
  }
  if (done != bytes.size()) Misuse("more bytes than the clusters hold");
}

// ---------------------------------------------------------------- directory entries

unsigned int CImageBuilder::SlotCount(DIRECTORY directory) const {
  const DIRECTORY_STATE& state = m_Directories.at(directory);
  if (state.FixedRoot) {
    return static_cast<unsigned int>(
        RoundUp(static_cast<std::uint64_t>(m_Geometry.RootEntries) * 32, m_Geometry.BytesPerSector) / 32);
  }
  return static_cast<unsigned int>(state.Clusters.size() * (ClusterBytes() / 32));
}

std::uint64_t CImageBuilder::SlotOffset(DIRECTORY directory, unsigned int slot) const {
  const DIRECTORY_STATE& state = m_Directories.at(directory);
  if (slot >= SlotCount(directory)) Misuse("slot beyond the directory");
  const std::uint64_t offset = static_cast<std::uint64_t>(slot) * 32;
  if (state.FixedRoot) return RootOffset() + offset;
  return ClusterOffset(state.Clusters[ToSize(offset / ClusterBytes())]) + offset % ClusterBytes();
}

RAW_ENTRY CImageBuilder::Entry(DIRECTORY directory, unsigned int slot) const {
  RAW_ENTRY entry{};
  m_pStore->Read(SlotOffset(directory, slot), entry.data(), entry.size());
  return entry;
}

void CImageBuilder::SetEntry(DIRECTORY directory, unsigned int slot, const RAW_ENTRY& entry) {
  m_pStore->Write(SlotOffset(directory, slot), entry.data(), entry.size());
}

std::vector<RAW_ENTRY> CImageBuilder::Entries(DIRECTORY directory) const {
  std::vector<RAW_ENTRY> entries;
  for (unsigned int slot = 0; slot < SlotCount(directory); ++slot) entries.push_back(Entry(directory, slot));
  return entries;
}

void CImageBuilder::Extend(DIRECTORY directory, unsigned int slots) {
  DIRECTORY_STATE& state = m_Directories.at(directory);
  while (SlotCount(directory) < slots) {
    if (state.FixedRoot) Misuse("root directory full");
    const std::uint32_t added = Allocate(1).front();
    m_pStore->Fill(ClusterOffset(added), ClusterBytes(), 0);
    state.Clusters.push_back(added);
    SetChain(state.Clusters);
  }
}

unsigned int CImageBuilder::Append(DIRECTORY directory, const std::vector<RAW_ENTRY>& entries) {
  const unsigned int first = m_Directories.at(directory).NextSlot;
  Extend(directory, first + static_cast<unsigned int>(entries.size()));
  for (std::size_t i = 0; i < entries.size(); ++i)
    SetEntry(directory, first + static_cast<unsigned int>(i), entries[i]);
  m_Directories.at(directory).NextSlot = first + static_cast<unsigned int>(entries.size());
  return first;
}

unsigned int CImageBuilder::Append(DIRECTORY directory, const RAW_ENTRY& entry) {
  return Append(directory, std::vector<RAW_ENTRY>{entry});
}

unsigned int CImageBuilder::AddEntry(DIRECTORY parent, std::string_view name, std::uint32_t cluster, std::uint32_t size,
                                     unsigned int attributes, const ENTRY_OPTIONS& options) {
  std::string_view base, extension;
  const bool plain = IsPlainShortName(name, base, extension);
  SHORT_NAME shortName{};
  if (!options.ShortName.empty()) {
    shortName = ShortName11(options.ShortName);
  } else if (plain) {
    shortName = ShortName(base, extension);
  } else {
    // The number of the slot makes it unique, as long as no test chooses such a name itself.
    std::string number = std::to_string(m_Directories.at(parent).NextSlot);
    number.insert(0, number.size() < 5 ? 5 - number.size() : 0, '0');
    shortName = ShortName("LN~" + number, "");
  }
  const bool withLongName = !options.NoLongName && (options.ForceLongName || !plain);
  const RAW_ENTRY entry = ShortEntry(shortName, attributes, options.SetFirstCluster ? options.FirstCluster : cluster,
                                     options.SetSize ? options.Size : size, options.Date, options.Time);
  const std::vector<RAW_ENTRY> set = withLongName ? EntrySet(ToUtf16(name), entry) : std::vector<RAW_ENTRY>{entry};
  return Append(parent, set) + static_cast<unsigned int>(set.size()) - 1;
}

unsigned int CImageBuilder::AddFile(DIRECTORY parent, std::string_view name, const std::vector<unsigned char>& content,
                                    const std::vector<std::uint32_t>& clusters, const ENTRY_OPTIONS& options) {
  std::vector<std::uint32_t> chain = clusters;
  if (chain.empty()) {
    chain = Allocate(static_cast<unsigned int>(RoundUp(content.size(), ClusterBytes()) / ClusterBytes()));
  } else {
    SetChain(chain);
  }
  WriteClusters(chain, content);
  return AddEntry(parent, name, chain.empty() ? 0 : chain.front(), static_cast<std::uint32_t>(content.size()),
                  options.Attributes, options);
}

CImageBuilder::DIRECTORY CImageBuilder::AddDir(DIRECTORY parent, std::string_view name,
                                               const std::vector<std::uint32_t>& clusters,
                                               const ENTRY_OPTIONS& options) {
  DIRECTORY_STATE state;
  state.Clusters = clusters;
  if (state.Clusters.empty()) {
    state.Clusters = Allocate(1);
  } else {
    SetChain(state.Clusters);
  }
  for (const std::uint32_t cluster : state.Clusters) m_pStore->Fill(ClusterOffset(cluster), ClusterBytes(), 0);
  const unsigned int attributes = options.Attributes == 0x20 ? 0x10u : options.Attributes | 0x10u;
  AddEntry(parent, name, state.Clusters.front(), 0, attributes, options);
  const std::uint32_t parentCluster = parent == Root() ? 0 : m_Directories.at(parent).Clusters.front();
  const std::uint32_t first = state.Clusters.front();
  m_Directories.push_back(state);
  const DIRECTORY directory = static_cast<DIRECTORY>(m_Directories.size() - 1);
  Append(directory, ShortEntry(ShortName11(".          "), 0x10, first, 0, options.Date, options.Time));
  Append(directory, ShortEntry(ShortName11("..         "), 0x10, parentCluster, 0, options.Date, options.Time));
  return directory;
}

void CImageBuilder::AddLabel(DIRECTORY parent, std::string_view label) {
  std::string padded(label);
  padded.resize(11, ' ');
  Append(parent, ShortEntry(ShortName11(padded), 0x08, 0, 0));
  if (parent == Root()) m_pStore->Write(m_Geometry.FatBits == 32 ? 71 : 43, padded.data(), 11);
}

// ---------------------------------------------------------------- raw pieces

SHORT_NAME CImageBuilder::ShortName(std::string_view base, std::string_view extension) {
  if (base.size() > 8 || extension.size() > 3) Misuse("short name too long");
  std::string text(base);
  text.resize(8, ' ');
  text += extension;
  text.resize(11, ' ');
  return ShortName11(text);
}

SHORT_NAME CImageBuilder::ShortName11(std::string_view elevenBytes) {
  if (elevenBytes.size() != 11) Misuse("a short name has 11 bytes");
  SHORT_NAME name{};
  std::transform(elevenBytes.begin(), elevenBytes.end(), name.begin(),
                 [](char c) { return static_cast<unsigned char>(c); });
  return name;
}

RAW_ENTRY CImageBuilder::ShortEntry(const SHORT_NAME& name, unsigned int attributes, std::uint32_t cluster,
                                    std::uint32_t size, unsigned int date, unsigned int time) {
  RAW_ENTRY entry{};
  std::copy(name.begin(), name.end(), entry.begin());
  entry[11] = static_cast<unsigned char>(attributes);
  Put16(entry, 14, time);
  Put16(entry, 16, date);
  Put16(entry, 18, date);
  Put16(entry, 20, cluster >> 16);
  Put16(entry, 22, time);
  Put16(entry, 24, date);
  Put16(entry, 26, cluster & 0xFFFFu);
  Put16(entry, 28, size & 0xFFFFu);
  Put16(entry, 30, size >> 16);
  return entry;
}

unsigned char CImageBuilder::Checksum(const SHORT_NAME& name) {
  unsigned int sum = 0;
  for (const unsigned char byte : name) sum = (((sum & 1u) << 7 | sum >> 1) + byte) & 0xFFu;
  return static_cast<unsigned char>(sum);
}

std::vector<RAW_ENTRY> CImageBuilder::LongEntries(const UTF16& name, unsigned char checksum) {
  static constexpr std::size_t s_Places[13] = {1, 3, 5, 7, 9, 14, 16, 18, 20, 22, 24, 28, 30};
  const std::size_t pieces = (name.size() + 12) / 13;
  if (pieces == 0 || pieces > 63) Misuse("long name of no or too many pieces");
  std::vector<RAW_ENTRY> entries;
  for (std::size_t piece = pieces; piece >= 1; --piece) {
    RAW_ENTRY entry{};
    entry[0] = static_cast<unsigned char>(piece == pieces ? piece | 0x40u : piece);
    entry[11] = 0x0F;
    entry[13] = checksum;
    for (std::size_t i = 0; i < 13; ++i) {
      const std::size_t at = (piece - 1) * 13 + i;
      Put16(entry, s_Places[i], at < name.size() ? name[at] : at == name.size() ? 0x0000u : 0xFFFFu);
    }
    entries.push_back(entry);
  }
  return entries;
}

std::vector<RAW_ENTRY> CImageBuilder::EntrySet(const UTF16& name, const RAW_ENTRY& shortEntry) {
  SHORT_NAME shortName{};
  std::copy_n(shortEntry.begin(), shortName.size(), shortName.begin());
  std::vector<RAW_ENTRY> set = LongEntries(name, Checksum(shortName));
  set.push_back(shortEntry);
  return set;
}

std::vector<unsigned char> CImageBuilder::Pattern(std::size_t count, std::uint32_t seed) {
  std::vector<unsigned char> bytes(count);
  std::uint32_t state = seed * 2654435761u + 12345u;
  for (unsigned char& byte : bytes) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    if (state == 0) state = 1;
    byte = static_cast<unsigned char>(state >> 24);
  }
  return bytes;
}

std::vector<unsigned char> CImageBuilder::Bytes(std::string_view text) { return {text.begin(), text.end()}; }
