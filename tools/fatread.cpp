/// @file fatread.cpp
/// A host program on fatlib's public interface: lists directories of a volume, and checks a whole volume against a list
/// of SHA-256 sums.
///
///     fatread list IMAGE DIRECTORY
///     fatread verify IMAGE MANIFEST [TOTALS]
///
/// MANIFEST names what must be on the volume, one thing a line, with '/' between the components: a file as sha256sum
/// writes it ("<64 hex digits>  PATH"), a directory as "directory  PATH". Files of the root are opened by their paths,
/// for the root itself cannot be listed; every directory of the root is listed with all below it, and holds neither
/// more nor less than the manifest says. TOTALS is a file to which a line "FILES BYTES" is added: what was read and
/// found right.
///
/// Unmounting writes to the volume (see FatLibIntf.h), so the image must be writable. It must have two FATs.
///
/// Exit status: 0 when all was right, 1 when not, 2 when the job could not be done.

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "HostVolume.h"
#include "Sha256.h"

namespace {

constexpr unsigned int DIRECTORY_BIT = 0x10;
constexpr unsigned int REQUEST_BYTES = 1u << 20;

std::string UpperAscii(std::string text) {
  for (char& c : text) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return text;
}

// ---------------------------------------------------------------- listing

struct ENTRY {
  std::string Name;
  bool ShortOnly;  // the entry has no long name: its case says nothing
  bool Directory;
  unsigned int Size;
};

// "." and ".." are left out. @return false when the directory cannot be listed
bool ListDirectory(const std::string& path, std::vector<ENTRY>& entries) {
  WIN_FIND_DATA data{};
  const int search = Fat_FindFirstFile(ToPath(path).data(), &data);
  if (search < 0) return false;
  do {
    const bool shortOnly = data.cFileName[0] == 0;
    const std::string name = shortOnly ? ToText(data.cAlternateFileName, 14) : ToText(data.cFileName, 260);
    if (shortOnly && (name == "." || name == "..")) continue;
    entries.push_back({name, shortOnly, (data.dwFileAttributes & DIRECTORY_BIT) != 0, data.nFileSizeLow});
  } while (Fat_FindNextFile(search, &data) == 1);
  return Fat_CloseFindHandle(search) == 1;
}

void PrintEntry(const ENTRY& entry, const char* remark) {
  if (entry.Directory) {
    std::printf("       <DIR>  %s%s\n", entry.Name.c_str(), remark);
  } else {
    std::printf("%12u  %s%s\n", entry.Size, entry.Name.c_str(), remark);
  }
}

// Reads a file from its start to the end that its size names.
// @return its SHA-256; empty when it cannot be opened or read, or its size is not the one that the listing gave
std::string HashFile(const std::string& path, unsigned int& size, const unsigned int* listedSize) {
  const int file = Fat_OpenFile(ToPath(path).data());
  if (file < 0) return "";
  std::string hash;
  if (Fat_IsDir(file) == 0 && Fat_GetFileSize(file, &size) == 1 && (listedSize == nullptr || *listedSize == size)) {
    CSha256 sha;
    CProgress progress("reading " + path, size);
    std::vector<unsigned char> buffer(std::min(size, REQUEST_BYTES));
    bool good = true;
    for (unsigned int offset = 0; good && offset < size;) {
      const unsigned int part = std::min(size - offset, REQUEST_BYTES);
      // How much was read follows from the size: the count reported tells what the cache did, not more.
      unsigned int reported = 0;
      good = Fat_ReadFileEx(file, offset, part, buffer.data(), &reported) == 1;
      sha.Add(buffer.data(), part);
      offset += part;
      progress.Add(part);
    }
    if (good) hash = sha.Finish();
  }
  return Fat_CloseFile(file) == 1 ? hash : "";
}

// ---------------------------------------------------------------- verifying

struct SOURCE {
  bool Directory = false;
  std::string Hash;
  bool Seen = false;
};

class CVerifier {
 public:
  // @return false when the manifest cannot be read
  bool Load(const char* manifest) {
    std::ifstream file(manifest);
    constexpr std::size_t HASH_DIGITS = 64;
    const std::string directoryMark = "directory";
    for (std::string line; std::getline(file, line);) {
      const std::size_t gap = line.find("  ");
      SOURCE source;
      source.Directory = gap == directoryMark.size() && line.compare(0, gap, directoryMark) == 0;
      if (!source.Directory && gap != HASH_DIGITS) return false;
      if (!source.Directory) source.Hash = line.substr(0, gap);
      const std::string path = line.substr(gap + 2);
      m_Sources[path] = source;
      m_Upper[WithUpperName(path)] = path;
    }
    return file.eof() && !m_Sources.empty();
  }

