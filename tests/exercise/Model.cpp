#include "Model.h"

#include <algorithm>

#include "Names.h"

namespace exercise {
namespace {

void Collect(const Node& node, std::vector<NodePtr>& all) {
  for (const auto& [key, child] : node.children) {
    all.push_back(child);
    Collect(*child, all);
  }
}

}  // namespace

Model::Model(bool caseMatters) : m_bCaseMatters(caseMatters), m_pRoot(std::make_shared<Node>()) {
  m_pRoot->directory = true;
}

std::string Model::Key(const std::string& name) const { return m_bCaseMatters ? name : Folded(name); }

std::vector<NodePtr> Model::All() const {
  std::vector<NodePtr> all;
  Collect(*m_pRoot, all);
  return all;
}

std::vector<NodePtr> Model::Files() const {
  std::vector<NodePtr> files = All();
  files.erase(std::remove_if(files.begin(), files.end(), [](const NodePtr& node) { return node->directory; }),
              files.end());
  return files;
}

std::vector<NodePtr> Model::Directories() const {
  std::vector<NodePtr> directories = {m_pRoot};
  for (const NodePtr& node : All()) {
    if (node->directory) directories.push_back(node);
  }
  return directories;
}

NodePtr Model::Find(const Node& directory, const std::string& name) const {
  const auto found = directory.children.find(Key(name));
  return found == directory.children.end() ? nullptr : found->second;
}

NodePtr Model::Add(Node& directory, const std::string& name, bool isDirectory) {
  NodePtr node = std::make_shared<Node>();
  node->directory = isDirectory;
  node->name = name;
  node->parent = &directory;
  directory.children[Key(name)] = node;
  return node;
}

void Model::Remove(Node& node) {
  Node* parent = node.parent;
  node.parent = nullptr;
  parent->children.erase(Key(node.name));  // may be the end of `node`
}

void Model::Move(Node& node, Node& directory, const std::string& name) {
  const NodePtr kept = node.parent->children.at(Key(node.name));
  Remove(node);
  if (const NodePtr over = Find(directory, name)) Remove(*over);
  node.name = name;
  node.parent = &directory;
  directory.children[Key(name)] = kept;
}

std::string Model::PathOf(const Node& node) {
  if (!node.parent) return node.name;
  const std::string above = PathOf(*node.parent);
  return above.empty() ? node.name : above + "/" + node.name;
}

unsigned Model::DepthOf(const Node& node) { return node.parent ? DepthOf(*node.parent) + 1 : 0; }

bool Model::IsWithin(const Node& node, const Node& directory) {
  for (const Node* at = &node; at; at = at->parent) {
    if (at == &directory) return true;
  }
  return false;
}

std::size_t Model::UnitsBelow(const Node& node) {
  std::size_t longest = 0;
  for (const auto& [key, child] : node.children) {
    longest = std::max(longest, 1 + UnitsOf(child->name) + UnitsBelow(*child));
  }
  return longest;
}

}  // namespace exercise
