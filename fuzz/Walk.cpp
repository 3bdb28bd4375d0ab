/// @file Walk.cpp

#include "Walk.h"

#include <algorithm>
#include <cstring>

#include "filesystem/FatFileSystem.h"

namespace {

constexpr unsigned int MAX_ENTRIES = 3000;  // listed in all
constexpr unsigned int MAX_OPENED = 300;    // more than the 160 that the library remembers
constexpr unsigned int MAX_DIRECTORIES = 200;
constexpr unsigned int MAX_DEPTH = 6;  // a directory that contains itself is loaded once for every level
constexpr std::uint64_t MAX_READ = 6u << 20;
constexpr unsigned int PIECE = 0x40000;  // reading in steps of this size is safe with the handle's own offset
constexpr unsigned int MAX_CHANGED = 40;
constexpr unsigned int LONG_NAME_UNITS = 260;
constexpr unsigned int SHORT_NAME_UNITS = 14;

}  // namespace

UTF16 Units(const char* text) {
  UTF16 units;
  for (; *text != 0; ++text) units.push_back(static_cast<unsigned char>(*text));
  return units;
}

UTF16 Join(const UTF16& directory, const UTF16& name) {
  UTF16 path = directory;
  if (!path.empty()) path.push_back('\\');
  path.insert(path.end(), name.begin(), name.end());
  return path;
}

UTF16 NameOf(const WIN_FIND_DATA& data) {
  const unsigned short* text = data.cFileName;
  unsigned int room = LONG_NAME_UNITS;
  if (text[0] == 0) {
    text = data.cAlternateFileName;
    room = SHORT_NAME_UNITS;
  }
  UTF16 name;
  for (unsigned int i = 0; i < room && text[i] != 0; ++i) name.push_back(text[i]);
  return name;
}

void CWalker::WalkAll() {
  m_Directories.emplace_back();
  for (std::size_t i = 0; i < m_Directories.size() && i < MAX_DIRECTORIES && !CFuzzRun::IsLong(); ++i) {
    const UTF16 directory = m_Directories[i];
    List(directory);
  }
  for (std::size_t i = 0; i < m_Paths.size() && m_nOpened < MAX_OPENED && !CFuzzRun::IsLong(); ++i) {
    const UTF16 path = m_Paths[i];
    Open(path);
  }
}

void CWalker::List(const UTF16& directory) {
  // The record is exactly as large as the interface says.
  const CExactBuffer buffer(sizeof(WIN_FIND_DATA));
  std::memset(buffer.Get(), 0xEE, sizeof(WIN_FIND_DATA));
  WIN_FIND_DATA& data = *reinterpret_cast<WIN_FIND_DATA*>(buffer.Get());
  if (directory.empty()) {
    // The root has no path in the interface.
    FIND_CTX* search = m_pFileSystem->FindFirstFile(nullptr, &data);
    if (search == nullptr) return;
    do Enter(directory, data);
    while (m_nEntries < MAX_ENTRIES && CFatFileSystem::FindNextFile(search, &data));
    CFatFileSystem::CloseFindCtx(search);
    return;
  }
  const CExactPath path(directory);
  const int search = Fat_FindFirstFile(path, &data);
  if (search < 0) return;
  do Enter(directory, data);
  while (m_nEntries < MAX_ENTRIES && Fat_FindNextFile(search, &data) != 0);
  if (Fat_CloseFindHandle(search) == 0) Finding("an open search cannot be closed");
}

void CWalker::Enter(const UTF16& directory, const WIN_FIND_DATA& data) {
  ++m_nEntries;
  const UTF16 path = Join(directory, NameOf(data));
  m_Paths.push_back(path);
  if ((data.dwFileAttributes & 0x10) == 0 || path.size() >= LONG_NAME_UNITS) return;
  const auto depth = std::count(path.begin(), path.end(), static_cast<unsigned short>('\\'));
  if (depth < static_cast<std::ptrdiff_t>(MAX_DEPTH)) m_Directories.push_back(path);
}

void CWalker::Open(const UTF16& path) {
  const CExactPath units(path);
  const int handle = Fat_OpenFile(units);
  if (handle < 0) return;
  ++m_nOpened;
  const CExactBuffer buffer(sizeof(WIN_FIND_DATA));
  (void)Fat_GetFileAttribute(handle, reinterpret_cast<WIN_FIND_DATA*>(buffer.Get()));
  ReadFile(handle);
  if (Fat_CloseFile(handle) == 0) Finding("an open file cannot be closed");
}

