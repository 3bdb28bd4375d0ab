/// @file CopyPlan.cpp

#include "CopyPlan.h"

#include <fatlib/Error.h>

#include <algorithm>
#include <map>
#include <string>
#include <utility>

#include "ByteCount.h"

namespace fatimg {

namespace {

class Planner {
 public:
  Planner(const std::vector<CopyItem>& items, Clobber clobber, CopyTarget* target, CopyPlan* plan)
      : m_Items(items), m_Clobber(clobber), m_pTarget(target), m_pPlan(plan) {}

  std::error_code Run() {
    for (std::size_t i = 0; i < m_Items.size(); ++i) {
      if (const std::error_code error = Add(i)) return error;
    }
    if (const std::error_code error = m_pTarget->FreeUnits(&m_pPlan->unitsFree)) return error;
    m_pPlan->unitsNeeded = static_cast<std::uint64_t>(m_nPeak);
    if (m_pPlan->unitsNeeded > m_pPlan->unitsFree) {
      const std::uint64_t unit = m_pTarget->UnitBytes();
      Problem(Exit::NoSpace, m_pTarget->Shown({}),
              "the copy needs " + ByteCountText(m_pPlan->unitsNeeded * unit) + " and " +
                  ByteCountText(m_pPlan->unitsFree * unit) + " are free");
    }
    return {};
  }

 private:
  enum class Origin { Made, Existed, Refused };
  struct Known {
    Origin origin;
    std::string place;
  };

  std::u16string KeyOf(const fatlib::Path& path) const {
    std::u16string key;
    for (const std::u16string& name : path.Components()) key += m_pTarget->Key(name) + u'/';
    return key;
  }

  std::error_code Add(std::size_t index) {
    const CopyItem& item = m_Items[index];
    const std::u16string key = KeyOf(item.relative);
    const auto parent = m_Known.find(KeyOf(item.relative.Parent()));
    const bool hasParent = !item.relative.IsRoot() && parent != m_Known.end();
    if (hasParent && parent->second.origin == Origin::Refused) return {};
    const auto [known, added] = m_Known.emplace(key, Known{Origin::Refused, item.place});
    if (!added) {
      // The contents of several directories may go into one.
      if (item.relative.IsRoot() && item.directory && known->second.origin != Origin::Refused) return {};
      Problem(Exit::Refused, item.place, "has the same name there as " + known->second.place);
      return {};
    }
    if (const std::error_code error = m_pTarget->CheckPath(item.relative)) {
      Problem(ExitOf(error) == Exit::Usage ? Exit::Refused : ExitOf(error), item.place, error.message());
      return {};
    }
    if (item.size > m_pTarget->MaxFileBytes()) {
      Problem(Exit::NoSpace, item.place, make_error_code(fatlib::Status::FileTooLarge).message());
      return {};
    }
    bool exists = false;
    Existing existing;
    if (!hasParent || parent->second.origin == Origin::Existed) {
      if (const std::error_code error = m_pTarget->Look(item.relative, &exists, &existing)) return error;
    }
    return exists ? Meet(index, existing, &known->second.origin) : Create(index, &known->second.origin);
  }

  std::error_code Meet(std::size_t index, const Existing& existing, Origin* origin) {
    const CopyItem& item = m_Items[index];
    const std::string there = m_pTarget->Shown(item.relative);
    if (existing.directory != item.directory) {
      Problem(Exit::Refused, there, existing.directory ? "is a directory" : "is in the way of a directory");
    } else if (item.directory) {
      *origin = Origin::Existed;
      m_pPlan->steps.push_back({CopyStep::EnterDirectory, index});
    } else if (m_Clobber == Clobber::Refuse) {
      Problem(Exit::Refused, there, "exists; --force replaces it, --no-clobber leaves it");
    } else if (m_Clobber == Clobber::Skip) {
      ++m_pPlan->skipped;
      m_pPlan->steps.push_back({CopyStep::SkipFile, index});
    } else {
      Take(static_cast<std::int64_t>(UnitsOf(item.size)) - static_cast<std::int64_t>(UnitsOf(existing.size)));
      Write(index, CopyStep::ReplaceFile);
    }
    return {};
  }

  std::error_code Create(std::size_t index, Origin* origin) {
    const CopyItem& item = m_Items[index];
    std::uint64_t units = 0;
    const std::error_code error = m_pTarget->PlanEntry(item.relative, item.directory, &units);
    if (error == make_error_code(fatlib::Status::DiskFull)) {
      Problem(Exit::NoSpace, m_pTarget->Shown(item.relative), "its directory cannot hold more names");
      return {};
    }
    if (error) return error;
    *origin = Origin::Made;
    Take(static_cast<std::int64_t>(units));
    if (item.directory) {
      ++m_pPlan->directories;
      m_pPlan->steps.push_back({CopyStep::MakeDirectory, index});
    } else {
      Take(static_cast<std::int64_t>(UnitsOf(item.size)));
      Write(index, CopyStep::WriteFile);
    }
    return {};
  }

  void Write(std::size_t index, CopyStep::Kind kind) {
    ++m_pPlan->files;
    m_pPlan->bytes += m_Items[index].size;
    m_pPlan->steps.push_back({kind, index});
  }

  std::uint64_t UnitsOf(std::uint64_t bytes) const {
    return bytes / m_pTarget->UnitBytes() + (bytes % m_pTarget->UnitBytes() != 0 ? 1 : 0);
  }

  void Take(std::int64_t units) {
    m_nTaken += units;
    m_nPeak = std::max(m_nPeak, m_nTaken);
  }

  void Problem(Exit exit, std::string place, std::string reason) {
    m_pPlan->problems.push_back({exit, std::move(place), std::move(reason)});
  }

  const std::vector<CopyItem>& m_Items;
  Clobber m_Clobber;
  CopyTarget* m_pTarget;
  CopyPlan* m_pPlan;
  std::map<std::u16string, Known> m_Known;  // what the plan has dealt with, by the keys of its path
  std::int64_t m_nTaken = 0;                // units in use by the steps so far
  std::int64_t m_nPeak = 0;
};

}  // namespace

bool CopyPlan::LacksSpace() const {
  return !problems.empty() && std::all_of(problems.begin(), problems.end(),
                                          [](const CopyProblem& problem) { return problem.exit == Exit::NoSpace; });
}

std::error_code PlanCopy(const std::vector<CopyItem>& items, Clobber clobber, CopyTarget* target, CopyPlan* plan) {
  *plan = {};
  return Planner(items, clobber, target, plan).Run();
}

}  // namespace fatimg
