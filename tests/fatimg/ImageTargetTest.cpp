/// @file ImageTargetTest.cpp
/// A volume as the destination of a copy: what a plan foresees is what the copy takes.

#include <fatlib/Format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "CopyPlan.h"
#include "ImageTarget.h"
#include "support/DiskImage.h"

namespace fatimg {
namespace {

class ZeroSource : public ByteSource {
 public:
  std::error_code Read(void* buffer, std::size_t size, std::size_t* done) override {
    std::memset(buffer, 0, size);
    *done = size;
    return {};
  }
};

class VolumeAsTarget : public testing::Test {
 protected:
  void Format(int bits, std::uint64_t bytes) {
    auto device = std::make_unique<fatlib::MemoryImage>(std::vector<unsigned char>(ToSize(bytes)));
    fatlib::FormatOptions options;
    options.bits = bits;
    options.bytesPerCluster = 512;
    ASSERT_FALSE(fatlib::Format(device.get(), options));
    ASSERT_FALSE(m_Volume.Open(std::move(device)));
  }
  std::uint32_t Free() {
    std::uint32_t clusters = 0;
    EXPECT_FALSE(m_Volume.FreeClusters(&clusters));
    return clusters;
  }
  /// Does what a plan says, without bytes.
  void Carry(const CopyPlan& plan, const std::vector<CopyItem>& items) {
    for (const CopyStep& step : plan.steps) {
      WriteOrder order;
      order.relative = items[step.item].relative;
      order.size = items[step.item].size;
      order.replace = step.kind == CopyStep::ReplaceFile;
      order.withoutBytes = true;
      std::uint64_t written = 0;
      if (step.kind == CopyStep::MakeDirectory) {
        ASSERT_FALSE(m_Target.MakeDirectory(order.relative, 0));
      } else if (step.kind != CopyStep::EnterDirectory) {
        ASSERT_FALSE(m_Target.WriteFile(order, nullptr, {}, &written));
      }
    }
  }
  std::vector<CopyItem> RandomTree(unsigned int seed) {
    std::mt19937 random(seed);
    std::vector<CopyItem> items;
    std::vector<fatlib::Path> directories{fatlib::Path()};
    for (int i = 0; i < 150; ++i) {
      CopyItem& item = items.emplace_back();
      std::string name = std::to_string(seed) + "_" + std::to_string(i);
      if (random() % 2 != 0) name += std::string(random() % 100, 'x') + ".text";
      item.relative = directories[random() % directories.size()] / std::u16string(name.begin(), name.end());
      item.directory = random() % 6 == 0 && item.relative.Components().size() < 3;
      if (item.directory) {
        directories.push_back(item.relative);
      } else {
        item.size = random() % 3000;
      }
      if (item.relative.Check()) items.pop_back();
    }
    return items;
  }

  fatlib::Volume m_Volume;
  ImageTarget m_Target{&m_Volume, fatlib::Path("/base"), "img:", fatlib::Zone::Utc};
};

TEST_F(VolumeAsTarget, ExactPlan_NeedsWhatTheCopyTakes) {
  for (const int bits : {16, 32}) {
    Format(bits, bits == 16 ? std::uint64_t{8} << 20 : std::uint64_t{40} << 20);
    ASSERT_FALSE(m_Volume.CreateDirectory("/base"));
    for (unsigned int seed = 1; seed <= 4; ++seed) {
      const std::vector<CopyItem> items = RandomTree(seed);
      CopyPlan plan;
      m_Target.BeginPlan(CopyTarget::Count::Rough);
      ASSERT_FALSE(PlanCopy(items, Clobber::Refuse, &m_Target, &plan));
      const std::uint64_t rough = plan.unitsNeeded;
      m_Target.BeginPlan(CopyTarget::Count::Exact);
      ASSERT_FALSE(PlanCopy(items, Clobber::Refuse, &m_Target, &plan));
      ASSERT_TRUE(plan.problems.empty()) << plan.problems[0].place << plan.problems[0].reason;
      const std::uint32_t before = Free();
      Carry(plan, items);
      EXPECT_EQ(plan.unitsNeeded, before - Free()) << "FAT" << bits << " seed " << seed;
      EXPECT_GE(rough, plan.unitsNeeded);
    }
    ASSERT_FALSE(m_Volume.Close());
  }
}

TEST_F(VolumeAsTarget, FixedRoot_IsFullWhenThePlanSaysSo) {
  Format(12, 720 << 10);
  ImageTarget root(&m_Volume, fatlib::Path(), "img:", fatlib::Zone::Utc);
  std::vector<CopyItem> items;
  for (int i = 0; i < 300; ++i) {
    CopyItem& item = items.emplace_back();
    item.relative = fatlib::Path("N" + std::to_string(i));
  }
  CopyPlan plan;
  root.BeginPlan(CopyTarget::Count::Exact);
  ASSERT_FALSE(PlanCopy(items, Clobber::Refuse, &root, &plan));
  EXPECT_EQ(m_Volume.Layout().rootEntries, plan.files);
  EXPECT_TRUE(plan.LacksSpace());
}

TEST_F(VolumeAsTarget, CancelledNewFile_IsTakenBack) {
  Format(16, 8 << 20);
  ASSERT_FALSE(m_Volume.CreateDirectory("/base"));
  const std::uint32_t before = Free();
  ZeroSource source;
  WriteOrder order;
  order.relative = "/file";
  order.size = 3 << 20;
  std::uint64_t written = 0;
  EXPECT_EQ(make_error_code(fatlib::Status::Cancelled),
            m_Target.WriteFile(
                order, &source, [](std::size_t) { return false; }, &written));
  EXPECT_EQ(Pump::PIECE_BYTES, written);
  fatlib::Entry entry;
  EXPECT_EQ(make_error_code(fatlib::Status::NotFound), m_Volume.Stat("/base/file", &entry));
  EXPECT_EQ(before, Free());
}

}  // namespace
}  // namespace fatimg