  void VerifyAll() {
    for (auto& [path, source] : m_Sources) {
      if (path.find('/') != std::string::npos) continue;
      source.Seen = true;
      if (source.Directory) {
        VerifyDirectory(path);
      } else {
        unsigned int size = 0;
        const char* remark = VerifyFile(path, source, size, nullptr);
        PrintEntry({path, false, false, size}, remark);
      }
    }
    for (const auto& [path, source] : m_Sources) {
      if (source.Seen) continue;
      std::printf("MISSING on the volume: %s\n", path.c_str());
      ++m_nWrong;
    }
  }

  unsigned int Files() const { return m_nFiles; }
  unsigned int Directories() const { return m_nDirectories; }
  unsigned long long Bytes() const { return m_nBytes; }
  unsigned int Wrong() const { return m_nWrong; }

 private:
  // The path with its last component in upper case: the form in which an entry without a long name is looked for.
  static std::string WithUpperName(const std::string& path) {
    const std::size_t name = path.rfind('/') + 1;
    return path.substr(0, name) + UpperAscii(path.substr(name));
  }

  void VerifyDirectory(const std::string& path) {
    ++m_nDirectories;
    std::printf("  %s\n", path.c_str());
    std::vector<ENTRY> entries;
    if (!ListDirectory(path, entries)) {
      std::printf("              CANNOT BE LISTED\n");
      ++m_nWrong;
      return;
    }
    std::vector<std::string> below;
    for (const ENTRY& entry : entries) {
      const std::string onVolume = path + "/" + entry.Name;
      const auto folded = m_Upper.find(onVolume);
      const auto found = m_Sources.find(entry.ShortOnly && folded != m_Upper.end() ? folded->second : onVolume);
      if (found == m_Sources.end() || found->second.Directory != entry.Directory || found->second.Seen) {
        PrintEntry(entry, "  NOT IN THE SOURCE");
        ++m_nWrong;
        continue;
      }
      found->second.Seen = true;
      if (entry.Directory) {
        PrintEntry(entry, "");
        below.push_back(found->first);
      } else {
        unsigned int size = 0;
        const char* remark = VerifyFile(onVolume, found->second, size, &entry.Size);
        PrintEntry(entry, remark);
      }
    }
    for (const std::string& directory : below) VerifyDirectory(directory);
  }

  // @return what to print behind the name
  const char* VerifyFile(const std::string& path, const SOURCE& source, unsigned int& size,
                         const unsigned int* listedSize) {
    const std::string hash = HashFile(path, size, listedSize);
    if (hash == source.Hash) {
      ++m_nFiles;
      m_nBytes += size;
      return "";
    }
    ++m_nWrong;
    return hash.empty() ? "  CANNOT BE READ" : "  DIFFERS FROM THE SOURCE";
  }

  std::map<std::string, SOURCE> m_Sources;
  std::map<std::string, std::string> m_Upper;
  unsigned int m_nFiles = 0;
  unsigned int m_nDirectories = 0;
  unsigned long long m_nBytes = 0;
  unsigned int m_nWrong = 0;
};

int Verify(const char* image, const char* manifest, const char* totals) {
  CVerifier verifier;
  if (!verifier.Load(manifest)) {
    std::fprintf(stderr, "fatread: %s is no manifest\n", manifest);
    return 2;
  }
  CVolume volume(image);
  if (!volume.Mounted()) {
    std::fprintf(stderr, "fatread: cannot mount %s\n", image);
    return 2;
  }
  verifier.VerifyAll();
  if (!volume.Unmount()) {
    std::fprintf(stderr, "fatread: cannot unmount %s\n", image);
    return 2;
  }
  std::printf("%u files in %u directories, %llu bytes: read, and equal to their source\n", verifier.Files(),
              verifier.Directories(), verifier.Bytes());
  if (verifier.Wrong() != 0) std::printf("WRONG: %u\n", verifier.Wrong());
  if (totals != nullptr) {
    std::ofstream file(totals, std::ios::app);
    file << verifier.Files() << " " << verifier.Bytes() << "\n";
    if (!file.flush()) {
      std::fprintf(stderr, "fatread: cannot write %s\n", totals);
      return 2;
    }
  }
  return verifier.Wrong() == 0 ? 0 : 1;
}

int List(const char* image, const char* directory) {
  CVolume volume(image);
  std::vector<ENTRY> entries;
  if (!volume.Mounted() || !ListDirectory(directory, entries)) {
    std::fprintf(stderr, "fatread: cannot %s %s\n", volume.Mounted() ? "list" : "mount",
                 volume.Mounted() ? directory : image);
    return 2;
  }
  for (const ENTRY& entry : entries) PrintEntry(entry, "");
  return volume.Unmount() ? 0 : 2;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string command = argc > 1 ? argv[1] : "";
  if (command == "list" && argc == 4) return List(argv[2], argv[3]);
  if (command == "verify" && (argc == 4 || argc == 5)) return Verify(argv[2], argv[3], argc == 5 ? argv[4] : nullptr);
  std::fprintf(stderr, "usage: fatread list IMAGE DIRECTORY\n       fatread verify IMAGE MANIFEST [TOTALS]\n");
  return 2;
}
