/// @file HostVolume.cpp

#include "HostVolume.h"

#include <unistd.h>

#include <cstdio>
#include <new>

namespace {
constexpr unsigned long long LONG_TRANSFER_BYTES = 16u << 20;  // transfers from here on get a progress line
}

std::vector<unsigned short> ToPath(const std::string& text) {
  std::vector<unsigned short> units;
  for (std::size_t i = 0; i < text.size();) {
    const auto at = [&text](std::size_t index) -> unsigned int {
      return index < text.size() ? static_cast<unsigned char>(text[index]) : 0u;
    };
    const unsigned int lead = at(i++);
    unsigned int following = lead < 0x80   ? 0
                             : lead < 0xC2 ? 4
                             : lead < 0xE0 ? 1
                             : lead < 0xF0 ? 2
                             : lead < 0xF5 ? 3
                                           : 4;
    unsigned int code = lead < 0x80 ? lead : following == 4 ? 0xFFFDu : lead & (0x3Fu >> following);
    if (following == 4) following = 0;
    for (; following > 0; --following) {
      if ((at(i) & 0xC0u) != 0x80u) {
        code = 0xFFFD;
        break;
      }
      code = code << 6 | (at(i++) & 0x3Fu);
    }
    if (code >= 0x10000) {
      units.push_back(static_cast<unsigned short>(0xD7C0u + (code >> 10)));
      units.push_back(static_cast<unsigned short>(0xDC00u + (code & 0x3FFu)));
    } else {
      units.push_back(static_cast<unsigned short>(code == '/' ? '\\' : code));
    }
  }
  units.push_back(0);
  return units;
}

std::string ToText(const unsigned short* units, std::size_t max) {
  std::string text;
  for (std::size_t i = 0; i < max && units[i] != 0; ++i) {
    unsigned int code = units[i];
    const bool pair = code >= 0xD800 && code < 0xDC00 && i + 1 < max && units[i + 1] >= 0xDC00 && units[i + 1] < 0xE000;
    if (pair) code = 0x10000u + ((code - 0xD800u) << 10) + (units[++i] - 0xDC00u);
    const auto put = [&text](unsigned int byte) { text += static_cast<char>(static_cast<unsigned char>(byte)); };
    if (code < 0x80) {
      put(code);
      continue;
    }
    if (code < 0x800) {
      put(0xC0u | code >> 6);
    } else {
      if (code < 0x10000) {
        put(0xE0u | code >> 12);
      } else {
        put(0xF0u | code >> 18);
        put(0x80u | (code >> 12 & 0x3Fu));
      }
      put(0x80u | (code >> 6 & 0x3Fu));
    }
    put(0x80u | (code & 0x3Fu));
  }
  return text;
}

CVolume::CVolume(const std::string& imagePath) {
  Fat_LibInitialize();
  CFatPartition* storage = new CFatPartition;
  std::string parameter = imagePath;  // Fat_Mount takes an address that may be written through, but only reads
  m_pFileSystem = Fat_Mount(storage, parameter.data());
  if (m_pFileSystem != nullptr) m_pStorage = storage;  // else the library has released it
}

CVolume::~CVolume() {
  Unmount();
  Fat_LibTerminate();
}

bool CVolume::Unmount() {
  if (m_pFileSystem == nullptr) return true;
  const bool unmounted = Fat_Unmount(m_pFileSystem) == 1;
  m_pFileSystem = nullptr;
  ::operator delete(static_cast<void*>(m_pStorage));
  return unmounted;
}

CProgress::CProgress(const std::string& what, unsigned long long bytes)
    : m_What(what), m_nBytes(bytes), m_bTerminal(::isatty(STDOUT_FILENO) == 1) {}

CProgress::~CProgress() {
  if (m_nBytes >= LONG_TRANSFER_BYTES && m_bTerminal) std::printf("\r\033[K");
}

void CProgress::Add(unsigned long long bytes) {
  m_nDone += bytes;
  if (m_nBytes < LONG_TRANSFER_BYTES) return;
  const unsigned long long percent = 100 * m_nDone / m_nBytes;
  const unsigned long long step = m_bTerminal ? percent : percent / 25;
  if (step == m_nLastStep) return;
  m_nLastStep = step;
  std::printf("%s      %s: %llu of %llu MiB, %llu%%%s", m_bTerminal ? "\r" : "", m_What.c_str(), m_nDone >> 20,
              m_nBytes >> 20, percent, m_bTerminal ? "" : "\n");
  std::fflush(stdout);
}
