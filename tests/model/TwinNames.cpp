/// @file TwinNames.cpp

#include "model/TwinNames.h"

#include <climits>
#include <cstdlib>
#include <cwchar>
#include <vector>

namespace {

constexpr std::size_t MAX_PATH_UNITS = 259;

bool IsOneOf(char16_t c, const char* characters) {
  for (; *characters != 0; ++characters) {
    if (c == static_cast<unsigned char>(*characters)) return true;
  }
  return false;
}

bool IsForbidden(char16_t c) { return c < 0x20 || c == 0x7F || IsOneOf(c, "\"*/:<>?\\|"); }
bool IsForbiddenInShortName(char16_t c) { return IsForbidden(c) || IsOneOf(c, " +,.;=[]"); }

char16_t UpperUnit(char16_t c) {
  if (c >= u'a' && c <= u'z') return static_cast<char16_t>(c - 32);
  if (c >= 0x00E0 && c <= 0x00FE && c != 0x00F7) return static_cast<char16_t>(c - 32);
  if (c == 0x00FF) return 0x0178;
  if (c == 0x03C9) return 0x03A9;
  if (c >= 0x0430 && c <= 0x044F) return static_cast<char16_t>(c - 32);
  return c;
}

// The bytes of a unit in the locale's encoding; empty when it has none.
std::string Encoded(char16_t c) {
  char bytes[MB_LEN_MAX];
  const int n = std::wctomb(bytes, static_cast<wchar_t>(UpperUnit(c)));
  return n > 0 ? std::string(bytes, static_cast<std::size_t>(n)) : std::string();
}

// One part of a short name as it stands, or false when it cannot stand like that.
bool StrictPart(const NAME& part, unsigned char* out, std::size_t room, bool& converted) {
  std::string bytes;
  for (const char16_t c : part) {
    if (c >= 0x80) {
      converted = true;
      const std::string encoded = Encoded(c);
      if (encoded.empty()) return false;
      bytes += encoded;
    } else {
      if (IsForbiddenInShortName(c)) return false;
      bytes.push_back(static_cast<char>(UpperUnit(c)));
    }
    if (bytes.size() > room) return false;
  }
  for (std::size_t i = 0; i < bytes.size(); ++i) out[i] = static_cast<unsigned char>(bytes[i]);
  return true;
}

// One part of an invented short name: what cannot stand is replaced or dropped. @return bytes used
std::size_t LossyPart(const NAME& part, unsigned char* out, std::size_t room) {
  std::size_t used = 0;
  for (const char16_t c : part) {
    if (used == room) break;
    if (c <= 0x20 || c == u'.') continue;
    std::string bytes;
    if (c >= 0x80) {
      bytes = Encoded(c);
      if (bytes.empty()) bytes = "_";
    } else {
      bytes = std::string(1, IsForbiddenInShortName(c) ? '_' : static_cast<char>(UpperUnit(c)));
    }
    if (bytes.size() > room - used) {
      for (std::size_t i = used; i < room; ++i) out[i] = ' ';
      break;
    }
    for (const char byte : bytes) out[used++] = static_cast<unsigned char>(byte);
  }
  return used;
}

// Converts one part of a short name. @return false when the locale cannot read it
bool Decode(const unsigned char* part, std::size_t size, NAME& text) {
  const std::string bytes(part, part + size);
  std::vector<wchar_t> wide(size + 1);
  const std::size_t n = std::mbstowcs(wide.data(), bytes.c_str(), size);
  if (n == static_cast<std::size_t>(-1)) return false;
  text.clear();
  for (std::size_t i = 0; i < n; ++i) text.push_back(static_cast<char16_t>(wide[i]));
  return true;
}

void TrimEnd(NAME& text, const char16_t* characters) { text.erase(text.find_last_not_of(characters) + 1); }

}  // namespace

NAME Upper(const NAME& text) {
  NAME upper;
  for (const char16_t c : text) upper.push_back(UpperUnit(c));
  return upper;
}

