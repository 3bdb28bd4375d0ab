/// @file Nodes.cpp

#include "Nodes.h"

#include <fatlib/Text.h>

#include <algorithm>

namespace fatmount {

Nodes::Nodes() {
  auto root = std::make_unique<Node>();
  m_pRoot = root.get();
  root->id = m_nNext++;
  root->directory = true;
  m_Nodes.emplace(root->id, std::move(root));
}

Node* Nodes::Find(NodeId id) {
  const auto found = m_Nodes.find(id);
  return found == m_Nodes.end() ? nullptr : found->second.get();
}

Node* Nodes::Child(const Node* parent, const std::u16string& name) {
  const auto found = m_ByName.find({parent->id, fatlib::UpCase(name)});
  return found == m_ByName.end() ? nullptr : found->second;
}

Node* Nodes::Enter(Node* parent, const std::u16string& name, bool directory) {
  Key key{parent->id, fatlib::UpCase(name)};
  const auto found = m_ByName.find(key);
  if (found != m_ByName.end()) {
    Node* const known = found->second;
    if (known->directory == directory) {
      known->name = name;
      return known;
    }
    Remove(known);  // a failure has changed the volume behind our back
  }
  auto node = std::make_unique<Node>();
  node->id = m_nNext++;
  node->parent = parent;
  node->name = name;
  node->directory = directory;
  Node* const entered = m_Nodes.emplace(node->id, std::move(node)).first->second.get();
  m_ByName.emplace(std::move(key), entered);
  ++parent->children;
  return entered;
}

void Nodes::Unlink(Node* node) {
  const auto found = m_ByName.find({node->parent->id, fatlib::UpCase(node->name)});
  if (found != m_ByName.end() && found->second == node) m_ByName.erase(found);
}

void Nodes::Move(Node* node, Node* parent, const std::u16string& name) {
  Unlink(node);
  Node* const before = node->parent;
  node->parent = parent;
  node->name = name;
  ++parent->children;
  m_ByName[{parent->id, fatlib::UpCase(name)}] = node;
  --before->children;
  Release(before);
}

void Nodes::Remove(Node* node) {
  Unlink(node);
  node->removed = true;
  Release(node);
}

void Nodes::Forget(NodeId id, std::uint64_t lookups) {
  Node* const node = Find(id);
  if (node == nullptr) return;
  node->lookups -= std::min(node->lookups, lookups);
  Release(node);
}

void Nodes::Closed(Node* node) {
  node->file.Close();
  node->orphan.reset();
  Release(node);
}

// A directory stays as long as there are nodes below it that walk through it.
void Nodes::Release(Node* node) {
  while (node->removed && node->lookups == 0 && node->opens == 0 && node->children == 0) {
    Node* const parent = node->parent;
    m_Nodes.erase(node->id);
    --parent->children;
    node = parent;
  }
}

fatlib::Path Nodes::PathOf(const Node* node) {
  if (node->parent == nullptr) return {};
  return PathOf(node->parent) / node->name;
}

std::size_t Nodes::CountAbove(const Node* directory, const std::u16string& name) {
  std::size_t count = 0;
  for (; directory != nullptr; directory = directory->parent) {
    if (fatlib::SameName(directory->name, name)) ++count;
  }
  return count;
}

}  // namespace fatmount
