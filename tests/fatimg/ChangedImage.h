/// @file ChangedImage.h
/// What the tests of the verbs that change an image have in common.

#ifndef FATLIB_TESTS_CHANGEDIMAGE_H
#define FATLIB_TESTS_CHANGEDIMAGE_H

#include "FatimgRun.h"

namespace fatimg_test {

/// The fixture's image and tree; after each test the volume must please fsck.fat.
class ChangedImage : public Image {
 protected:
  void TearDown() override {
    const PROCESS_RESULT check = RunProcess({"fsck.fat", "-n", m_Path});
    EXPECT_EQ(0, check.ExitCode) << check.Output;
  }

  /// Runs fatimg, which is to end so. @return what it said on standard error
  std::string Run(int exit, const std::vector<std::string>& arguments,
                  const std::vector<std::string>& environment = {}) {
    const RESULT result = Fatimg(arguments, environment);
    EXPECT_EQ(exit, result.exit) << arguments[0] << ": " << result.err;
    m_Output = result.out;
    return result.err;
  }
  void File(const std::string& name, const std::string& text) {
    WriteHostFile(m_Directory / name, std::vector<unsigned char>(text.begin(), text.end()));
  }
  std::string HostText(const std::string& name) const {
    const std::vector<unsigned char> bytes = ReadHostFile(m_Directory / name);
    return std::string(bytes.begin(), bytes.end());
  }
  /// A file's bytes as mtools reads them.
  std::string Text(const std::string& path) const { return RunOrThrow({"mtype", "-i", m_Path, "::" + path}); }
  /// Whether mtools finds it.
  bool Exists(const std::string& path) const { return RunProcess({"mdir", "-i", m_Path, "::" + path}).Ok(); }
  /// All paths below one, as mtools lists them: directories end in "/".
  std::string Tree(const std::string& path = "/") const {
    return RunOrThrow({"mdir", "-b", "-/", "-i", m_Path, "::" + path});
  }
  std::vector<unsigned char> ImageBytes() const { return ReadHostFile(m_Path); }

  std::string m_Output;  // of the last Run
};

}  // namespace fatimg_test

#endif  // FATLIB_TESTS_CHANGEDIMAGE_H
