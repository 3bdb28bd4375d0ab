/// @file fuzz_face.cpp
/// A whole image, worked on through the C++ face: checked, opened, listed and read, changed as the bytes behind the
/// image choose, closed, and checked once more. A volume without a defect must have none afterwards.

#include <algorithm>
#include <memory>
#include <string>

#include "Harness.h"
#include "host/Check.h"
#include "host/Volume.h"

namespace {

using fatlib::Access;
using fatlib::Path;
using fatlib::Status;

/// The image as a device. Far behind its end little can be read: a boot sector may claim a gigabyte where there is
/// nothing.
class CImageDevice final : public fatlib::Device {
 public:
  explicit CImageDevice(const SPARSE_IMAGE& image, std::shared_ptr<std::vector<unsigned char>> bytes)
      : m_Bytes(std::move(bytes)),
        m_nToFailure(image.FailTransfer),
        m_bForGood((image.Options & SPARSE_IMAGE::FAIL_FOR_GOOD) != 0) {}

  std::error_code Read(std::uint64_t position, void* buffer, std::size_t size) override {
    const std::size_t there = There(position, size);
    if (FailsNow() || size - there > m_nBeyondLeft) return Status::IoError;
    m_nBeyondLeft -= size - there;
    unsigned char* const out = static_cast<unsigned char*>(buffer);
    std::copy_n(m_Bytes->data() + (there != 0 ? position : 0), there, out);
    std::fill_n(out + there, size - there, static_cast<unsigned char>(0));
    return {};
  }
  std::error_code Write(std::uint64_t position, const void* buffer, std::size_t size) override {
    if (FailsNow() || There(position, size) != size) return Status::IoError;
    std::copy_n(static_cast<const unsigned char*>(buffer), size, m_Bytes->data() + position);
    return {};
  }
  std::error_code Flush() override { return FailsNow() ? Status::IoError : Status::Success; }
  std::uint64_t Size() const override { return m_Bytes->size(); }
  Access Mode() const override { return Access::ReadWrite; }

 private:
  static constexpr std::size_t MAX_BEYOND = std::size_t{8} << 20;

  std::size_t There(std::uint64_t position, std::size_t size) const {
    return position >= m_Bytes->size()
               ? 0
               : static_cast<std::size_t>(std::min<std::uint64_t>(size, m_Bytes->size() - position));
  }
  bool FailsNow() {
    if (m_nToFailure == 0) return false;
    if (m_nToFailure == 1) {
      if (!m_bForGood) m_nToFailure = 0;
      return true;
    }
    --m_nToFailure;
    return false;
  }

  std::shared_ptr<std::vector<unsigned char>> m_Bytes;
  std::size_t m_nBeyondLeft = MAX_BEYOND;
  std::uint32_t m_nToFailure;
  bool m_bForGood;
};

/// Lists and reads, and keeps the paths that were met.
class CLooker {
 public:
  explicit CLooker(fatlib::Volume* volume) : m_Volume(*volume) {}

  void Look(const Path& path, unsigned int depth) {
    fatlib::Directory directory;
    if (m_Volume.List(path, &directory)) return;
    for (const fatlib::Entry& entry : directory) {
      if (CTimedRun::IsLong() || m_Paths.size() == MAX_PATHS) return;
      const Path below = path / entry.name;
      fatlib::Entry again;
      (void)m_Volume.Stat(below, &again);
      m_Paths.push_back(below);
      if (!entry.IsDirectory()) {
        ReadEnds(below);
      } else if (depth != 0) {
        Look(below, depth - 1);
      }
    }
  }
  const std::vector<Path>& Paths() const { return m_Paths; }

 private:
  static constexpr std::size_t MAX_PATHS = 200;

  void ReadEnds(const Path& path) {
    fatlib::File file;
    if (m_Volume.OpenFile(path, Access::ReadOnly, &file)) return;
    CExactBuffer bytes(PIECE);
    std::size_t done;
    (void)file.Read(0, bytes.Get(), PIECE, &done);
    if (done > file.Size()) Finding("more bytes were read than the file has");
    if (file.Size() > PIECE) (void)file.Read(file.Size() - PIECE / 2, bytes.Get(), PIECE, &done);
  }
  static constexpr std::size_t PIECE = 5000;

