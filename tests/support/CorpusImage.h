/// @file CorpusImage.h
/// The volumes of fuzz/corpus as images.

#ifndef FATLIB_TESTS_SUPPORT_CORPUSIMAGE_H
#define FATLIB_TESTS_SUPPORT_CORPUSIMAGE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "../../fuzz/SparseImage.h"
#include "DiskImage.h"

/// The bytes of a file of the corpus, whatever it is. A file that is not there is a failure of the test.
/// @param path  in fuzz/corpus, or absolute
inline std::vector<std::uint8_t> ReadCorpusFile(const std::filesystem::path& path) {
  std::ifstream file(std::filesystem::path(FATLIB_CORPUS) / path, std::ios::binary);
  EXPECT_TRUE(file.is_open()) << path;
  return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(file), {});
}

/// The image that such a file describes, as long as it says.
inline CDiskImage LoadCorpusImage(const std::filesystem::path& path) {
  const std::vector<std::uint8_t> bytes = ReadCorpusFile(path);
  CInput input(bytes.data(), bytes.size());
  const SPARSE_IMAGE sparse = SPARSE_IMAGE::Parse(input);
  CDiskImage image(sparse.Size());
  sparse.Place([&image](std::uint32_t offset, const std::uint8_t* from, std::uint32_t count) {
    image.Write(offset, from, count);
  });
  return image;
}

#endif  // FATLIB_TESTS_SUPPORT_CORPUSIMAGE_H
