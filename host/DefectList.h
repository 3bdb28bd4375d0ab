/// @file DefectList.h
/// Collects the defects that a check finds. Not part of the face for hosts.

#ifndef FATLIB_DEFECTLIST_H
#define FATLIB_DEFECTLIST_H

#include <string>
#include <utility>

#include "Check.h"

namespace fatlib {

class DefectList {
 public:
  /// @param report  must live as long as the object
  explicit DefectList(CheckReport* report) : m_pReport(report) {}

  void Add(Defect defect) {
    if (m_pReport->defects.size() < CheckReport::MAX_DEFECTS) {
      m_pReport->defects.push_back(std::move(defect));
    } else {
      ++m_pReport->moreDefects;
    }
  }
  void Add(Defect::Kind kind, std::string path, std::uint64_t number = 0, std::uint64_t count = 0) {
    Add({kind, std::move(path), number, count, {}});
  }
  /// Of the volume as a whole.
  void Add(Defect::Kind kind, std::uint64_t number, std::uint64_t count = 0) { Add({kind, {}, number, count, {}}); }

 private:
  CheckReport* m_pReport;
};

}  // namespace fatlib

#endif  // FATLIB_DEFECTLIST_H