void CWalker::ReadFile(int handle) {
  unsigned int size = 0;
  (void)Fat_GetFileSize(handle, &size);
  const unsigned int limit = Fat_IsDir(handle) != 0 ? PIECE : size;
  unsigned int done = 0;

  // In pieces from the start.
  unsigned int read = 0;
  while (m_nRead < MAX_READ) {
    const unsigned int piece = limit - read < PIECE ? limit - read : PIECE;
    if (piece == 0) break;
    const CExactBuffer buffer(piece);
    if (Fat_ReadFile(handle, piece, buffer.Get(), &done) == 0 || done == 0) break;
    read += piece;
    m_nRead += piece;
  }

  // The same bytes come whatever the way of reading.
  const unsigned int head = limit < 3000 ? limit : 3000;
  if (head >= 2) {
    const CExactBuffer whole(head);
    const CExactBuffer part(head - 1);
    const bool first = Fat_ReadFileEx(handle, 0, head, whole.Get(), &done) != 0;
    const bool second = Fat_ReadFileEx(handle, 1, head - 1, part.Get(), &done) != 0;
    if (first && second && Fat_IsDir(handle) == 0 && std::memcmp(whole.Get() + 1, part.Get(), head - 1) != 0) {
      Finding("two reads of the same bytes differ");
    }
  }

  // Around the end, and where there is nothing.
  const CExactBuffer buffer(64);
  for (const long long offset : {static_cast<long long>(size) / 2, static_cast<long long>(size) - 10,
                                 static_cast<long long>(size), 0xFFFFFFFFll, -1ll, 0x123456789ABCll}) {
    (void)Fat_ReadFileEx(handle, offset, 64, buffer.Get(), &done);
  }
}

void CWalker::ChangeAll(CInput& choices) {
  const std::size_t count = m_Paths.size() < MAX_CHANGED ? m_Paths.size() : MAX_CHANGED;
  for (std::size_t i = 0; i < count && !CFuzzRun::IsLong(); ++i) {
    // Without bytes to choose by every kind of change has its turn.
    const unsigned int choice = choices.U8() + static_cast<unsigned int>(i);
    Change(m_Paths[i], choice, choices.U16());
  }
  // New names in the root and in the first directories, enough of them to make a directory grow.
  for (std::size_t i = 0; i < m_Directories.size() && i < 4 && !CFuzzRun::IsLong(); ++i) {
    for (unsigned int k = 0; k < 6; ++k) {
      UTF16 name = Units(k % 2 == 0 ? "NEW0.TXT" : "A new file of the fuzz target that takes four slots0");
      name[3] = static_cast<unsigned short>('0' + k);
      const CExactPath path(Join(m_Directories[i], name));
      const int handle = Fat_CreateFile(path, k * 700, 0x20);
      if (handle >= 0) (void)Fat_CloseFile(handle);
    }
    const CExactPath path(Join(Join(m_Directories[i], Units("New directory")), Units("SUB")));
    (void)Fat_CreateDir(path, 0);
  }
}

void CWalker::Change(const UTF16& path, unsigned int choice, unsigned int argument) {
  const CExactPath units(path);
  switch (choice % 6) {
    case 0: {
      (void)Fat_DeleteFile(units);
      break;
    }
    case 1: {
      UTF16 name = path;
      if (argument % 4 == 0 && name.size() < 200) name.insert(name.end(), 20, 'x');
      name.push_back(static_cast<unsigned short>('A' + argument % 26));
      const CExactPath renamed(name);
      (void)Fat_RenameFile(units, renamed);
      break;
    }
    case 2: {
      const CExactPath directory(m_Directories[argument % m_Directories.size()]);
      (void)Fat_MoveFile(units, argument % 5 == 0 ? nullptr : static_cast<unsigned short*>(directory));
      break;
    }
    default: {
      const int handle = Fat_OpenFile(units);
      if (handle < 0) return;
      unsigned int size = 0;
      (void)Fat_GetFileSize(handle, &size);
      if (choice % 6 == 3) {
        (void)Fat_SetFileSize(handle, argument * (argument % 3));
        (void)Fat_SetFileSize(handle, size / 2);
      } else if (choice % 6 == 4) {
        (void)Fat_SetFileSize(handle, (size & 0xFFFFFF) + argument);
      }
      const CExactBuffer buffer(argument % 5000 + 1);
      std::memset(buffer.Get(), 0x41, argument % 5000 + 1);
      unsigned int done = 0;
      (void)Fat_WriteFileEx(handle, argument, argument % 5000 + 1, buffer.Get(), &done);
      (void)Fat_WriteFile(handle, 1, buffer.Get(), &done);
      if (choice % 6 == 5) {
        WIN_FIND_DATA data = {};
        data.dwFileAttributes = argument & 0xFF;
        (void)Fat_SetFileAttribute(handle, &data);
      }
      (void)Fat_CloseFile(handle);
    }
  }
}
