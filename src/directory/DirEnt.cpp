/// @file DirEnt.cpp

#include "directory/DirEnt.h"

#include <cstdlib>
#include <cstring>

#include "platform/Platform.h"

namespace {

/// A point in time as an entry stores it: the date in the high half, the time in the low one. 0 when the year does not
/// fit.
std::uint32_t DosStampOf(const std::tm* local) {
  if (local == nullptr) return 0;
  const int year = local->tm_year;  // from 1900; compared as it is, so that no huge year overflows
  if (year < 1980 - 1900 || year > 2107 - 1900) return 0;
  const auto bits = [](int value, unsigned int shift) { return static_cast<std::uint32_t>(value) << shift; };
  const std::uint32_t date = bits(year - 80, 9) | bits(local->tm_mon + 1, 5) | bits(local->tm_mday, 0);
  const std::uint32_t time = bits(local->tm_hour, 11) | bits(local->tm_min, 5) | bits(local->tm_sec / 2, 0);
  return date << 16 | time;
}

/// The stamp of this moment. localtime looks at the system's time zone file on every call, which costs more than all
/// the rest of filling in an entry; so the last stamp is used again within the same second, as long as the TZ variable
/// has not been changed meanwhile.
std::uint32_t CurrentDosStamp() {
  static struct {
    bool bValid;
    std::time_t Seconds;
    std::uint32_t Stamp;
    char szZone[64];
  } s_Last;

  const std::time_t now = osTime(nullptr);
  const char* zone = std::getenv("TZ");
  if (zone == nullptr) zone = "\n";  // no value of TZ: an unset variable and an empty one are different zones
  if (s_Last.bValid && s_Last.Seconds == now && std::strcmp(s_Last.szZone, zone) == 0) return s_Last.Stamp;

  const std::size_t zoneBytes = std::strlen(zone) + 1;
  s_Last.bValid = zoneBytes <= sizeof s_Last.szZone;
  if (s_Last.bValid) osMemCpy(s_Last.szZone, zone, static_cast<unsigned int>(zoneBytes));
  s_Last.Seconds = now;
  s_Last.Stamp = DosStampOf(osLocalTime(&now));
  return s_Last.Stamp;
}

}  // namespace

unsigned char CDirEnt::ComputeLfnChecksum(const unsigned char* name) {
  unsigned int sum = name[0];
  for (unsigned int i = 1; i < SHORT_NAME_SIZE; ++i) {
    sum = (((sum & 1) << 7 | sum >> 1) + name[i]) & 0xFF;
  }
  return static_cast<unsigned char>(sum);
}

void CDirEnt::Initialize(const unsigned char* name, unsigned char attribute, unsigned int size, unsigned int cluster) {
  osMemCpy(Name, name, SHORT_NAME_SIZE);
  Attribute = attribute;
  CaseFlags = 0;
  FileSize.Store(size);
  SetStartClustNo(cluster);

  const std::uint32_t stamp = CurrentDosStamp();
  const auto date = static_cast<std::uint16_t>(stamp >> 16);
  const auto time = static_cast<std::uint16_t>(stamp);
  CreateTenths = 0;
  CreateTime.Store(time);
  CreateDate.Store(date);
  AccessDate.Store(date);
  WriteTime.Store(time);
  WriteDate.Store(date);
}

unsigned int CLfnDirEnt::NameUCharCount(unsigned short* out) const {
  unsigned int count = 0;
  const auto copy = [&count, out](const le16* units, unsigned int n) {
    for (unsigned int i = 0; i < n; ++i) {
      const unsigned short unit = units[i].Load();
      if (unit == 0) return false;
      out[count++] = unit;
    }
    return true;
  };
  // In this order, up to the first piece that holds the terminator.
  (void)(copy(Name1, 5) && copy(Name2, 6) && copy(Name3, 2));
  return count;
}

void CLfnDirEnt::Initialize(unsigned int ordinalByte, const unsigned short* units, unsigned char checksum) {
  OrdinalByte = static_cast<unsigned char>(ordinalByte);
  for (le16& unit : Name1) unit.Store(*units++);
  Attribute = ATTR_LFN;
  Type = 0;
  Checksum = checksum;
  for (le16& unit : Name2) unit.Store(*units++);
  StartCluster.Store(0);
  for (le16& unit : Name3) unit.Store(*units++);
}

void CopyDETime(CDirEnt* to, const _DIRENT& from) {
  to->Attribute = ATTR_DIRECTORY;
  to->CreateTenths = from.CreateTenths;
  to->CreateTime = from.CreateTime;
  to->CreateDate = from.CreateDate;
  to->AccessDate = from.AccessDate;
  to->WriteTime = from.WriteTime;
  to->WriteDate = from.WriteDate;
}
