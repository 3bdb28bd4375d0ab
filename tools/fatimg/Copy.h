/// @file Copy.h
/// Plans a copy and carries it out: the same for put, get and cp.

#ifndef FATIMG_COPY_H
#define FATIMG_COPY_H

#include <cstdint>
#include <optional>
#include <vector>

#include "Command.h"
#include "CopyItem.h"
#include "CopyPlan.h"
#include "CopyTarget.h"

namespace fatimg {

struct CopyOptions {
  Clobber clobber = Clobber::Refuse;
  bool times = false;                   ///< the copies get the modification times of what is copied
  bool attributes = false;              ///< and the attributes
  bool planOnly = false;                ///< nothing is made
  bool withoutBytes = false;            ///< files are made and sized, but not filled
  std::optional<std::timespec> latest;  ///< a later modification time becomes this one
};

/// Tells in the report what failed, and in its object what was done. A plan with problems is reported, and nothing is
/// copied. After SIGINT or SIGTERM (see Interrupt) the file in work is taken back, or finished when it replaces another
/// one, and the rest is left.
/// @param failures  what could not be looked at; the other items are copied all the same
void RunCopy(Context& context, const std::vector<CopyItem>& items, const std::vector<FailedItem>& failures,
             CopySource* source, CopyTarget* target, const CopyOptions& options);

}  // namespace fatimg

#endif  // FATIMG_COPY_H
