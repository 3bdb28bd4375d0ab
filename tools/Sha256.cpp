/// @file Sha256.cpp
/// The compression function and the padding. Names follow the standard where it has some.

#include "Sha256.h"

#include <algorithm>

namespace {

// The first 32 bits of the fractional parts of the cube roots of the first 64 primes.
constexpr std::array<std::uint32_t, 64> K = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

constexpr std::uint32_t RotateRight(std::uint32_t x, unsigned int bits) { return x >> bits | x << (32 - bits); }

std::uint32_t LoadBigEndian(const unsigned char* at) {
  return static_cast<std::uint32_t>(at[0]) << 24 | static_cast<std::uint32_t>(at[1]) << 16 |
         static_cast<std::uint32_t>(at[2]) << 8 | at[3];
}

}  // namespace

void CSha256::AddBlock(const unsigned char* block) {
  std::array<std::uint32_t, 64> w;
  for (std::size_t t = 0; t < 16; ++t) w[t] = LoadBigEndian(block + 4 * t);
  for (std::size_t t = 16; t < 64; ++t) {
    const std::uint32_t s0 = RotateRight(w[t - 15], 7) ^ RotateRight(w[t - 15], 18) ^ w[t - 15] >> 3;
    const std::uint32_t s1 = RotateRight(w[t - 2], 17) ^ RotateRight(w[t - 2], 19) ^ w[t - 2] >> 10;
    w[t] = s1 + w[t - 7] + s0 + w[t - 16];
  }
  auto [a, b, c, d, e, f, g, h] = m_State;
  for (std::size_t t = 0; t < 64; ++t) {
    const std::uint32_t sum1 = RotateRight(e, 6) ^ RotateRight(e, 11) ^ RotateRight(e, 25);
    const std::uint32_t choice = (e & f) ^ (~e & g);
    const std::uint32_t t1 = h + sum1 + choice + K[t] + w[t];
    const std::uint32_t sum0 = RotateRight(a, 2) ^ RotateRight(a, 13) ^ RotateRight(a, 22);
    const std::uint32_t majority = (a & b) ^ (a & c) ^ (b & c);
    const std::uint32_t t2 = sum0 + majority;
    h = g;
    g = f;
    f = e;
    e = d + t1;
    d = c;
    c = b;
    b = a;
    a = t1 + t2;
  }
  const std::array<std::uint32_t, 8> added = {a, b, c, d, e, f, g, h};
  for (std::size_t i = 0; i < m_State.size(); ++i) m_State[i] += added[i];
}

void CSha256::Add(const unsigned char* bytes, std::size_t count) {
  m_nBytes += count;
  while (count != 0) {
    if (m_nPending == 0 && count >= BLOCK_BYTES) {
      AddBlock(bytes);
      bytes += BLOCK_BYTES;
      count -= BLOCK_BYTES;
      continue;
    }
    const std::size_t part = std::min(count, BLOCK_BYTES - m_nPending);
    std::copy_n(bytes, part, m_Pending.data() + m_nPending);
    bytes += part;
    count -= part;
    m_nPending += part;
    if (m_nPending == BLOCK_BYTES) {
      AddBlock(m_Pending.data());
      m_nPending = 0;
    }
  }
}

std::string CSha256::Finish() {
  const unsigned long long bits = m_nBytes * 8;
  // A one bit, zeros up to the last eight bytes of a block, and there the length in bits.
  constexpr unsigned char ONE_BIT = 0x80;
  constexpr unsigned char ZEROS = 0;
  Add(&ONE_BIT, 1);
  while (m_nPending != BLOCK_BYTES - 8) Add(&ZEROS, 1);
  std::array<unsigned char, 8> length;
  for (std::size_t i = 0; i < 8; ++i) length[i] = static_cast<unsigned char>(bits >> (56 - 8 * i));
  Add(length.data(), length.size());

  std::string text;
  for (const std::uint32_t word : m_State) {
    for (int shift = 28; shift >= 0; shift -= 4) text += "0123456789abcdef"[word >> shift & 15u];
  }
  return text;
}
