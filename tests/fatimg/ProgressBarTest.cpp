/// @file ProgressBarTest.cpp

#include <gtest/gtest.h>

#include <array>

#include "ByteCount.h"
#include "ProgressBar.h"

namespace fatimg {
namespace {

constexpr std::uint64_t MIB = 1u << 20;

/// What a progress bar writes, at times that the test says.
class Shown {
 public:
  explicit Shown(ProgressMode mode) : m_pFile(std::tmpfile()), m_Bar(mode, m_pFile, [this] { return m_nNow; }) {}
  ~Shown() { std::fclose(m_pFile); }
  Shown(const Shown&) = delete;
  Shown& operator=(const Shown&) = delete;

  ProgressBar& Bar() { return m_Bar; }
  void At(double seconds) { m_nNow = seconds; }
  std::string Text() {
    std::array<char, 4096> text{};
    std::rewind(m_pFile);
    const std::size_t size = std::fread(text.data(), 1, text.size(), m_pFile);
    return std::string(text.data(), size);
  }

 private:
  double m_nNow = 100;
  std::FILE* m_pFile;
  ProgressBar m_Bar;
};

TEST(ByteCount, Sizes_AreShownWithAUnitAndOneDecimal) {
  EXPECT_EQ("0 B", ByteCountText(0));
  EXPECT_EQ("1023 B", ByteCountText(1023));
  EXPECT_EQ("1.0 KiB", ByteCountText(1024));
  EXPECT_EQ("1.0 MiB", ByteCountText(MIB - 1));
  EXPECT_EQ("1.5 GiB", ByteCountText(1536 * MIB));
  EXPECT_EQ("16.0 EiB", ByteCountText(~std::uint64_t{0}));
}

TEST(Duration, Seconds_AreShownAsAClockShowsThem) {
  EXPECT_EQ("0:00", DurationText(0));
  EXPECT_EQ("1:05", DurationText(65));
  EXPECT_EQ("59:59", DurationText(3599));
  EXPECT_EQ("1:00:00", DurationText(3600));
}

TEST(ProgressBarText, HalfDone_HasHalfABarRateAndRest) {
  const ProgressState state{50 * MIB, 100 * MIB, 1, 2, 10.0 * MIB};
  const std::string text = ProgressBarText(state, 80);
  EXPECT_EQ(79u, text.size());
  EXPECT_NE(std::string::npos, text.find("]  50% 50.0 MiB of 100.0 MiB, 10.0 MiB/s, 0:05 left")) << text;
  const auto hashes = std::count(text.begin(), text.end(), '#');
  EXPECT_NEAR(1.0, static_cast<double>(hashes) / static_cast<double>(std::count(text.begin(), text.end(), '-')), 0.11);
}

TEST(ProgressBarText, NarrowTerminal_KeepsBarAndShare) {
  const ProgressState state{1, 4, 0, 1, 0};
  EXPECT_EQ("[###---------]  25%", ProgressBarText(state, 20));
  EXPECT_EQ("[###---------]  25%", ProgressBarText(state, 0));
}

TEST(ProgressBarText, OnlyEmptyFiles_AreMeasuredByItems) {
  const ProgressState state{0, 0, 1, 2, 0};
  EXPECT_NE(std::string::npos, ProgressBarText(state, 40).find(" 50%"));
}

TEST(ProgressJson, EveryLine_IsOneObjectWithAVersion) {
  EXPECT_EQ(
      "{\"version\":1,\"progress\":{\"bytesDone\":5,\"bytesTotal\":10,\"itemsDone\":1,\"itemsTotal\":2,"
      "\"bytesPerSecond\":2,\"remainingSeconds\":3}}",
      ProgressJsonText({5, 10, 1, 2, 2.0}));
  EXPECT_NE(std::string::npos, ProgressJsonText({0, 10, 0, 2, 0}).find("\"remainingSeconds\":null"));
}

TEST(ProgressBar, ShortCopy_ShowsNoBar) {
  Shown shown(ProgressMode::Bar);
  shown.Bar().Start(10, 1);
  shown.At(100.4);
  shown.Bar().Advance(10);
  shown.Bar().Finish();
  EXPECT_EQ("", shown.Text());
}

TEST(ProgressBar, Terminal_SeesOneLineDrawnAgainAndTakenAway) {
  Shown shown(ProgressMode::Bar);
  shown.Bar().Start(100, 1);
  shown.At(101);
  shown.Bar().Advance(50);
  shown.At(101.05);
  shown.Bar().Advance(10);  // too early for another picture
  shown.At(101.2);
  shown.Bar().Advance(10);
  shown.Bar().Finish();
  const std::string text = shown.Text();
  EXPECT_EQ(3, std::count(text.begin(), text.end(), '\r'));
  EXPECT_EQ(0, std::count(text.begin(), text.end(), '\n'));
  EXPECT_EQ("\r\033[K", text.substr(text.size() - 4));
}

TEST(ProgressBar, Rate_IsThatOfTheLastSeconds) {
  Shown shown(ProgressMode::JsonLines);
  shown.Bar().Start(1000, 1);
  for (int second = 1; second <= 20; ++second) {
    shown.At(100 + second);
    shown.Bar().Advance(second <= 10 ? 50 : 10);
  }
  const std::string text = shown.Text();
  EXPECT_NE(std::string::npos, text.find("\"bytesDone\":500,\"bytesTotal\":1000,\"itemsDone\":0,\"itemsTotal\":1,"
                                         "\"bytesPerSecond\":50,"));
  EXPECT_NE(std::string::npos, text.find("\"bytesDone\":600,\"bytesTotal\":1000,\"itemsDone\":0,\"itemsTotal\":1,"
                                         "\"bytesPerSecond\":10,\"remainingSeconds\":40"));
}

TEST(ProgressBar, PlainLines_EndWithTheLastState) {
  Shown shown(ProgressMode::PlainLines);
  shown.Bar().Start(2048, 2);
  shown.Bar().Advance(2048);
  shown.Bar().ItemDone();
  shown.Bar().ItemDone();
  shown.At(102);
  shown.Bar().Finish();
  EXPECT_EQ("100% 2.0 KiB of 2.0 KiB, 2 of 2 items, 1.0 KiB/s, 0:00 left\n", shown.Text());
}

TEST(ProgressBar, NoMode_WritesNothing) {
  Shown shown(ProgressMode::None);
  shown.Bar().Start(10, 1);
  shown.At(200);
  shown.Bar().Advance(10);
  shown.Bar().Finish();
  EXPECT_EQ("", shown.Text());
}

}  // namespace
}  // namespace fatimg
