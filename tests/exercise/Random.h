/// @file Random.h
/// Numbers that follow from a seed alone, on every system.

#ifndef FATLIB_TESTS_EXERCISE_RANDOM_H
#define FATLIB_TESTS_EXERCISE_RANDOM_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace exercise {

class Random {
 public:
  explicit Random(std::uint64_t seed) : m_State(seed) {}

  std::uint64_t Next() {
    m_State += 0x9E3779B97F4A7C15u;
    std::uint64_t x = m_State;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9u;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBu;
    return x ^ (x >> 31);
  }
  /// 0 .. limit - 1; limit > 0.
  std::size_t Below(std::size_t limit) { return Next() % limit; }
  bool Percent(unsigned chance) { return Below(100) < chance; }
  template <class T>
  const T& Of(const std::vector<T>& some) {
    return some[Below(some.size())];
  }
  /// Bytes in which every place differs from its neighbours' with good chance, so that shifted ones are noticed.
  std::vector<unsigned char> Bytes(std::size_t count) {
    std::vector<unsigned char> bytes(count);
    std::uint64_t word = 0;
    for (std::size_t i = 0; i < count; ++i) {
      if (i % 8 == 0) word = Next();
      bytes[i] = static_cast<unsigned char>(word >> (i % 8 * 8));
    }
    return bytes;
  }

 private:
  std::uint64_t m_State;
};

}  // namespace exercise

#endif  // FATLIB_TESTS_EXERCISE_RANDOM_H
