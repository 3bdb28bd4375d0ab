/// @file Operand.h
/// What the command works on, as it is written on the command line:
///
///     IMAGE[@WHERE][:/PATH]
///
/// The last ":/" ends the image's name: no name on a FAT volume has a colon. A name of an image that ends in ":" or
/// holds ":/" is thereby possible. WHERE follows the last "@" behind the last "/" of the image's name; an image whose
/// own name has an "@" there is written with one more behind it ("a@b.img@:/X"), for an empty WHERE is the whole image.
///
/// WHERE is a partition or a place:
///
///     @2 .. @128     a partition by its number (1 to 128)
///     @1048576       a plain number above that, or 0: bytes from the image's begin
///     @1M @64K @2G   bytes, in units of 1024; @63s in sectors of 512; @512B or @0x200 in bytes
///     @esp @Data     anything else: a partition by its name in a GPT, in any letter case; or "esp", by its type

#ifndef FATIMG_OPERAND_H
#define FATIMG_OPERAND_H

#include <cstdint>
#include <string>
#include <string_view>

namespace fatimg {

/// Which part of an image is meant.
struct Where {
  enum Kind { Whole, Offset, Number, Name } kind = Whole;
  std::uint64_t offset = 0;  ///< Offset: bytes
  unsigned int number = 0;   ///< Number: 1 .. 128
  std::string name;          ///< Name: UTF-8, as written

  bool operator==(const Where& other) const {
    return kind == other.kind && offset == other.offset && number == other.number && name == other.name;
  }
};

struct Operand {
  std::string image;      ///< host path; empty inside "run", where ":/PATH" stands for the image that run was given
  std::string whereText;  ///< WHERE as written, without "@"
  Where where;
  std::string path = "/";  ///< UTF-8, begins with "/", components as written
  bool hasPath = false;    ///< whether ":/" was written

  /// IMAGE[@WHERE], for messages.
  std::string ImageText() const;
  /// IMAGE[@WHERE]:/PATH with another path that begins with "/", for messages.
  std::string Text(std::string_view otherPath) const;
  std::string Text() const { return Text(path); }
};

/// A number of bytes: decimal, with a unit K M G T (of 1024, also written KiB ...), s (512) or B; or 0x and
/// hexadecimal.
/// @return false when it is none, or does not fit
bool ParseBytes(std::string_view text, std::uint64_t* bytes);

/// @throws Failure (Usage) when WHERE is a number with no sense, or no image is named where one must be
Operand ParseOperand(std::string_view text);

/// Whether the text names something in an image: it has ":/", or ends in ":" (the root).
bool IsImageOperand(std::string_view text);

}  // namespace fatimg

#endif  // FATIMG_OPERAND_H
