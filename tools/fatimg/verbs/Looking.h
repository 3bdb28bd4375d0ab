/// @file Looking.h
/// What the operands of a verb that only looks mean.

#ifndef FATIMG_LOOKING_H
#define FATIMG_LOOKING_H

#include <memory>
#include <string>
#include <vector>

#include "../Command.h"
#include "../TreeReader.h"

namespace fatimg {

/// Something to look at, that was there.
struct Sight {
  Operand operand;
  std::shared_ptr<TreeReader> reader;  ///< of its volume; one for all sights of an image
  Node node;
  std::string text;  ///< for messages

  /// How messages call another path of the same volume.
  std::string TextOf(const fatlib::Path& path) const { return operand.Text(path.ToUtf8()); }
};

/// Finds everything that the operands mean, in their order; without a path it is the root. What is not there is
/// reported.
/// @throws Failure when an image cannot be opened
std::vector<Sight> LookAt(Context& context, const std::vector<std::string>& operands, Order order = Order::Sorted);

/// A whole image is meant. @throws Failure (Usage) when a path is named besides the root
Operand ParseImage(const std::string& text);

/// Whether the operands name more than one image.
bool SeveralImages(const std::vector<Sight>& sights);

/// A whole number of an option. @throws Failure (Usage)
unsigned int ParseCount(const char* option, const std::string& text);

}  // namespace fatimg

#endif  // FATIMG_LOOKING_H
