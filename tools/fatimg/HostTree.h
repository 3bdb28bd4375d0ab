/// @file HostTree.h
/// The host's files as the source of a copy. Names are taken as UTF-8; what lies in a directory is sorted by the bytes
/// of the names, so that a tree gives the same items on every machine. Symbolic links count as what they lead to.

#ifndef FATIMG_HOSTTREE_H
#define FATIMG_HOSTTREE_H

#include <functional>
#include <string>
#include <vector>

#include "CopyItem.h"

namespace fatimg {

struct HostTreeOptions {
  bool recursive = false;   ///< false: a directory is a failure
  bool followLinks = true;  ///< false: a symbolic link below the top is a failure
  std::string image;        ///< a host file that is never copied: the image that the copy goes into; may be empty
  /// Asked for everything below the top, with its path from there ("sub/name"). What is excluded is as if it were not
  /// there.
  std::function<bool(const std::string& relative)> excluded;
};

/// Finds what a copy of `path` consists of.
/// @param relative  where the top goes, see CopyItem
/// @param failures  in, out: gains what cannot be copied: devices, sockets and pipes (which are never opened), links
/// that
///                  lead nowhere or to a directory they lie in, names that are not UTF-8, directories that cannot be
///                  read, paths longer than a volume can hold
void ScanHost(const std::string& path, const fatlib::Path& relative, const HostTreeOptions& options,
              std::vector<CopyItem>* items, std::vector<FailedItem>* failures);

/// Reads the items of ScanHost.
class HostSource : public CopySource {
 public:
  std::error_code Open(const CopyItem& item, std::unique_ptr<ByteSource>* bytes) override;
};

}  // namespace fatimg

#endif  // FATIMG_HOSTTREE_H
