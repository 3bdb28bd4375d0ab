/// @file Mounted.cpp

#include "Mounted.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <memory>
#include <stdexcept>

namespace fatmount_test {

namespace {

constexpr int STEPS = 3000;  // of 10 ms, until something has failed

void Step() { usleep(10000); }

bool IsMountPoint(const std::string& folder) {
  struct stat inside {
  }, outside{};
  const std::string above = folder + "/..";
  if (lstat(folder.c_str(), &inside) != 0) return errno != ENOENT;  // a mount whose server has died
  return lstat(above.c_str(), &outside) == 0 && inside.st_dev != outside.st_dev;
}

std::vector<std::string> MkfsArguments(int type) {
  switch (type) {
    case 12:
      return {"-F", "12", "-s", "4"};
    case 16:
      return {"-F", "16", "-s", "4"};
    default:
      return {"-F", "32", "-s", "1"};
  }
}

const std::string& MakeTypedVolume(const std::string& image, const std::string& folder, int type) {
  mkdir(folder.c_str(), 0755);
  MakeVolume(image, type == 12 ? 7000 : type == 16 ? 32000 : 40000, MkfsArguments(type));
  return image;
}

}  // namespace

Mount::Mount(const std::string& image, const std::string& folder, const std::vector<std::string>& options,
             const std::string& before)
    : m_Folder(folder) {
  std::vector<std::string> arguments{"/bin/sh", "-c", before + "; exec \"$0\" \"$@\"", FATMOUNT_PROGRAM, "-f"};
  arguments.insert(arguments.end(), options.begin(), options.end());
  arguments.insert(arguments.end(), {image, folder});
  const std::string output = m_Directory / "output";
  m_nProcess = fork();
  if (m_nProcess == 0) {
    std::vector<char*> pointers;
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    const int file = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
    dup2(file, STDOUT_FILENO);
    dup2(file, STDERR_FILENO);
    setenv("TZ", "Europe/Berlin", 1);
    execv(pointers[0], pointers.data());
    _exit(127);
  }
  for (int step = 0; step < STEPS && m_nStatus < 0 && !IsMountPoint(folder); ++step) {
    int status = 0;
    if (waitpid(m_nProcess, &status, WNOHANG) == m_nProcess) m_nStatus = WEXITSTATUS(status);
    Step();
  }
}

Mount::~Mount() {
  if (m_nStatus >= 0 && !IsMountPoint(m_Folder)) return;
  if (!RunProcess({"fusermount3", "-u", m_Folder}).Ok()) (void)RunProcess({"fusermount3", "-u", "-z", m_Folder});
  if (m_nStatus < 0 && WaitForEnd() < 0) (void)Kill(SIGKILL);
}

bool Mount::Stands() const { return m_nStatus < 0 && IsMountPoint(m_Folder); }

int Mount::WaitForEnd() {
  for (int step = 0; step < STEPS && m_nStatus < 0; ++step) {
    int status = 0;
    if (waitpid(m_nProcess, &status, WNOHANG) == m_nProcess) {
      m_nStatus = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    } else {
      Step();
    }
  }
  return m_nStatus;
}

int Mount::Kill(int signal) {
  if (m_nStatus < 0) kill(m_nProcess, signal);
  return WaitForEnd();
}

int Mount::Unmount() {
  PROCESS_RESULT result = RunProcess({"fusermount3", "-u", m_Folder});
  // Others look at what is mounted on the machine, and keep it busy for a moment.
  for (int step = 0; step < STEPS && result.Output.find("busy") != std::string::npos; ++step) {
    Step();
    result = RunProcess({"fusermount3", "-u", m_Folder});
  }
  EXPECT_TRUE(result.Ok()) << result.Output;
  return result.Ok() ? WaitForEnd() : -1;
}

std::string Mount::Printed() const { return ReadFile(m_Directory / "output"); }

// ---------------------------------------------------------------------------------------------- images

std::string FsckFindings(const std::string& image) {
  const PROCESS_RESULT result = RunProcess({"fsck.fat", "-n", image});
  std::string findings;
  for (std::size_t at = 0; at < result.Output.size();) {
    const std::size_t end = std::min(result.Output.find('\n', at), result.Output.size());
    const std::string line = result.Output.substr(at, end - at);
    const bool usual = line.rfind("fsck.fat ", 0) == 0 || line.find(" files, ") != std::string::npos;
    if (!usual) findings += line + "\n";
    at = end + 1;
  }
  return result.Ok() || !findings.empty() ? findings : "exit status " + std::to_string(result.ExitCode);
}

void MakeVolume(const std::string& image, unsigned int kibibytes, const std::vector<std::string>& arguments) {
  std::vector<std::string> command{"mkfs.fat", "-C", image, std::to_string(kibibytes)};
  command.insert(command.begin() + 1, arguments.begin(), arguments.end());
  (void)RunOrThrow(command);
}

std::string OnImage(const std::string& image, const std::string& path) {
  return RunOrThrow({"mtype", "-i", image, "::" + path});
}

// ---------------------------------------------------------------------------------------------- system calls

int ErrnoOf(long result) { return result == -1 ? errno : 0; }

void WriteFile(const std::string& path, const std::string& bytes) {
  const Descriptor file(path, O_WRONLY | O_CREAT | O_TRUNC);
  EXPECT_TRUE(file.Write(0, bytes)) << path;
}

std::string ReadFile(const std::string& path) {
  const Descriptor file(path, O_RDONLY);
  return file.Read(0, static_cast<std::size_t>(file.Stat().st_size));
}

std::vector<std::string> ListOf(const std::string& folder) {
  std::vector<std::string> names;
  DIR* const directory = opendir(folder.c_str());
  EXPECT_NE(nullptr, directory) << folder;
  if (directory == nullptr) return names;
  while (const dirent* entry = readdir(directory)) names.emplace_back(entry->d_name);
  closedir(directory);
  std::sort(names.begin(), names.end());
  return names;
}

struct stat StatOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(0, stat(path.c_str(), &status)) << path;
  return status;
}

