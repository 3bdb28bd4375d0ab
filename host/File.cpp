/// @file File.cpp
/// Open files, and whole files at once.

#include <algorithm>

#include "FileWork.h"
#include "NameWork.h"
#include "Narrow.h"

namespace fatlib {

namespace {

constexpr std::size_t PIECE = std::size_t{1024} * 1024;  // between two calls of a progress function

std::error_code Report(const Progress& progress, std::uint64_t done, std::uint64_t total) {
  return progress && !progress(done, total) ? Status::Cancelled : Status::Success;
}

}  // namespace

File::File(File&&) noexcept = default;
File::~File() { Close(); }

File& File::operator=(File&& other) noexcept {
  if (this != &other) {
    Close();
    m_pState = std::move(other.m_pState);
    m_pNode = std::move(other.m_pNode);
    m_bWritable = other.m_bWritable;
  }
  return *this;
}

void File::Close() {
  m_pNode.reset();  // the last one closes the library's handle
  m_pState.reset();
}

std::uint32_t File::Size() const {
  return m_pNode == nullptr || m_pNode->entry == nullptr ? 0 : m_pNode->entry->raw.size;
}

std::error_code File::Read(std::uint64_t offset, void* buffer, std::size_t size, std::size_t* done) {
  *done = 0;
  if (m_pNode == nullptr || m_pState->IsClosed()) return Status::Refused;
  m_pState->Begin();
  return ReadFile(m_pState.get(), m_pNode.get(), offset, buffer, size, done);
}

std::error_code File::Write(std::uint64_t offset, const void* buffer, std::size_t size) {
  if (m_pNode == nullptr || !m_bWritable || m_pState->IsClosed()) return Status::Refused;
  m_pState->Begin();
  return WriteFile(m_pState.get(), m_pNode.get(), offset, buffer, size);
}

std::error_code File::Resize(std::uint64_t size, Fill fill) {
  if (m_pNode == nullptr || !m_bWritable || m_pState->IsClosed()) return Status::Refused;
  m_pState->Begin();
  return ResizeFile(m_pState.get(), m_pNode.get(), size, fill);
}

std::error_code File::Flush() {
  if (m_pNode == nullptr || m_pState->IsClosed()) return Status::Refused;
  m_pState->Begin();
  return m_pState->Sync();
}

std::error_code Volume::ReadAll(const Path& path, std::vector<unsigned char>* bytes, const Progress& progress) {
  File file;
  if (const std::error_code error = OpenFile(path, Access::ReadOnly, &file)) return error;
  const std::size_t total = file.Size();
  bytes->clear();
  if (const std::error_code error = Report(progress, 0, total)) return error;
  while (bytes->size() < total) {
    const std::size_t before = bytes->size();
    const std::size_t piece = std::min(PIECE, total - before);
    std::size_t done;
    bytes->resize(before + piece);  // by pieces: a damaged entry may claim more than there is memory for
    const std::error_code error = file.Read(before, bytes->data() + before, piece, &done);
    bytes->resize(before + done);
    if (error) return error;
    if (const std::error_code stopped = Report(progress, bytes->size(), total)) return stopped;
  }
  return {};
}

std::error_code Volume::WriteAll(const Path& path, const void* bytes, std::size_t size, const Progress& progress) {
  if (m_pState == nullptr) return Status::Refused;
  if (const std::error_code error = m_pState->BeginChange()) return error;
  if (size > MaxFileBytes(*m_pState)) return Status::FileTooLarge;
  File file;
  std::error_code error = OpenFile(path, Access::ReadWrite, &file);
  const bool creates = error == Status::NotFound;
  if (creates) {
    error = CreateFile(path, static_cast<std::uint32_t>(size), File::Fill::Nothing, ARCHIVE, &file);
  } else if (!error) {
    error = file.Resize(size, File::Fill::Nothing);
  }
  if (!error) error = Report(progress, 0, size);
  const unsigned char* const data = static_cast<const unsigned char*>(bytes);
  for (std::size_t done = 0; !error && done < size;) {
    const std::size_t piece = std::min(PIECE, size - done);
    error = file.Write(done, data + done, piece);
    done += piece;
    if (!error) error = Report(progress, done, size);
  }
  if (error && creates && file.IsOpen()) {
    file.Close();
    (void)Remove(path);  // the first failure is the one to report
  }
  return error;
}

}  // namespace fatlib
