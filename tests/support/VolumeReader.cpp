/// @file VolumeReader.cpp
/// A plain walk over the volume: every FAT entry, every directory, every chain.

#include "support/VolumeReader.h"

#include <algorithm>
#include <array>
#include <set>
#include <sstream>

namespace {

constexpr std::uint32_t BAD_CLUSTER_28 = 0x0FFFFFF7;
constexpr unsigned int MAX_DEPTH = 200;  // a deeper tree is a loop

unsigned int Word(const unsigned char* at) {
  return static_cast<unsigned int>(at[0]) | static_cast<unsigned int>(at[1]) << 8;
}

unsigned char ChecksumOf(const unsigned char* elevenBytes) {
  unsigned char sum = 0;
  for (int i = 0; i < 11; ++i) {
    const unsigned int rotated = (sum >> 1) | ((sum & 1) != 0 ? 0x80u : 0u);
    sum = static_cast<unsigned char>(rotated + elevenBytes[i]);
  }
  return sum;
}

// "BASE    EXT" as BASE.EXT, byte for byte.
std::string DottedName(const std::string& eleven) {
  const auto trimmed = [](std::string part) {
    part.erase(part.find_last_not_of(' ') + 1);
    return part;
  };
  const std::string base = trimmed(eleven.substr(0, 8));
  const std::string extension = trimmed(eleven.substr(8));
  return extension.empty() ? base : base + "." + extension;
}

// The long-name entries met so far, when they form a run that a short entry may end.
class CLongRun {
 public:
  // @return false when entries met before turn out to belong to nothing
  bool Take(const unsigned char* entry, unsigned int slot) {
    const unsigned int ordinal = entry[0] & 0x3Fu;
    bool clean = true;
    if ((entry[0] & 0x40u) != 0) {
      clean = !m_bOpen;
      Start(entry, ordinal, slot);
      if (ordinal == 0 || ordinal > 20) {
        clean = false;
        m_bOpen = false;
      }
    } else if (!m_bOpen || ordinal == 0 || ordinal + 1 != m_nNext || entry[13] != m_nChecksum) {
      m_bOpen = false;
      return false;
    }
    if (!m_bOpen) return clean;
    m_nNext = ordinal;
    static constexpr std::array<unsigned int, 13> s_Places = {1, 3, 5, 7, 9, 14, 16, 18, 20, 22, 24, 28, 30};
    for (std::size_t i = 0; i < s_Places.size(); ++i) {
      m_Units[(ordinal - 1) * 13 + i] = static_cast<unsigned short>(Word(entry + s_Places[i]));
    }
    return clean;
  }
  // The name that belongs to this short entry; empty when there is none. `torn`: a run was there and does not fit.
  UTF16 End(const unsigned char* shortEntry, bool& torn) {
    const bool complete = m_bOpen && m_nNext == 1 && m_nChecksum == ChecksumOf(shortEntry);
    torn = m_bOpen && !complete;
    m_bOpen = false;
    if (!complete) return {};
    const auto end = std::find(m_Units.begin(), m_Units.end(), 0);
    return UTF16(m_Units.begin(), end);
  }
  bool Open() const { return m_bOpen; }
  void Drop() { m_bOpen = false; }
  unsigned int FirstSlot() const { return m_nFirstSlot; }

 private:
  void Start(const unsigned char* entry, unsigned int ordinal, unsigned int slot) {
    m_bOpen = true;
    m_nChecksum = entry[13];
    m_nFirstSlot = slot;
    m_Units.assign(static_cast<std::size_t>(ordinal) * 13, 0);
  }

  bool m_bOpen = false;
  unsigned int m_nNext = 0;  // ordinal last taken
  unsigned int m_nChecksum = 0;
  unsigned int m_nFirstSlot = 0;
  UTF16 m_Units;
};

std::string Lower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

}  // namespace

