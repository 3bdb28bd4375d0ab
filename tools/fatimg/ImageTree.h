/// @file ImageTree.h
/// The files of an image as the source of a copy: sorted by the bytes of their names.

#ifndef FATIMG_IMAGETREE_H
#define FATIMG_IMAGETREE_H

#include <fatlib/Volume.h>

#include <functional>
#include <string>
#include <vector>

#include "CopyItem.h"

namespace fatimg {

struct ImageTreeOptions {
  bool recursive = false;                                     ///< false: a directory is a failure
  fatlib::Zone zone = fatlib::Zone::Local;                    ///< of the stored times
  std::function<std::string(const fatlib::Path&)> shown;      ///< how messages call a path of the image
  std::function<bool(const std::string& relative)> excluded;  ///< as in HostTreeOptions; may be empty
};

/// Finds what a copy of `path` consists of.
/// @param relative  where the top goes, see CopyItem
/// @param failures  in, out: gains what cannot be copied
void ScanImage(fatlib::Volume* volume, const fatlib::Path& path, const fatlib::Path& relative,
               const ImageTreeOptions& options, std::vector<CopyItem>* items, std::vector<FailedItem>* failures);

/// Reads the items of ScanImage, whichever volume they are in.
class ImageSource : public CopySource {
 public:
  std::error_code Open(const CopyItem& item, std::unique_ptr<ByteSource>* bytes) override;
};

}  // namespace fatimg

#endif  // FATIMG_IMAGETREE_H
