/// @file ClusterText.cpp

#include "ClusterText.h"

namespace fatimg {

std::uint64_t ClusterCount(const std::vector<fatlib::Extent>& extents) {
  std::uint64_t count = 0;
  for (const fatlib::Extent& extent : extents) count += extent.count;
  return count;
}

Json ExtentsJson(const fatlib::Geometry& layout, std::uint64_t imageOffset,
                 const std::vector<fatlib::Extent>& extents) {
  Json list = Json::array();
  std::uint64_t offset = 0;
  for (const fatlib::Extent& extent : extents) {
    const std::uint64_t bytes = std::uint64_t{extent.count} * layout.bytesPerCluster;
    Json run;
    run["offset"] = offset;
    run["cluster"] = extent.first;
    run["clusters"] = extent.count;
    run["bytes"] = bytes;
    run["position"] = imageOffset + layout.ClusterPosition(extent.first);
    list.push_back(std::move(run));
    offset += bytes;
  }
  return list;
}

}  // namespace fatimg