CVolumeReader::CVolumeReader(const CByteStore& store, unsigned int fatBits) : m_pStore(&store) {
  if (!ReadGeometry(fatBits)) return;
  LoadFat();
  CompareFats();
  std::vector<unsigned char> root;
  if (m_nFatBits == 32) {
    root = DirectoryBytes(ChainOf(m_nRootCluster, "root directory"));
  } else {
    root = store.ReadBytes(m_nRootOffset, m_nRootBytes);
  }
  ReadDirectory("", root, true, 0, 0, 0);
  for (std::uint32_t c = 2; c - 2 < m_nClusters; ++c) {
    if (m_Fat[c] == 0) {
      ++m_nFree;
    } else if (m_Reached[c] == 0 && m_Fat[c] != BAD_CLUSTER_28) {
      m_Lost.push_back(c);
    }
  }
}

bool CVolumeReader::ReadGeometry(unsigned int fatBits) {
  const CByteStore& store = *m_pStore;
  if (store.Get16(510) != 0xAA55) Problem("no boot sector signature");
  m_nBytesPerSector = store.Get16(11);
  const unsigned int sectorsPerCluster = store.Get8(13);
  const std::uint64_t reserved = store.Get16(14);
  m_nFats = store.Get8(16);
  const std::uint64_t rootEntries = store.Get16(17);
  const bool fat32 = store.Get16(22) == 0;
  const std::uint64_t sectorsPerFat = fat32 ? store.Get32(36) : store.Get16(22);
  const std::uint64_t total = store.Get16(19) != 0 ? store.Get16(19) : store.Get32(32);
  if (m_nBytesPerSector == 0 || sectorsPerCluster == 0 || m_nFats == 0) {
    Problem("boot sector without geometry");
    return false;
  }
  m_nRootBytes =
      static_cast<std::uint32_t>((rootEntries * 32 + m_nBytesPerSector - 1) / m_nBytesPerSector * m_nBytesPerSector);
  m_nFatOffset = reserved * m_nBytesPerSector;
  m_nFatSize = sectorsPerFat * m_nBytesPerSector;
  m_nRootOffset = m_nFatOffset + m_nFats * m_nFatSize;
  m_nDataOffset = m_nRootOffset + m_nRootBytes;
  m_nClusterBytes = m_nBytesPerSector * sectorsPerCluster;
  const std::uint64_t overhead = m_nDataOffset / m_nBytesPerSector;
  if (overhead > total) {
    Problem("no room for data");
    return false;
  }
  m_nClusters = static_cast<std::uint32_t>((total - overhead) / sectorsPerCluster);
  m_nFatBits = fatBits != 0 ? fatBits : fat32 ? 32 : m_nClusters <= 4086 ? 12 : 16;
  const std::uint64_t room = m_nFatSize * 8 / m_nFatBits;
  if (room < static_cast<std::uint64_t>(m_nClusters) + 2) {
    Problem("FAT too small");
    m_nClusters = room < 2 ? 0 : static_cast<std::uint32_t>(room - 2);
  }
  if (fat32) {
    m_nRootCluster = store.Get32(44);
    const std::uint64_t info = static_cast<std::uint64_t>(store.Get16(48)) * m_nBytesPerSector;
    const bool signed3 = store.Get32(info) == 0x41615252 && store.Get32(info + 484) == 0x61417272 &&
                         store.Get32(info + 508) == 0xAA550000;
    if (!signed3) Problem("FSInfo signatures");
    m_nFsInfoFree = store.Get32(info + 488);
    m_nFsInfoNext = store.Get32(info + 492);
  }
  return true;
}

void CVolumeReader::LoadFat() {
  const std::size_t entries = static_cast<std::size_t>(m_nClusters) + 2;
  const std::vector<unsigned char> bytes =
      m_pStore->ReadBytes(m_nFatOffset, ToSize((static_cast<std::uint64_t>(entries) * m_nFatBits + 7) / 8 + 1));
  // End marks and the bad mark of every width become those of FAT32.
  const std::uint32_t bad = m_nFatBits == 12 ? 0xFF7u : m_nFatBits == 16 ? 0xFFF7u : BAD_CLUSTER_28;
  m_Fat.resize(entries);
  m_Reached.resize(entries);
  for (std::size_t n = 0; n < entries; ++n) {
    std::uint32_t value;
    if (m_nFatBits == 12) {
      const unsigned int pair = Word(bytes.data() + n * 3 / 2);
      value = n % 2 != 0 ? pair >> 4 : pair & 0xFFFu;
    } else if (m_nFatBits == 16) {
      value = Word(bytes.data() + n * 2);
    } else {
      value = (Word(bytes.data() + n * 4) | Word(bytes.data() + n * 4 + 2) << 16) & 0x0FFFFFFFu;
    }
    m_Fat[n] = value >= bad ? BAD_CLUSTER_28 + (value - bad) : value;
  }
}

