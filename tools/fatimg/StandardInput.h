/// @file StandardInput.h
/// Standard input as the source of a copy. It is read to its end first, into a file that has no name, so that its size
/// is known before anything is written.

#ifndef FATIMG_STANDARDINPUT_H
#define FATIMG_STANDARDINPUT_H

#include "CopyItem.h"

namespace fatimg {

class StandardInput : public CopySource {
 public:
  StandardInput() = default;
  ~StandardInput() override;
  StandardInput(const StandardInput&) = delete;
  StandardInput& operator=(const StandardInput&) = delete;

  /// @param limit  more bytes than this are not read
  /// @param item   out: its size and place
  /// @return Cancelled when a signal came, see Interrupt; FileTooLarge for more than `limit` bytes
  [[nodiscard]] std::error_code Take(std::uint64_t limit, CopyItem* item);
  std::error_code Open(const CopyItem& item, std::unique_ptr<ByteSource>* bytes) override;

 private:
  int m_hFile = -1;
};

}  // namespace fatimg

#endif  // FATIMG_STANDARDINPUT_H
