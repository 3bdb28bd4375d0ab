/// @file fuzz_calls.cpp
/// Random calls with random arguments over a mutated image: behind the image the input is a list of calls, one byte for
/// the function and then its arguments. Handles, paths and pointers may be anything a careless host passes; null
/// pointers, stale handles, two volumes at once, and a library that is stopped in between are among them.

#include "Walk.h"

namespace {

constexpr unsigned int MAX_CALLS = 300;
constexpr unsigned int MAX_VOLUMES = 3;
constexpr unsigned int MAX_RESTARTS = 2;
constexpr unsigned int MAX_LARGE = 3;  // sizes of more than 64 KiB: each may take a quarter of a second
constexpr unsigned int MAX_TRANSFER = 0x90000;

class CCaller {
 public:
  CCaller(CFuzzRun& run, CFatFileSystem* mounted, CInput& input) : m_Run(run), m_Input(input), m_Volumes{mounted} {}

  void Go() {
    for (unsigned int i = 0; i < MAX_CALLS && !m_Input.Empty() && !CFuzzRun::IsLong(); ++i) Call(m_Input.U8() % 28);
  }

 private:
  void Call(unsigned int function);
  void CallFrame(unsigned int function);

  // A handle: mostly one that may be open, sometimes nonsense.
  int Handle() {
    const unsigned int value = m_Input.U8();
    return value < 250 ? static_cast<int>(value % 12) : static_cast<int>(m_Input.U32());
  }
  // A size or count: mostly small.
  unsigned int Size() {
    const unsigned int kind = m_Input.U8();
    if (kind < 200) return m_Input.U16() % (kind < 100 ? 600u : 0x10000u);
    if (m_nLarge == MAX_LARGE) return kind;
    ++m_nLarge;
    return m_Input.U32();
  }
  UTF16 Path() {
    static const char* const NAMES[] = {
        "A",   "B.TXT", "DIR", "A long name.text", "FILE.BIN", "NEW~1", "LOOP", "SELF", "\x80\xE9.dat",
        "x+y", ".",     "..",  "F1.DAT",           "SUB",      "deep",  "."};
    UTF16 path;
    unsigned int parts = m_Input.U8();
    do {
      const unsigned int name = m_Input.U8();
      if (name < 16) {
        path = Join(path, Units(NAMES[name]));
      } else if (name < 200 && !m_Found.empty()) {
        const UTF16& found = m_Found[name % m_Found.size()];
        path = parts % 2 == 0 ? found : Join(path, found);
      } else if (name < 230) {
        path = Join(path, UTF16(m_Input.U8() + 1u, static_cast<unsigned short>(name)));
      } else {
        const std::vector<std::uint8_t> raw = m_Input.Bytes(name - 228);
        UTF16 units;
        for (const std::uint8_t byte : raw)
          units.push_back(static_cast<unsigned short>(byte * (byte % 7 == 0 ? 257 : 1)));
        path = Join(path, units);
      }
      parts /= 4;
    } while (parts != 0);
    return path;
  }
  // Null now and then.
  template <class T>
  T* Maybe(T* pointer) {
    return m_Input.U8() == 13 ? nullptr : pointer;
  }
  void Transfer(bool write, bool positioned);
  void Remember(const WIN_FIND_DATA& data) {
    if (m_Found.size() < 64) m_Found.push_back(NameOf(data));
  }

