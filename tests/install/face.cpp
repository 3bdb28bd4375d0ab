/// @file face.cpp
/// A host on the C++ face, built against the installed library: formats an image, puts a file into it, mounts it anew
/// and reads everything back, and asks for what is not there.
///   face IMAGE

#include <fatlib/Device.h>
#include <fatlib/Error.h>
#include <fatlib/Format.h>
#include <fatlib/Volume.h>

#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using fatlib::ImageFile;

std::error_code Fill(const char* image) {
  std::unique_ptr<ImageFile> device;
  if (const std::error_code error = ImageFile::Create(image, 16u << 20, &device)) return error;
  if (const std::error_code error = fatlib::Format(device.get(), {})) return error;
  fatlib::Volume volume;
  if (const std::error_code error = volume.Open(std::move(device))) return error;
  if (const std::error_code error = volume.CreateDirectories("Über/Ordner")) return error;
  const std::string text = "hello, host\n";
  if (const std::error_code error = volume.WriteAll("Über/Ordner/Grüße.text", text.data(), text.size())) return error;
  return volume.Close();
}

std::error_code Show(const char* image) {
  ImageFile::Options readOnly;
  readOnly.access = fatlib::Access::ReadOnly;
  std::unique_ptr<ImageFile> device;
  if (const std::error_code error = ImageFile::Open(image, readOnly, &device)) return error;
  fatlib::Volume volume;
  if (const std::error_code error = volume.Open(std::move(device))) return error;
  fatlib::Directory root;
  if (const std::error_code error = volume.List("/", &root)) return error;
  for (const fatlib::Entry& entry : root) std::printf("%s\n", entry.Utf8Name().c_str());
  std::vector<unsigned char> bytes;
  if (const std::error_code error = volume.ReadAll("über/ordner/grüße.TEXT", &bytes)) return error;
  std::printf("%.*s", static_cast<int>(bytes.size()), reinterpret_cast<const char*>(bytes.data()));
  fatlib::Entry entry;
  const std::error_code missing = volume.Stat("nothing", &entry);
  std::printf("%s\n", missing == std::errc::no_such_file_or_directory ? "not found, as it should be" : "FOUND");
  return volume.Close();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  std::error_code error = Fill(argv[1]);
  if (!error) error = Show(argv[1]);
  if (error) std::printf("FAILED: %s\n", error.message().c_str());
  return error ? 1 : 0;
}
