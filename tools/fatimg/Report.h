/// @file Report.h
/// What a verb says: its data on standard output, as text or as one JSON object, and everything else on standard error.
/// Also counts what failed, which decides the exit status.

#ifndef FATIMG_REPORT_H
#define FATIMG_REPORT_H

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <system_error>

#include "Exit.h"
#include "Options.h"

namespace fatimg {

using Json = nlohmann::ordered_json;

class Report {
 public:
  /// Of the JSON objects. Grows when a field changes its meaning or goes; new fields do not change it.
  static constexpr int JSON_VERSION = 1;

  Report(const CommonOptions& options, std::string verb);

  // ---- data, on standard output

  bool IsJson() const { return m_bJson; }
  /// Text as it is; a line ends with '\n'. Nothing in JSON.
  void Print(std::string_view text);
  /// Bytes as they are, also with --json. @return false when nothing can be written any more: stop
  bool Write(const void* bytes, std::size_t size);
  /// The object that Finish writes; "version" and "verb" are in it, fields keep the order in which they are added.
  Json& Object() { return m_Object; }
  /// A name or path for Print: on a terminal, control characters are escaped.
  std::string Shown(std::string_view name) const;

  // ---- messages, on standard error

  /// "fatimg: VERB: PATH: REASON", and the item counts as failed. An empty path is left out.
  void Fail(std::string_view path, const std::error_code& error);
  void Fail(std::string_view path, Exit exit, std::string_view reason);
  void Fail(const Failure& failure) { Fail(failure.Path(), failure.Status(), failure.what()); }
  /// An item that was done.
  void Done() { ++m_nDone; }
  /// The same form of message, but nothing failed. Not with --quiet.
  void Warn(std::string_view path, std::string_view text);
  /// "fatimg: VERB: TEXT" with --verbose only.
  void Detail(std::string_view text);

  // ---- the end

  /// Of what was said so far: Done without failures; the failures' exit when nothing was done and they all have the
  /// same; else SomeFailed.
  Exit Status() const;
  /// Writes the JSON object, if that is wanted, with "errors" and "exit" at its end, and flushes standard output.
  /// @param exit  what the verb found, if nothing failed
  Exit Finish(Exit exit = Exit::Done);

 private:
  void Message(std::string_view path, std::string_view text) const;

  std::string m_Verb;
  bool m_bJson;
  bool m_bQuiet;
  bool m_bVerbose;
  bool m_bTerminal;
  bool m_bOutputFailed = false;
  std::size_t m_nDone = 0;
  std::size_t m_nFailed = 0;
  Exit m_FailedExit = Exit::Done;  // of all failures so far; SomeFailed when they differ
  Json m_Object;
  Json m_Errors = Json::array();
};

}  // namespace fatimg

#endif  // FATIMG_REPORT_H
