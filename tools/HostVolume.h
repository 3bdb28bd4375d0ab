/// @file HostVolume.h
/// What the host programs share: text between UTF-8 and the UTF-16 of the interface, the library with one volume, and a
/// progress line.

#ifndef FATLIB_TOOLS_HOSTVOLUME_H
#define FATLIB_TOOLS_HOSTVOLUME_H

#include <fatlib/FatLibIntf.h>
#include <fatlib/XStorage.h>

#include <cstddef>
#include <string>
#include <vector>

/// A zero-terminated path of the interface from host text: UTF-8 with '/' between the components. Bytes that are no
/// UTF-8 become U+FFFD.
std::vector<unsigned short> ToPath(const std::string& text);

/// UTF-8 of a name in a find record: at most `max` units, zero-terminated when shorter.
std::string ToText(const unsigned short* units, std::size_t max);

/// The library for the length of the program, and one volume on it.
class CVolume {
 public:
  explicit CVolume(const std::string& imagePath);
  ~CVolume();
  CVolume(const CVolume&) = delete;
  CVolume& operator=(const CVolume&) = delete;

  bool Mounted() const { return m_pFileSystem != nullptr; }
  /// @return false when the library could not write everything
  bool Unmount();

 private:
  CFatFileSystem* m_pFileSystem = nullptr;
  CFatPartition* m_pStorage = nullptr;
};

/// Shows how far a long transfer is: one line that changes on a terminal, else a line every quarter. A short transfer
/// shows nothing.
class CProgress {
 public:
  /// @param what  begins the line, such as "reading BIG.BIN"
  CProgress(const std::string& what, unsigned long long bytes);
  ~CProgress();
  CProgress(const CProgress&) = delete;
  CProgress& operator=(const CProgress&) = delete;

  void Add(unsigned long long bytes);

 private:
  std::string m_What;
  unsigned long long m_nBytes;
  unsigned long long m_nDone = 0;
  unsigned long long m_nLastStep = 0;
  bool m_bTerminal;
};

#endif  // FATLIB_TOOLS_HOSTVOLUME_H
