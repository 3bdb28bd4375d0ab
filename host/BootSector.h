/// @file BootSector.h
/// What a boot sector means. Not part of the face for hosts.

#ifndef FATLIB_BOOTSECTOR_H
#define FATLIB_BOOTSECTOR_H

#include "Layout.h"
#include "Medium.h"

namespace fatlib {

/// The part with label and volume id, wherever it lies.
BootIdentity& IdentityOf(BootSector& boot);
const BootIdentity& IdentityOf(const BootSector& boot);

/// Whether label and volume id are there.
bool HasLabel(const BootIdentity& identity);

/// Checks a boot sector as the library does at a mount, and computes where everything lies.
/// @param geometry  out: unchanged on failure
/// @return NotAVolume
[[nodiscard]] std::error_code ReadBootSector(const BootSector& boot, Geometry* geometry);

}  // namespace fatlib

#endif  // FATLIB_BOOTSECTOR_H
