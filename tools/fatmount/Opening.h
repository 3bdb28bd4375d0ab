/// @file Opening.h
/// Opens the volume that is to be mounted, after a look at its state: what is damaged is shown, but not changed.

#ifndef FATMOUNT_OPENING_H
#define FATMOUNT_OPENING_H

#include <fatlib/OrderedDevice.h>
#include <fatlib/Volume.h>

#include <functional>
#include <string>

#include "Operand.h"

namespace fatmount {

/// Gets a sentence for people.
using Message = std::function<void(const std::string&)>;

/// @param readOnly  no changes, whatever its state
/// @param volume    out: open. Its mode is ReadOnly when it is damaged in a way that makes changes dangerous, when one
///                  that writes would harm it, or when the image cannot be written; a message says so
/// @param held      out: what counts the bytes that wait for a commit; null when nothing is written. It belongs to the
///                  volume, and is there until that is closed
/// @throws fatimg::Failure when there is no volume, the image is in use, ...
void OpenVolume(const fatimg::Operand& image, bool readOnly, const Message& message, fatlib::Volume* volume,
                const fatlib::OrderedDevice** held);

}  // namespace fatmount

#endif  // FATMOUNT_OPENING_H
