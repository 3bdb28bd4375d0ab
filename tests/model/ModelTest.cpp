/// @file ModelTest.cpp
/// Long random sequences of calls against the library and its twin (see Twin.h for what is compared and what is
/// avoided). After every unmount an independent reader finds what the twin expects, to the slot; fsck.fat has the last
/// word. The same sequences once more with the calls that the twin avoids: those the process only has to survive.
///
/// A failing seed prints the shortest sequence that still fails; a process that dies prints the call. By the
/// environment:
///   FATLIB_MODEL_SEEDS=n   that many seeds for each volume
///   FATLIB_MODEL_OPS=n     that many calls for each seed
///   FATLIB_MODEL_SEED=n    the one seed

#include <gtest/gtest.h>

#include "model/ModelRun.h"
#include "support/Environment.h"

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr unsigned int DEFAULT_SEEDS = 9;
constexpr unsigned int DEFAULT_OPERATIONS = 400;
#else
constexpr unsigned int DEFAULT_SEEDS = 18;
constexpr unsigned int DEFAULT_OPERATIONS = 700;
#endif
constexpr unsigned int MAX_TRIES = 1500;

MODEL_VOLUME MadeByMkfs(const char* name, std::vector<std::string> arguments, unsigned int kib, BACKEND backend,
                        unsigned int maxFileBytes = 40000) {
  MODEL_VOLUME volume{};
  volume.Name = name;
  volume.Mkfs = std::move(arguments);
  volume.KiB = kib;
  volume.Backend = backend;
  volume.MaxFileBytes = maxFileBytes;
  return volume;
}

// Sectors of 128 bytes: four slots a cluster.
MODEL_VOLUME MadeOfSmallSectors(const char* name, unsigned int bits, unsigned int clusters, BACKEND backend) {
  MODEL_VOLUME volume{};
  volume.Name = name;
  volume.Geometry.FatBits = bits;
  volume.Geometry.BytesPerSector = 128;
  volume.Geometry.Clusters = clusters;
  volume.Geometry.RootEntries = bits == 32 ? 0 : 64;
  volume.Backend = backend;
  volume.MaxFileBytes = 6000;
  return volume;
}

// Little room, in many small pieces.
MODEL_VOLUME WithBadClusters(MODEL_VOLUME volume, unsigned int period, unsigned int good) {
  volume.FreePeriod = period;
  volume.FreeInPeriod = good;
  return volume;
}

struct MODEL_CASE {
  const char* Name;
  MODEL_CONFIG Config;
};
void PrintTo(const MODEL_CASE& which, std::ostream* out) { *out << which.Name; }

