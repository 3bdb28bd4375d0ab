/// @file ImageMutator.cpp
/// Mutates inputs that begin with a sparse image, for the targets mount, image and calls. Bytes put into the middle of
/// an input would move the borders of all pieces behind them; here a mutation stays within its piece, and new pieces go
/// where the volume has something: to the FAT, to directories, to the FSInfo sector.

#include <cstring>
#include <random>

#include "SparseImage.h"
#include "storage/FatMpb.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

namespace {

using RANDOM = std::minstd_rand;

std::uint32_t Below(RANDOM& random, std::uint32_t limit) {
  return limit == 0 ? 0 : static_cast<std::uint32_t>(random()) % limit;
}

/// Where the volume has what, by the boot sector that the pieces make.
struct LAYOUT {
  std::uint32_t Fat = 512;
  std::uint32_t FatBytes = 512;
  std::uint32_t Root = 1024;
  std::uint32_t Data = 1024;
  std::uint32_t ClusterBytes = 512;
  std::uint32_t EntryBits = 12;

  explicit LAYOUT(const SPARSE_IMAGE& image) {
    std::uint8_t bytes[sizeof(BOOT_SECTOR)] = {};
    image.Place([&bytes](std::uint32_t offset, const std::uint8_t* from, std::uint32_t count) {
      if (offset >= sizeof(bytes)) return;
      const std::size_t room = sizeof(bytes) - offset;
      std::memcpy(bytes + offset, from, count < room ? count : room);
    });
    const BOOT_SECTOR& boot = reinterpret_cast<const BOOT_SECTOR&>(bytes);
    const std::uint32_t sector = boot.BytesPerSector.Load();
    const bool fat32 = boot.SectorsPerFat16.Load() == 0;
    Fat = boot.ReservedSectors.Load() * sector;
    FatBytes = (fat32 ? boot.SectorsPerFat32.Load() : boot.SectorsPerFat16.Load()) * sector;
    Root = Fat + boot.NumberOfFats * FatBytes;
    Data = Root + (fat32 ? 0u : boot.RootEntries.Load() * 32u);
    ClusterBytes = sector * boot.SectorsPerCluster;
    const std::uint32_t clusters = ClusterBytes == 0 ? 0 : (image.Size() - Data) / ClusterBytes;
    EntryBits = fat32 ? 32 : clusters < 4087 ? 12 : 16;
  }

