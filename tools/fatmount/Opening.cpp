/// @file Opening.cpp

#include "Opening.h"

#include <fatlib/Check.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "Exit.h"
#include "Session.h"

namespace fatmount {

namespace {

using fatimg::Failure;
using fatlib::Access;
using fatlib::Defect;
using fatlib::Device;

constexpr std::size_t SHOWN_DEFECTS = 5;

/// Whether changes of the volume cannot make it worse.
bool IsHarmless(Defect::Kind kind) {
  switch (kind) {
    case Defect::FatCopiesDiffer:  // the second is written anew with the first change
    case Defect::NotCleanlyUnmounted:
    case Defect::FsInfoInvalid:
    case Defect::FsInfoWrongCount:
    case Defect::BootSectorsDiffer:
    case Defect::LostChain:
    case Defect::ChainBeyondSize:
    case Defect::OrphanLongName:  // what a cut leaves of a name in two sectors
    case Defect::BadLongName:
    case Defect::BadStamp:
    case Defect::LabelsDiffer:
    case Defect::SecondLabel:
    case Defect::LabelNotInRoot:
      return true;
    default:
      return false;
  }
}

/// @return whether the volume may be changed
bool IsSound(const std::string& name, fatlib::Medium* medium, const Message& message) {
  fatlib::CheckReport report;
  const std::error_code error = Check(medium, &report);
  if (error) {
    message(name + ": it cannot be checked: " + error.message());
    return false;
  }
  bool harmless = report.moreDefects == 0;
  for (const Defect& defect : report.defects) harmless = harmless && IsHarmless(defect.kind);
  std::size_t shown = 0;
  for (const Defect& defect : report.defects) {
    if (!harmless && IsHarmless(defect.kind)) continue;
    if (shown++ == SHOWN_DEFECTS) break;
    message(name + ": " + DefectText(defect));
  }
  const std::uint64_t more = report.defects.size() + report.moreDefects - std::min(shown, SHOWN_DEFECTS);
  if (shown > SHOWN_DEFECTS) message(name + ": and " + std::to_string(more) + " more findings");
  if (!harmless) message(name + ": the volume is damaged: it is mounted for reading only");
  return harmless;
}

/// Puts the order of writes between the volume and the image. @return null when it cannot be
std::unique_ptr<Device> Ordered(const std::string& name, std::unique_ptr<Device> image, const Message& message,
                                const fatlib::OrderedDevice** held) {
  std::unique_ptr<fatlib::OrderedDevice> ordered;
  const std::error_code error = fatlib::OrderedDevice::Open(std::move(image), &ordered);
  if (error) {
    message(name + ": " + error.message() + ": it is mounted for reading only");
    return nullptr;
  }
  *held = ordered.get();
  return ordered;
}

/// @return null when the volume is to be mounted for reading only
std::unique_ptr<Device> OpenForChanges(const fatimg::Operand& image, fatimg::Session* session, const Message& message,
                                       const fatlib::OrderedDevice** held) {
  const std::string name = image.ImageText();
  if (access(image.image.c_str(), W_OK) != 0 && (errno == EACCES || errno == EPERM || errno == EROFS)) {
    message(name + ": the image cannot be written: it is mounted for reading only");
    return nullptr;
  }
  std::unique_ptr<Device> device = session->OpenDevice(image, Access::ReadWrite);
  fatlib::Medium medium;
  const std::error_code error = medium.Open(device.get());
  if (error) return device;  // that there is no volume is said where it is opened
  if (medium.Layout().IsHarmedByWriting()) {
    message(name + ": " + std::error_code(fatlib::Status::UnsafeVolume).message() + ": it is mounted for reading only");
    return nullptr;
  }
  if (!IsSound(name, &medium, message)) return nullptr;
  return Ordered(name, std::move(device), message, held);
}

}  // namespace

void OpenVolume(const fatimg::Operand& image, bool readOnly, const Message& message, fatlib::Volume* volume,
                const fatlib::OrderedDevice** held) {
  *held = nullptr;
  fatimg::Session session{{}};
  std::unique_ptr<Device> device;
  if (!readOnly) device = OpenForChanges(image, &session, message, held);
  if (device == nullptr) device = session.OpenDevice(image, Access::ReadOnly);
  const std::error_code error = volume->Open(std::move(device));
  if (error == fatlib::Status::NotAVolume) (void)session.Open(image, Access::ReadOnly);  // knows the reason
  if (error) throw Failure(error, image.ImageText());
}

}  // namespace fatmount
