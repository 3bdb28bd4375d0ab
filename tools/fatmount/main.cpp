/// @file main.cpp
/// fatmount: shows a FAT volume as a folder. See docs/man/fatmount.1.

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "Exit.h"
#include "Loop.h"
#include "Opening.h"
#include "Operations.h"
#include "Options.h"
#include "Server.h"

namespace fatmount {

namespace {

using fatimg::Exit;
using fatimg::Failure;

bool g_bBackground = false;

/// Something that people should know; in the background nobody reads standard error any more.
void Say(const std::string& text) {
  if (g_bBackground) {
    syslog(LOG_WARNING, "%s", text.c_str());
  } else {
    std::fprintf(stderr, "fatmount: %s\n", text.c_str());
  }
}

struct SessionEnd {
  void operator()(fuse_session* session) const { fuse_session_destroy(session); }
};
using Session = std::unique_ptr<fuse_session, SessionEnd>;

void CheckFolder(const std::string& folder) {
  struct stat status {};
  if (stat(folder.c_str(), &status) != 0) throw Failure({errno, std::generic_category()}, folder);
  if (!S_ISDIR(status.st_mode)) throw Failure(Exit::Refused, folder, "it is no folder");
}

/// An option with a comma in its value would be two.
std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    if (c == ',' || c == '\\') escaped += '\\';
    escaped += c;
  }
  return escaped;
}

Session Mount(const Options& options, FuseArguments* arguments, Server* server, bool readOnly) {
  arguments->AddOption("fsname=" + Escaped(options.image.ImageText()));
  arguments->AddOption("subtype=fatmount");
  arguments->AddOption("default_permissions");
  if (readOnly) arguments->AddOption("ro");
  Session session(fuse_session_new(arguments->Get(), &Operations(), sizeof(fuse_lowlevel_ops), server));
  if (session == nullptr) throw Failure(Exit::Usage, "", "libfuse does not take these options");
  if (fuse_session_mount(session.get(), options.folder.c_str()) != 0) {
    throw Failure(Exit::Refused, options.folder, "the volume cannot be mounted there");
  }
  return session;
}

/// From here on a process of its own, without a terminal. What waited for the old one goes on.
/// @param keepOutput  the statistics go there
void GoToBackground(bool keepOutput) {
  const pid_t child = fork();
  if (child < 0) throw Failure({errno, std::generic_category()}, "the way into the background");
  if (child > 0) _exit(0);
  setsid();
  if (chdir("/") != 0) throw Failure({errno, std::generic_category()}, "/");
  const int nothing = open("/dev/null", O_RDWR);
  dup2(nothing, STDIN_FILENO);
  if (!keepOutput) dup2(nothing, STDOUT_FILENO);
  dup2(nothing, STDERR_FILENO);
  if (nothing > STDERR_FILENO) close(nothing);
  openlog("fatmount", LOG_PID, LOG_USER);
  g_bBackground = true;
}

std::string AbsolutePath(const std::string& path) {
  if (path.empty() || path[0] == '/') return path;
  char folder[4096];
  return getcwd(folder, sizeof folder) == nullptr ? path : std::string(folder) + "/" + path;
}

Exit WriteStats(const Stats& stats, const std::string& file) {
  const std::string text = stats.ToJson() + "\n";
  if (file.empty()) {
    return std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0 ? Exit::Done : Exit::Io;
  }
  std::ofstream stream(file);
  stream << text;
  stream.close();
  if (stream) return Exit::Done;
  Say(file + ": the statistics could not be written");
  return Exit::Io;
}

Exit Run(const Options& options, FuseArguments* arguments) {
  CheckFolder(options.folder);
  fatlib::Volume volume;
  const fatlib::OrderedDevice* held;
  OpenVolume(options.image, options.readOnly, Say, &volume, &held);
  Stats stats;
  WriteBack writeBack(&volume, held, options.sync, &stats, Say);
  Notifier notifier;
  Server server(&volume, {options.uid, options.gid, options.umask}, &writeBack, &notifier, &stats);
  const bool readOnly = volume.Mode() == fatlib::Access::ReadOnly;
  const Session session = Mount(options, arguments, &server, readOnly);
  const std::string statsFile = AbsolutePath(options.jsonStatsFile);
  if (!options.foreground) GoToBackground(options.jsonStats && statsFile.empty());
  PrepareSignals();
  notifier.Start(session.get());

  const std::error_code served = Serve(session.get(), &writeBack);
  fuse_session_unmount(session.get());
  notifier.Stop();
  Exit exit = Exit::Done;
  std::error_code error = writeBack.Commit();
  if (const std::error_code closed = volume.Close(); !error) error = closed;
  if (!error) error = served;
  if (error) {
    Say(options.image.ImageText() + ": " + error.message());
    exit = fatimg::ExitOf(error);
  }
  if (options.jsonStats) {
    const Exit written = WriteStats(stats, statsFile);
    if (exit == Exit::Done) exit = written;
  }
  return exit;
}

Exit Start(int argc, char** argv) {
  FuseArguments arguments(argc, argv);
  try {
    const Options options = ParseOptions(&arguments);
    if (options.version) {
      std::printf("fatmount %s, libfuse %s\n", FATIMG_VERSION, fuse_pkgversion());
      return Exit::Done;
    }
    if (options.help) {
      std::fputs(HelpText(), stdout);
      fuse_lowlevel_help();
      return Exit::Done;
    }
    return Run(options, &arguments);
  } catch (const Failure& failure) {
    Say((failure.Path().empty() ? "" : failure.Path() + ": ") + failure.what());
    return failure.Status();
  } catch (const std::bad_alloc&) {
    Say("there is not enough memory");
    return Exit::Io;
  }
}

}  // namespace

}  // namespace fatmount

int main(int argc, char** argv) { return static_cast<int>(fatmount::Start(argc, argv)); }
