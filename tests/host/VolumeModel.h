/// @file VolumeModel.h
/// A volume's tree in memory, as simple as can be: what Volume must look like from outside after the same calls.

#ifndef FATLIB_TESTS_VOLUMEMODEL_H
#define FATLIB_TESTS_VOLUMEMODEL_H

#include <fatlib/Text.h>
#include <fatlib/Volume.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

/// A file or directory. Children are found by their name in upper case.
struct MODEL_NODE {
  std::u16string name;
  bool directory = false;
  std::uint8_t attributes = 0;  // without DIRECTORY
  std::vector<unsigned char> bytes;
  fatlib::Times times;
  MODEL_NODE* parent = nullptr;
  std::map<std::u16string, std::unique_ptr<MODEL_NODE>> children;

  MODEL_NODE* Child(const std::u16string& childName) const {
    const auto found = children.find(fatlib::UpCase(childName));
    return found == children.end() ? nullptr : found->second.get();
  }
  bool IsAtOrBelow(const MODEL_NODE* other) const {
    const MODEL_NODE* node = this;
    while (node != nullptr && node != other) node = node->parent;
    return node == other;
  }
};

class CVolumeModel {
 public:
  CVolumeModel() { m_Root.directory = true; }

  MODEL_NODE* Root() { return &m_Root; }

  /// What a path leads to, or null; `through` tells whether it leads through a file.
  MODEL_NODE* Find(const fatlib::Path& path, bool* through = nullptr) {
    MODEL_NODE* node = &m_Root;
    if (through != nullptr) *through = false;
    for (const std::u16string& component : path.Components()) {
      if (!node->directory) {
        if (through != nullptr) *through = true;
        return nullptr;
      }
      node = node->Child(component);
      if (node == nullptr) return nullptr;
    }
    return node;
  }

  MODEL_NODE* Add(MODEL_NODE* parent, const std::u16string& name, bool directory, std::uint8_t attributes,
                  const fatlib::Times& times) {
    auto node = std::make_unique<MODEL_NODE>();
    node->name = name;
    node->directory = directory;
    node->attributes = attributes;
    node->times = times;
    node->parent = parent;
    MODEL_NODE* const added = node.get();
    parent->children[fatlib::UpCase(name)] = std::move(node);
    return added;
  }

  void Remove(MODEL_NODE* node) { node->parent->children.erase(fatlib::UpCase(node->name)); }

  void Move(MODEL_NODE* node, MODEL_NODE* parent, const std::u16string& name) {
    std::unique_ptr<MODEL_NODE> owned = std::move(node->parent->children[fatlib::UpCase(node->name)]);
    Remove(node);
    node->name = name;
    node->parent = parent;
    parent->children[fatlib::UpCase(name)] = std::move(owned);
  }

  static fatlib::Path PathOf(const MODEL_NODE* node) {
    return node->parent == nullptr ? fatlib::Path() : PathOf(node->parent) / node->name;
  }

  void Collect(MODEL_NODE* node, std::vector<MODEL_NODE*>* files, std::vector<MODEL_NODE*>* directories) {
    (node->directory ? directories : files)->push_back(node);
    for (const auto& [upper, child] : node->children) Collect(child.get(), files, directories);
  }

 private:
  MODEL_NODE m_Root;
};

#endif  // FATLIB_TESTS_VOLUMEMODEL_H
