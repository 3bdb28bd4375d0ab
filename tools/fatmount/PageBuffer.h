/// @file PageBuffer.h
/// Memory that begins with a page: the kernel moves such bytes into its pages one for one, and others in two parts
/// each.

#ifndef FATMOUNT_PAGEBUFFER_H
#define FATMOUNT_PAGEBUFFER_H

#include <cstddef>
#include <memory>
#include <new>

namespace fatmount {

class PageBuffer {
 public:
  /// @param size  how many bytes are used. More than before: what they hold is lost
  /// @throw std::bad_alloc  what was there before is there still
  char* Get(std::size_t size) {
    if (size > m_nSize) {
      m_Bytes.reset(static_cast<char*>(::operator new(size, PAGE)));
      m_nSize = size;
    }
    return m_Bytes.get();
  }

 private:
  static constexpr std::align_val_t PAGE{4096};
  struct Delete {
    void operator()(char* bytes) const { ::operator delete(bytes, PAGE); }
  };

  std::unique_ptr<char, Delete> m_Bytes;
  std::size_t m_nSize = 0;
};

}  // namespace fatmount

#endif  // FATMOUNT_PAGEBUFFER_H
