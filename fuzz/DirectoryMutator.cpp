/// @file DirectoryMutator.cpp
/// Mutates the input of the target directory: one byte of options, then slots of 32 bytes. Whole slots are copied,
/// moved and removed, and long-name slots get the checksum of the short name they stand before, without which they mean
/// nothing.

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

namespace {

constexpr std::size_t SLOT = 32;
constexpr std::size_t HEAD = 1;

// Sets the checksums of every run of long-name slots.
void MendChecksums(std::vector<std::uint8_t>& bytes) {
  const std::size_t slots = (bytes.size() - HEAD) / SLOT;
  for (std::size_t slot = slots; slot-- > 0;) {
    const std::uint8_t* entry = &bytes[HEAD + slot * SLOT];
    if ((entry[11] & 0x3F) == 0x0F) continue;
    std::uint8_t sum = 0;
    for (std::size_t i = 0; i < 11; ++i) sum = static_cast<std::uint8_t>((sum << 7 | sum >> 1) + entry[i]);
    for (std::size_t piece = slot; piece-- > 0 && (bytes[HEAD + piece * SLOT + 11] & 0x3F) == 0x0F;) {
      bytes[HEAD + piece * SLOT + 13] = sum;
    }
  }
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maxSize,
                                               unsigned int seed) {
  std::minstd_rand random(seed);
  const auto below = [&random](std::size_t limit) { return static_cast<std::size_t>(random()) % limit; };
  if (size < HEAD + SLOT || below(3) == 0) return LLVMFuzzerMutate(data, size, maxSize);
  std::vector<std::uint8_t> bytes(data, data + size);
  const auto at = [](std::size_t slot) { return static_cast<std::ptrdiff_t>(HEAD + slot * SLOT); };
  for (std::size_t n = 1 + below(3); n != 0; --n) {
    const std::size_t slots = (bytes.size() - HEAD) / SLOT;
    if (slots == 0) break;
    const std::size_t from = below(slots);
    const std::size_t to = below(slots);
    const std::vector<std::uint8_t> slot(bytes.begin() + at(from), bytes.begin() + at(from + 1));
    switch (below(6)) {
      case 0:  // once more
        bytes.insert(bytes.begin() + at(to), slot.begin(), slot.end());
        break;
      case 1:
        bytes.erase(bytes.begin() + at(from), bytes.begin() + at(from + 1));
        break;
      case 2:
        std::memcpy(&bytes[static_cast<std::size_t>(at(to))], slot.data(), SLOT);
        break;
      case 3:  // deleted, or a piece of another number
        bytes[static_cast<std::size_t>(at(from))] =
            below(2) == 0 ? 0xE5 : static_cast<std::uint8_t>(1 + below(22) + (below(2) == 0 ? 0x40 : 0));
        break;
      case 4:
        bytes[static_cast<std::size_t>(at(from)) + 11] = static_cast<std::uint8_t>(below(2) == 0 ? 0x0F : below(256));
        break;
      default:
        (void)LLVMFuzzerMutate(&bytes[static_cast<std::size_t>(at(from))], SLOT, SLOT);
    }
  }
  if (below(4) != 0 && bytes.size() > HEAD) MendChecksums(bytes);
  const std::size_t made = bytes.size() < maxSize ? bytes.size() : maxSize;
  std::memcpy(data, bytes.data(), made);
  return made;
}
