/// @file Looking.cpp

#include "Looking.h"

#include <algorithm>
#include <map>

#include "Targets.h"

namespace fatimg {

std::vector<Sight> LookAt(Context& context, const std::vector<std::string>& operands, Order order) {
  // Patterns are expanded by the volume, and then everything is read from the medium: going to and fro would make the
  // volume compare what it knows with the medium each time.
  std::vector<std::pair<Sight, fatlib::Volume*>> wanted;
  for (const std::string& text : operands) {
    const Operand operand = ParseOperand(text);
    fatlib::Volume& volume = context.session.Open(operand, fatlib::Access::ReadOnly);
    try {
      for (const fatlib::Path& path : PathsOf(context, volume, operand)) {
        Sight sight{operand, nullptr, {}, operand.Text(path.ToUtf8())};
        sight.node.path = path;
        wanted.emplace_back(sight, &volume);
      }
    } catch (const Failure& failure) {
      context.report.Fail(failure);
    }
  }
  std::map<fatlib::Volume*, std::shared_ptr<TreeReader>> readers;
  std::vector<Sight> sights;
  for (auto& [sight, volume] : wanted) {
    std::shared_ptr<TreeReader>& reader = readers[volume];
    if (!reader) reader = std::make_shared<TreeReader>(*volume, order);
    sight.reader = reader;
    const std::error_code error = reader->Find(sight.node.path, &sight.node);
    if (error) {
      context.report.Fail(sight.text, error);
    } else {
      sights.push_back(std::move(sight));
    }
  }
  return sights;
}

Operand ParseImage(const std::string& text) {
  Operand operand = ParseOperand(text);
  if (!fatlib::Path(operand.path).IsRoot()) {
    throw Failure(Exit::Usage, text, "a whole image is meant, not a path in it");
  }
  return operand;
}

bool SeveralImages(const std::vector<Sight>& sights) {
  return std::any_of(sights.begin(), sights.end(),
                     [&sights](const Sight& sight) { return sight.reader != sights[0].reader; });
}

unsigned int ParseCount(const char* option, const std::string& text) {
  const bool digits = !text.empty() && text.size() < 10 && text.find_first_not_of("0123456789") == std::string::npos;
  if (!digits) throw Failure(Exit::Usage, option, "\"" + text + "\" is no whole number");
  return static_cast<unsigned int>(std::stoul(text));
}

}  // namespace fatimg
