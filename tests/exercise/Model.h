/// @file Model.h
/// What the folder must hold: a tree of files and directories with their bytes, names and times. It knows no system
/// call; Exerciser changes it along with the folder, and compares the two.

#ifndef FATLIB_TESTS_EXERCISE_MODEL_H
#define FATLIB_TESTS_EXERCISE_MODEL_H

#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace exercise {

/// When a file was changed, as exactly as it is known. Steps of the mounted file system are not counted in.
struct Moment {
  std::time_t first = 0;
  std::time_t last = 0;
  bool known = false;
};

struct Node {
  bool directory = false;
  std::string name;        ///< as it was written last; empty for the root
  Node* parent = nullptr;  ///< null for the root, and for what was removed
  std::vector<unsigned char> bytes;
  Moment changed;
  bool mapped = false;  ///< bytes were written through memory, and may reach the file (and its time) later
  std::map<std::string, std::shared_ptr<Node>> children;  ///< by what their names compare as
};
using NodePtr = std::shared_ptr<Node>;

class Model {
 public:
  /// @param caseMatters  names that differ in nothing but case are two names
  explicit Model(bool caseMatters);

  const NodePtr& Root() const { return m_pRoot; }
  bool CaseMatters() const { return m_bCaseMatters; }
  /// All that is linked, without the root, parents first.
  std::vector<NodePtr> All() const;
  std::vector<NodePtr> Files() const;
  /// The root included.
  std::vector<NodePtr> Directories() const;

  /// Null when there is none.
  NodePtr Find(const Node& directory, const std::string& name) const;
  NodePtr Add(Node& directory, const std::string& name, bool isDirectory);
  /// It keeps its bytes, for those who have it open.
  void Remove(Node& node);
  /// Over what is there, if anything.
  void Move(Node& node, Node& directory, const std::string& name);

  /// From the root, without a slash in front.
  static std::string PathOf(const Node& node);
  static unsigned DepthOf(const Node& node);
  /// Whether `node` is `directory` or lies below it.
  static bool IsWithin(const Node& node, const Node& directory);
  /// UTF-16 units of the longest path from `node` (without its own name) to anything below it; 0 for a file.
  static std::size_t UnitsBelow(const Node& node);

 private:
  std::string Key(const std::string& name) const;

  bool m_bCaseMatters;
  NodePtr m_pRoot;
};

}  // namespace exercise

#endif  // FATLIB_TESTS_EXERCISE_MODEL_H
