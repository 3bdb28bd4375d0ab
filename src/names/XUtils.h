/// @file XUtils.h
/// Paths: validated and normalised when a host hands them in, split into components when the file system walks them.
/// Also the two character sets of the FAT name rules.
///
/// A path is a zero-terminated string of UTF-16 code units with "\" as its only separator. A normalised path is
/// relative to the root: it holds 1 to 259 units, does not begin or end with a separator, and none of its components is
/// empty, starts with a space or ends with a space or a dot.

#ifndef FATLIB_XUTILS_H
#define FATLIB_XUTILS_H

constexpr unsigned int MAX_PATH_UNITS = 259;  // of a normalised path, without its terminator

/// @return true for  " * / : < > ? \ |  and DEL. False for every unit outside 0x20..0x7F: control characters are
///         refused before this test, and units from 0x80 up are allowed.
bool IsInvalidFatLfnChar(unsigned short c);
/// @return true for the characters above and for  + , . ; = [ ]  and the space. The dot is one of them because base and
///         extension of a short name are stored without it. False for every unit outside 0x20..0x7F.
bool IsInvalidFatFnChar(unsigned short c);

/// Checks and normalises one path. Leading spaces and one leading separator are dropped, then the leading spaces and
/// the trailing spaces and dots of every component. Invalid are: null; an empty path or component, also one that
/// consists of spaces and dots only; a unit below 0x20; a forbidden character; two dots in a row, also inside a name;
/// and a path of more than 259 units, counted before what trails the last component is dropped.
/// @param buffer  room for 260 units; receives the normalised path, or anything when the path is invalid
bool IsPathFileNameValid(const unsigned short* source, unsigned short* buffer);

/// Normalises one path or two. @param second  may be null: only one path then.
/// @return true when all given paths are valid; each pointer then points at the normalised copy, in a static buffer of
///         its own that is valid until the next call of this function or of gIsMovedPathValid. Otherwise the pointers
///         are unchanged.
bool gIsPathFileNameValid(const unsigned short** first, const unsigned short** second);

/// Normalises source and destination of a move and compares them without regard to case.
/// @param destination  directory to move into; a null path (and only that) is the root directory
/// @return 0 when the move is valid; 1 when there is nothing to do because the source lies directly in the destination
///         already; -1 when a path is invalid, or the destination is the source or lies below it.
///         The pointers are replaced as by gIsPathFileNameValid, unless a path is invalid.
int gIsMovedPathValid(const unsigned short** source, const unsigned short** destination);

/// @return the last component, inside the same string
const unsigned short* gGetFileName(const unsigned short* path);

/// Room for one normalised path or component, given by the caller: a look-up that is started while another one is under
/// way has its own.
struct PATH_BUFFER {
  static constexpr unsigned int UNITS = 262;
  unsigned short sz[UNITS];
};

/// Takes the component at the cursor, and leaves the cursor on the separator or terminator that ended it. (The caller
/// steps over the separator.)
/// @return component.sz. A component of more than 261 units, which no normalised path has, is cut.
const unsigned short* gGetASubPath(const unsigned short*& cursor, PATH_BUFFER& component);

/// Splits a path at its last separator.
/// @param parent  out: buffer.sz, which holds the path before that separator (at most 261 units), or null when there is
///                no separator
/// @param name    out: pointer into the given path just after that separator, or the path itself
void gGetParentPath(const unsigned short* path, PATH_BUFFER& buffer, const unsigned short*& parent,
                    const unsigned short*& name);

#endif  // FATLIB_XUTILS_H