std::vector<MODEL_CASE> Cases() {
  using B = BACKEND;
  const auto one = [](MODEL_VOLUME volume, POOL pool = POOL::ExactCounts, bool fsck = true) {
    return MODEL_CONFIG{{std::move(volume)}, pool, fsck, CANARY::None};
  };
  return {
      {"Fat12", one(MadeByMkfs("Fat12", {"-F", "12", "-s", "1", "-r", "64"}, 1440, B::Memory))},
      {"Fat12Tiny",
       one(MadeByMkfs("Fat12Tiny", {"-F", "12", "-s", "1", "-r", "32", "-n", "LABEL"}, 96, B::Memory, 9000))},
      {"Fat12EightSectors", one(MadeByMkfs("Fat12EightSectors", {"-F", "12", "-s", "8", "-r", "16"}, 512, B::File))},
      {"Fat12Evicting",
       one(MadeByMkfs("Fat12Evicting", {"-F", "12", "-s", "2", "-r", "128"}, 2500, B::Memory, 700000), POOL::Evicting)},
      {"Fat16", one(MadeByMkfs("Fat16", {"-F", "16", "-s", "1", "-r", "512"}, 2400, B::Memory, 300000))},
      {"Fat16EightSectors", one(MadeByMkfs("Fat16EightSectors", {"-F", "16", "-s", "8", "-r", "48", "-n", "SIXTEEN"},
                                           17000, B::Medium, 100000))},
      {"Fat16LargeSectors",
       one(MadeByMkfs("Fat16LargeSectors", {"-F", "16", "-S", "4096", "-s", "1", "-r", "128"}, 17500, B::File, 60000))},
      {"Fat16LargeClusters",
       one(MadeByMkfs("Fat16LargeClusters", {"-F", "16", "-s", "128", "-r", "512"}, 270000, B::Medium, 900000),
           POOL::Evicting)},
      {"Fat32", one(MadeByMkfs("Fat32", {"-F", "32", "-s", "1", "-n", "THIRTYTWO"}, 1000, B::Memory, 60000))},
      {"Fat16InPieces",
       one(WithBadClusters(MadeByMkfs("Fat16InPieces", {"-F", "16", "-s", "1", "-r", "256"}, 2600, B::Memory, 40000), 7,
                           3))},
      // Changes that touch more blocks of the FAT than are held back.
      {"Fat32FiveFatBlocks",
       one(WithBadClusters(MadeByMkfs("Fat32FiveFatBlocks", {"-F", "32", "-s", "1"}, 170000, B::Medium, 30000), 65536,
                           60))},
      {"Fat32Full", one(MadeByMkfs("Fat32Full", {"-F", "32", "-s", "1"}, 128, B::File, 20000))},
      {"Fat32EightSectors",
       one(MadeByMkfs("Fat32EightSectors", {"-F", "32", "-s", "8"}, 1200, B::Memory, 150000), POOL::Evicting)},
      {"Fat32LargeSectors",
       one(MadeByMkfs("Fat32LargeSectors", {"-F", "32", "-S", "4096", "-s", "8"}, 4000, B::Memory, 200000))},
      // Half of a new directory's cluster keeps what the disk held, and fsck.fat reads behind the end of a directory.
      {"Fat32LargestClusters",
       one(MadeByMkfs("Fat32LargestClusters", {"-F", "32", "-S", "4096", "-s", "128"}, 60000, B::Medium, 1200000),
           POOL::Evicting, false)},
      {"Fat12SmallSectors",
       one(MadeOfSmallSectors("Fat12SmallSectors", 12, 2000, B::Memory), POOL::ExactCounts, false)},
      {"Fat32SmallSectors",
       one(MadeOfSmallSectors("Fat32SmallSectors", 32, 1500, B::Medium), POOL::ExactCounts, false)},
      {"Fat16OneBlock",
       one(MadeByMkfs("Fat16OneBlock", {"-F", "16", "-s", "1", "-r", "64"}, 2400, B::Memory, 300000), POOL::Single)},
      {"TwoVolumes",
       {{MadeByMkfs("TwoVolumesFat12", {"-F", "12", "-s", "2", "-r", "64"}, 700, B::Memory, 30000),
         MadeByMkfs("TwoVolumesFat32", {"-F", "32", "-s", "1"}, 700, B::File, 30000)},
        POOL::ExactCounts,
        true,
        CANARY::None}},
      {"TwoVolumesEvicting",
       {{MadeByMkfs("TwoEvictingFat16", {"-F", "16", "-s", "1", "-r", "512"}, 2400, B::Medium, 400000),
         MadeByMkfs("TwoEvictingFat12", {"-F", "12", "-S", "4096", "-s", "1", "-r", "128"}, 4000, B::Memory, 400000)},
        POOL::Evicting,
        true,
        CANARY::None}},
  };
}

class Model : public ::testing::TestWithParam<MODEL_CASE> {};

std::string CaseName(const ::testing::TestParamInfo<MODEL_CASE>& info) { return info.param.Name; }

// ---------------------------------------------------------------------------------------------- the shrinker

