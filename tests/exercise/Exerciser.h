/// @file Exerciser.h
/// Works a folder at random and holds it against a Model. What it does follows from the seed alone, as long as nothing
/// is refused for want of room. Every step checks what it touched; now and then everything is read back.

#ifndef FATLIB_TESTS_EXERCISE_EXERCISER_H
#define FATLIB_TESTS_EXERCISE_EXERCISER_H

#include <sys/stat.h>

#include <cstdint>
#include <deque>
#include <initializer_list>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "Model.h"
#include "Random.h"

namespace exercise {

/// The folder is not what it must be.
class Mismatch : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class Plant { Nothing, Byte, Size, Name, Time };

struct Settings {
  std::string folder;  ///< empty when the exercise begins
  std::uint64_t seed = 0;
  std::size_t files = 40;        ///< about as many files and directories at a time
  std::size_t bytes = 8u << 20;  ///< of all files together
  bool ordinary = false;         ///< not FAT: case matters, names may have any character, files may have holes
  bool exact = false;            ///< paths are always spelt as they were created, never in another case
  bool full = false;             ///< room may run out; an operation refused for that must leave everything as it was
  Plant plant = Plant::Nothing;  ///< change the model once, which must be noticed
  std::uint64_t stepsToCheck = 400;  ///< between two times that everything is read back
};

class Exerciser {
 public:
  explicit Exerciser(const Settings& settings);
  ~Exerciser();
  Exerciser(const Exerciser&) = delete;
  Exerciser& operator=(const Exerciser&) = delete;

  /// One operation, after which what it touched is checked. Throws Mismatch.
  void Step();
  /// Closes all files and reads everything back. Throws Mismatch.
  void Finish();

  std::uint64_t Steps() const { return m_nSteps; }
  std::uint64_t Refusals() const { return m_nRefusals; }  ///< for want of room
  const Model& Tree() const { return m_Model; }
  const std::deque<std::string>& LastOperations() const { return m_Last; }

 private:
  struct OpenFile {
    int fd;
    NodePtr node;
    bool readable;
    bool writable;
    bool append;
  };

  // Steps on open files, of FileSteps.cpp. Null, or false, when there is none that fits.
  void Write();
  void Read();
  bool CanMap() const;
  void MapWrite();
  void MapRead();
  void Truncate();
  void Allocate();
  void CopyRange();
  void Synchronise();
  void SetTimes();
  void CheckOpenFile();
  OpenFile* Some(bool (*fits)(const OpenFile&));
  void Extend(Node& node, std::size_t offset, const std::vector<unsigned char>& bytes);
  void CompareBytes(const Node& node, std::size_t offset, const unsigned char* found, std::size_t count);

  // Steps on names, of NameSteps.cpp.
  void Open();
  void Create();
  void Close();
  void Unlink();
  void MakeDirectory();
  void RemoveDirectory();
  void Rename();
  void RenameCase();
  void ToggleReadOnly();
  void DoRename(Node& node, Node& directory, const std::string& name);
  void ListSome();
  NodePtr SomeDirectory();
  NodePtr SomeFile();

  // What must be refused, of Refusals.cpp.
  void Refused();
  void RefusedName();
  void RefusedSize();

  // Looking, of Checks.cpp.
  void CheckAll();
  void CheckTree(const Node& directory);
  void CheckListing(const Node& directory);
  void CheckFile(const Node& node);
  void CheckBytes(const Node& node, int fd);
  void CheckStat(const Node& node, const struct stat& found);
  void CheckSpace();
  void StatOne();
  void PlantFault();

  // What they share, of Exerciser.cpp.
  void Note(const std::string& operation);
  [[noreturn]] void Fail(const std::string& what);
  bool Done(long result, const std::string& what);
  void MustFail(long result, std::initializer_list<int> errors, const std::string& what);
  std::string HostPath(const Node& node);
  std::string HostPath(const Node& directory, const std::string& name);
  std::string Written(const Node& node);
  std::size_t RoomForBytes() const;
  std::size_t SomeSize(std::size_t limit);
  void Changed(Node& node, std::time_t before);

  Settings m_Settings;
  Random m_Random;
  Model m_Model;
  std::vector<OpenFile> m_Open;
  std::deque<std::string> m_Last;
  std::uint64_t m_nSteps = 0;
  std::uint64_t m_nRefusals = 0;
  bool m_bPlanted = false;
  std::uint64_t m_nBlocks = 0;  // of the file system, once known
};

}  // namespace exercise

#endif  // FATLIB_TESTS_EXERCISE_EXERCISER_H
