/// @file CheckFat.cpp
/// The bytes of the FATs, compared with each other.

#include <algorithm>
#include <cstring>

#include "CheckParts.h"
#include "Narrow.h"

namespace fatlib {

namespace {

// Whole entries of every width, and whole pairs of 12 bits.
constexpr std::uint64_t PIECE_BYTES = std::uint64_t{3} * 64 * 1024;

class FatComparison {
 public:
  FatComparison(Medium* medium, DefectList* defects) : m_pMedium(medium), m_pDefects(defects) {
    const Geometry& geometry = medium->Layout();
    m_nBits = static_cast<unsigned int>(geometry.type);
    const std::uint64_t entries = std::uint64_t{geometry.clusters} + 2;
    const std::uint64_t claimed = std::uint64_t{geometry.sectorsPerFat} * geometry.bytesPerSector;
    m_nBytes = std::min((entries * m_nBits + 7) / 8, claimed);
    m_nEntries = std::min(entries, m_nBytes * 8 / m_nBits);
  }

  void Run(CheckProgress* progress) {
    const std::uint64_t start = m_pMedium->Layout().FatPosition(0);
    const std::uint64_t deviceBytes = m_pMedium->Base()->Size();
    // Behind the end of the device all copies are zeros.
    const std::uint64_t end = std::min(m_nBytes, deviceBytes - std::min(deviceBytes, start));
    for (std::uint64_t at = 0; at < end && progress->Report(0); at += PIECE_BYTES) {
      LookAt(at, ToSize(std::min(PIECE_BYTES, end - at)));
    }
    if (m_nReserved != 0) m_pDefects->Add(Defect::FatReservedBits, m_nFirstReserved, m_nReserved);
    if (m_nDiffer != 0) m_pDefects->Add(Defect::FatCopiesDiffer, m_nFirstDiffering, m_nDiffer);
  }

 private:
  bool ReadPiece(std::uint32_t copy, std::uint64_t at, std::size_t size, std::vector<unsigned char>* bytes) {
    bytes->assign(size + 1, 0);  // the word of a last entry of 12 bits may reach over it
    if (!m_pMedium->Base()->Read(m_pMedium->Layout().FatPosition(copy) + at, bytes->data(), size)) return true;
    if (!m_bUnreadable) m_pDefects->Add(Defect::Unreadable, m_pMedium->Layout().FatPosition(copy) + at);
    m_bUnreadable = true;
    return false;
  }

  void LookAt(std::uint64_t at, std::size_t size) {
    std::vector<unsigned char> first;
    std::vector<unsigned char> other;
    if (!ReadPiece(0, at, size, &first)) return;
    if (m_nBits == 32) CountReserved(at, first);
    m_Differs.clear();
    const std::uint32_t copies = m_pMedium->Layout().fats;
    const std::uint64_t deviceBytes = m_pMedium->Base()->Size();
    for (std::uint32_t copy = 1; copy < copies; ++copy) {
      if (m_pMedium->Layout().FatPosition(copy) + at >= deviceBytes) break;  // told as VolumeTooLarge
      if (ReadPiece(copy, at, size, &other) && first != other) Compare(at, size, first, other);
    }
  }

  static std::uint32_t Load(const std::vector<unsigned char>& bytes, std::size_t entry, unsigned int bits) {
    const unsigned char* at = bytes.data() + entry * bits / 8;
    std::uint32_t value = at[0] | std::uint32_t{at[1]} << 8;
    if (bits == 32) value |= std::uint32_t{at[2]} << 16 | std::uint32_t{at[3]} << 24;
    if (bits == 12) value = entry % 2 != 0 ? value >> 4 : value & 0xFFF;
    return value;
  }

  std::size_t EntriesIn(std::uint64_t at, std::size_t size) const {
    return ToSize(std::min<std::uint64_t>(std::uint64_t{size} * 8 / m_nBits, m_nEntries - at * 8 / m_nBits));
  }

  // An entry that differs in several copies counts once.
  void Compare(std::uint64_t at, std::size_t size, const std::vector<unsigned char>& first,
               const std::vector<unsigned char>& other) {
    const std::size_t entries = EntriesIn(at, size);
    m_Differs.resize(entries);
    for (std::size_t i = 0; i < entries; ++i) {
      if (m_Differs[i] || Load(first, i, m_nBits) == Load(other, i, m_nBits)) continue;
      m_Differs[i] = true;
      const std::uint64_t cluster = at * 8 / m_nBits + i;
      m_nFirstDiffering = m_nDiffer == 0 ? cluster : std::min(m_nFirstDiffering, cluster);
      ++m_nDiffer;
    }
  }

  // The first two entries are none of clusters: all their bits may be set.
  void CountReserved(std::uint64_t at, const std::vector<unsigned char>& bytes) {
    const std::size_t entries = EntriesIn(at, bytes.size() - 1);
    for (std::size_t i = at == 0 ? 2 : 0; i < entries; ++i) {
      if ((bytes[4 * i + 3] & 0xF0) == 0) continue;
      if (m_nReserved++ == 0) m_nFirstReserved = at / 4 + i;
    }
  }

  Medium* m_pMedium;
  DefectList* m_pDefects;
  unsigned int m_nBits;
  std::uint64_t m_nBytes;       // of a FAT that have entries
  std::uint64_t m_nEntries;     // in them
  std::vector<bool> m_Differs;  // of the piece
  std::uint64_t m_nFirstDiffering = 0;
  std::uint64_t m_nDiffer = 0;
  std::uint64_t m_nFirstReserved = 0;
  std::uint64_t m_nReserved = 0;
  bool m_bUnreadable = false;
};

// Entry 0 is the media byte below ones; entry 1 is all ones, but for the two marks of a volume in use.
void CheckFirstEntries(Medium* medium, DefectList* defects) {
  const Geometry& geometry = medium->Layout();
  if (geometry.FatPosition(0) >= medium->Base()->Size()) return;
  std::uint32_t entry = 0;
  const std::uint32_t ones = geometry.type == FatType::Fat12   ? 0xFFF
                             : geometry.type == FatType::Fat16 ? 0xFFFF
                                                               : 0x0FFFFFFF;
  if (!medium->FatEntry(0, &entry) && entry != ((ones & ~0xFFu) | geometry.media)) {
    defects->Add(Defect::BadFirstEntries, 0, entry);
  }
  const std::uint32_t marks = geometry.type == FatType::Fat12   ? 0
                              : geometry.type == FatType::Fat16 ? 0xC000
                                                                : 0x0C000000;
  if (!medium->FatEntry(1, &entry) && !medium->IsEndOfChain(entry | marks)) {
    defects->Add(Defect::BadFirstEntries, 1, entry);
  }
}

}  // namespace

void CheckFat(Medium* medium, DefectList* defects, CheckProgress* progress) {
  CheckFirstEntries(medium, defects);
  FatComparison(medium, defects).Run(progress);
}

}  // namespace fatlib
