/// @file Caller.h
/// Renames that change only the case of a name.
///
/// A file has one inode whatever the spelling of its name, so that all who use it share its bytes. But of a rename from
/// one spelling to another the kernel takes the second for the file itself, does nothing, and says that all went well:
/// the request never comes. So while a thread is in such a rename, the new name has to be one that is not there. What a
/// thread has called, the system tells about threads that this process may look at: all for root, and else those of
/// the same user unless a security module forbids it. Nothing is guessed: where it does not tell, such a rename has no
/// effect.

#ifndef FATMOUNT_CALLER_H
#define FATMOUNT_CALLER_H

#include <sys/types.h>

#include <string_view>

namespace fatmount {

/// @param thread  that waits for a lookup
/// @param name    what it looks up, UTF-8
/// @return whether the thread is in a rename to that name from one that differs from it in case only
bool IsChangingCase(pid_t thread, std::string_view name);

}  // namespace fatmount

#endif  // FATMOUNT_CALLER_H
