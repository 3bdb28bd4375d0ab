/// @file Loop.h
/// Takes requests from the kernel one by one, until the folder is unmounted or a signal ends the program. Between them
/// it looks whether something is to be written back.

#ifndef FATMOUNT_LOOP_H
#define FATMOUNT_LOOP_H

#include "WriteBack.h"

struct fuse_session;

namespace fatmount {

/// SIGINT, SIGTERM and SIGHUP are held back from now on, but in Serve while it waits. SIGPIPE is ignored.
void PrepareSignals();

/// @param session  mounted
/// @return success also when a signal ended it; else why no request can be taken any more
[[nodiscard]] std::error_code Serve(fuse_session* session, WriteBack* writeBack);

}  // namespace fatmount

#endif  // FATMOUNT_LOOP_H
