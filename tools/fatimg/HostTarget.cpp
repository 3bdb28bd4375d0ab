/// @file HostTarget.cpp

#include "HostTarget.h"

#include <fatlib/Error.h>
#include <fatlib/Text.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <limits>

#include "HostFile.h"

namespace fatimg {

namespace {

/// A file of the host that is being written, under its own name or another. Taken away unless it was finished.
class NewFile {
 public:
  explicit NewFile(std::string path) : m_Path(std::move(path)) {}
  ~NewFile() {
    if (m_hFile >= 0) close(m_hFile);
    if (m_bOurs) unlink(m_Path.c_str());
  }
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  std::error_code Create() {
    m_hFile = open(m_Path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    m_bOurs = m_hFile >= 0;
    return m_bOurs ? std::error_code() : LastError();
  }
  /// Next to the path, under a name that is free, with the permissions of what is there.
  std::error_code CreateBeside() {
    std::array<char, PATH_MAX> resolved{};
    if (realpath(m_Path.c_str(), resolved.data()) == nullptr) return LastError();
    m_Replaced = resolved.data();
    struct stat status {};
    if (stat(m_Replaced.c_str(), &status) != 0) return LastError();
    m_Path = m_Replaced.substr(0, m_Replaced.rfind('/') + 1) + ".fatimg-XXXXXX";
    m_hFile = mkostemp(m_Path.data(), O_CLOEXEC);
    m_bOurs = m_hFile >= 0;
    if (!m_bOurs || fchmod(m_hFile, status.st_mode & 07777) != 0) return LastError();
    return {};
  }
  /// A device or pipe.
  std::error_code Open() {
    m_hFile = open(m_Path.c_str(), O_WRONLY | O_CLOEXEC);
    return m_hFile >= 0 ? std::error_code() : LastError();
  }
  int Descriptor() const { return m_hFile; }
  std::error_code Finish() {
    const int status = close(m_hFile);
    m_hFile = -1;
    if (status != 0) return LastError();
    if (!m_Replaced.empty() && rename(m_Path.c_str(), m_Replaced.c_str()) != 0) return LastError();
    m_bOurs = false;
    return {};
  }

 private:
  std::string m_Path;
  std::string m_Replaced;
  int m_hFile = -1;
  bool m_bOurs = false;
};

bool IsSpecial(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode);
}

/// The file system of the nearest directory that exists.
bool FileSystemOf(std::string path, struct statvfs* system) {
  for (; !path.empty(); path.resize(path.find_last_of('/') == std::string::npos ? 0 : path.find_last_of('/'))) {
    if (statvfs(path.c_str(), system) == 0) return true;
  }
  return statvfs(".", system) == 0;
}

}  // namespace

std::string HostTarget::Shown(const fatlib::Path& relative) const {
  if (relative.IsRoot()) return m_Base;
  return (!m_Base.empty() && m_Base.back() == '/' ? m_Base.substr(0, m_Base.size() - 1) : m_Base) + relative.ToUtf8();
}

std::error_code HostTarget::CheckPath(const fatlib::Path& relative) const {
  for (const std::u16string& name : relative.Components()) {
    const std::string utf8 = fatlib::ToUtf8(name);
    if (utf8.empty() || utf8 == "." || utf8 == ".." || utf8.find('/') != std::string::npos ||
        utf8.find('\0') != std::string::npos) {
      return fatlib::Status::InvalidName;
    }
    if (utf8.size() > NAME_MAX) return fatlib::Status::NameTooLong;
  }
  return {};
}

std::uint64_t HostTarget::MaxFileBytes() const { return std::numeric_limits<std::uint64_t>::max(); }

std::error_code HostTarget::Look(const fatlib::Path& relative, bool* exists, Existing* existing) {
  struct stat status {};
  *exists = stat(Shown(relative).c_str(), &status) == 0;
  if (!*exists) return errno == ENOENT ? std::error_code() : LastError();
  if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {  // written to, and in nobody's way
    *exists = false;
    return {};
  }
  existing->directory = S_ISDIR(status.st_mode);
  existing->size = static_cast<std::uint64_t>(status.st_size);
  return {};
}

std::uint32_t HostTarget::UnitBytes() const {
  struct statvfs system {};
  if (!FileSystemOf(m_Base, &system) || system.f_frsize == 0) return 1;
  return static_cast<std::uint32_t>(std::min<unsigned long>(system.f_frsize, std::numeric_limits<std::int32_t>::max()));
}

std::error_code HostTarget::FreeUnits(std::uint64_t* units) {
  struct statvfs system {};
  if (!FileSystemOf(m_Base, &system)) return LastError();
  *units = system.f_bavail;
  return {};
}

std::error_code HostTarget::PlanEntry(const fatlib::Path&, bool directory, std::uint64_t* units) {
  *units = directory ? 1 : 0;
  return {};
}

std::error_code HostTarget::MakeDirectory(const fatlib::Path& relative, std::uint8_t) {
  return mkdir(Shown(relative).c_str(), 0777) == 0 ? std::error_code() : LastError();
}

std::error_code HostTarget::WriteFile(const WriteOrder& order, ByteSource* bytes, const Advance& advance,
                                      std::uint64_t* written) {
  *written = 0;
  const std::string path = Shown(order.relative);
  NewFile file(path);
  const std::error_code opened = IsSpecial(path) ? file.Open() : order.replace ? file.CreateBeside() : file.Create();
  if (opened) return opened;
  const auto write = [&](std::uint64_t, const void* buffer, std::size_t size) {
    return WriteDescriptor(file.Descriptor(), buffer, size);
  };
  if (const std::error_code error = m_Pump.Run(bytes, order.size, write, advance, written)) return error;
  return file.Finish();
}

std::error_code HostTarget::SetTime(const fatlib::Path& relative, const std::timespec& modified) {
  const std::array<struct timespec, 2> times{{{0, UTIME_OMIT}, modified}};
  return utimensat(AT_FDCWD, Shown(relative).c_str(), times.data(), 0) == 0 ? std::error_code() : LastError();
}

}  // namespace fatimg
