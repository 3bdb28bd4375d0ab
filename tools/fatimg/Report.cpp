/// @file Report.cpp

#include "Report.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Json.h"
#include "Shown.h"

namespace fatimg {

Report::Report(const CommonOptions& options, std::string verb)
    : m_Verb(std::move(verb)),
      m_bJson(options.json),
      m_bQuiet(options.quiet),
      m_bVerbose(options.verbose),
      m_bTerminal(isatty(STDOUT_FILENO) == 1) {
  m_Object["version"] = JSON_VERSION;
  m_Object["verb"] = m_Verb;
}

void Report::Print(std::string_view text) {
  if (!m_bJson) (void)Write(text.data(), text.size());
}

bool Report::Write(const void* bytes, std::size_t size) {
  if (m_bOutputFailed) return false;
  if (std::fwrite(bytes, 1, size, stdout) == size) return true;
  m_bOutputFailed = true;
  // A reader that has seen enough ("| head") is no failure worth a message.
  const int reason = errno;
  if (reason != EPIPE) Message("standard output", std::strerror(reason));
  return false;
}

std::string Report::Shown(std::string_view name) const { return m_bTerminal ? Escaped(name) : std::string(name); }

void Report::Message(std::string_view path, std::string_view text) const {
  std::string line = "fatimg: " + m_Verb + ": ";
  if (!path.empty()) line += Escaped(path) + ": ";
  line += text;
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), stderr);
}

void Report::Fail(std::string_view path, const std::error_code& error) { Fail(path, ExitOf(error), error.message()); }

void Report::Fail(std::string_view path, Exit exit, std::string_view reason) {
  Message(path, reason);
  m_FailedExit = m_nFailed == 0 || m_FailedExit == exit ? exit : Exit::SomeFailed;
  ++m_nFailed;
  m_Errors.push_back({{"path", std::string(path)}, {"reason", std::string(reason)}, {"exit", static_cast<int>(exit)}});
}

void Report::Warn(std::string_view path, std::string_view text) {
  if (!m_bQuiet) Message(path, text);
}

void Report::Detail(std::string_view text) {
  if (m_bVerbose) Message("", text);
}

Exit Report::Status() const {
  if (m_bOutputFailed) return Exit::Io;
  if (m_nFailed == 0) return Exit::Done;
  return m_nDone == 0 ? m_FailedExit : Exit::SomeFailed;
}

Exit Report::Finish(Exit exit) {
  Exit status = Status();
  if (status == Exit::Done) status = exit;
  if (m_bJson) {
    m_Object["errors"] = m_Errors;
    m_Object["exit"] = static_cast<int>(status);
    const std::string line = JsonText(m_Object) + "\n";
    (void)Write(line.data(), line.size());
  }
  if (!m_bOutputFailed && std::fflush(stdout) != 0) {
    m_bOutputFailed = true;
    const int reason = errno;
    if (reason != EPIPE) Message("standard output", std::strerror(reason));
  }
  return m_bOutputFailed ? Exit::Io : status;
}

}  // namespace fatimg
