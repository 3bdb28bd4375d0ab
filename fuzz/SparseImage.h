/// @file SparseImage.h
/// A volume image as a small input: pieces of bytes over a medium of zeros, so that a volume of 4 MiB is a few hundred
/// bytes that mutate well. Read by the fuzz targets and by the tests of damaged images; written by the corpus
/// generator.
///
/// Layout, all integers little-endian:
///   0     options: see SPARSE_IMAGE
///   1, 2  size of the medium in units of 128 bytes (modulo 32769, so 4 MiB at most)
///   3, 4  number of the transfer that fails, from 1; 0: none
///   5, 6  number of the allocation that fails, from 1; 0: none
///   7     count of pieces
/// Then the pieces, each:
///   0..2  offset on the medium in the low 22 bits; bit 22: the piece is repeated
///   3     count of bytes, 0 stands for 256
///   4, 5  (repeated pieces only) how often more the bytes follow
///   then the bytes
/// What stands behind the last piece belongs to the target. Input that ends early is no error: what is missing is
/// absent.

#ifndef FATLIB_FUZZ_SPARSEIMAGE_H
#define FATLIB_FUZZ_SPARSEIMAGE_H

#include <cstddef>
#include <cstdint>
#include <vector>

/// Takes integers from the front of an input; zeros behind its end.
class CInput {
 public:
  CInput(const std::uint8_t* data, std::size_t size) : m_pData(data), m_nSize(size) {}

  std::size_t Left() const { return m_nSize; }
  bool Empty() const { return m_nSize == 0; }
  std::uint32_t U8() { return Take(1); }
  std::uint32_t U16() { return Take(2); }
  std::uint32_t U24() { return Take(3); }
  std::uint32_t U32() { return Take(4); }
  /// At most `count` bytes, fewer when the input ends.
  std::vector<std::uint8_t> Bytes(std::size_t count) {
    const std::size_t n = count < m_nSize ? count : m_nSize;
    std::vector<std::uint8_t> bytes(m_pData, m_pData + n);
    m_pData += n;
    m_nSize -= n;
    return bytes;
  }

 private:
  std::uint32_t Take(unsigned int bytes) {
    std::uint32_t value = 0;
    for (unsigned int i = 0; i < bytes && m_nSize != 0; ++i, ++m_pData, --m_nSize) {
      value |= static_cast<std::uint32_t>(*m_pData) << (8 * i);
    }
    return value;
  }

  const std::uint8_t* m_pData;
  std::size_t m_nSize;
};

struct IMAGE_PIECE {
  std::uint32_t Offset = 0;
  std::uint32_t Repeat = 0;  ///< how often the bytes stand there beyond the first time
  std::vector<std::uint8_t> Bytes;
};

struct SPARSE_IMAGE {
  static constexpr std::uint32_t UNIT_BYTES = 128;
  static constexpr std::uint32_t MAX_UNITS = 32768;
  static constexpr std::uint32_t MAX_BYTES = UNIT_BYTES * MAX_UNITS;
  static constexpr std::uint32_t OFFSET_MASK = 0x3FFFFF;
  static constexpr std::uint32_t REPEATED = 0x400000;
  static constexpr std::size_t MAX_PIECES = 255;
  static constexpr std::size_t MAX_PIECE_BYTES = 256;
  /// What an image may write to the medium in all, so that decoding takes no time.
  static constexpr std::uint64_t MAX_PLACED_BYTES = 2ull * MAX_BYTES;

  // Bits of Options.
  static constexpr unsigned int STORAGE_MASK =
      0x03;  ///< where the image lives: 0, 3 a model of a device; 1 memory; 2 file
  static constexpr unsigned int FAIL_FOR_GOOD = 0x04;       ///< from the failing transfer on all fail
  static constexpr unsigned int NO_MEMORY_FOR_GOOD = 0x08;  ///< likewise allocations
  static constexpr unsigned int END_IS_ERROR = 0x10;     ///< the model of a device fails behind the end of the medium
  static constexpr unsigned int SHORT_TRANSFERS = 0x20;  ///< a failing transfer of the model moves half and succeeds
  static constexpr unsigned int LARGE_CLAIMS = 0x40;     ///< a device or file may be read far behind its end