TEST(ModelShrinker, TwoCallsThatMatter_AreAllThatIsLeft) {
  std::vector<OPERATION> operations(200);
  for (unsigned int i = 0; i < operations.size(); ++i) operations[i].Seed = i;
  const std::vector<OPERATION> left = Shrink(operations, 1000, [](const std::vector<OPERATION>& rest) {
    unsigned int found = 0;
    for (const OPERATION& operation : rest) found += operation.Seed == 17 || operation.Seed == 123 ? 1u : 0u;
    return found == 2;
  });
  ASSERT_EQ(left.size(), 2u);
  EXPECT_EQ(left[0].Seed, 17u);
  EXPECT_EQ(left[1].Seed, 123u);
}

TEST(ModelShrinker, NothingMatters_NothingIsLeft) {
  EXPECT_TRUE(Shrink(std::vector<OPERATION>(9), 1000, [](const auto&) { return true; }).empty());
}

TEST(ModelShrinker, TriesUsedUp_StopsWithASequenceThatStillFails) {
  unsigned int tries = 0;
  const std::vector<OPERATION> left =
      Shrink(std::vector<OPERATION>(64), 5, [&tries](const auto& rest) { return ++tries, rest.size() > 20; });
  EXPECT_EQ(tries, 5u);
  EXPECT_GT(left.size(), 20u);
}

struct CANARY_CASE {
  const char* Name;
  CANARY Canary;
  OP Cause;
};
void PrintTo(const CANARY_CASE& which, std::ostream* out) { *out << which.Name; }

std::string CanaryName(const ::testing::TestParamInfo<CANARY_CASE>& info) { return info.param.Name; }

class ModelCanary : public ::testing::TestWithParam<CANARY_CASE> {};

// A twin with one wrong rule differs from the library. The run must notice, and come down to the calls that show it.
TEST_P(ModelCanary, WrongTwin_IsNoticedAndShrunkToItsCause) {
  MODEL_CONFIG config;
  config.Volumes = {MadeByMkfs("Canary", {"-F", "12", "-s", "1", "-r", "64"}, 720, BACKEND::Memory)};
  config.Fsck = false;
  config.Canary = GetParam().Canary;
  std::unique_ptr<CLibrary> library;
  SEED_RESULT result;
  for (unsigned int seed = 1; seed <= 20 && result.Failure.empty(); ++seed)
    result = RunSeed(config, library, seed, 150);
  ASSERT_NE(result.Failure, "");
  const std::vector<OPERATION> shortest = Shrink(result.Operations, 1000, [&](const std::vector<OPERATION>& rest) {
    return !Replay(config, library, rest).empty();
  });
  EXPECT_LE(shortest.size(), 5u) << ToText(shortest);
  ASSERT_FALSE(shortest.empty());
  EXPECT_EQ(shortest.back().Kind, GetParam().Cause) << ToText(shortest);
  EXPECT_NE(Replay(config, library, shortest), "");
  config.Canary = CANARY::None;
  EXPECT_EQ(Replay(config, library, shortest), "") << ToText(shortest);
}

INSTANTIATE_TEST_SUITE_P(Rules, ModelCanary,
                         ::testing::Values(CANARY_CASE{"SeekFromEndIsForward", CANARY::SeekFromEndIsForward, OP::Seek},
                                           CANARY_CASE{"DeleteKeepsClusters", CANARY::DeleteKeepsClusters, OP::Delete},
                                           CANARY_CASE{"RenameKeepsStamp", CANARY::RenameKeepsStamp, OP::Rename}),
                         CanaryName);

// ---------------------------------------------------------------------------------------------- the twin

TEST(ModelSeed, SameSeed_GivesTheSameCalls) {
  MODEL_CONFIG config;
  config.Volumes = {MadeByMkfs("Seeds", {"-F", "32", "-s", "1"}, 700, BACKEND::Memory)};
  config.Fsck = false;
  std::unique_ptr<CLibrary> library;
  const SEED_RESULT first = RunSeed(config, library, 2, 300);
  const SEED_RESULT second = RunSeed(config, library, 2, 300);
  EXPECT_EQ(first.Failure + second.Failure, "");
  EXPECT_EQ(ToText(first.Operations), ToText(second.Operations));
  EXPECT_NE(ToText(first.Operations), ToText(RunSeed(config, library, 9, 300).Operations));
}

