/// @file Words.cpp

#include "Words.h"

namespace fatimg {

bool SplitWords(std::string_view line, std::vector<std::string>* words) {
  words->clear();
  char quote = 0;
  bool inWord = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    const bool blank = c == ' ' || c == '\t' || c == '\r';
    if (quote == 0 && blank) {
      inWord = false;
      continue;
    }
    if (quote == 0 && !inWord && c == '#') return true;
    if (!inWord) words->emplace_back();
    inWord = true;
    std::string& word = words->back();
    if (quote != 0 && c == quote) {
      quote = 0;
    } else if (quote == 0 && (c == '\'' || c == '"')) {
      quote = c;
    } else if (c == '\\' && quote != '\'') {
      if (i + 1 == line.size()) return false;
      const char next = line[i + 1];
      if (quote == '"' && next != '"' && next != '\\') {
        word += c;
      } else {
        word += next;
        ++i;
      }
    } else {
      word += c;
    }
  }
  return quote == 0;
}

}  // namespace fatimg
