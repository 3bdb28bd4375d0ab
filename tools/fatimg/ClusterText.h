/// @file ClusterText.h
/// Where files lie, for people and as JSON.

#ifndef FATIMG_CLUSTERTEXT_H
#define FATIMG_CLUSTERTEXT_H

#include <fatlib/Medium.h>

#include <cstdint>
#include <vector>

#include "Report.h"

namespace fatimg {

std::uint64_t ClusterCount(const std::vector<fatlib::Extent>& extents);

/// offset (in the file), cluster, clusters, bytes, position (in the image), for each run. All but clusters in bytes.
/// @param imageOffset  where the volume begins in its image
Json ExtentsJson(const fatlib::Geometry& layout, std::uint64_t imageOffset, const std::vector<fatlib::Extent>& extents);

}  // namespace fatimg

#endif  // FATIMG_CLUSTERTEXT_H
