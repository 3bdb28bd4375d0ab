/// @file ByteCount.h
/// Numbers of bytes for people.

#ifndef FATIMG_BYTECOUNT_H
#define FATIMG_BYTECOUNT_H

#include <cstdint>
#include <string>

namespace fatimg {

/// "12.3 MiB", with units of 1024 and one decimal; below 1 KiB "512 B".
std::string ByteCountText(std::uint64_t bytes);

}  // namespace fatimg

#endif  // FATIMG_BYTECOUNT_H
