/// @file Operation.h
/// The calls that a run is made of, and where they come from.

#ifndef FATLIB_TESTS_MODEL_OPERATION_H
#define FATLIB_TESTS_MODEL_OPERATION_H

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "model/Twin.h"

enum class OP {
  Open,
  Create,
  Close,
  Read,
  Write,
  ReadEx,
  WriteEx,
  GetOffset,
  Seek,
  GetSize,
  SetSize,
  IsDir,
  GetAttribute,
  SetAttribute,
  Delete,
  Rename,
  Move,
  CreateDir,
  FindFirst,
  FindNext,
  FindClose,
  ReadBack,       // opens a path, reads all of it, closes it
  List,           // lists a directory to its end
  NullArguments,  // every function that takes a pointer, with null
  NoVolume,       // every function while no file system is current
  Remount,        // unmounts, has the image checked by independent readers, mounts
  COUNT
};

/// One call. What it does depends on nothing but itself and the twin's state, so that it keeps its meaning when calls
/// before it are left out.
struct OPERATION {
  OP Kind = OP::Remount;
  unsigned int Volume = 0;    ///< for paths: where; for handles: the current file system during the call
  unsigned int Variable = 0;  ///< where a handle is kept
  int Handle = -1;            ///< used instead when Literal
  bool Literal = false;
  NAME Path;
  NAME Path2;                   ///< new path of Rename, directory of Move
  bool ToRoot = false;          ///< of Move: the directory is null
  unsigned int Number = 0;      ///< size, count or distance
  unsigned int Attributes = 0;  ///< attributes, or method of Seek
  long long Offset = 0;
  unsigned int Seed = 0;  ///< of the bytes written; its low bits shift the buffer's address
};
std::string ToText(const OPERATION& operation);

/// In a path: replaced by the digits of the next invented short name.
constexpr char16_t NEXT_NUMBER = 0xE000;

/// The bytes of a write.
std::vector<unsigned char> BytesOf(unsigned int seed, std::size_t count);

/// What the generator has to know of the run.
class IRunView {
 public:
  virtual ~IRunView() = default;
  virtual const CTwin& Twin() const = 0;
  virtual int FileHandle(unsigned int variable) const = 0;
  virtual int FindHandle(unsigned int variable) const = 0;
};

/// Makes up calls that fit the state of the volumes, most of the time.
class CGenerator {
 public:
  static constexpr unsigned int FILE_VARIABLES = 170;
  static constexpr unsigned int FIND_VARIABLES = 36;

  /// @param maxFileBytes  sizes stay below, but for the tries that must fail
  CGenerator(unsigned int seed, unsigned int maxFileBytes);
  OPERATION Next(const IRunView& run);

 private:
  unsigned int Random(unsigned int end) { return end == 0 ? 0 : static_cast<unsigned int>(m_Random() % end); }
  bool Chance(unsigned int percent) { return Random(100) < percent; }
  template <class T>
  const T& OneOf(const std::vector<T>& list) {
    return list[Random(static_cast<unsigned int>(list.size()))];
  }

  OP PickKind(const CTwinVolume& volume);
  NAME NewName();
  NODE_PTR PickNode(const CTwinVolume& volume, bool dirs, bool files);
  NAME PathTo(const TWIN_NODE& node);
  NAME PickPath(const CTwinVolume& volume, bool dirs, bool files);
  NAME NewPath(const CTwinVolume& volume);
  NAME BadPath();
  NAME Disguise(NAME path);
  unsigned int PickSize(const CTwinVolume& volume, unsigned int current);
  unsigned int PickCount();
  unsigned int PickAttributes();
  unsigned int FreeVariable(const IRunView& run, bool file);
  void PickHandle(const IRunView& run, bool file, OPERATION& operation);

  std::mt19937_64 m_Random;
  unsigned int m_nMaxFileBytes;
  std::vector<unsigned int> m_Weights;  // by OP
  unsigned int m_nMaxNodes = 0;
  unsigned int m_nNames = 0;  // how many different names there are
  unsigned int m_nLongPercent = 0;
  unsigned int m_nKnownPathPercent = 0;  // how often an object in memory is named by the path it is known under
  unsigned int m_nDeepPercent = 0;       // how often a path leads through very many directories
  unsigned int m_nCacheEndPercent = 0;   // how often the object is picked that is to leave the cache, or just left it
  bool m_bHugeNames = false;
  NAME m_Pending;  // name to create next: its invented short form is taken
  NAME m_PendingDir;
};

#endif  // FATLIB_TESTS_MODEL_OPERATION_H