TEST_P(Model, RandomCallsDoWhatTheTwinDoes) {
  const MODEL_CONFIG& config = GetParam().Config;
  const unsigned int count = FromEnvironment("FATLIB_MODEL_SEEDS", DEFAULT_SEEDS);
  const unsigned int operations = FromEnvironment("FATLIB_MODEL_OPS", DEFAULT_OPERATIONS);
  const unsigned int only = FromEnvironment("FATLIB_MODEL_SEED", 0);
  std::unique_ptr<CLibrary> library;
  unsigned int run = 0;
  unsigned int leftOut = 0;
  unsigned int remounts = 0;
  for (unsigned int seed = only == 0 ? 1 : only; seed < (only == 0 ? 1 + count : only + 1); ++seed) {
    const SEED_RESULT result = RunSeed(config, library, seed, operations);
    run += static_cast<unsigned int>(result.Operations.size());
    leftOut += result.LeftOut;
    remounts += result.Remounts;
    if (result.Failure.empty()) continue;
    const std::vector<OPERATION> shortest =
        Shrink(result.Operations, MAX_TRIES,
               [&](const std::vector<OPERATION>& rest) { return !Replay(config, library, rest).empty(); });
    ADD_FAILURE() << GetParam().Name << ", seed " << seed << ", after " << result.Operations.size()
                  << " calls: " << result.Failure << "\nshortest sequence found, " << shortest.size() << " calls:\n"
                  << ToText(shortest) << Replay(config, library, shortest);
    break;
  }
  EXPECT_LT(leftOut, run / 10 + 10) << "the twin avoids too much";
  if (library != nullptr) {
    EXPECT_EQ(library->Stop(), "");
  }
  std::cout << run << " calls, " << leftOut << " left out, " << remounts << " unmounts\n";
  RecordProperty("calls", static_cast<int>(run));
}

// What the twin avoids has stated consequences, none of them good for the volume. The process must survive them,
// together with a failing transfer now and then, and nothing must be left over.
TEST_P(Model, CallsThatTheTwinAvoids_HarmTheVolumeOnly) {
  const MODEL_CONFIG& config = GetParam().Config;
  const unsigned int count = FromEnvironment("FATLIB_MODEL_SEEDS", DEFAULT_SEEDS);
  const unsigned int operations = FromEnvironment("FATLIB_MODEL_OPS", DEFAULT_OPERATIONS);
  const unsigned int only = FromEnvironment("FATLIB_MODEL_SEED", 0);
  unsigned int messes = 0;
  for (unsigned int seed = only == 0 ? 1 : only; seed < (only == 0 ? 1 + count : only + 1); ++seed) {
    // A library of its own for each seed: a block whose write-back failed is lost to it for good.
    CLibrary library(config.Pool);
    {
      CGenerator generator(seed, 10000);
      CModelRun run(config, library);
      for (unsigned int i = 0; i < operations && run.Failure().empty(); ++i) {
        const OPERATION operation = generator.Next(run);
        NoteRunning(std::string("mess: ") + GetParam().Name + ", seed " + std::to_string(seed) + ", call " +
                    std::to_string(i + 1) + ": " + ToText(operation));
        static_cast<void>(run.StepIntoMess(operation));
      }
      EXPECT_EQ(run.Failure(), "") << "seed " << seed;
      run.FinishMess();
      messes += run.IsMess() ? 1u : 0u;
    }
    EXPECT_EQ(library.Stop(), "") << "seed " << seed;
  }
  NoteRunning("");
  EXPECT_TRUE(only != 0 || messes > count / 2) << "hardly anything was avoided";
}

INSTANTIATE_TEST_SUITE_P(Volumes, Model, ::testing::ValuesIn(Cases()), CaseName);

}  // namespace
