/// @file HostTree.cpp

#include "HostTree.h"

#include <dirent.h>
#include <fatlib/Text.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "HostFile.h"

namespace fatimg {

namespace {

/// The names in a directory, sorted by their bytes, without "." and "..".
std::error_code ReadNames(const std::string& path, std::vector<std::string>* names) {
  DIR* directory = opendir(path.c_str());
  if (directory == nullptr) return LastError();
  errno = 0;
  while (const dirent* entry = readdir(directory)) {
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
      names->emplace_back(entry->d_name);
    errno = 0;
  }
  const std::error_code error = errno != 0 ? LastError() : std::error_code();
  closedir(directory);
  std::sort(names->begin(), names->end());
  return error;
}

std::string Joined(const std::string& directory, const std::string& name) {
  if (directory.empty()) return name;
  return directory.back() == '/' ? directory + name : directory + '/' + name;
}

class Scanner {
 public:
  Scanner(const HostTreeOptions& options, std::vector<CopyItem>* items, std::vector<FailedItem>* failures)
      : m_Options(options), m_pItems(items), m_pFailures(failures) {}

  /// @param fromTop  empty for the top itself
  void Visit(const std::string& path, const std::string& fromTop, const fatlib::Path& relative) {
    struct stat status {};
    if (!m_Options.followLinks && !fromTop.empty() && lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
      return Fail(path, "is a symbolic link");
    }
    if (stat(path.c_str(), &status) != 0) return Fail(path, LastError());
    if (relative.Components().size() > MAX_DEPTH) return Fail(path, fatlib::Status::NameTooLong);
    CopyItem item;
    item.place = path;
    item.relative = relative;
    item.directory = S_ISDIR(status.st_mode);
    item.modified = status.st_mtim;
    if (item.directory) return VisitDirectory(item, fromTop, {status.st_dev, status.st_ino});
    if (!S_ISREG(status.st_mode)) return Fail(path, "is neither a file nor a directory");
    if (IsImage(status)) return Fail(path, "is the image itself");
    item.size = static_cast<std::uint64_t>(status.st_size);
    m_pItems->push_back(std::move(item));
  }

 private:
  using Identity = std::pair<dev_t, ino_t>;
  static constexpr std::size_t MAX_DEPTH = (fatlib::Path::MAX_PATH_UNITS + 1) / 2;  // each takes a unit and a separator

  bool IsImage(const struct stat& status) const {
    struct stat image {};
    return !m_Options.image.empty() && stat(m_Options.image.c_str(), &image) == 0 && image.st_dev == status.st_dev &&
           image.st_ino == status.st_ino;
  }

  void VisitDirectory(const CopyItem& item, const std::string& fromTop, const Identity& identity) {
    if (!m_Options.recursive) {
      m_pFailures->push_back({item.place, make_error_code(fatlib::Status::IsADirectory), NEEDS_RECURSION});
      return;
    }
    if (std::find(m_Parents.begin(), m_Parents.end(), identity) != m_Parents.end()) {
      return Fail(item.place, "is a link to a directory that it lies in");
    }
    std::vector<std::string> names;
    const std::error_code error = ReadNames(item.place, &names);
    if (error) Fail(item.place, error);
    m_pItems->push_back(item);
    m_Parents.push_back(identity);
    for (const std::string& name : names) {
      const std::string place = Joined(item.place, name);
      const std::string below = Joined(fromTop, name);
      if (m_Options.excluded && m_Options.excluded(below)) continue;
      std::u16string units;
      if (!fatlib::FromUtf8(name, &units)) {
        Fail(place, "the name is not UTF-8");
      } else {
        Visit(place, below, item.relative / units);
      }
    }
    m_Parents.pop_back();
  }

  void Fail(const std::string& place, std::error_code error) { m_pFailures->push_back({place, error, {}}); }
  void Fail(const std::string& place, fatlib::Status status) { Fail(place, make_error_code(status)); }
  void Fail(const std::string& place, const char* reason) {
    m_pFailures->push_back({place, make_error_code(fatlib::Status::Refused), reason});
  }

  const HostTreeOptions& m_Options;
  std::vector<CopyItem>* m_pItems;
  std::vector<FailedItem>* m_pFailures;
  std::vector<Identity> m_Parents;
};

}  // namespace

void ScanHost(const std::string& path, const fatlib::Path& relative, const HostTreeOptions& options,
              std::vector<CopyItem>* items, std::vector<FailedItem>* failures) {
  Scanner(options, items, failures).Visit(path, {}, relative);
}

std::error_code HostSource::Open(const CopyItem& item, std::unique_ptr<ByteSource>* bytes) {
  // O_NONBLOCK: what was a file when the tree was walked may be a pipe by now.
  const int descriptor = open(item.place.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) return LastError();
  struct stat status {};
  if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
    close(descriptor);
    return make_error_code(fatlib::Status::Refused);
  }
  *bytes = MakeDescriptorSource(descriptor);
  return {};
}

}  // namespace fatimg
