/// @file HostFile.cpp

#include "HostFile.h"

#include <unistd.h>

#include <cerrno>

namespace fatimg {

namespace {

class DescriptorSource : public ByteSource {
 public:
  explicit DescriptorSource(int descriptor) : m_hFile(descriptor) {}
  ~DescriptorSource() override { close(m_hFile); }
  DescriptorSource(const DescriptorSource&) = delete;
  DescriptorSource& operator=(const DescriptorSource&) = delete;

  std::error_code Read(void* buffer, std::size_t size, std::size_t* done) override {
    auto* bytes = static_cast<unsigned char*>(buffer);
    for (*done = 0; *done < size;) {
      const ssize_t count = read(m_hFile, bytes + *done, size - *done);
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) return LastError();
      if (count == 0) break;
      *done += static_cast<std::size_t>(count);
    }
    return {};
  }

 private:
  int m_hFile;
};

}  // namespace

std::error_code LastError() { return std::error_code(errno, std::generic_category()); }

std::error_code WriteDescriptor(int descriptor, const void* buffer, std::size_t size) {
  const auto* bytes = static_cast<const unsigned char*>(buffer);
  while (size != 0) {
    const ssize_t count = write(descriptor, bytes, size);
    if (count < 0 && errno != EINTR) return LastError();
    if (count <= 0) continue;
    bytes += count;
    size -= static_cast<std::size_t>(count);
  }
  return {};
}

std::unique_ptr<ByteSource> MakeDescriptorSource(int descriptor) {
  return std::make_unique<DescriptorSource>(descriptor);
}

}  // namespace fatimg