void CVolumeReader::CompareFats() {
  const std::uint64_t used = (static_cast<std::uint64_t>(m_nClusters + 2) * m_nFatBits + 7) / 8;
  constexpr std::uint64_t STEP = 1u << 20;
  for (unsigned int copy = 1; copy < m_nFats; ++copy) {
    for (std::uint64_t at = 0; at < used; at += STEP) {
      const std::size_t part = ToSize(std::min(STEP, used - at));
      if (m_pStore->ReadBytes(m_nFatOffset + at, part) ==
          m_pStore->ReadBytes(m_nFatOffset + copy * m_nFatSize + at, part)) {
        continue;
      }
      m_bFatCopiesEqual = false;
      Problem("FAT copy " + std::to_string(copy + 1) + " differs");
      break;
    }
  }
}

std::uint64_t CVolumeReader::ClusterOffset(std::uint32_t cluster) const {
  return m_nDataOffset + static_cast<std::uint64_t>(cluster - 2) * m_nClusterBytes;
}

std::vector<std::uint32_t> CVolumeReader::ChainOf(std::uint32_t first, const std::string& owner) {
  std::vector<std::uint32_t> clusters;
  for (std::uint32_t c = first;;) {
    if (c < 2 || c - 2 >= m_nClusters) {
      Problem(owner + ": chain leaves the volume at " + std::to_string(c));
      return clusters;
    }
    if (m_Reached[c] != 0) {
      Problem(owner + ": cluster " + std::to_string(c) + " is used twice");
      return clusters;
    }
    m_Reached[c] = 1;
    clusters.push_back(c);
    const std::uint32_t next = m_Fat[c];
    if (next > BAD_CLUSTER_28) return clusters;
    if (next == 0 || next == BAD_CLUSTER_28) {
      Problem(owner + ": chain runs into a free or bad cluster after " + std::to_string(c));
      return clusters;
    }
    c = next;
  }
}

std::vector<unsigned char> CVolumeReader::DirectoryBytes(const std::vector<std::uint32_t>& clusters) const {
  std::vector<unsigned char> bytes;
  for (const std::uint32_t cluster : clusters) {
    const std::vector<unsigned char> part = m_pStore->ReadBytes(ClusterOffset(cluster), m_nClusterBytes);
    bytes.insert(bytes.end(), part.begin(), part.end());
  }
  return bytes;
}

