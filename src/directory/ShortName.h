/// @file ShortName.h
/// The analysis of a file name: which 8.3 form it has, if any, and whether it needs long-name entries; and the
/// invention of a short name with a numeric tail for a name that has none.
///
/// Characters from 0x80 on are stored in the byte encoding of the process locale.

#ifndef FATLIB_SHORTNAME_H
#define FATLIB_SHORTNAME_H

#include "directory/DirEnt.h"

class CDirEntCache;

constexpr unsigned int MAX_NAME_UNITS = 260;

/// A name as it is looked up or created. Independent of the text it was made from.
struct DIRENT_NAME_CTX {
  unsigned int nLongChars;                        // units of the long name; 0: a short entry alone will do
  int nLastDot;                                   // index of the last "." in the name, -1 when there is none
  unsigned char ShortName[SHORT_NAME_SIZE + 3];   // upper case, padded with spaces, then zeros; first byte 0: none
  unsigned short szLongName[MAX_NAME_UNITS + 1];  // the name as given

  bool HasShortName() const { return ShortName[0] != 0; }
};

/// Fills in a context. Never fails; a name longer than MAX_NAME_UNITS is cut.
/// A name of up to 8 plus 3 ASCII characters that a short name may hold becomes a short name alone, in upper case,
/// whatever case it was given in.
void AnalyseFullFileName(const unsigned short* name, DIRENT_NAME_CTX* context);

/// Converts `count` units to a part of a short name, strictly.
/// @param dst        dstMax bytes; only those of the result are written
/// @param converted  set to true when a unit from 0x80 on went through the locale; else left alone
/// @return false when a unit may not be in a short name, or more than dstMax bytes were needed
bool ToShortName(const unsigned short* src, unsigned int count, unsigned char* dst, unsigned int dstMax,
                 bool& converted);

/// Converts as much as fits, dropping spaces and dots and replacing by "_" what a short name may not hold.
/// @param dst        the field to write to; a character whose bytes would pass dstMax leaves spaces in the bytes of the
///                   field that it would have taken, which do not count
/// @param dstMax     most bytes to write
/// @param fieldSize  bytes of the field, dstMax or more
/// @return the bytes written
unsigned int MkShortName(unsigned char* dst, unsigned int dstMax, unsigned int fieldSize, const unsigned short* src,
                         unsigned int count);

/// Invents a short name for a name without one: what fits of its base, "~", and the next number of a counter that all
/// directories share and that counts on for as long as the library is loaded; then the extension.
/// Unique among the short-only names of the directory. Invented names of other long names are not looked at.
/// @return 0, or STATUS_DISK_FULL when every number is taken
[[nodiscard]] int InventShortName(CDirEntCache* cache, DIRENT_NAME_CTX* context);

#endif  // FATLIB_SHORTNAME_H
