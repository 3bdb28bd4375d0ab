/// @file FatimgRun.cpp

#include "FatimgRun.h"

namespace fatimg_test {

RESULT Fatimg(const std::vector<std::string>& arguments, const std::vector<std::string>& environment) {
  const CTempDir directory;
  const std::string errors = directory / "stderr";
  // A shell keeps standard output and standard error apart.
  std::vector<std::string> command{"env", "TZ=Europe/Berlin"};
  command.insert(command.end(), environment.begin(), environment.end());
  command.insert(command.end(), {"sh", "-c", "exec \"$@\" 2>\"$0\"", errors, FATIMG_PROGRAM});
  command.insert(command.end(), arguments.begin(), arguments.end());
  const PROCESS_RESULT result = RunProcess(command);
  const std::vector<unsigned char> text = ReadHostFile(errors);
  return {result.ExitCode, result.Output, std::string(text.begin(), text.end())};
}

nlohmann::json FatimgJson(std::vector<std::string> arguments, int expectedExit) {
  arguments.push_back("--json");
  const RESULT result = Fatimg(arguments);
  EXPECT_EQ(expectedExit, result.exit) << result.err;
  const std::vector<std::string> lines = LinesOf(result.out);
  EXPECT_EQ(1u, lines.size()) << result.out;
  nlohmann::json json = nlohmann::json::parse(result.out, nullptr, false);
  EXPECT_TRUE(json.is_object()) << result.out;
  if (!json.is_object()) return nlohmann::json::object();
  EXPECT_EQ(1, json.value("version", 0));
  EXPECT_EQ(arguments[0], json.value("verb", ""));
  EXPECT_EQ(expectedExit, json.value("exit", -1));
  return json;
}

std::vector<std::string> LinesOf(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}

std::vector<unsigned char> Image::Bytes(std::size_t count, unsigned int seed) {
  std::vector<unsigned char> bytes(count);
  for (unsigned char& byte : bytes) {
    seed = seed * 1103515245u + 12345u;
    byte = static_cast<unsigned char>(seed >> 16);
  }
  return bytes;
}

Image::Image() : m_Path(m_Directory / "disk.img") {
  const auto host = [this](const std::string& name, const std::vector<unsigned char>& bytes) {
    WriteHostFile(m_Directory / name, bytes);
    return m_Directory / name;
  };
  const std::string readme = host("tree/README.TXT", {'H', 'e', 'l', 'l', 'o', ' ', 'w', 'o', 'r', 'l', 'd', '\n'});
  RunOrThrow({"touch", "-d", "2026-03-14T15:09:26", readme});
  RunOrThrow({"mkfs.fat", "-C", "-F", "16", "-s", "4", "-n", "DATA", "-i", "1234ABCD", m_Path, "16384"});
  RunOrThrow({"mcopy", "-m", "-i", m_Path, readme, "::"});
  RunOrThrow({"mcopy", "-i", m_Path, host("tree/A long name.text", Bytes(5000, 1)), "::"});
  RunOrThrow({"mcopy", "-i", m_Path, host("tree/HIDDEN.SYS", {}), "::"});
  RunOrThrow({"mattrib", "+h", "-i", m_Path, "::/HIDDEN.SYS"});
  RunOrThrow({"mmd", "-i", m_Path, "::/Docs", "::/Docs/Sub"});
  RunOrThrow({"mcopy", "-i", m_Path, host("tree/Docs/Grüße.txt", Bytes(3, 2)), "::/Docs"});
  RunOrThrow({"mcopy", "-i", m_Path, host("tree/Docs/Sub/DEEP.BIN", Bytes(100000, 3)), "::/Docs/Sub"});
}

}  // namespace fatimg_test