void CVolumeReader::ReadDirectory(const std::string& prefix, const std::vector<unsigned char>& bytes, bool root,
                                  std::uint32_t ownCluster, std::uint32_t parentCluster, unsigned int depth) {
  const std::string where = root ? "root directory" : prefix.substr(0, prefix.size() - 1);
  CLongRun run;
  std::set<std::string> names;
  std::vector<VOLUME_NODE> nodes;
  for (unsigned int slot = 0; (slot + 1) * 32 <= bytes.size(); ++slot) {
    const unsigned char* entry = bytes.data() + slot * 32;
    if (entry[0] == 0) break;
    if (entry[0] == 0xE5) {
      if (run.Open()) Problem(where + ": long-name run torn by a deleted entry");
      run.Drop();
      continue;
    }
    if (entry[11] == 0x0F) {
      if (!run.Take(entry, slot)) Problem(where + ": stray long-name entry in slot " + std::to_string(slot));
      continue;
    }
    VOLUME_NODE node;
    node.FirstSlot = run.Open() ? run.FirstSlot() : slot;
    node.ShortSlot = slot;
    bool torn = false;
    node.LongName = run.End(entry, torn);
    if (torn) Problem(where + ": long-name run without its short entry before slot " + std::to_string(slot));
    if (node.LongName.empty()) node.FirstSlot = slot;
    node.ShortName.assign(entry, entry + 11);
    node.Attributes = entry[11];
    node.CreationTime = Word(entry + 14);
    node.CreationDate = Word(entry + 16);
    node.AccessDate = Word(entry + 18);
    node.WriteTime = Word(entry + 22);
    node.WriteDate = Word(entry + 24);
    node.FirstCluster = Word(entry + 26) | Word(entry + 20) << 16;
    node.Size = Word(entry + 28) | Word(entry + 30) << 16;
    if ((entry[11] & 0x08) != 0) {
      m_Label = node.ShortName;
      if (!root) Problem(where + ": volume label outside the root");
      continue;
    }
    if (!root && slot < 2) {
      const bool second = slot == 1;
      const bool good = node.ShortName == (second ? "..         " : ".          ") && node.IsDir() &&
                        node.FirstCluster == (second ? parentCluster : ownCluster);
      if (!good) Problem(where + (second ? ": wrong \"..\"" : ": wrong \".\""));
      continue;
    }
    if (node.ShortName[0] == '.') Problem(where + ": dot entry out of place");
    const std::string shortName = DottedName(node.ShortName);
    const std::string name = node.LongName.empty() ? shortName : ToUtf8(node.LongName);
    if (!names.insert(Lower(name)).second) Problem(where + ": name \"" + name + "\" twice");
    if (name != shortName && Lower(name) != Lower(shortName) && !names.insert(Lower(shortName)).second) {
      Problem(where + ": short name \"" + shortName + "\" twice");
    }
    node.Path = prefix + name;
    nodes.push_back(node);
  }
  if (run.Open()) Problem(where + ": long-name run at the end");
  if (!root && bytes.size() >= 64 && (bytes[0] != '.' || bytes[32] != '.')) Problem(where + ": no dot entries");
  for (VOLUME_NODE& node : nodes) AddNode(std::move(node), ownCluster, depth);
}

void CVolumeReader::AddNode(VOLUME_NODE node, std::uint32_t ownCluster, unsigned int depth) {
  const std::string path = node.Path;
  if (node.IsDir()) {
    if (node.Size != 0) Problem(path + ": directory with a size");
    node.Clusters = ChainOf(node.FirstCluster, path);
    const std::vector<unsigned char> bytes = DirectoryBytes(node.Clusters);
    const std::uint32_t first = node.FirstCluster;
    m_Tree[path] = std::move(node);
    if (depth < MAX_DEPTH) ReadDirectory(path + "\\", bytes, false, first, ownCluster, depth + 1);
    return;
  }
  if (node.FirstCluster != 0) node.Clusters = ChainOf(node.FirstCluster, path);
  const std::uint64_t needed = (static_cast<std::uint64_t>(node.Size) + m_nClusterBytes - 1) / m_nClusterBytes;
  if (node.Clusters.size() != needed) {
    Problem(path + ": " + std::to_string(node.Clusters.size()) + " clusters for " + std::to_string(node.Size) +
            " bytes");
  }
  node.Hash = HashOf(nullptr, 0);
  std::uint64_t left = node.Size;
  for (const std::uint32_t cluster : node.Clusters) {
    const std::size_t part = ToSize(std::min<std::uint64_t>(left, m_nClusterBytes));
    const std::vector<unsigned char> bytes = m_pStore->ReadBytes(ClusterOffset(cluster), part);
    node.Hash = HashOf(bytes.data(), bytes.size(), node.Hash);
    left -= part;
  }
  m_Tree[path] = std::move(node);
}

const VOLUME_NODE* CVolumeReader::Find(const std::string& path) const {
  const auto found = m_Tree.find(path);
  return found == m_Tree.end() ? nullptr : &found->second;
}

std::vector<unsigned char> CVolumeReader::Content(const VOLUME_NODE& node) const {
  std::vector<unsigned char> bytes = DirectoryBytes(node.Clusters);
  if (!node.IsDir()) bytes.resize(std::min<std::size_t>(bytes.size(), node.Size));
  return bytes;
}

std::string CVolumeReader::ProblemText() const {
  std::ostringstream text;
  for (const std::string& problem : m_Problems) text << problem << "\n";
  return text.str();
}

std::uint64_t CVolumeReader::HashOf(const unsigned char* bytes, std::size_t count, std::uint64_t start) {
  std::uint64_t hash = start;
  for (std::size_t i = 0; i < count; ++i) hash = (hash ^ bytes[i]) * 0x100000001B3ull;
  return hash;
}
