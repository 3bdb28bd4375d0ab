/// @file Check.cpp

#include "Check.h"

#include "CheckParts.h"
#include "Error.h"

namespace fatlib {

std::error_code Check(Medium* medium, CheckReport* report, const Progress& progress) {
  *report = CheckReport();
  DefectList defects(report);
  CheckProgress steps(progress, medium->Layout());
  ClusterUse use(medium);
  CheckBoot(medium, &defects);
  CheckFat(medium, &defects, &steps);
  if (!steps.IsStopped()) CheckTree(medium, &use, report, &steps);
  if (!steps.IsStopped()) CheckLost(medium, &use, report, &steps);
  return steps.IsStopped() ? std::error_code(Status::Cancelled) : std::error_code();
}

}  // namespace fatlib
