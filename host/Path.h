/// @file Path.h
/// A path on a volume: the components from the root, in UTF-16 units. Made from UTF-8 with '/' or from UTF-16 with '/'
/// or '\' between components; empty components and "." are dropped, ".." takes one away (never above the root). The
/// empty path is the root.

#ifndef FATLIB_PATH_H
#define FATLIB_PATH_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Error.h"

namespace fatlib {

class Path {
 public:
  static constexpr std::size_t MAX_NAME_UNITS = 255;  ///< of one component
  static constexpr std::size_t MAX_PATH_UNITS = 259;  ///< of all components with one separator between two

  Path() = default;
  Path(const char* utf8) : Path(std::string_view(utf8)) {}
  Path(const std::string& utf8) : Path(std::string_view(utf8)) {}
  /// Bytes that are not UTF-8 make a path that Check refuses.
  Path(std::string_view utf8);
  Path(std::u16string_view units);

  bool IsRoot() const { return m_Components.empty(); }
  const std::vector<std::u16string>& Components() const { return m_Components; }
  /// The last component; empty for the root.
  const std::u16string& Name() const;
  /// The path without its last component; the root for the root.
  Path Parent() const;
  /// The path with one component more, which is taken as it is: a separator in it is part of the name.
  Path operator/(std::u16string_view name) const;
  /// Components joined by '/', with one in front: "/" for the root.
  std::string ToUtf8() const;
  /// Whether this path is `other` or lies below it, by the names' comparison of the volume.
  bool IsAtOrBelow(const Path& other) const;
  /// Whether both name the same place, by the same comparison.
  bool operator==(const Path& other) const;

  /// Whether an entry of this path can be created: every component is a name that FAT can hold and that the library
  /// would keep as it is. Refused as InvalidName: control units, one of " * / : < > ? \ |, DEL, a leading space, a
  /// trailing space or dot, two dots in a row; as NameTooLong: a component over 255 units or a path over 259.
  [[nodiscard]] std::error_code Check() const;

 private:
  std::vector<std::u16string> m_Components;
  bool m_bInvalidUtf8 = false;
};

/// The rules of Path::Check for one name.
[[nodiscard]] std::error_code CheckName(std::u16string_view name);

/// Entries of 32 bytes that a name of Path::Check takes in its directory: 1 when it is an 8.3 name in ASCII without
/// lower-case letters; else one more for each 13 units.
std::uint32_t SlotsOfName(std::u16string_view name);

}  // namespace fatlib

#endif  // FATLIB_PATH_H
