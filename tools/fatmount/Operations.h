/// @file Operations.h
/// The functions that libfuse calls. They count, and send what the Server gives.

#ifndef FATMOUNT_OPERATIONS_H
#define FATMOUNT_OPERATIONS_H

#define FUSE_USE_VERSION 35
#include <fuse3/fuse_lowlevel.h>

namespace fatmount {

/// Their user data is a Server.
const fuse_lowlevel_ops& Operations();

}  // namespace fatmount

#endif  // FATMOUNT_OPERATIONS_H
