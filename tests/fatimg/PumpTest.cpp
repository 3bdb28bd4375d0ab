/// @file PumpTest.cpp

#include <fatlib/Error.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "Pump.h"

namespace fatimg {
namespace {

class TextSource : public ByteSource {
 public:
  explicit TextSource(std::string text) : m_Text(std::move(text)) {}
  std::error_code Read(void* buffer, std::size_t size, std::size_t* done) override {
    *done = std::min(size, m_Text.size() - m_nOffset);
    std::memcpy(buffer, m_Text.data() + m_nOffset, *done);
    m_nOffset += *done;
    return {};
  }

 private:
  std::string m_Text;
  std::size_t m_nOffset = 0;
};

class Moving : public testing::Test {
 protected:
  std::error_code Move(const std::string& text, std::uint64_t size) {
    TextSource source(text);
    const auto write = [this](std::uint64_t offset, const void* buffer, std::size_t count) {
      EXPECT_EQ(m_Written.size(), offset);
      EXPECT_EQ(0u, reinterpret_cast<std::uintptr_t>(buffer) % Pump::ALIGNMENT);
      m_Written.append(static_cast<const char*>(buffer), count);
      m_Pieces.push_back(count);
      return m_WriteError;
    };
    return m_Pump.Run(
        &source, size, write, [this](std::size_t) { return m_Pieces.size() < m_nMaxPieces; }, &m_nMoved);
  }

  Pump m_Pump;
  std::string m_Written;
  std::vector<std::size_t> m_Pieces;
  std::size_t m_nMaxPieces = 100;
  std::error_code m_WriteError;
  std::uint64_t m_nMoved = 99;
};

TEST_F(Moving, LongFile_GoesInAlignedPieces) {
  std::string text(2 * Pump::PIECE_BYTES + 5, 0);
  for (std::size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>(i / 1000);
  ASSERT_FALSE(Move(text, text.size()));
  EXPECT_EQ((std::vector<std::size_t>{Pump::PIECE_BYTES, Pump::PIECE_BYTES, 5}), m_Pieces);
  EXPECT_TRUE(m_Written == text);
}

TEST_F(Moving, SourceThatEndsBefore_IsNoFailure) {
  ASSERT_FALSE(Move("abc", 10));
  EXPECT_EQ("abc", m_Written);
  EXPECT_EQ(3u, m_nMoved);
}

TEST_F(Moving, SourceWithMore_IsCutAtTheSize) {
  ASSERT_FALSE(Move("abcdef", 4));
  EXPECT_EQ("abcd", m_Written);
}

TEST_F(Moving, AdvanceSaysStop_IsCancelledAfterThatPiece) {
  m_nMaxPieces = 1;
  EXPECT_EQ(make_error_code(fatlib::Status::Cancelled),
            Move(std::string(2 * Pump::PIECE_BYTES, 'x'), 2 * Pump::PIECE_BYTES));
  EXPECT_EQ(Pump::PIECE_BYTES, m_nMoved);
}

TEST_F(Moving, FailedWrite_DoesNotCountAsMoved) {
  m_WriteError = fatlib::Status::IoError;
  EXPECT_EQ(m_WriteError, Move("abc", 3));
  EXPECT_EQ(0u, m_nMoved);
}

}  // namespace
}  // namespace fatimg
