/// @file Options.cpp

#include "Options.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <new>

#include "Exit.h"

namespace fatmount {

namespace {

using fatimg::Exit;
using fatimg::Failure;

/// As libfuse fills it in.
struct RawOptions {
  char* uid = nullptr;
  char* gid = nullptr;
  char* umask = nullptr;
  char* offset = nullptr;
  char* jsonStatsFile = nullptr;
  int readOnly = 0;
  int sync = 0;
  int foreground = 0;
  int debug = 0;
  int help = 0;
  int version = 0;
  int jsonStats = 0;
  std::string image;
  std::string folder;
  std::string unexpected;

  RawOptions() = default;
  RawOptions(const RawOptions&) = delete;
  RawOptions& operator=(const RawOptions&) = delete;
  ~RawOptions() {
    for (char* text : {uid, gid, umask, offset, jsonStatsFile}) std::free(text);
  }
};

constexpr fuse_opt KNOWN[] = {
    {"uid=%s", offsetof(RawOptions, uid), 0},
    {"gid=%s", offsetof(RawOptions, gid), 0},
    {"umask=%s", offsetof(RawOptions, umask), 0},
    {"offset=%s", offsetof(RawOptions, offset), 0},
    {"ro", offsetof(RawOptions, readOnly), 1},
    {"sync", offsetof(RawOptions, sync), 1},
    {"-f", offsetof(RawOptions, foreground), 1},
    {"-d", offsetof(RawOptions, debug), 1},
    {"debug", offsetof(RawOptions, debug), 1},
    {"-h", offsetof(RawOptions, help), 1},
    {"--help", offsetof(RawOptions, help), 1},
    {"-V", offsetof(RawOptions, version), 1},
    {"--version", offsetof(RawOptions, version), 1},
    {"--json-stats", offsetof(RawOptions, jsonStats), 1},
    {"--json-stats=%s", offsetof(RawOptions, jsonStatsFile), 0},
    FUSE_OPT_END,
};

int TakeOperand(void* data, const char* text, int key, fuse_args*) {
  RawOptions& raw = *static_cast<RawOptions*>(data);
  if (key != FUSE_OPT_KEY_NONOPT) return 1;  // for libfuse
  if (raw.image.empty()) {
    raw.image = text;
  } else if (raw.folder.empty()) {
    raw.folder = text;
  } else {
    raw.unexpected = text;
  }
  return 0;
}

template <typename Number>
Number NumberOf(const char* option, const char* text, int base) {
  char* end = nullptr;
  const unsigned long long value = std::strtoull(text, &end, base);
  if (end == text || *end != 0 || *text == '-' || value > static_cast<Number>(-1)) {
    throw Failure(Exit::Usage, option, "'" + std::string(text) + "' is no number for it");
  }
  return static_cast<Number>(value);
}

void SetOffset(const char* text, fatimg::Operand* image) {
  if (image->where.kind != fatimg::Where::Whole) {
    throw Failure(Exit::Usage, "offset", "the image is given with @" + image->whereText + " already");
  }
  if (!fatimg::ParseBytes(text, &image->where.offset)) {
    throw Failure(Exit::Usage, "offset", "'" + std::string(text) + "' is no number of bytes");
  }
  image->where.kind = fatimg::Where::Offset;
  image->whereText = text;
}

mode_t ProcessUmask() {
  const mode_t mask = umask(0);
  umask(mask);
  return mask;
}

}  // namespace

void FuseArguments::AddOption(const std::string& option) {
  if (fuse_opt_add_arg(&m_Arguments, ("-o" + option).c_str()) != 0) throw std::bad_alloc();
}

Options ParseOptions(FuseArguments* arguments) {
  RawOptions raw;
  if (fuse_opt_parse(arguments->Get(), &raw, KNOWN, TakeOperand) != 0) {
    throw Failure(Exit::Usage, "", "the options make no sense");
  }
  Options options;
  options.help = raw.help != 0;
  options.version = raw.version != 0;
  if (options.help || options.version) return options;
  if (raw.folder.empty()) throw Failure(Exit::Usage, "", "an image and a folder are needed: fatmount IMAGE FOLDER");
  if (!raw.unexpected.empty()) throw Failure(Exit::Usage, raw.unexpected, "there is an image and a folder already");
  options.image = fatimg::ParseOperand(raw.image);
  if (options.image.hasPath) throw Failure(Exit::Usage, raw.image, "only a whole volume can be mounted");
  if (raw.offset != nullptr) SetOffset(raw.offset, &options.image);
  options.folder = raw.folder;
  options.uid = raw.uid != nullptr ? NumberOf<uid_t>("uid", raw.uid, 10) : getuid();
  options.gid = raw.gid != nullptr ? NumberOf<gid_t>("gid", raw.gid, 10) : getgid();
  options.umask = raw.umask != nullptr ? NumberOf<mode_t>("umask", raw.umask, 8) & 0777 : ProcessUmask();
  options.readOnly = raw.readOnly != 0;
  options.sync = raw.sync != 0;
  options.debug = raw.debug != 0;
  options.foreground = raw.foreground != 0 || options.debug;
  options.jsonStats = raw.jsonStats != 0 || raw.jsonStatsFile != nullptr;
  if (raw.jsonStatsFile != nullptr) options.jsonStatsFile = raw.jsonStatsFile;
  if (options.debug) arguments->AddOption("debug");
  return options;
}

const char* HelpText() {
  return "usage: fatmount [options] IMAGE[@WHERE] FOLDER\n"
         "\n"
         "Shows a FAT volume as a folder, until: fusermount3 -u FOLDER\n"
         "\n"
         "    -h, --help              this text\n"
         "    -V, --version           the version\n"
         "    -f                      stay in the foreground\n"
         "    -d                      the same, and show each request\n"
         "    --json-stats[=FILE]     at the end, one JSON object about the work done\n"
         "    -o ro                   no changes\n"
         "    -o sync                 every change is on the image before the program goes on\n"
         "    -o uid=N,gid=N          owner and group of all files\n"
         "    -o umask=OCTAL          permission bits that no file has\n"
         "    -o offset=BYTES         where in the image the volume begins, as IMAGE@BYTES\n"
         "\n"
         "and of libfuse:\n"
         "\n";
}

}  // namespace fatmount