  unsigned int Options = 0;
  std::uint32_t Units = 0;
  std::uint32_t FailTransfer = 0;
  std::uint32_t FailAllocation = 0;
  std::vector<IMAGE_PIECE> Pieces;

  std::uint32_t Size() const { return Units * UNIT_BYTES; }

  /// Takes an image from the front of an input.
  static SPARSE_IMAGE Parse(CInput& input) {
    SPARSE_IMAGE image;
    image.Options = input.U8();
    image.Units = input.U16() % (MAX_UNITS + 1);
    image.FailTransfer = input.U16();
    image.FailAllocation = input.U16();
    const std::uint32_t count = input.U8();
    for (std::uint32_t i = 0; i < count && !input.Empty(); ++i) {
      IMAGE_PIECE piece;
      const std::uint32_t offset = input.U24();
      piece.Offset = offset & OFFSET_MASK;
      const std::uint32_t length = input.U8();
      if ((offset & REPEATED) != 0) piece.Repeat = input.U16();
      piece.Bytes = input.Bytes(length == 0 ? MAX_PIECE_BYTES : length);
      image.Pieces.push_back(std::move(piece));
    }
    return image;
  }

  /// The input that Parse reads as this image. Pieces beyond the 255th and bytes beyond the 256th of one are left out.
  std::vector<std::uint8_t> Serialize() const {
    std::vector<std::uint8_t> out;
    const auto put = [&out](std::uint32_t value, unsigned int bytes) {
      for (unsigned int i = 0; i < bytes; ++i) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    };
    const std::size_t count = Pieces.size() < MAX_PIECES ? Pieces.size() : MAX_PIECES;
    put(Options, 1);
    put(Units, 2);
    put(FailTransfer, 2);
    put(FailAllocation, 2);
    put(static_cast<std::uint32_t>(count), 1);
    for (std::size_t i = 0; i < count; ++i) {
      const IMAGE_PIECE& piece = Pieces[i];
      const std::size_t length = piece.Bytes.size() < MAX_PIECE_BYTES ? piece.Bytes.size() : MAX_PIECE_BYTES;
      if (length == 0) {
        // A length of 0 stands for 256 bytes: an empty piece is written as one zero byte behind every medium.
        put(OFFSET_MASK, 3);
        put(1, 1);
        put(0, 1);
        continue;
      }
      put((piece.Offset & OFFSET_MASK) | (piece.Repeat != 0 ? REPEATED : 0), 3);
      put(static_cast<std::uint32_t>(length), 1);
      if (piece.Repeat != 0) put(piece.Repeat, 2);
      out.insert(out.end(), piece.Bytes.begin(), piece.Bytes.begin() + static_cast<std::ptrdiff_t>(length));
    }
    return out;
  }

  /// Hands every run of bytes to `put(offset, bytes, count)`, later ones over earlier ones, all within the medium.
  template <class PUT>
  void Place(PUT put) const {
    std::uint64_t left = MAX_PLACED_BYTES;
    for (const IMAGE_PIECE& piece : Pieces) {
      const std::uint32_t length = static_cast<std::uint32_t>(piece.Bytes.size());
      std::uint64_t offset = piece.Offset;
      if (length == 0) continue;
      for (std::uint32_t i = 0; i <= piece.Repeat && offset < Size() && left >= length; ++i) {
        const std::uint64_t room = Size() - offset;
        put(static_cast<std::uint32_t>(offset), piece.Bytes.data(),
            static_cast<std::uint32_t>(room < length ? room : length));
        offset += length;
        left -= length;
      }
    }
  }
};

#endif  // FATLIB_FUZZ_SPARSEIMAGE_H