bool Exists(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0;
}

Descriptor::Descriptor(const std::string& path, int flags)
    : m_nDescriptor(open(path.c_str(), flags | O_CLOEXEC, 0666)) {
  EXPECT_GE(m_nDescriptor, 0) << path << ": errno " << errno;
}

Descriptor::~Descriptor() { close(m_nDescriptor); }

std::string Descriptor::Read(off_t offset, std::size_t size) const {
  std::string bytes(size, 0);
  std::size_t done = 0;
  while (done < size) {
    const ssize_t got = pread(m_nDescriptor, bytes.data() + done, size - done, offset + static_cast<off_t>(done));
    if (got <= 0) break;
    done += static_cast<std::size_t>(got);
  }
  bytes.resize(done);
  return bytes;
}

bool Descriptor::Write(off_t offset, const std::string& bytes) const {
  return pwrite(m_nDescriptor, bytes.data(), bytes.size(), offset) == static_cast<ssize_t>(bytes.size());
}

struct stat Descriptor::Stat() const {
  struct stat status {};
  EXPECT_EQ(0, fstat(m_nDescriptor, &status));
  return status;
}

Mapping::Mapping(const Descriptor& file, std::size_t size)
    : m_pBytes(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file.Get(), 0)), m_nSize(size) {
  if (m_pBytes == MAP_FAILED) throw std::runtime_error("the file cannot be mapped");
}

Mapping::~Mapping() { munmap(m_pBytes, m_nSize); }

bool Mapping::Flush() const { return msync(m_pBytes, m_nSize, MS_SYNC) == 0; }

// ---------------------------------------------------------------------------------------------- fixtures

std::string NameOfType(const testing::TestParamInfo<int>& info) { return "Fat" + std::to_string(info.param); }

Volume::Volume(std::vector<std::string> options)
    : m_Store(MakeTypedVolume(m_Image, m_Folder, GetParam())),
      m_pMount(std::make_unique<Mount>(m_Image, m_Folder, options)) {
  EXPECT_TRUE(m_pMount->Stands()) << m_pMount->Printed();
}

CVolumeReader Volume::Unmounted() {
  if (m_pMount != nullptr) {
    EXPECT_EQ(0, m_pMount->Unmount()) << m_pMount->Printed();
  }
  m_pMount.reset();
  return CVolumeReader(m_Store);
}

void Volume::TearDown() {
  const CVolumeReader reader = Unmounted();
  EXPECT_EQ("", reader.ProblemText());
  EXPECT_TRUE(reader.FatCopiesEqual());
  EXPECT_TRUE(reader.LostClusters().empty());
  EXPECT_EQ("", FsckFindings(m_Image));
}

Images::Images() { mkdir(m_Folder.c_str(), 0755); }

}  // namespace fatmount_test
