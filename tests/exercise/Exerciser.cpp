#include "Exerciser.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Names.h"

namespace exercise {
namespace {

constexpr std::size_t HISTORY = 60;
constexpr std::time_t STEP_OF_TIMES = 2;  // seconds; FAT keeps even ones

}  // namespace

Exerciser::Exerciser(const Settings& settings)
    : m_Settings(settings), m_Random(settings.seed), m_Model(settings.ordinary) {}

Exerciser::~Exerciser() {
  for (const OpenFile& open : m_Open) close(open.fd);
}

void Exerciser::Step() {
  struct Choice {
    unsigned weight;
    void (Exerciser::*step)();
  };
  static constexpr Choice choices[] = {
      {20, &Exerciser::Write},        {14, &Exerciser::Read},           {7, &Exerciser::MapWrite},
      {5, &Exerciser::MapRead},       {8, &Exerciser::Truncate},        {3, &Exerciser::Synchronise},
      {2, &Exerciser::Allocate},      {3, &Exerciser::CopyRange},       {1, &Exerciser::ToggleReadOnly},
      {4, &Exerciser::SetTimes},      {4, &Exerciser::CheckOpenFile},   {8, &Exerciser::Open},
      {7, &Exerciser::Create},        {8, &Exerciser::Close},           {5, &Exerciser::Unlink},
      {2, &Exerciser::MakeDirectory}, {2, &Exerciser::RemoveDirectory}, {6, &Exerciser::Rename},
      {2, &Exerciser::RenameCase},    {3, &Exerciser::ListSome},        {4, &Exerciser::Refused},
      {1, &Exerciser::CheckSpace},    {5, &Exerciser::StatOne},
  };
  static const unsigned total = [] {
    unsigned sum = 0;
    for (const Choice& choice : choices) sum += choice.weight;
    return sum;
  }();
  ++m_nSteps;
  std::size_t at = m_Random.Below(total);
  for (const Choice& choice : choices) {
    if (at < choice.weight) {
      (this->*choice.step)();
      break;
    }
    at -= choice.weight;
  }
  if (m_nSteps % m_Settings.stepsToCheck == 0) {
    PlantFault();
    CheckAll();
  }
}

void Exerciser::Finish() {
  for (const OpenFile& open : m_Open) {
    if (close(open.fd) != 0) Fail("close at the end: " + std::string(std::strerror(errno)));
  }
  m_Open.clear();
  CheckAll();
}

void Exerciser::Note(const std::string& operation) {
  m_Last.push_back(std::to_string(m_nSteps) + ": " + operation);
  if (m_Last.size() > HISTORY) m_Last.pop_front();
}

void Exerciser::Fail(const std::string& what) { throw Mismatch("step " + std::to_string(m_nSteps) + ": " + what); }

// True when an operation succeeded; false when it was refused for want of room where that is expected.
bool Exerciser::Done(long result, const std::string& what) {
  if (result >= 0) return true;
  const int error = errno;
  if (error == ENOSPC && m_Settings.full) {
    ++m_nRefusals;
    Note("  no room for: " + what);
    return false;
  }
  Fail(what + ": " + std::strerror(error));
}

void Exerciser::MustFail(long result, std::initializer_list<int> errors, const std::string& what) {
  const int error = errno;
  if (result >= 0) Fail(what + " succeeded, but must be refused");
  if (std::find(errors.begin(), errors.end(), error) == errors.end()) {
    Fail(what + " must be refused as \"" + std::strerror(*errors.begin()) + "\", not as \"" + std::strerror(error) +
         "\"");
  }
}

// A way to a node, now and then written in another case than it was created in.
std::string Exerciser::HostPath(const Node& node) {
  if (!node.parent) return m_Settings.folder;
  return HostPath(*node.parent, Written(node));
}

std::string Exerciser::HostPath(const Node& directory, const std::string& name) {
  return HostPath(directory) + "/" + name;
}

std::string Exerciser::Written(const Node& node) {
  return m_Settings.ordinary || m_Settings.exact || m_Random.Percent(80) ? node.name : InOtherCase(node.name, m_Random);
}

// How much all files may grow together; those that are removed but open take room too.
std::size_t Exerciser::RoomForBytes() const {
  std::size_t used = 0;
  for (const NodePtr& file : m_Model.Files()) used += file->bytes.size();
  std::vector<const Node*> counted;
  for (const OpenFile& open : m_Open) {
    if (open.node->parent || std::find(counted.begin(), counted.end(), open.node.get()) != counted.end()) continue;
    counted.push_back(open.node.get());
    used += open.node->bytes.size();
  }
  return used < m_Settings.bytes ? m_Settings.bytes - used : 0;
}

// 0 .. limit, small ones and those beside powers of two more often.
std::size_t Exerciser::SomeSize(std::size_t limit) {
  const std::size_t power = std::size_t{1} << m_Random.Below(21);
  const std::size_t size = m_Random.Percent(40) ? power + m_Random.Below(3) - 1 : m_Random.Below(2 * power);
  return std::min(size, limit);
}

void Exerciser::Changed(Node& node, std::time_t before) {
  node.changed = {before - STEP_OF_TIMES, std::time(nullptr) + STEP_OF_TIMES, !node.mapped};
}

}  // namespace exercise
