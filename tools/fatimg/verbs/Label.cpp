/// @file Label.cpp
/// label: shows, sets or removes the label of a volume.

#include <fatlib/Text.h>

#include "ChangeVerbs.h"
#include "Targets.h"

namespace fatimg {

namespace {

struct LabelOptions {
  std::string image = ":/";
  std::string label;
  bool remove = false;
};

void Show(Context& context, const Operand& operand) {
  std::u16string label;
  const std::error_code error = context.session.Open(operand, fatlib::Access::ReadOnly).Label(&label);
  if (error) throw Failure(error, operand.ImageText());
  const std::string text = fatlib::ToUtf8(label);
  if (!text.empty()) context.report.Print(context.report.Shown(text) + "\n");
  context.report.Object()["label"] = text;
}

Exit RunLabel(Context& context, const LabelOptions& options) {
  const Operand operand = ParseOperand(options.image);
  if (options.remove && !options.label.empty()) throw Failure(Exit::Usage, {}, "--remove takes no label");
  if (options.label.empty() && !options.remove) {
    Show(context, operand);
    return context.report.Finish();
  }
  std::u16string label;
  if (!fatlib::FromUtf8(options.label, &label)) throw Failure(Exit::Usage, options.label, "the label is not UTF-8");
  // Labels are stored in capitals.
  const std::error_code error = OpenForWriting(context, operand).SetLabel(fatlib::UpCase(label));
  if (error == make_error_code(fatlib::Status::InvalidName)) {
    throw Failure(Exit::Usage, options.label, "a label has at most 11 characters, of those that FAT labels can have");
  }
  if (error) throw Failure(error, operand.ImageText());
  return context.report.Finish();
}

}  // namespace

void AddLabel(Grammar& grammar) {
  LabelOptions* options = nullptr;
  Syntax verb = grammar.Add("label", "Show, set or remove the label", RunLabel, &options);
  verb.Positional("IMAGE", &options->image, "The volume", Syntax::Need::Optional);
  verb.Positional("LABEL", &options->label, "The new label, in any letter case", Syntax::Need::Optional);
  verb.Flag("--remove", &options->remove, "Leave the volume without a label");
}

}  // namespace fatimg
