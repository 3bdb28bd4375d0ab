// Works a folder at random and compares it with a model in memory, in the way of a file system tester: for folders in
// which a FAT volume is mounted, and with --ordinary for those of other file systems (to try this program itself).
//
// Exit status: 0 all was as it must be; 1 it was not; 2 wrong arguments.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <limits>
#include <string>

#include "Exerciser.h"

namespace {

constexpr int EXIT_USAGE = 2;
constexpr char USAGE[] =
    "fatexercise FOLDER [--seed N] [--seconds S | --steps N] [--files K] [--max-bytes B] [--full] [--exact]\n"
    "            [--ordinary] [--plant byte|size|name|time]\n"
    "Works the empty FOLDER at random and holds it against a model in memory. What it does follows from the seed.\n"
    "  --full       room may run out; what is refused for that must leave everything as it was\n"
    "  --exact      paths are spelt as they were created, never in another case\n"
    "  --ordinary   the folder is not FAT: upper and lower case differ, every name is taken, files may have holes\n"
    "  --plant X    makes the model wrong once; the exit status must then be 1\n";

struct Arguments {
  exercise::Settings settings;
  std::uint64_t steps = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t seconds = std::numeric_limits<std::uint64_t>::max();
};

bool ParseNumber(const char* text, std::uint64_t* number) {
  char* end = nullptr;
  *number = std::strtoull(text, &end, 10);
  return *text >= '0' && *text <= '9' && *end == '\0';
}

bool ParsePlant(const std::string& word, exercise::Plant* plant) {
  using exercise::Plant;
  static constexpr std::pair<const char*, Plant> words[] = {
      {"byte", Plant::Byte}, {"size", Plant::Size}, {"name", Plant::Name}, {"time", Plant::Time}};
  for (const auto& [text, value] : words) {
    if (word != text) continue;
    *plant = value;
    return true;
  }
  return false;
}

bool Parse(int count, char** words, Arguments* arguments) {
  exercise::Settings& settings = arguments->settings;
  settings.seed = static_cast<std::uint64_t>(std::chrono::system_clock::now().time_since_epoch().count());
  for (int i = 1; i < count; ++i) {
    const std::string word = words[i];
    std::uint64_t number = 0;
    if (word == "--full") {
      settings.full = true;
    } else if (word == "--exact") {
      settings.exact = true;
    } else if (word == "--ordinary") {
      settings.ordinary = true;
    } else if (word.rfind("--", 0) != 0 && settings.folder.empty()) {
      settings.folder = word;
    } else if (i + 1 == count) {
      return false;
    } else if (word == "--plant") {
      if (!ParsePlant(words[++i], &settings.plant)) return false;
    } else if (!ParseNumber(words[++i], &number)) {
      return false;
    } else if (word == "--seed") {
      settings.seed = number;
    } else if (word == "--seconds") {
      arguments->seconds = number;
    } else if (word == "--steps") {
      arguments->steps = number;
    } else if (word == "--files") {
      settings.files = std::max<std::size_t>(number, 1);
    } else if (word == "--max-bytes") {
      settings.bytes = number;
    } else {
      return false;
    }
  }
  constexpr std::uint64_t unlimited = std::numeric_limits<std::uint64_t>::max();
  if (arguments->seconds == unlimited && arguments->steps == unlimited) arguments->steps = 20000;
  return !settings.folder.empty();
}

// Memory that a file was mapped to is gone: the file system could not read or write it.
void OnBusError(int) {
  constexpr char text[] = "fatexercise: SIGBUS: a mapped part of a file could not be read or written\n";
  (void)!write(STDERR_FILENO, text, sizeof text - 1);
  _exit(EXIT_FAILURE);
}

int Run(const Arguments& arguments) {
  const exercise::Settings& settings = arguments.settings;
  std::printf("fatexercise: --seed %llu\n", static_cast<unsigned long long>(settings.seed));
  std::fflush(stdout);
  exercise::Exerciser exerciser(settings);
  const auto start = std::chrono::steady_clock::now();
  const auto seconds = [&] {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start).count());
  };
  try {
    while (exerciser.Steps() < arguments.steps && seconds() < arguments.seconds) exerciser.Step();
    exerciser.Finish();
  } catch (const exercise::Mismatch& mismatch) {
    std::fprintf(stderr, "The last operations:\n");
    for (const std::string& operation : exerciser.LastOperations()) std::fprintf(stderr, "  %s\n", operation.c_str());
    std::fprintf(stderr, "MISMATCH with --seed %llu --files %zu --max-bytes %zu%s%s%s: %s\n",
                 static_cast<unsigned long long>(settings.seed), settings.files, settings.bytes,
                 settings.full ? " --full" : "", settings.exact ? " --exact" : "",
                 settings.ordinary ? " --ordinary" : "", mismatch.what());
    return EXIT_FAILURE;
  }
  std::size_t bytes = 0;
  for (const exercise::NodePtr& file : exerciser.Tree().Files()) bytes += file->bytes.size();
  std::printf(
      "fatexercise: %llu steps in %llu s, %llu refused for want of room; %zu files and directories, %zu bytes "
      "left, all as they must be\n",
      static_cast<unsigned long long>(exerciser.Steps()), static_cast<unsigned long long>(seconds()),
      static_cast<unsigned long long>(exerciser.Refusals()), exerciser.Tree().All().size(), bytes);
  return EXIT_SUCCESS;
}

}  // namespace

int main(int count, char** words) {
  Arguments arguments;
  if (!Parse(count, words, &arguments)) {
    std::fputs(USAGE, stderr);
    return EXIT_USAGE;
  }
  struct sigaction action {};
  action.sa_handler = OnBusError;
  sigaction(SIGBUS, &action, nullptr);
  try {
    return Run(arguments);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "fatexercise: %s\n", failure.what());
    return EXIT_FAILURE;
  }
}
