/// @file Sha256.h
/// SHA-256 (FIPS 180-4) of bytes that come in pieces.

#ifndef FATLIB_TOOLS_SHA256_H
#define FATLIB_TOOLS_SHA256_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

class CSha256 {
 public:
  void Add(const unsigned char* bytes, std::size_t count);
  /// @return the hash as 64 lower-case hexadecimal digits. Nothing may be added afterwards.
  std::string Finish();

 private:
  static constexpr std::size_t BLOCK_BYTES = 64;

  void AddBlock(const unsigned char* block);

  std::array<std::uint32_t, 8> m_State = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                          0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  std::array<unsigned char, BLOCK_BYTES> m_Pending{};  // bytes that do not fill a block yet
  std::size_t m_nPending = 0;
  unsigned long long m_nBytes = 0;
};

#endif  // FATLIB_TOOLS_SHA256_H
