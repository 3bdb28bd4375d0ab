/// @file Nodes.h
/// The files and directories that the kernel has seen, by the numbers that it calls them by. A file has one number
/// whatever the spelling of its name, so that the kernel keeps one copy of its bytes; and it keeps that number, also
/// when the kernel has forgotten it, until it is removed or the volume is unmounted: inode numbers are stable.

#ifndef FATMOUNT_NODES_H
#define FATMOUNT_NODES_H

#include <fatlib/Path.h>
#include <fatlib/Volume.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "Orphan.h"

namespace fatmount {

using NodeId = std::uint64_t;

struct Node {
  NodeId id = 0;
  Node* parent = nullptr;  ///< null: the root
  std::u16string name;     ///< as it is on the volume
  bool directory = false;
  bool removed = false;            ///< it is not on the volume any more
  bool aliased = false;            ///< a file that was found by another spelling
  std::uint64_t lookups = 0;       ///< how often the kernel was told of it, less what it has forgotten
  std::uint32_t opens = 0;         ///< of a file
  std::uint32_t children = 0;      ///< nodes whose parent it is
  fatlib::File file;               ///< of a file that is open and not removed
  std::unique_ptr<Orphan> orphan;  ///< of a file that is open and removed: its bytes
};

class Nodes {
 public:
  static constexpr NodeId ROOT = 1;

  Nodes();
  Node* Root() { return m_pRoot; }
  /// Null for a number that was never given, or that is not used any more.
  Node* Find(NodeId id);
  /// The node of an entry, if it has one.
  Node* Child(const Node* parent, const std::u16string& name);
  /// The node of an entry, made when there is none.
  /// @param name  as it is on the volume
  Node* Enter(Node* parent, const std::u16string& name, bool directory);
  /// Follows a rename; `parent` and `name` had no node.
  void Move(Node* node, Node* parent, const std::u16string& name);
  /// The entry is gone. The node goes when the kernel has forgotten it and nobody has it open.
  void Remove(Node* node);
  void Forget(NodeId id, std::uint64_t lookups);
  /// To be called when `opens` has become 0.
  void Closed(Node* node);
  std::size_t Count() const { return m_Nodes.size(); }

  static fatlib::Path PathOf(const Node* node);
  /// How many of a directory and those above it are of a name, in any case.
  static std::size_t CountAbove(const Node* directory, const std::u16string& name);

 private:
  struct Key {
    NodeId parent;
    std::u16string upper;
    bool operator==(const Key& other) const { return parent == other.parent && upper == other.upper; }
  };
  struct KeyHash {
    std::size_t operator()(const Key& key) const {
      return std::hash<std::u16string>()(key.upper) ^ key.parent * 0x9E3779B97F4A7C15u;
    }
  };

  void Unlink(Node* node);
  void Release(Node* node);

  NodeId m_nNext = ROOT;
  std::unordered_map<NodeId, std::unique_ptr<Node>> m_Nodes;
  std::unordered_map<Key, Node*, KeyHash> m_ByName;
  Node* m_pRoot;
};

}  // namespace fatmount

#endif  // FATMOUNT_NODES_H
