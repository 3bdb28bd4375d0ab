/// @file ImageDevice.h
/// A device on a sparse image in memory, which counts its calls and fails where it is told.

#ifndef FATLIB_TESTS_HOST_IMAGEDEVICE_H
#define FATLIB_TESTS_HOST_IMAGEDEVICE_H

#include <fatlib/Device.h>
#include <fatlib/Error.h>

#include <utility>

#include "support/DiskImage.h"

class CImageDevice : public fatlib::Device {
 public:
  explicit CImageDevice(CDiskImage image) : m_Image(std::move(image)) {}
  explicit CImageDevice(std::uint64_t size) : m_Image(size) {}

  CDiskImage& Image() { return m_Image; }
  unsigned int Calls() const { return m_nCalls; }  ///< of Read, Write and Flush
  unsigned int Writes() const { return m_nWrites; }
  std::uint64_t BytesWritten() const { return m_nBytesWritten; }
  /// The call with this number, from 1, fails with IoError and does nothing. 0: none.
  void FailAt(unsigned int call) { m_nFailAt = call; }
  /// Reads and writes that touch these bytes fail with IoError.
  void FailBytes(std::uint64_t position, std::uint64_t size) {
    m_nBadPosition = position;
    m_nBadSize = size;
  }

  std::error_code Read(std::uint64_t position, void* buffer, std::size_t size) override {
    if (Fails(position, size)) return fatlib::Status::IoError;
    m_Image.Read(position, buffer, size);
    return {};
  }
  std::error_code Write(std::uint64_t position, const void* buffer, std::size_t size) override {
    if (Fails(position, size) || position > Size() || size > Size() - position) return fatlib::Status::IoError;
    ++m_nWrites;
    m_nBytesWritten += size;
    m_Image.Write(position, buffer, size);
    return {};
  }
  std::error_code Flush() override { return Fails(0, 0) ? fatlib::Status::IoError : std::error_code(); }
  std::uint64_t Size() const override { return m_Image.Size(); }
  fatlib::Access Mode() const override { return fatlib::Access::ReadWrite; }

 private:
  bool Fails(std::uint64_t position, std::size_t size) {
    const bool bad = position < m_nBadPosition + m_nBadSize && m_nBadPosition < position + size;
    return ++m_nCalls == m_nFailAt || bad;
  }

  CDiskImage m_Image;
  unsigned int m_nCalls = 0;
  unsigned int m_nWrites = 0;
  std::uint64_t m_nBytesWritten = 0;
  unsigned int m_nFailAt = 0;
  std::uint64_t m_nBadPosition = 0;
  std::uint64_t m_nBadSize = 0;
};

#endif  // FATLIB_TESTS_HOST_IMAGEDEVICE_H