bool Normalise(const NAME& text, NAME& path) {
  path.clear();
  std::size_t at = text.find_first_not_of(u' ');
  if (at != NAME::npos && text[at] == u'\\') at = text.find_first_not_of(u' ', at + 1);
  if (at == NAME::npos) return false;
  NAME component;
  while (at < text.size()) {
    const char16_t c = text[at];
    if (c == u'\\') {
      TrimEnd(component, u" .");
      if (component.empty()) return false;
      path += component;
      if (path.size() == MAX_PATH_UNITS) return false;
      path.push_back(u'\\');
      component.clear();
      at = text.find_first_not_of(u' ', at + 1);
      continue;
    }
    if (IsForbidden(c)) return false;
    if (c == u'.' && at + 1 < text.size() && text[at + 1] == u'.') return false;
    if (path.size() + component.size() == MAX_PATH_UNITS) return false;
    component.push_back(c);
    ++at;
  }
  path += component;
  TrimEnd(path, u" .\\");
  return !path.empty();
}

NAME LastComponent(const NAME& path) { return path.substr(path.rfind(u'\\') + 1); }

MOVE_VERDICT JudgeMove(const NAME& path, const NAME* directory) {
  const NAME from = Upper(path);
  const std::size_t parent = from.rfind(u'\\');
  if (directory == nullptr) return parent == NAME::npos ? MOVE_VERDICT::Nothing : MOVE_VERDICT::Go;
  const NAME to = Upper(*directory);
  if (to == from || to.compare(0, from.size() + 1, from + u"\\") == 0) return MOVE_VERDICT::Refuse;
  return parent != NAME::npos && to == from.substr(0, parent) ? MOVE_VERDICT::Nothing : MOVE_VERDICT::Go;
}

NAME_FORM FormOf(const NAME& name) {
  NAME_FORM form;
  const std::size_t dot = name.find(u'.');
  if (dot != name.rfind(u'.')) return form;
  const NAME base = name.substr(0, dot);
  const NAME extension = dot == NAME::npos ? NAME() : name.substr(dot + 1);
  if (base.empty()) return form;
  bool converted = false;
  SHORT11 bytes;
  bytes.fill(' ');
  // A part is too long also when its units alone are: no unit takes less than a byte.
  if (!StrictPart(extension, bytes.data() + 8, 3, converted) || !StrictPart(base, bytes.data(), 8, converted)) {
    return form;
  }
  form.HasShort = true;
  form.HasLong = converted;
  form.Short = bytes;
  return form;
}

unsigned int LongSlots(const NAME& longName) { return static_cast<unsigned int>((longName.size() + 12) / 13); }

NAME Dotted(const SHORT11& name) {
  NAME base;
  NAME extension;
  if (!Decode(name.data(), 8, base) || !Decode(name.data() + 8, 3, extension)) return {};
  TrimEnd(base, u" ");
  TrimEnd(extension, u" ");
  return extension.empty() ? base : base + u"." + extension;
}

void CNameCounter::SetLast(const std::string& digits) {
  m_Digits = std::string(5 - digits.size(), '0') + digits;
  m_nWidth = digits.size();
  Advance();
}

void CNameCounter::Advance() {
  std::size_t at = m_Digits.size();
  while (at > 0 && m_Digits[at - 1] == '9') m_Digits[--at] = '0';
  if (at == 0) {
    m_Digits = "00001";
    m_nWidth = 1;
    return;
  }
  ++m_Digits[at - 1];
  m_nWidth = std::max(m_nWidth, m_Digits.size() - at + 1);
}

SHORT11 CNameCounter::Invent(const NAME& name, const std::function<bool(const SHORT11&)>& taken) {
  SHORT11 invented;
  invented.fill(' ');
  invented[0] = 0;
  const std::size_t dot = name.rfind(u'.');
  const bool hasExtension = dot != NAME::npos && dot != 0;
  if (hasExtension) LossyPart(name.substr(dot + 1), invented.data() + 8, 3);
  const NAME base = hasExtension ? name.substr(0, dot) : name;
  do {
    // What an earlier try left behind the end of this one stays.
    const std::string number = Next();
    std::size_t n = LossyPart(base, invented.data(), 7 - number.size());
    if (invented[0] == 0xE5) invented[0] = 0x05;
    invented[n++] = '~';
    for (const char digit : number) invented[n++] = static_cast<unsigned char>(digit);
    Advance();
  } while (taken(invented));
  return invented;
}
