/// @file CopyPlan.h
/// A copy is planned before anything is written: whether the destination can hold every name and size, what is in the
/// way, and whether there is room. A plan with problems is not carried out.

#ifndef FATIMG_COPYPLAN_H
#define FATIMG_COPYPLAN_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "CopyItem.h"
#include "CopyTarget.h"
#include "Exit.h"

namespace fatimg {

/// What to do with files that exist at the destination. Directories that exist are added to.
enum class Clobber {
  Refuse,
  Skip,
  Replace,
};

struct CopyStep {
  enum Kind {
    MakeDirectory,
    EnterDirectory,  ///< it exists
    WriteFile,
    ReplaceFile,
    SkipFile,
  } kind;
  std::size_t item;  ///< index
};

/// Why a copy is not begun.
struct CopyProblem {
  Exit exit;
  std::string place;
  std::string reason;
};

struct CopyPlan {
  std::vector<CopyStep> steps;  ///< in the order of the items
  std::vector<CopyProblem> problems;
  std::uint64_t bytes = 0;  ///< of the files that are written
  std::uint64_t files = 0;
  std::uint64_t directories = 0;  ///< that are made
  std::uint64_t skipped = 0;
  std::uint64_t unitsNeeded = 0;  ///< at the time when most are in use
  std::uint64_t unitsFree = 0;

  /// Whether room was all that lacked.
  bool LacksSpace() const;
};

/// @return a failure only when the destination cannot be looked at
[[nodiscard]] std::error_code PlanCopy(const std::vector<CopyItem>& items, Clobber clobber, CopyTarget* target,
                                       CopyPlan* plan);

}  // namespace fatimg

#endif  // FATIMG_COPYPLAN_H