  std::uint32_t AnyPlace(RANDOM& random) const {
    switch (Below(random, 8)) {
      case 0:
        return Below(random, 90);  // boot sector
      case 1:
        return 512 + Below(random, 512);  // FSInfo, or what lies there
      case 2:
      case 3:
        return Fat + Below(random, 40) * EntryBits / 8;
      case 4:
      case 5:
        return Root + Below(random, 32) * 32 + (Below(random, 2) == 0 ? 0 : Below(random, 32));
      case 6:
        return Data + Below(random, 16) * ClusterBytes + Below(random, 4) * 32;
      default:
        return Below(random, SPARSE_IMAGE::MAX_BYTES);
    }
  }
};

void AddPiece(SPARSE_IMAGE& image, RANDOM& random) {
  if (image.Pieces.size() >= SPARSE_IMAGE::MAX_PIECES) return;
  IMAGE_PIECE piece;
  const LAYOUT layout(image);
  piece.Offset = layout.AnyPlace(random) & SPARSE_IMAGE::OFFSET_MASK;
  if (!image.Pieces.empty() && Below(random, 2) == 0) {
    // What stands elsewhere: an entry in a second place, a cluster that is linked twice.
    piece.Bytes = image.Pieces[Below(random, static_cast<std::uint32_t>(image.Pieces.size()))].Bytes;
  } else {
    piece.Bytes.resize(1 + Below(random, 40));
    for (std::uint8_t& byte : piece.Bytes) byte = static_cast<std::uint8_t>(random());
  }
  if (Below(random, 8) == 0) piece.Repeat = Below(random, 2) == 0 ? Below(random, 64) : Below(random, 0x10000);
  image.Pieces.push_back(std::move(piece));
}

// A FAT entry with a value that means something.
void AddLink(SPARSE_IMAGE& image, RANDOM& random) {
  if (image.Pieces.size() >= SPARSE_IMAGE::MAX_PIECES) return;
  static const std::uint32_t VALUES[] = {0, 1, 2, 3, 4, 5, 0xFFFFFF6, 0xFFFFFF7, 0xFFFFFF8, 0xFFFFFFF, 0xF0000003};
  const LAYOUT layout(image);
  std::uint32_t value = VALUES[Below(random, sizeof(VALUES) / sizeof(VALUES[0]))];
  if (Below(random, 3) == 0) value = Below(random, 300);
  const std::uint32_t cluster = Below(random, Below(random, 2) == 0 ? 12 : 300);
  IMAGE_PIECE piece;
  piece.Offset = (layout.Fat + cluster * layout.EntryBits / 8) & SPARSE_IMAGE::OFFSET_MASK;
  for (std::uint32_t i = 0; i * 8 < layout.EntryBits; ++i)
    piece.Bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
  image.Pieces.push_back(std::move(piece));
}

void Mutate(SPARSE_IMAGE& image, RANDOM& random) {
  const std::uint32_t pieces = static_cast<std::uint32_t>(image.Pieces.size());
  IMAGE_PIECE* piece = pieces == 0 ? nullptr : &image.Pieces[Below(random, pieces)];
  switch (Below(random, 12)) {
    case 0:
      image.Options = static_cast<unsigned int>(random()) & 0xFF;
      if (Below(random, 50) != 0) image.Options &= ~SPARSE_IMAGE::LARGE_CLAIMS;  // such runs take a second
      break;
    case 1:
      image.FailTransfer = Below(random, 3) == 0 ? 0 : Below(random, 80);
      break;
    case 2:
      image.FailAllocation = Below(random, 3) == 0 ? 0 : Below(random, 150);
      break;
    case 3:
      if (Below(random, 4) == 0) image.Units = Below(random, SPARSE_IMAGE::MAX_UNITS + 1);
      break;
    case 4:
      AddLink(image, random);
      break;
    case 5:
      AddPiece(image, random);
      break;
    case 6:
      if (piece != nullptr) image.Pieces.erase(image.Pieces.begin() + (piece - image.Pieces.data()));
      break;
    case 7:
      if (piece != nullptr) {
        piece->Offset += (Below(random, 2) == 0 ? 32u : 1u) * (Below(random, 9) - 4u);
        piece->Offset &= SPARSE_IMAGE::OFFSET_MASK;
      }
      break;
    case 8:
      if (piece != nullptr) piece->Repeat = Below(random, 2) == 0 ? 0 : Below(random, 1u << Below(random, 17));
      break;
    default:
      if (piece != nullptr && !piece->Bytes.empty()) {
        const std::size_t size = piece->Bytes.size();
        const std::size_t changed = LLVMFuzzerMutate(piece->Bytes.data(), size, size);
        // What got shorter keeps its old end: a field stays where it is.
        (void)changed;
      }
  }
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maxSize,
                                               unsigned int seed) {
  RANDOM random(seed);
  CInput input(data, size);
  SPARSE_IMAGE image = SPARSE_IMAGE::Parse(input);
  const std::size_t tail = input.Left();
  const std::size_t tailAt = size - tail;
  // What stands behind the image has no borders to keep, and neither have a few inputs that are to be broken.
  if (size == 0 || Below(random, 20) == 0) return LLVMFuzzerMutate(data, size, maxSize);
  if (Below(random, 3) == 0 && maxSize > tailAt) {
    return tailAt + LLVMFuzzerMutate(data + tailAt, tail, maxSize - tailAt);
  }
  for (std::uint32_t n = 1 + Below(random, 4); n != 0; --n) Mutate(image, random);
  std::vector<std::uint8_t> out = image.Serialize();
  out.insert(out.end(), data + tailAt, data + size);
  if (out.size() > maxSize) return LLVMFuzzerMutate(data, size, maxSize);
  std::memcpy(data, out.data(), out.size());
  return out.size();
}

extern "C" std::size_t LLVMFuzzerCustomCrossOver(const std::uint8_t* data1, std::size_t size1,
                                                 const std::uint8_t* data2, std::size_t size2, std::uint8_t* out,
                                                 std::size_t maxOutSize, unsigned int seed) {
  RANDOM random(seed);
  CInput input1(data1, size1);
  CInput input2(data2, size2);
  SPARSE_IMAGE image = SPARSE_IMAGE::Parse(input1);
  const SPARSE_IMAGE other = SPARSE_IMAGE::Parse(input2);
  // The volume of the first with some pieces of the second, and the tail of either.
  for (const IMAGE_PIECE& piece : other.Pieces) {
    if (piece.Offset >= sizeof(BOOT_SECTOR) && Below(random, 3) == 0) image.Pieces.push_back(piece);
  }
  std::vector<std::uint8_t> made = image.Serialize();
  CInput& tail = Below(random, 2) == 0 ? input1 : input2;
  const std::vector<std::uint8_t> bytes = tail.Bytes(tail.Left());
  made.insert(made.end(), bytes.begin(), bytes.end());
  const std::size_t size = made.size() < maxOutSize ? made.size() : maxOutSize;
  std::memcpy(out, made.data(), size);
  return size;
}