  CFuzzRun& m_Run;
  CInput& m_Input;
  std::vector<CFatFileSystem*> m_Volumes;
  std::vector<UTF16> m_Found;
  unsigned int m_nLarge = 0;
  unsigned int m_nRestarts = 0;
};

void CCaller::Transfer(bool write, bool positioned) {
  const int handle = Handle();
  const unsigned int count = Size() % MAX_TRANSFER;
  const CExactBuffer buffer(count);
  unsigned char* bytes = Maybe(buffer.Get());
  if (write) {
    for (unsigned int i = 0; i < count; ++i) buffer.Get()[i] = static_cast<unsigned char>(i);
  }
  unsigned int done = 0;
  if (positioned) {
    long long offset = Size();
    if (m_Input.U8() < 20) offset = static_cast<long long>(static_cast<std::uint64_t>(offset) << (m_Input.U8() % 64));
    (void)(write ? Fat_WriteFileEx(handle, offset, count, bytes, Maybe(&done))
                 : Fat_ReadFileEx(handle, offset, count, bytes, Maybe(&done)));
  } else {
    (void)(write ? Fat_WriteFile(handle, count, bytes, Maybe(&done))
                 : Fat_ReadFile(handle, count, bytes, Maybe(&done)));
  }
}

void CCaller::Call(unsigned int function) {
  unsigned int value = 0;
  WIN_FIND_DATA data = {};
  switch (function) {
    case 0:
    case 1:
      (void)Fat_OpenFile(Maybe<unsigned short>(CExactPath(Path())));
      break;
    case 2: {
      const CExactPath path(Path());
      const unsigned int size = Size();
      (void)Fat_CreateFile(path, size, m_Input.U8());
      break;
    }
    case 3:
      (void)Fat_CloseFile(Handle());
      break;
    case 4:
      (void)Fat_GetFileSize(Handle(), Maybe(&value));
      break;
    case 5: {
      const int handle = Handle();
      (void)Fat_SetFileSize(handle, Size());
      break;
    }
    case 6:
      Transfer(false, true);
      break;
    case 7:
      Transfer(true, true);
      break;
    case 8:
      Transfer(false, false);
      break;
    case 9:
      Transfer(true, false);
      break;
    case 10:
      (void)Fat_GetFileOffset(Handle(), Maybe(&value));
      break;
    case 11: {
      const int handle = Handle();
      const unsigned int distance = m_Input.U32();
      (void)Fat_SetFileOffset(handle, distance, m_Input.U8() % 5);
      break;
    }
    case 12:
      (void)Fat_IsDir(Handle());
      break;
    case 13:
      if (Fat_GetFileAttribute(Handle(), Maybe(&data)) != 0) Remember(data);
      break;
    case 14: {
      const int handle = Handle();
      data.dwFileAttributes = m_Input.U8();
      data.ftCreationTime.dwHighDateTime = m_Input.U8() << 24;
      (void)Fat_SetFileAttribute(handle, Maybe(&data));
      break;
    }
    case 15:
      (void)Fat_DeleteFile(CExactPath(Path()));
      break;
    case 16: {
      const CExactPath from(Path());
      const CExactPath to(Path());
      (void)Fat_RenameFile(from, Maybe<unsigned short>(to));
      break;
    }
    case 17: {
      const CExactPath from(Path());
      const CExactPath to(Path());
      (void)Fat_MoveFile(from, Maybe<unsigned short>(to));
      break;
    }
    case 18: {
      const CExactPath path(Path());
      (void)Fat_CreateDir(path, m_Input.U8());
      break;
    }
    case 19:
    case 20:
      if (Fat_FindFirstFile(CExactPath(Path()), Maybe(&data)) >= 0) Remember(data);
      break;
    case 21:
      for (unsigned int n = m_Input.U8(), handle = n % 4; n != 0; n /= 2) {
        if (Fat_FindNextFile(static_cast<int>(handle), Maybe(&data)) != 0) Remember(data);
      }
      break;
    case 22:
      (void)Fat_CloseFindHandle(Handle());
      break;
    default:
      CallFrame(function);
  }
}

void CCaller::CallFrame(unsigned int function) {
  CFatFileSystem*& volume = m_Volumes[m_Input.U8() % m_Volumes.size()];
  switch (function) {
    case 23: {  // many objects, so that others leave the library's memory
      const unsigned int count = m_Input.U8();
      for (unsigned int i = 0; i < count && !CFuzzRun::IsLong(); ++i) {
        UTF16 name = Units("MANY000");
        name[4] = static_cast<unsigned short>('0' + i / 100);
        name[5] = static_cast<unsigned short>('0' + i / 10 % 10);
        name[6] = static_cast<unsigned short>('0' + i % 10);
        const CExactPath path(name);
        int handle = Fat_OpenFile(path);
        if (handle < 0) handle = Fat_CreateFile(path, 0, 0);
        (void)Fat_CloseFile(handle);
      }
      break;
    }
    case 24:  // what is listed in the root becomes known
      if (volume != nullptr) {
        SetCurrentFileSystem(volume);
        CWalker walker(volume);
        walker.WalkAll();
        for (const UTF16& path : walker.Paths()) {
          if (m_Found.size() < 64) m_Found.push_back(path);
        }
      }
      break;
    case 25:
      SetCurrentFileSystem(m_Input.U8() % 4 == 0 ? nullptr : volume);
      break;
    case 26:
      m_Run.Unmount(volume);
      volume = nullptr;
      if (m_Input.U8() % 4 != 0) volume = m_Run.MountAgain();
      break;
    default:
      if (m_Volumes.size() < MAX_VOLUMES && m_Input.U8() % 4 != 0) {
        m_Volumes.push_back(m_Run.MountAgain());
      } else if (m_nRestarts < MAX_RESTARTS) {
        ++m_nRestarts;
        m_Run.RestartLibrary();
        m_Volumes.assign(1, m_Run.MountAgain());
      }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  CInput input(data, size);
  const SPARSE_IMAGE image = SPARSE_IMAGE::Parse(input);
  CFuzzRun run;
  CFatFileSystem* mounted = run.Mount(image);
  CCaller(run, mounted, input).Go();
  return 0;
}
