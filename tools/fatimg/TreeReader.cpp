/// @file TreeReader.cpp

#include "TreeReader.h"

#include <fatlib/Error.h>
#include <fatlib/Text.h>

#include <algorithm>

#include "Exit.h"

namespace fatimg {

namespace {

Node RootNode() {
  Node root;
  root.root = true;
  root.raw.attributes = fatlib::DIRECTORY;
  return root;
}

bool IsCalled(const Node& node, const std::u16string& upperName) {
  return fatlib::UpCase(node.raw.name) == upperName || fatlib::UpCase(node.raw.ShortNameText()) == upperName;
}

void SortByName(std::vector<Node>* nodes) {
  std::vector<std::pair<std::u16string, std::size_t>> order;
  order.reserve(nodes->size());
  for (std::size_t i = 0; i < nodes->size(); ++i) order.emplace_back(fatlib::UpCase((*nodes)[i].raw.name), i);
  std::sort(order.begin(), order.end());
  std::vector<Node> sorted;
  sorted.reserve(order.size());
  for (const auto& [name, i] : order) sorted.push_back(std::move((*nodes)[i]));
  *nodes = std::move(sorted);
}

}  // namespace

std::string Node::Utf8Name() const { return fatlib::ToUtf8(raw.name); }

TreeReader::TreeReader(fatlib::Volume& volume, Order order) : m_Order(order) {
  const std::error_code error = volume.Raw(&m_pMedium);
  if (error) throw Failure(error, "");
}

std::error_code TreeReader::Read(const Node& directory, std::vector<Node>* children) {
  children->clear();
  if (directory.root || directory.raw.firstCluster != 0) {
    const fatlib::DirectoryPlace place = directory.root ? fatlib::Medium::ROOT : directory.raw.firstCluster;
    std::vector<fatlib::RawEntry> entries;
    const std::error_code error = m_pMedium->ReadDirectory(place, &entries);
    for (fatlib::RawEntry& entry : entries) {
      if (entry.IsLabel() || entry.IsDot()) continue;
      Node child;
      child.path = directory.path / entry.name;
      child.raw = std::move(entry);
      children->push_back(std::move(child));
    }
    return error;
  }
  return fatlib::Status::DiskCorrupt;  // a directory always has a cluster
}

std::error_code TreeReader::Find(const fatlib::Path& path, Node* node) {
  Node at = RootNode();
  for (const std::u16string& component : path.Components()) {
    if (!at.IsDirectory()) return fatlib::Status::NotADirectory;
    std::error_code error;
    if (!m_bHasLast || !(m_LastPath == at.path)) {
      error = Read(at, &m_LastChildren);
      m_LastPath = at.path;
      m_bHasLast = !error;
    }
    const std::u16string upper = fatlib::UpCase(component);
    const auto found = std::find_if(m_LastChildren.begin(), m_LastChildren.end(),
                                    [&upper](const Node& child) { return IsCalled(child, upper); });
    if (found == m_LastChildren.end()) return error ? error : fatlib::Status::NotFound;
    at = *found;
  }
  *node = at;
  return {};
}

std::error_code TreeReader::Enter(const Node& directory, std::vector<Node>* children) {
  children->clear();
  if (directory.path.Components().size() > MAX_DEPTH) return fatlib::Status::NameTooLong;
  const std::uint32_t key = directory.root ? m_pMedium->Layout().rootCluster : directory.raw.firstCluster;
  if (!m_Entered.insert(key).second) return fatlib::Status::DiskCorrupt;
  const std::error_code error = Read(directory, children);
  if (m_Order == Order::Sorted) SortByName(children);
  return error;
}

std::error_code TreeReader::Clusters(const Node& node, std::vector<fatlib::Extent>* extents) {
  const std::uint32_t first = node.root ? m_pMedium->Layout().rootCluster : node.raw.firstCluster;
  return m_pMedium->Chain(first, extents);
}

}  // namespace fatimg
