/// @file VolumeReader.h
/// Reads a whole FAT volume and checks its structure, independently of the library: tests compare with it what the
/// library has done.

#ifndef FATLIB_TESTS_VOLUMEREADER_H
#define FATLIB_TESTS_VOLUMEREADER_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "support/DiskImage.h"
#include "support/Utf16.h"

/// One file or directory.
struct VOLUME_NODE {
  std::string Path;       ///< UTF-8, '\\' between the components; long names where there are any, else BASE.EXT
  std::string ShortName;  ///< the 11 bytes as stored
  UTF16 LongName;         ///< empty when the entry has none
  unsigned int Attributes = 0;
  std::uint32_t Size = 0;  ///< the size field
  std::uint32_t FirstCluster = 0;
  std::vector<std::uint32_t> Clusters;
  std::uint64_t Hash = 0;         ///< of a file's bytes: CVolumeReader::HashOf
  unsigned int FirstSlot = 0;     ///< first slot of its entries in the parent
  unsigned int ShortSlot = 0;     ///< slot of its short entry
  unsigned int CreationTime = 0;  ///< the raw words of the entry
  unsigned int CreationDate = 0;
  unsigned int AccessDate = 0;
  unsigned int WriteTime = 0;
  unsigned int WriteDate = 0;

  bool IsDir() const { return (Attributes & 0x10) != 0; }
};

class CVolumeReader {
 public:
  /// Walks the volume at once. The store is read again only by Content.
  /// @param fatBits  12, 16 or 32; 0 takes FAT32 by the boot sector's empty 16-bit FAT size, and else FAT12 up to 4086
  ///                 clusters
  explicit CVolumeReader(const CByteStore& store, unsigned int fatBits = 0);

  /// All files and directories but the root, "." and "..", by path.
  const std::map<std::string, VOLUME_NODE>& Tree() const { return m_Tree; }
  /// Null when there is none. Letter case counts.
  const VOLUME_NODE* Find(const std::string& path) const;
  std::vector<unsigned char> Content(const VOLUME_NODE& node) const;

  /// What is wrong, in words; empty on a healthy volume. Found are: bad geometry; chains that loop, leave the volume,
  /// run into a free or bad cluster; clusters used by two chains; a size that does not fit its chain; wrong "." and
  /// ".."; stray and torn long-name runs; two entries of one directory with the same name in either form; differing FAT
  /// copies.
  const std::vector<std::string>& Problems() const { return m_Problems; }
  /// The problems as one text, for failure messages.
  std::string ProblemText() const;
  /// Clusters marked as used that nothing reaches.
  const std::vector<std::uint32_t>& LostClusters() const { return m_Lost; }
  /// True when every FAT copy equals the first, over the bytes that hold entries.
  bool FatCopiesEqual() const { return m_bFatCopiesEqual; }

  const std::string& Label() const { return m_Label; }  ///< 11 bytes; empty when there is none
  unsigned int FatBits() const { return m_nFatBits; }
  std::uint32_t Clusters() const { return m_nClusters; }
  std::uint32_t FreeClusters() const { return m_nFree; }
  unsigned int ClusterBytes() const { return m_nClusterBytes; }
  /// Byte position of a cluster (2 or more) on the medium.
  std::uint64_t ClusterOffset(std::uint32_t cluster) const;
  /// The FSInfo sector's two counters; 0 on FAT12 and FAT16.
  std::uint32_t FsInfoFree() const { return m_nFsInfoFree; }
  std::uint32_t FsInfoNext() const { return m_nFsInfoNext; }

  /// 64-bit FNV-1a.
  static std::uint64_t HashOf(const unsigned char* bytes, std::size_t count,
                              std::uint64_t start = 0xCBF29CE484222325ull);
  static std::uint64_t HashOf(const std::vector<unsigned char>& bytes) { return HashOf(bytes.data(), bytes.size()); }

 private:
  bool ReadGeometry(unsigned int fatBits);
  void LoadFat();
  void CompareFats();
  std::vector<std::uint32_t> ChainOf(std::uint32_t first, const std::string& owner);
  std::vector<unsigned char> DirectoryBytes(const std::vector<std::uint32_t>& clusters) const;
  void ReadDirectory(const std::string& prefix, const std::vector<unsigned char>& bytes, bool root,
                     std::uint32_t ownCluster, std::uint32_t parentCluster, unsigned int depth);
  void AddNode(VOLUME_NODE node, std::uint32_t ownCluster, unsigned int depth);
  void Problem(const std::string& text) { m_Problems.push_back(text); }

  const CByteStore* m_pStore;
  std::map<std::string, VOLUME_NODE> m_Tree;
  std::vector<std::string> m_Problems;
  std::vector<std::uint32_t> m_Lost;
  std::vector<std::uint32_t> m_Fat;      // entries of the first copy, top four bits of FAT32 cut off
  std::vector<unsigned char> m_Reached;  // per cluster: a chain holds it
  std::string m_Label;
  bool m_bFatCopiesEqual = true;
  unsigned int m_nFatBits = 0;
  unsigned int m_nBytesPerSector = 0;
  unsigned int m_nFats = 0;
  std::uint64_t m_nFatOffset = 0;
  std::uint64_t m_nFatSize = 0;
  std::uint64_t m_nRootOffset = 0;  // of the fixed root
  std::uint32_t m_nRootBytes = 0;
  std::uint32_t m_nRootCluster = 0;
  std::uint64_t m_nDataOffset = 0;
  unsigned int m_nClusterBytes = 0;
  std::uint32_t m_nClusters = 0;
  std::uint32_t m_nFree = 0;
  std::uint32_t m_nFsInfoFree = 0;
  std::uint32_t m_nFsInfoNext = 0;
};

#endif  // FATLIB_TESTS_VOLUMEREADER_H
