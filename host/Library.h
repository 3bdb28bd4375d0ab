/// @file Library.h
/// The library as something that all volumes of a process share: it is up as long as one of them needs it. Not part of
/// the face for hosts.
///
/// The library takes the process's locale from the environment when it starts, and turns characters into the bytes of
/// that locale for short names. Here the process keeps its own locale, and the library works in the C locale: in
/// another one a name could come out beginning with the byte that marks deleted entries.

#ifndef FATLIB_LIBRARY_H
#define FATLIB_LIBRARY_H

#include <fatlib/FatLibIntf.h>

#include <clocale>
#include <string_view>
#include <system_error>
#include <vector>

#include "ShortNames.h"

namespace fatlib {

class LibraryCore;

/// Puts the calling thread into the C locale. Every call of the library that takes a path is made below one.
class CLocaleScope {
 public:
  CLocaleScope();
  ~CLocaleScope();
  CLocaleScope(const CLocaleScope&) = delete;
  CLocaleScope& operator=(const CLocaleScope&) = delete;

 private:
  locale_t m_Before;
};

/// One volume's share in the library. The library starts with the first one, and ends with the last.
class LibraryUse {
 public:
  LibraryUse();
  ~LibraryUse();
  LibraryUse(const LibraryUse&) = delete;
  LibraryUse& operator=(const LibraryUse&) = delete;

  /// To be called before each mount, with nothing of this volume mounted. The library keeps some memory of each mount
  /// until it ends: when no volume is mounted, it is ended and started again now and then.
  static void BeforeMount();
  static void Unmounted();

  // ---- the number of invented short names, one for all volumes of the process

  /// Where it stands.
  static ShortNameNumber& Number();
  /// Moves it on by one name, given on a volume in memory. @return NoMemory when that volume cannot be had
  [[nodiscard]] static std::error_code SkipNumber();
};

}  // namespace fatlib

#endif  // FATLIB_LIBRARY_H
