/// @file TwinNames.h
/// What the twin knows of names and paths. Written from the rules that hosts are told, with nothing of the library's.

#ifndef FATLIB_TESTS_MODEL_TWINNAMES_H
#define FATLIB_TESTS_MODEL_TWINNAMES_H

#include <array>
#include <functional>
#include <string>

/// Names and paths are UTF-16 without a terminator.
using NAME = std::u16string;
/// The 11 bytes of a short name.
using SHORT11 = std::array<unsigned char, 11>;

/// Upper case of the letters that the generator uses: Latin, a few accented ones, Greek omega, Cyrillic.
NAME Upper(const NAME& text);

/// A path as the library takes it: no leading separator, components trimmed.
/// @return false when the path is invalid
bool Normalise(const NAME& text, NAME& path);
/// The part behind the last separator.
NAME LastComponent(const NAME& path);

/// What is to be done about moving a path into a directory. `directory` is null for the root.
enum class MOVE_VERDICT { Refuse, Nothing, Go };
MOVE_VERDICT JudgeMove(const NAME& path, const NAME* directory);

/// How a name is stored.
struct NAME_FORM {
  bool HasShort = false;  ///< it has a short form of its own
  bool HasLong = true;    ///< it gets long-name entries
  SHORT11 Short{};        ///< when HasShort
};
NAME_FORM FormOf(const NAME& name);
/// Long-name entries that a name takes: none for "".
unsigned int LongSlots(const NAME& longName);

/// A short name as listings show it: BASE.EXT. Empty when the locale cannot read it.
NAME Dotted(const SHORT11& name);

/// The running number in the invented short names. One for the whole library.
class CNameCounter {
 public:
  /// Takes up the counting behind a number that the library gave out, as its digits stood in the name.
  void SetLast(const std::string& digits);
  /// The digits of the next number.
  std::string Next() const { return m_Digits.substr(m_Digits.size() - m_nWidth); }
  /// Invents a name, counting as many numbers as it takes to find one that is not taken.
  SHORT11 Invent(const NAME& name, const std::function<bool(const SHORT11&)>& taken);

 private:
  void Advance();

  std::string m_Digits = "00001";
  std::size_t m_nWidth = 1;
};

#endif  // FATLIB_TESTS_MODEL_TWINNAMES_H
