/// @file TreeReader.h
/// Walks the tree of a volume on the medium itself, for the verbs that only look. Whatever a damaged volume contains,
/// each directory is entered once and every walk ends.

#ifndef FATIMG_TREEREADER_H
#define FATIMG_TREEREADER_H

#include <fatlib/Medium.h>
#include <fatlib/Path.h>
#include <fatlib/Volume.h>

#include <cstdint>
#include <set>
#include <string>
#include <system_error>
#include <vector>

namespace fatimg {

/// A file or directory.
struct Node {
  bool root = false;  ///< has an empty path and name, and a first cluster of 0
  fatlib::Path path;
  fatlib::RawEntry raw;

  bool IsDirectory() const { return raw.IsDirectory(); }
  std::string Utf8Name() const;
};

enum class Order { Sorted, AsOnMedium };

class TreeReader {
 public:
  static constexpr std::size_t MAX_DEPTH = 512;  ///< of what is entered: far more than other systems reach

  /// From now on the volume's other functions are not called.
  /// @throws Failure when what was changed before cannot be written
  explicit TreeReader(fatlib::Volume& volume, Order order = Order::Sorted);

  /// @param node  out: unchanged on failure
  /// @return NotFound, NotADirectory, or why a directory on the way cannot be read
  [[nodiscard]] std::error_code Find(const fatlib::Path& path, Node* node);

  /// What is in a directory, without ".", ".." and labels; sorted by name without regard to case.
  /// @param children  out: replaced; after a failure what could be read
  /// @return DiskCorrupt for a broken chain, and for a directory that was entered before under another path
  [[nodiscard]] std::error_code Enter(const Node& directory, std::vector<Node>* children);
  /// Forgets what was entered: another walk begins.
  void Restart() { m_Entered.clear(); }

  /// The clusters of a file or directory. @param extents  out: after a failure what was reached
  [[nodiscard]] std::error_code Clusters(const Node& node, std::vector<fatlib::Extent>* extents);

  fatlib::Medium& Medium() const { return *m_pMedium; }

 private:
  std::error_code Read(const Node& directory, std::vector<Node>* children);

  fatlib::Medium* m_pMedium = nullptr;
  Order m_Order;
  std::set<std::uint32_t> m_Entered;  // by first cluster
  fatlib::Path m_LastPath;            // of the directory that Find looked into last, and what is in it
  std::vector<Node> m_LastChildren;
  bool m_bHasLast = false;
};

}  // namespace fatimg

#endif  // FATIMG_TREEREADER_H