  fatlib::Volume& m_Volume;
  std::vector<Path> m_Paths;
};

std::u16string NameOf(CInput* input) {
  static const std::u16string_view NAMES[] = {u"NEW.TXT",    u"new.txt",
                                              u"Readme.Txt", u"a longer name.text",
                                              u"F",          u"\u00E4\u00F6\u00FC",
                                              u"\xD83D.dat", u"another longer name, of three slots"};
  const std::uint32_t choice = input->U8();
  std::u16string name(NAMES[choice % std::size(NAMES)]);
  if (choice >= 128) name.insert(0, 1, static_cast<char16_t>(u'A' + choice % 26));
  return name;
}

void ChangeOnce(fatlib::Volume* volume, CInput* input, std::vector<Path>* paths) {
  const auto any = [&] { return (*paths)[input->U8() % paths->size()]; };
  const auto fresh = [&] { return (input->U8() % 2 == 0 ? Path() : any()) / NameOf(input); };
  const std::vector<unsigned char> bytes(input->U16(), 0x5A);
  switch (input->U8() % 9) {
    case 0: {
      const Path path = fresh();
      if (!volume->WriteAll(path, bytes.data(), bytes.size())) paths->push_back(path);
      break;
    }
    case 1: {
      const Path path = fresh();
      if (!volume->CreateDirectory(path)) paths->push_back(path);
      break;
    }
    case 2:
      (void)volume->Remove(any());
      break;
    case 3:
      (void)volume->RemoveAll(any());
      break;
    case 4: {
      const Path path = fresh();
      if (!volume->Rename(any(), path, input->U8() % 2 == 0)) paths->push_back(path);
      break;
    }
    case 5:
    case 6: {
      fatlib::File file;
      if (volume->OpenFile(any(), Access::ReadWrite, &file)) break;
      (void)file.Write(input->U16(), bytes.data(), bytes.size());
      (void)file.Resize(input->U16());
      break;
    }
    case 7:
      (void)volume->SetAttributes(any(), static_cast<std::uint8_t>(input->U8() & 0x27));
      break;
    default:
      (void)volume->Sync();
      break;
  }
}

/// @return whether it could be looked at, and is without a defect
bool IsInOrder(const SPARSE_IMAGE& image, const std::shared_ptr<std::vector<unsigned char>>& bytes, bool* checked) {
  CImageDevice device(image, bytes);
  fatlib::Medium medium;
  *checked = !medium.Open(&device);
  if (!*checked) return false;
  fatlib::CheckReport report;
  *checked = !fatlib::Check(&medium, &report);
  for (const fatlib::Defect& defect : report.defects) {
    if (fatlib::DefectText(defect).empty()) Finding("a defect without a text");
  }
  // The library keeps two copies of the FAT, and clears at most 256 KiB of a new directory.
  const fatlib::Geometry& layout = medium.Layout();
  return *checked && report.defects.empty() && layout.fats == 2 && layout.bytesPerCluster <= 256 * 1024;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  CInput input(data, size);
  SPARSE_IMAGE image = SPARSE_IMAGE::Parse(input);
  // Two checks and a walk, each of up to 65,536 names a directory, which the sanitizers make expensive.
  const CTimedRun run(5);
  const auto bytes = std::make_shared<std::vector<unsigned char>>(image.Size());
  image.Place([&bytes](std::uint32_t offset, const std::uint8_t* from, std::uint32_t count) {
    std::copy_n(from, count, bytes->data() + offset);
  });
  SPARSE_IMAGE whole = image;  // without failing transfers
  whole.FailTransfer = 0;
  bool checked;
  const bool inOrder = IsInOrder(whole, bytes, &checked);
  if (!checked) return 0;
  std::error_code closed;
  {
    fatlib::Volume volume;
    fatlib::VolumeOptions options;
    options.force = true;
    if (volume.Open(std::make_unique<CImageDevice>(image, bytes), options)) return 0;
    CLooker looker(&volume);
    looker.Look(Path(), 4);
    std::vector<Path> paths = looker.Paths();
    paths.emplace_back();
    for (unsigned int change = 0; change < 40 && !input.Empty() && !CTimedRun::IsLong(); ++change) {
      ChangeOnce(&volume, &input, &paths);
    }
    closed = volume.Close();
  }
  ExpectNoLibraryMemory();
  const bool stillInOrder = IsInOrder(whole, bytes, &checked);
  if (inOrder && image.FailTransfer == 0 && (closed || !stillInOrder)) {
    Finding("a volume in order is not in order any more");
  }
  return 0;
}
