/// @file HostFile.h
/// Descriptors of the host, read and written whole.

#ifndef FATIMG_HOSTFILE_H
#define FATIMG_HOSTFILE_H

#include <memory>
#include <system_error>

#include "CopyItem.h"

namespace fatimg {

/// What errno says.
std::error_code LastError();

/// Writes all of it, also when a signal comes.
[[nodiscard]] std::error_code WriteDescriptor(int descriptor, const void* buffer, std::size_t size);

/// Reads a descriptor to its end; takes it over.
std::unique_ptr<ByteSource> MakeDescriptorSource(int descriptor);

}  // namespace fatimg

#endif  // FATIMG_HOSTFILE_H
