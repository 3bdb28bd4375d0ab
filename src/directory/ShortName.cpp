/// @file ShortName.cpp

#include "directory/ShortName.h"

#include <climits>

#include "directory/DirEntCache.h"
#include "names/UpCase.h"
#include "names/XUtils.h"
#include "platform/Platform.h"

namespace {

constexpr unsigned int SUFFIX_DIGITS = 5;
constexpr unsigned int MAX_TRIES = 2 * 99999;  // the counter's whole range, from any start and with any width of its
                                               // first round: afterwards the tries repeat

// The number of the next invented name: its last s_nNumWide digits are in use.
unsigned char s_szSuffixNumber[SUFFIX_DIGITS] = {'0', '0', '0', '0', '1'};
unsigned int s_nNumWide = 1;

void AdvanceSuffixNumber() {
  for (unsigned int i = SUFFIX_DIGITS; i-- > 0;) {
    if (s_szSuffixNumber[i] != '9') {
      ++s_szSuffixNumber[i];
      if (SUFFIX_DIGITS - i > s_nNumWide) s_nNumWide = SUFFIX_DIGITS - i;
      return;
    }
    s_szSuffixNumber[i] = '0';
  }
  s_szSuffixNumber[SUFFIX_DIGITS - 1] = '1';
  s_nNumWide = 1;
}

// The short-name byte for a character from 0x21 to 0x7F, or 0 to drop it.
unsigned char FastMap(unsigned short c) {
  if (c == '.') return 0;
  if (c >= 'a' && c <= 'z') return static_cast<unsigned char>(c - 'a' + 'A');
  return IsInvalidFatFnChar(c) ? '_' : static_cast<unsigned char>(c);
}

// Upper-cases a unit and converts it to the locale's encoding. @return its bytes, 0 or less when it has none
int ConvertUnit(unsigned short unit, char (&bytes)[MB_LEN_MAX]) { return osWcToMb(bytes, gUnicodeUpcase(unit)); }

}  // namespace

bool ToShortName(const unsigned short* src, unsigned int count, unsigned char* dst, unsigned int dstMax,
                 bool& converted) {
  unsigned int total = 0;
  for (unsigned int i = 0; i < count; ++i) {
    if (total >= dstMax) return false;
    const unsigned short c = src[i];
    if (c >= 0x80) {
      converted = true;
      char bytes[MB_LEN_MAX];
      const int n = ConvertUnit(c, bytes);
      if (n <= 0 || static_cast<unsigned int>(n) > dstMax - total) return false;
      osMemCpy(dst + total, bytes, static_cast<unsigned int>(n));
      total += static_cast<unsigned int>(n);
    } else {
      if (c <= 0x20 || IsInvalidFatFnChar(c)) return false;
      dst[total++] = static_cast<unsigned char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
    }
  }
  return true;
}

void AnalyseFullFileName(const unsigned short* name, DIRENT_NAME_CTX* context) {
  unsigned int length = 0;
  unsigned int dots = 0;
  context->nLastDot = -1;
  for (; length < MAX_NAME_UNITS && name[length] != 0; ++length) {
    context->szLongName[length] = name[length];
    if (name[length] != '.') continue;
    context->nLastDot = static_cast<int>(length);
    ++dots;
  }
  context->szLongName[length] = 0;
  context->nLongChars = length;
  context->ShortName[0] = 0;
  if (dots > 1) return;

  unsigned char shortName[SHORT_NAME_SIZE];
  osMemSet(shortName, ' ', SHORT_NAME_SIZE);
  bool converted = false;
  unsigned int baseLength = length;
  if (dots == 1) {
    baseLength = static_cast<unsigned int>(context->nLastDot);
    const unsigned int extensionLength = length - baseLength - 1;
    if (extensionLength > SHORT_EXTENSION_SIZE) return;
    if (!ToShortName(name + baseLength + 1, extensionLength, shortName + SHORT_BASE_SIZE, SHORT_EXTENSION_SIZE,
                     converted)) {
      return;
    }
  }
  if (baseLength == 0 || baseLength > SHORT_BASE_SIZE) return;
  if (!ToShortName(name, baseLength, shortName, SHORT_BASE_SIZE, converted)) return;
  osMemCpy(context->ShortName, shortName, SHORT_NAME_SIZE);
  osMemZero(context->ShortName + SHORT_NAME_SIZE, sizeof(context->ShortName) - SHORT_NAME_SIZE);
  if (!converted) context->nLongChars = 0;
}

unsigned int MkShortName(unsigned char* dst, unsigned int dstMax, unsigned int fieldSize, const unsigned short* src,
                         unsigned int count) {
  unsigned int total = 0;
  for (unsigned int i = 0; i < count && total < dstMax; ++i) {
    const unsigned short c = src[i];
    if (c <= 0x20) continue;
    if (c < 0x80) {
      const unsigned char mapped = FastMap(c);
      if (mapped != 0) dst[total++] = mapped;
      continue;
    }
    char bytes[MB_LEN_MAX];
    const int n = ConvertUnit(c, bytes);
    if (n <= 0) {
      dst[total++] = '_';
    } else if (static_cast<unsigned int>(n) > dstMax - total) {
      const unsigned int rest = fieldSize - total;
      osMemSet(dst + total, ' ', static_cast<unsigned int>(n) < rest ? static_cast<unsigned int>(n) : rest);
      break;
    } else {
      osMemCpy(dst + total, bytes, static_cast<unsigned int>(n));
      total += static_cast<unsigned int>(n);
    }
  }
  return total;
}

int InventShortName(CDirEntCache* cache, DIRENT_NAME_CTX* context) {
  unsigned char* base = context->ShortName;
  osMemSet(base + 1, ' ', SHORT_NAME_SIZE - 1);
  osMemZero(base + SHORT_NAME_SIZE, sizeof(context->ShortName) - SHORT_NAME_SIZE);
  const unsigned short* name = context->szLongName;
  unsigned int baseLength = context->nLongChars;
  if (context->nLastDot >= 1) {  // a leading dot separates no extension
    const unsigned int dot = static_cast<unsigned int>(context->nLastDot);
    (void)MkShortName(base + SHORT_BASE_SIZE, SHORT_EXTENSION_SIZE, SHORT_EXTENSION_SIZE, name + dot + 1,
                      baseLength - dot - 1);
    baseLength = dot;
  }
  for (unsigned int i = 0; i < MAX_TRIES; ++i) {
    // The bytes of the try before stay where this one does not reach.
    const unsigned int width = s_nNumWide;
    const unsigned int n = MkShortName(base, SHORT_BASE_SIZE - 1 - width, SHORT_BASE_SIZE, name, baseLength);
    if (base[0] == DIRENT_DELETED) base[0] = 0x05;
    base[n] = '~';
    osMemCpy(base + n + 1, s_szSuffixNumber + SUFFIX_DIGITS - width, width);
    AdvanceSuffixNumber();
    if (cache->FindByShortName(base) == nullptr) return STATUS_SUCCESS;
  }
  return STATUS_DISK_FULL;
}
