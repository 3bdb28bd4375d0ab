/// @file CommandBench.cpp
/// Whole trees put into an image by a command on top of the library, against mcopy on the same tree.

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>

#include "Report.h"

namespace {

void Run(const std::string& command) {
  if (std::system(command.c_str()) != 0) Fail("failed: " + command);
}

/// A folder of the host with a tree in it, removed at the end.
class CTree {
 public:
  explicit CTree(const std::string& directory) : m_Path(directory + "/fatlib-bench-tree-XXXXXX") {
    if (mkdtemp(m_Path.data()) == nullptr) Fail("cannot make a folder in " + directory);
  }
  ~CTree() { static_cast<void>(std::system(("rm -rf " + m_Path).c_str())); }
  CTree(const CTree&) = delete;
  CTree& operator=(const CTree&) = delete;

  void AddFolder(const std::string& name) const {
    if (mkdir((m_Path + "/" + name).c_str(), 0777) != 0) Fail("cannot make " + name);
  }
  void AddFile(const std::string& name, unsigned int bytes) const {
    CBuffer buffer(bytes + 1);
    std::FILE* file = std::fopen((m_Path + "/" + name).c_str(), "w");
    if (file == nullptr || std::fwrite(buffer.Data(), 1, bytes, file) != bytes) Fail("cannot write " + name);
    if (std::fclose(file) != 0) Fail("cannot write " + name);
  }
  const std::string& Path() const { return m_Path; }

 private:
  std::string m_Path;
};

// How many times longer mcopy takes; the ratio of the table is its reciprocal.
void Compare(BENCH& bench, const CTree& tree, const std::string& what, unsigned int atLeast, unsigned int rounds) {
  std::vector<double> ratios;
  const VOLUME volume = {32, BACKEND::File, 300ULL * MIB, 8};
  for (unsigned int round = 0; round < rounds; ++round) {
    CMedium ours(bench.Directory, volume);
    CMedium theirs(bench.Directory, volume);
    const double our =
        Measure([&] { Run(bench.Tools + "/fatwrite copy " + ours.Path() + " " + tree.Path() + " >/dev/null"); });
    const double their = Measure([&] { Run("mcopy -s -Q -i " + theirs.Path() + " " + tree.Path() + "/* ::/"); });
    ratios.push_back(our / their);
  }
  bench.Report.Add({"tree", what, volume.Name(), Median(ratios), "mcopy -s", 1.0 / atLeast, 0, {}, 0});
}

}  // namespace

void CommandWorkloads(BENCH& bench) {
  {
    CTree tree(bench.Directory);
    for (unsigned int i = 0; i < 100; ++i) tree.AddFolder("Directory " + std::to_string(i));
    for (unsigned int i = 0; i < 5000; ++i) {
      tree.AddFile("Directory " + std::to_string(i % 100) + "/Some file " + std::to_string(i) + ".data", 8 * KIB);
    }
    Compare(bench, tree, "5000 files of 8 KiB in 100 directories", 20, ROUNDS);
  }
  CTree tree(bench.Directory);
  tree.AddFolder("Directory");
  for (unsigned int i = 0; i < 3000; ++i) {
    tree.AddFile("Directory/A long name that begins like all the others " + std::to_string(i) + ".data", 16);
  }
  Compare(bench, tree, "3000 long names with a common beginning", 1000, 1);
}
