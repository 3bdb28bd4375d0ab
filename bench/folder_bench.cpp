/// @file folder_bench.cpp
/// How long work in a folder takes, with system calls alone: for comparing what folders are mounted on. Prints one line
/// for each kind of work: its name and the seconds.
///     folder_bench FOLDER [MEBIBYTES [FILES]]

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr std::size_t REQUEST = std::size_t{1024} * 1024;

[[noreturn]] void Fail(const std::string& what) {
  std::fprintf(stderr, "folder_bench: %s: %s\n", what.c_str(), std::strerror(errno));
  std::exit(1);
}

void Check(bool good, const std::string& what) {
  if (!good) Fail(what);
}

class Stopwatch {
 public:
  explicit Stopwatch(const char* name) : m_szName(name), m_Begin(std::chrono::steady_clock::now()) {}
  ~Stopwatch() {
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - m_Begin;
    std::printf("%s %.6f\n", m_szName, seconds.count());
  }
  Stopwatch(const Stopwatch&) = delete;
  Stopwatch& operator=(const Stopwatch&) = delete;

 private:
  const char* m_szName;
  std::chrono::steady_clock::time_point m_Begin;
};

void WriteLarge(const std::string& path, std::size_t requests) {
  const std::vector<char> bytes(REQUEST, 'x');
  const Stopwatch watch("write");
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  Check(file >= 0, path);
  for (std::size_t i = 0; i < requests; ++i) {
    Check(write(file, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), path);
  }
  Check(fsync(file) == 0, path);
  close(file);
}

void ReadLarge(const std::string& path, std::size_t requests) {
  std::vector<char> bytes(REQUEST);
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  Check(file >= 0, path);
  // What was written may still be in the system's memory: then it would be all that is measured.
  Check(posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED) == 0, path);
  const Stopwatch watch("read");
  for (std::size_t i = 0; i < requests; ++i) {
    Check(read(file, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), path);
  }
  close(file);
}

std::string NameOf(const std::string& folder, int number) {
  char name[32];
  std::snprintf(name, sizeof name, "/file-%05d.txt", number);
  return folder + name;
}

void MakeSmall(const std::string& folder, int files) {
  const std::vector<char> bytes(100, 'y');
  const Stopwatch watch("create");
  Check(mkdir(folder.c_str(), 0755) == 0, folder);
  for (int i = 0; i < files; ++i) {
    const std::string path = NameOf(folder, i);
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    Check(file >= 0, path);
    Check(write(file, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), path);
    close(file);
  }
}

void ListSmall(const std::string& folder, int files) {
  const Stopwatch watch("list");
  DIR* const directory = opendir(folder.c_str());
  Check(directory != nullptr, folder);
  int found = 0;
  while (const dirent* entry = readdir(directory)) {
    struct stat status {};
    const std::string path = folder + "/" + entry->d_name;
    Check(stat(path.c_str(), &status) == 0, path);
    found += S_ISREG(status.st_mode) ? 1 : 0;
  }
  closedir(directory);
  Check(found == files, folder + " lists another number of files");
}

void RemoveSmall(const std::string& folder, int files) {
  const Stopwatch watch("remove");
  for (int i = 0; i < files; ++i) Check(unlink(NameOf(folder, i).c_str()) == 0, NameOf(folder, i));
  Check(rmdir(folder.c_str()) == 0, folder);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 4) {
    std::fputs("usage: folder_bench FOLDER [MEBIBYTES [FILES]]\n", stderr);
    return 2;
  }
  const std::string folder = argv[1];
  const std::size_t requests = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 256;
  const int files = argc > 3 ? static_cast<int>(std::strtol(argv[3], nullptr, 10)) : 10000;
  WriteLarge(folder + "/large", requests);
  ReadLarge(folder + "/large", requests);
  Check(unlink((folder + "/large").c_str()) == 0, "large");
  MakeSmall(folder + "/small", files);
  ListSmall(folder + "/small", files);
  RemoveSmall(folder + "/small", files);
  return 0;
}
