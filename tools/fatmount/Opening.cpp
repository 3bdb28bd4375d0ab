/// @file Opening.cpp

#include "Opening.h"

#include <fatlib/Check.h>

#include <algorithm>

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
    case Defect::OrphanLongName:
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
bool LookFor(const std::string& name, Device* device, const Message& message) {
  fatlib::Medium medium;
  if (medium.Open(device)) return true;  // that there is no volume is said where it is opened
  fatlib::CheckReport report;
  const std::error_code error = Check(&medium, &report);
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

bool IsNotWritable(const Failure& failure, fatimg::Session* session, const fatimg::Operand& image,
                   std::unique_ptr<Device>* device) {
  if (failure.Status() != fatimg::Exit::Refused) return false;
  try {
    *device = session->OpenDevice(image, Access::ReadOnly);  // fails too where another program has locked the image
  } catch (const Failure&) {
    return false;
  }
  return true;
}

}  // namespace

void OpenVolume(const fatimg::Operand& image, bool readOnly, const Message& message, fatlib::Volume* volume) {
  const std::string name = image.ImageText();
  fatimg::Session session{{}};
  std::unique_ptr<Device> device;
  if (!readOnly) {
    try {
      device = session.OpenDevice(image, Access::ReadWrite);
    } catch (const Failure& failure) {
      if (!IsNotWritable(failure, &session, image, &device)) throw;
      message(name + ": " + failure.what() + ": it is mounted for reading only");
      readOnly = true;
    }
    if (!readOnly && !LookFor(name, device.get(), message)) readOnly = true;
  }
  if (readOnly) {
    device.reset();  // and its lock
    device = session.OpenDevice(image, Access::ReadOnly);
  }
  std::error_code error = volume->Open(std::move(device));
  if (error == fatlib::Status::UnsafeVolume) {
    message(name + ": " + error.message() + ": it is mounted for reading only");
    error = volume->Open(session.OpenDevice(image, Access::ReadOnly));
  }
  if (error == fatlib::Status::NotAVolume) (void)session.Open(image, Access::ReadOnly);  // knows the reason
  if (error) throw Failure(error, name);
}

}  // namespace fatmount
