/// @file ZeroDevice.h
/// An image that is only imagined: zeros, which nothing can change.

#ifndef FATIMG_ZERODEVICE_H
#define FATIMG_ZERODEVICE_H

#include <fatlib/Device.h>
#include <fatlib/Error.h>

#include <cstring>

namespace fatimg {

class ZeroDevice : public fatlib::Device {
 public:
  explicit ZeroDevice(std::uint64_t bytes) : m_nBytes(bytes) {}

  std::error_code Read(std::uint64_t, void* buffer, std::size_t size) override {
    std::memset(buffer, 0, size);
    return {};
  }
  std::error_code Write(std::uint64_t, const void*, std::size_t) override { return fatlib::Status::WriteProtected; }
  std::error_code Flush() override { return {}; }
  std::uint64_t Size() const override { return m_nBytes; }
  fatlib::Access Mode() const override { return fatlib::Access::ReadOnly; }

 private:
  std::uint64_t m_nBytes;
};

}  // namespace fatimg

#endif  // FATIMG_ZERODEVICE_H
