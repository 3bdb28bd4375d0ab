/// @file Words.h
/// Splits a line of a command file into words, with the quoting that people know from the shell.

#ifndef FATIMG_WORDS_H
#define FATIMG_WORDS_H

#include <string>
#include <string_view>
#include <vector>

namespace fatimg {

/// Words are separated by blanks. 'x y' stands for itself; in "x y" a backslash keeps " and \ from their meaning;
/// elsewhere it does so for any character. A "#" that begins a word begins a comment. Nothing else has a meaning: no
/// variables, no patterns (these the verbs know).
/// @param words  out: replaced
/// @return false when a quote is not closed, or a backslash ends the line
[[nodiscard]] bool SplitWords(std::string_view line, std::vector<std::string>* words);

}  // namespace fatimg

#endif  // FATIMG_WORDS_H
