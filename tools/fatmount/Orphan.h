/// @file Orphan.h
/// The bytes of a file that was removed while programs have it open: nothing of them stays on the volume. They lie in
/// memory, or when they are many in a temporary file without a name, so that nothing is left of them whatever happens.

#ifndef FATMOUNT_ORPHAN_H
#define FATMOUNT_ORPHAN_H

#include <fatlib/Volume.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <system_error>

namespace fatmount {

class Orphan {
 public:
  /// Copies a file.
  /// @param entry   what is known of it
  /// @param orphan  out: unchanged on failure
  [[nodiscard]] static std::error_code Copy(fatlib::File* file, const fatlib::Entry& entry,
                                            std::unique_ptr<Orphan>* orphan);
  ~Orphan();
  Orphan(const Orphan&) = delete;
  Orphan& operator=(const Orphan&) = delete;

  std::uint64_t Size() const;
  [[nodiscard]] std::error_code Read(std::uint64_t offset, void* buffer, std::size_t size, std::size_t* done) const;
  [[nodiscard]] std::error_code Write(std::uint64_t offset, const void* buffer, std::size_t size) const;
  [[nodiscard]] std::error_code Resize(std::uint64_t size) const;
  /// What was known of the file when it was removed, and is changed since; the size is not kept up.
  fatlib::Entry& Known() { return m_Entry; }

 private:
  Orphan(int descriptor, const fatlib::Entry& entry) : m_hFile(descriptor), m_Entry(entry) {}

  int m_hFile;
  fatlib::Entry m_Entry;
};

}  // namespace fatmount

#endif  // FATMOUNT_ORPHAN_H
