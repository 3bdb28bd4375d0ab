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

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace fatmount {

/// @param thread  that waits for a lookup
/// @param name    what it looks up, UTF-8
/// @param passed  how many of the directories that the lookup has come through are of that name, in any case; a file is
///                at the end of its path: ALL
/// @return whether the thread is in a rename to that name from one that differs from it in case only, and has come to
///         the end of the new path: the same name can be that of a directory on the way
bool IsChangingCase(pid_t thread, std::string_view name, std::size_t passed);
constexpr std::size_t ALL = SIZE_MAX;

}  // namespace fatmount

#endif  // FATMOUNT_CALLER_H
