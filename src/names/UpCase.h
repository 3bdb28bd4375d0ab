/// @file UpCase.h
/// Case folding of UTF-16 code units: the one mapping by which names and paths compare. It covers the scripts whose
/// case pairs are old and fixed (Latin, Greek, Cyrillic, Armenian, full-width Latin) and never depends on the locale:
/// two names that are equal today stay equal, whatever machine the volume is moved to. Surrogates map to themselves.

#ifndef FATLIB_UPCASE_H
#define FATLIB_UPCASE_H

/// What has to be added (modulo 2^16) to a unit to get its upper case, in pages of 256 units. Only nine of the 256
/// pages hold a unit that changes; all the others share page 0, which adds nothing. A look-up is therefore two loads
/// and no branch, and the table takes 5.25 KiB of read-only memory instead of 128.
struct UPCASE_TABLE {
  static constexpr unsigned int PAGES = 10;  // the shared page and the nine with changes
  unsigned char PageOf[256];                 // by the unit's high byte
  unsigned short Added[PAGES][256];          // by the unit's low byte
};

// Hidden, so that position-independent code reads it without a detour through the global offset table.
#if defined(__GNUC__)
__attribute__((visibility("hidden")))
#endif
extern const UPCASE_TABLE g_UpcaseTable;

/// @return the upper case of one code unit; the unit itself when it has none.
inline unsigned short gUnicodeUpcase(unsigned short unit) {
  return static_cast<unsigned short>(unit + g_UpcaseTable.Added[g_UpcaseTable.PageOf[unit >> 8]][unit & 0xFF]);
}

/// @return true when the first `count` units are pairwise equal or have the same upper case. Terminators are not looked
///         at: both texts hold at least `count` units.
bool gUnicodeEqual(const unsigned short* a, const unsigned short* b, unsigned int count);

#endif  // FATLIB_UPCASE_H
