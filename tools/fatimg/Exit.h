/// @file Exit.h
/// How the command ends, for scripts, and the failure that ends a verb at once.

#ifndef FATIMG_EXIT_H
#define FATIMG_EXIT_H

#include <stdexcept>
#include <string>
#include <system_error>

namespace fatimg {

/// The exit statuses of the command. They are documented in the manual page and never change their meaning.
enum class Exit : int {
  Done = 0,
  SomeFailed = 1,  ///< some items could be done, others not, or for different reasons; "verify" found a difference
  Usage = 2,       ///< the command line makes no sense
  NotFound = 3,
  Refused = 4,  ///< something is in the way, or it would do harm, or the image is in use
  NoSpace = 5,
  Corrupt = 6,  ///< there is no volume, or it is damaged; "check" found a defect
  Io = 7,       ///< the image, a host file or standard output could not be read or written
};

/// The exit that an error leads to: of the face's statuses, and of system calls.
/// @param error  not success
Exit ExitOf(const std::error_code& error);

/// Ends the verb. What it has opened is closed on the way.
class Failure : public std::runtime_error {
 public:
  /// @param path    what failed: an operand or a host path; may be empty
  /// @param reason  a phrase without a full stop
  Failure(Exit exit, std::string path, const std::string& reason)
      : std::runtime_error(reason), m_Exit(exit), m_Path(std::move(path)) {}
  Failure(const std::error_code& error, std::string path)
      : std::runtime_error(error.message()), m_Exit(ExitOf(error)), m_Path(std::move(path)) {}

  Exit Status() const { return m_Exit; }
  const std::string& Path() const { return m_Path; }

 private:
  Exit m_Exit;
  std::string m_Path;
};

}  // namespace fatimg

#endif  // FATIMG_EXIT_H
