/// @file BareLibrary.h
/// The C functions on an image in memory, as a host without the C++ face uses them.

#ifndef FATLIB_TESTS_BARELIBRARY_H
#define FATLIB_TESTS_BARELIBRARY_H

#include <fatlib/FatLibIntf.h>
#include <fatlib/XStorage.h>
#include <gtest/gtest.h>

#include <clocale>
#include <string>
#include <string_view>
#include <vector>

/// A path as the C functions take it.
class CBarePath {
 public:
  CBarePath(std::u16string_view text) : m_Units(text.begin(), text.end()) { m_Units.push_back(0); }
  CBarePath(const std::u16string& text) : CBarePath(std::u16string_view(text)) {}
  CBarePath(const char16_t* text) : CBarePath(std::u16string_view(text)) {}
  operator unsigned short*() { return m_Units.data(); }

 private:
  std::vector<unsigned short> m_Units;
};

/// The library, started for one volume. No Volume of the face may be open meanwhile.
class CBareVolume {
 public:
  /// @param locale  of the process while the library is up
  explicit CBareVolume(std::vector<unsigned char>* bytes, const char* locale = "C")
      : m_sLocaleBefore(std::setlocale(LC_ALL, nullptr)), m_pBytes(bytes) {
    Fat_LibInitialize();
    EXPECT_NE(std::setlocale(LC_ALL, locale), nullptr) << locale;
    Mount();
  }
  ~CBareVolume() {
    EXPECT_EQ(Fat_Unmount(m_pVolume), 1u);
    ::operator delete(m_pStorage);
    (void)Fat_LibTerminate();
    (void)std::setlocale(LC_ALL, m_sLocaleBefore.c_str());
  }
  CBareVolume(const CBareVolume&) = delete;
  CBareVolume& operator=(const CBareVolume&) = delete;

  void Remount() {
    EXPECT_EQ(Fat_Unmount(m_pVolume), 1u);
    ::operator delete(m_pStorage);
    Mount();
  }
  static void Create(CBarePath path, unsigned int size = 0) {
    const int handle = Fat_CreateFile(path, size, 0x20);
    EXPECT_GE(handle, 0);
    EXPECT_EQ(Fat_CloseFile(handle), 1u);
  }
  static bool Exists(CBarePath path) {
    const int handle = Fat_OpenFile(path);
    return handle >= 0 && Fat_CloseFile(handle) == 1;
  }
  static std::string Read(CBarePath path) {
    const int handle = Fat_OpenFile(path);
    unsigned int size = 0;
    unsigned int done = 0;
    if (handle < 0 || Fat_GetFileSize(handle, &size) == 0) return "error";
    std::string text(size, 0);
    if (size != 0) (void)Fat_ReadFileEx(handle, 0, size, reinterpret_cast<unsigned char*>(text.data()), &done);
    (void)Fat_CloseFile(handle);
    return text;
  }
  static void Write(CBarePath path, std::string text) {
    const int handle = Fat_OpenFile(path);
    unsigned int done;
    EXPECT_EQ(Fat_SetFileSize(handle, static_cast<unsigned int>(text.size())), 1u);
    EXPECT_EQ(Fat_WriteFileEx(handle, 0, static_cast<unsigned int>(text.size()),
                              reinterpret_cast<unsigned char*>(text.data()), &done),
              1u);
    EXPECT_EQ(Fat_CloseFile(handle), 1u);
  }

 private:
  void Mount() {
    m_pStorage = new CFatMemory;
    m_pVolume = Fat_Mount(m_pStorage, m_pBytes->data());
    EXPECT_NE(m_pVolume, nullptr);
  }

  std::string m_sLocaleBefore;
  std::vector<unsigned char>* m_pBytes;
  CFatMemory* m_pStorage = nullptr;
  CFatFileSystem* m_pVolume = nullptr;
};

#endif  // FATLIB_TESTS_BARELIBRARY_H
