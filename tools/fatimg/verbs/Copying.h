/// @file Copying.h
/// The options that put, get and cp have in common.

#ifndef FATIMG_COPYING_H
#define FATIMG_COPYING_H

#include <string>
#include <vector>

#include "../Command.h"
#include "../Copy.h"
#include "Targets.h"

namespace fatimg {

struct CopyingOptions {
  std::vector<std::string> operands;  ///< sources, and the destination at the end; two or more
  bool recursive = false;
  bool times = false;
  bool noClobber = false;
  bool noFollow = false;
  std::vector<std::string> exclude;

  std::vector<std::string> Sources() const { return {operands.begin(), operands.end() - 1}; }
  const std::string& Destination() const { return operands.back(); }
  /// @throws Failure (Usage) when there is no source
  void Check() const;
};

/// Makes known what all three have.
void AddCopyingOptions(Syntax* verb, const char* operands, CopyingOptions* options);

/// What the command line says of how to copy.
CopyOptions CopyOptionsOf(const Context& context, const CopyingOptions& options);

/// Gathers the items of image sources.
/// @param into  each source goes into the destination under its name
void GatherImageItems(const Context& context, const std::vector<Target>& sources, bool into,
                      const CopyingOptions& options, std::vector<CopyItem>* items, std::vector<FailedItem>* failures);

}  // namespace fatimg

#endif  // FATIMG_COPYING_H
