// Steps on the bytes of open files.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Exerciser.h"

namespace exercise {
namespace {

constexpr std::size_t LONGEST_TRANSFER = 256u << 10;
constexpr std::size_t LONGEST_GAP = 200000;

std::string At(std::size_t offset, std::size_t count) {
  return "[" + std::to_string(offset) + ", " + std::to_string(offset + count) + ")";
}

std::string Called(const Node& node) { return (node.parent ? "" : "removed ") + Model::PathOf(node); }

// A part of a file in memory; what lies in front of it in its page comes along.
class Mapping {
 public:
  Mapping(int fd, std::size_t offset, std::size_t count, int protection)
      : m_nSkip(offset % static_cast<std::size_t>(sysconf(_SC_PAGESIZE))),
        m_nSize(m_nSkip + count),
        m_pStart(mmap(nullptr, m_nSize, protection, MAP_SHARED, fd, static_cast<off_t>(offset - m_nSkip))) {}
  ~Mapping() {
    if (IsThere()) munmap(m_pStart, m_nSize);
  }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;

  bool IsThere() const { return m_pStart != MAP_FAILED; }
  unsigned char* Bytes() const { return static_cast<unsigned char*>(m_pStart) + m_nSkip; }
  int Synchronise(int flags) const { return msync(m_pStart, m_nSize, flags); }

