/// @file StandardInput.cpp

#include "StandardInput.h"

#include <fatlib/Error.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "HostFile.h"
#include "Interrupt.h"

namespace fatimg {

namespace {

constexpr std::size_t PIECE_BYTES = 256u << 10;

int OpenNameless() {
  const char* directory = std::getenv("TMPDIR");
  std::string path = std::string(directory != nullptr && *directory != 0 ? directory : "/tmp") + "/fatimg-XXXXXX";
  const int descriptor = mkostemp(path.data(), O_CLOEXEC);
  if (descriptor >= 0) unlink(path.c_str());
  return descriptor;
}

}  // namespace

StandardInput::~StandardInput() {
  if (m_hFile >= 0) close(m_hFile);
}

std::error_code StandardInput::Take(std::uint64_t limit, CopyItem* item) {
  m_hFile = OpenNameless();
  if (m_hFile < 0) return LastError();
  item->place = "-";
  item->size = 0;
  std::timespec_get(&item->modified, TIME_UTC);
  std::vector<unsigned char> piece(PIECE_BYTES);
  for (;;) {
    const ssize_t count = read(STDIN_FILENO, piece.data(), piece.size());
    if (Interrupt::Signal() != 0) return fatlib::Status::Cancelled;
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return LastError();
    if (count == 0) return {};
    item->size += static_cast<std::uint64_t>(count);
    if (item->size > limit) return fatlib::Status::FileTooLarge;
    if (const std::error_code error = WriteDescriptor(m_hFile, piece.data(), static_cast<std::size_t>(count)))
      return error;
  }
}

std::error_code StandardInput::Open(const CopyItem&, std::unique_ptr<ByteSource>* bytes) {
  const int descriptor = fcntl(m_hFile, F_DUPFD_CLOEXEC, 0);
  if (descriptor < 0) return LastError();
  *bytes = MakeDescriptorSource(descriptor);
  return lseek(descriptor, 0, SEEK_SET) == 0 ? std::error_code() : LastError();
}

}  // namespace fatimg
