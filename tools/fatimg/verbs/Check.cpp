/// @file Check.cpp
/// check: every defect of volumes, without changing anything.

#include <fatlib/Check.h>

#include "LookVerbs.h"
#include "Looking.h"

namespace fatimg {

namespace {

struct CheckOptions {
  std::vector<std::string> images{":/"};
};

Json DefectJson(const fatlib::Defect& defect) {
  Json json;
  json["defect"] = fatlib::DefectName(defect.kind);
  json["path"] = defect.path;
  json["number"] = defect.number;
  json["count"] = defect.count;
  json["other"] = defect.other;
  json["text"] = fatlib::DefectText(defect);
  return json;
}

Json ReportJson(const Operand& operand, const fatlib::CheckReport& found) {
  Json defects = Json::array();
  for (const fatlib::Defect& defect : found.defects) defects.push_back(DefectJson(defect));
  Json json;
  json["image"] = operand.ImageText();
  json["files"] = found.files;
  json["directories"] = found.directories;
  json["usedClusters"] = found.usedClusters;
  json["freeClusters"] = found.freeClusters;
  json["badClusters"] = found.badClusters;
  json["lostClusters"] = found.lostClusters;
  json["defects"] = std::move(defects);
  json["moreDefects"] = found.moreDefects;
  return json;
}

void Print(Context& context, const Operand& operand, const fatlib::CheckReport& found) {
  const std::string image = context.report.Shown(operand.ImageText());
  for (const fatlib::Defect& defect : found.defects) {
    context.report.Print(image + ": " + context.report.Shown(fatlib::DefectText(defect)) + "\n");
  }
  const std::uint64_t defects = found.defects.size() + found.moreDefects;
  context.report.Print(image + ": " + std::to_string(found.files) + " files, " + std::to_string(found.directories) +
                       " directories, " + (defects == 0 ? "no" : std::to_string(defects)) +
                       (defects == 1 ? " defect" : " defects") + "\n");
}

Exit RunCheck(Context& context, const CheckOptions& options) {
  Exit result = Exit::Done;
  Json volumes = Json::array();
  for (const std::string& text : options.images) {
    const Operand operand = ParseImage(text);
    try {
      fatlib::Medium* medium = nullptr;
      fatlib::CheckReport found;
      std::error_code error = context.session.Open(operand, fatlib::Access::ReadOnly).Raw(&medium);
      if (!error) error = fatlib::Check(medium, &found);
      if (error) throw Failure(error, operand.ImageText());
      if (!found.defects.empty()) result = Exit::Corrupt;
      Print(context, operand, found);
      volumes.push_back(ReportJson(operand, found));
      context.report.Done();
    } catch (const Failure& failure) {
      context.report.Fail(failure);
    }
  }
  context.report.Object()["volumes"] = std::move(volumes);
  return context.report.Finish(result);
}

}  // namespace

void AddCheck(Grammar& grammar) {
  CheckOptions* options = nullptr;
  Syntax verb = grammar.Add("check", "Look for every defect of volumes", RunCheck, &options);
  verb.Positionals("IMAGE", &options->images, "Volumes; a damaged one makes the exit status 6", Syntax::Need::Optional);
}

}  // namespace fatimg