 private:
  std::size_t m_nSkip;
  std::size_t m_nSize;
  void* m_pStart;
};

}  // namespace

Exerciser::OpenFile* Exerciser::Some(bool (*fits)(const OpenFile&)) {
  std::vector<OpenFile*> fitting;
  for (OpenFile& open : m_Open) {
    if (fits(open)) fitting.push_back(&open);
  }
  return fitting.empty() ? nullptr : m_Random.Of(fitting);
}

// The bytes reach the model; a gap in front of them is zeros.
void Exerciser::Extend(Node& node, std::size_t offset, const std::vector<unsigned char>& bytes) {
  node.bytes.resize(std::max(node.bytes.size(), offset + bytes.size()));
  std::copy(bytes.begin(), bytes.end(), node.bytes.begin() + static_cast<std::ptrdiff_t>(offset));
}

void Exerciser::CompareBytes(const Node& node, std::size_t offset, const unsigned char* found, std::size_t count) {
  const unsigned char* expected = node.bytes.data() + offset;
  if (count == 0 || std::memcmp(expected, found, count) == 0) return;
  const auto at = static_cast<std::size_t>(std::mismatch(expected, expected + count, found).first - expected);
  std::size_t wrong = 0;
  for (std::size_t i = at; i < count; ++i) wrong += expected[i] != found[i];
  Fail(Called(node) + " of " + std::to_string(node.bytes.size()) + " bytes: the first that differs is " +
       std::to_string(offset + at) + ", " + std::to_string(found[at]) + " instead of " + std::to_string(expected[at]) +
       "; of " + At(offset, count) + " " + std::to_string(wrong) + " differ");
}

void Exerciser::Write() {
  OpenFile* open = Some([](const OpenFile& file) { return file.writable; });
  if (!open) return Create();
  Node& node = *open->node;
  const std::size_t size = node.bytes.size();
  std::size_t offset = size;
  if (!open->append && m_Random.Percent(60)) {
    offset = m_Random.Below(size + 1);
  } else if (!open->append && m_Random.Percent(40)) {
    offset = size + m_Random.Below(std::min(LONGEST_GAP, RoomForBytes() + 1));
  }
  const std::size_t limit = std::min(LONGEST_TRANSFER, size + RoomForBytes() - offset);
  std::vector<unsigned char> bytes = m_Random.Bytes(SomeSize(limit));
  if (bytes.empty()) return;
  const std::string what = (open->append ? "append " : "write ") + At(offset, bytes.size()) + " to " + Called(node);
  Note(what + ", fd " + std::to_string(open->fd));
  const std::time_t before = std::time(nullptr);
  const ssize_t done = open->append ? write(open->fd, bytes.data(), bytes.size())
                                    : pwrite(open->fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
  if (!Done(done, what)) return CheckBytes(node, open->fd);
  if (static_cast<std::size_t>(done) != bytes.size()) {
    if (!m_Settings.full) Fail(what + ": only " + std::to_string(done) + " bytes were written");
    ++m_nRefusals;
    Note("  room for " + std::to_string(done) + " bytes");
    bytes.resize(static_cast<std::size_t>(done));
  }
  Extend(node, offset, bytes);
  Changed(node, before);
}

void Exerciser::Read() {
  OpenFile* open = Some([](const OpenFile& file) { return file.readable; });
  if (!open) return Open();
  const Node& node = *open->node;
  const std::size_t offset = m_Random.Below(node.bytes.size() + 100);
  std::vector<unsigned char> found(SomeSize(LONGEST_TRANSFER));
  const std::string what = "read " + At(offset, found.size()) + " of " + Called(node);
  Note(what);
  const ssize_t done = pread(open->fd, found.data(), found.size(), static_cast<off_t>(offset));
  if (done < 0) Fail(what + ": " + std::strerror(errno));
  const std::size_t expected = offset < node.bytes.size() ? std::min(found.size(), node.bytes.size() - offset) : 0;
  if (static_cast<std::size_t>(done) != expected) {
    Fail(what + " gave " + std::to_string(done) + " bytes of " + std::to_string(expected));
  }
  CompareBytes(node, std::min(offset, node.bytes.size()), found.data(), expected);
}

// A page in a hole of a file needs room, and without room that is a signal instead of a failure.
bool Exerciser::CanMap() const { return !m_Settings.ordinary || !m_Settings.full; }

void Exerciser::MapWrite() {
  OpenFile* open =
      Some([](const OpenFile& file) { return file.writable && file.readable && !file.node->bytes.empty(); });
  if (!open || !CanMap()) return;
  Node& node = *open->node;
  const std::size_t offset = m_Random.Below(node.bytes.size());
  const std::vector<unsigned char> bytes =
      m_Random.Bytes(1 + SomeSize(std::min(LONGEST_TRANSFER, node.bytes.size() - offset - 1)));
  const bool flushed = m_Random.Percent(60);
  const std::string what = "write " + At(offset, bytes.size()) + " through memory to " + Called(node);
  Note(what + (flushed ? ", and msync" : ""));
  const Mapping mapping(open->fd, offset, bytes.size(), PROT_READ | PROT_WRITE);
  if (!mapping.IsThere()) Fail(what + ": mmap: " + std::strerror(errno));
  CompareBytes(node, offset, mapping.Bytes(), bytes.size());
  std::memcpy(mapping.Bytes(), bytes.data(), bytes.size());
  Extend(node, offset, bytes);
  node.mapped = true;  // also when it is flushed now: what was written elsewhere in the file may still be on its way
  node.changed.known = false;
  if (mapping.Synchronise(flushed ? MS_SYNC : MS_ASYNC) != 0) Fail(what + ": msync: " + std::strerror(errno));
}

void Exerciser::MapRead() {
  OpenFile* open = Some([](const OpenFile& file) { return file.readable && !file.node->bytes.empty(); });
  if (!open || !CanMap()) return;
  const Node& node = *open->node;
  const std::size_t offset = m_Random.Below(node.bytes.size());
  const std::size_t count = 1 + SomeSize(std::min(LONGEST_TRANSFER, node.bytes.size() - offset - 1));
  const std::string what = "read " + At(offset, count) + " through memory of " + Called(node);
  Note(what);
  const Mapping mapping(open->fd, offset, count, PROT_READ);
  if (!mapping.IsThere()) Fail(what + ": mmap: " + std::strerror(errno));
  CompareBytes(node, offset, mapping.Bytes(), count);
}

void Exerciser::Truncate() {
  OpenFile* open = Some([](const OpenFile& file) { return file.writable; });
  if (!open) return;
  Node& node = *open->node;
  const std::size_t old = node.bytes.size();
  // Where room is to run out, files must grow.
  const unsigned shorter = m_Settings.full ? 15 : 50;
  const std::size_t size = m_Random.Percent(shorter) ? m_Random.Below(old + 1) : SomeSize(old + RoomForBytes());
  const bool byPath = node.parent && m_Random.Percent(30);
  const std::string what = (byPath ? "truncate " : "ftruncate ") + Called(node) + " from " + std::to_string(old) +
                           " to " + std::to_string(size);
  Note(what);
  const std::time_t before = std::time(nullptr);
  const int result = byPath ? truncate(HostPath(node).c_str(), static_cast<off_t>(size))
                            : ftruncate(open->fd, static_cast<off_t>(size));
  if (!Done(result, what)) return CheckBytes(node, open->fd);
  node.bytes.resize(size);
  Changed(node, before);
  if (size == old) node.changed.known = false;  // it may count as a change or not
  struct stat found {};
  if (fstat(open->fd, &found) != 0) Fail(what + ": fstat: " + std::strerror(errno));
  CheckStat(node, found);
}

void Exerciser::Allocate() {
  OpenFile* open = Some([](const OpenFile& file) { return file.writable; });
  const std::size_t room = RoomForBytes();
  if (!open || room == 0) return;
  Node& node = *open->node;
  const std::size_t old = node.bytes.size();
  const std::size_t offset = m_Random.Below(old + 1);
  const std::size_t count = 1 + SomeSize(old - offset + room - 1);
  const bool keepSize = m_Random.Percent(30);
  const std::string what =
      std::string("allocate ") + (keepSize ? "beyond the size " : "") + At(offset, count) + " of " + Called(node);
  Note(what);
  const std::time_t before = std::time(nullptr);
  const int result =
      fallocate(open->fd, keepSize ? FALLOC_FL_KEEP_SIZE : 0, static_cast<off_t>(offset), static_cast<off_t>(count));
  const bool offered = result == 0 || errno != EOPNOTSUPP;
  if (offered && Done(result, what)) {
    if (!keepSize) node.bytes.resize(std::max(old, offset + count));
    Changed(node, before);
    node.changed.known = false;  // it may count as a change or not
  }
  CheckBytes(node, open->fd);
}

void Exerciser::CopyRange() {
  const OpenFile* from = Some([](const OpenFile& file) { return file.readable && !file.node->bytes.empty(); });
  const OpenFile* to = Some([](const OpenFile& file) { return file.writable && !file.append; });
  if (!from || !to || from->node == to->node) return;
  const Node& source = *from->node;
  Node& node = *to->node;
  const std::size_t start = m_Random.Below(source.bytes.size());
  const std::size_t offset = m_Random.Below(node.bytes.size() + 1);
  const std::size_t count = std::min({SomeSize(LONGEST_TRANSFER), source.bytes.size() - start, RoomForBytes()});
  if (count == 0) return;
  const std::string what =
      "copy " + At(start, count) + " of " + Called(source) + " to " + std::to_string(offset) + " in " + Called(node);
  Note(what);
  const std::time_t before = std::time(nullptr);
  auto in = static_cast<off_t>(start);
  auto out = static_cast<off_t>(offset);
  const ssize_t done = copy_file_range(from->fd, &in, to->fd, &out, count, 0);
  if (!Done(done, what)) return CheckBytes(node, to->fd);
  const auto first = source.bytes.begin() + static_cast<std::ptrdiff_t>(start);
  Extend(node, offset, std::vector<unsigned char>(first, first + done));  // it may be less than was asked for
  Changed(node, before);
}

void Exerciser::Synchronise() {
  OpenFile* open = Some([](const OpenFile&) { return true; });
  if (!open) return;
  Node& node = *open->node;
  switch (m_Random.Below(3)) {
    case 0:
      Note("fsync " + Called(node));
      if (fsync(open->fd) != 0) Fail("fsync " + Called(node) + ": " + std::strerror(errno));
      break;
    case 1:
      Note("fdatasync " + Called(node));
      if (fdatasync(open->fd) != 0) Fail("fdatasync " + Called(node) + ": " + std::strerror(errno));
      break;
    default:
      Note("syncfs, through " + Called(node));
      if (syncfs(open->fd) != 0) Fail("syncfs through " + Called(node) + ": " + std::strerror(errno));
      break;
  }
  node.mapped = false;
}

void Exerciser::SetTimes() {
  OpenFile* open = Some([](const OpenFile&) { return true; });
  if (!open) return;
  Node& node = *open->node;
  // From 1981 to 2099, far enough from the ends of what FAT can hold for every time zone.
  const auto seconds = static_cast<std::time_t>(347155200 + m_Random.Below(3755289600u));
  const bool now = m_Random.Percent(20);
  const bool byPath = node.parent && m_Random.Percent(50);
  const timespec times[2] = {{0, UTIME_OMIT}, {seconds, now ? UTIME_NOW : 0}};
  const std::string what = "set the time of " + Called(node) + " to " + (now ? "now" : std::to_string(seconds));
  Note(what);
  const std::time_t before = std::time(nullptr);
  const int result = byPath ? utimensat(AT_FDCWD, HostPath(node).c_str(), times, 0) : futimens(open->fd, times);
  if (result != 0) Fail(what + ": " + std::strerror(errno));
  Changed(node, before);
  if (!now) node.changed = {seconds - 1, seconds, !node.mapped};
  struct stat found {};
  if (fstat(open->fd, &found) != 0) Fail(what + ": fstat: " + std::strerror(errno));
  CheckStat(node, found);
}

void Exerciser::CheckOpenFile() {
  OpenFile* open = Some([](const OpenFile& file) { return file.readable; });
  if (!open) return;
  Note("read all of " + Called(*open->node));
  CheckBytes(*open->node, open->fd);
}

}  // namespace exercise
