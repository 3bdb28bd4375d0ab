/// @file FatLibIntf.h
/// The C interface of fatlib: 26 functions to work on a FAT12, FAT16 or FAT32 volume held in an image file, on a
/// device or in memory. A host needs this header and, to build the storage object that Fat_Mount takes, XStorage.h.
///
/// Conventions
///  - Call from one thread at a time. The library takes no locks, and no function is re-entrant.
///  - Paths are zero-terminated UTF-16 code units ("unsigned short", never wchar_t), relative to the root of the
///    current volume, with '\' as the only separator. A leading '\' is dropped; leading spaces and trailing spaces
///    and dots of each component are dropped. It may have 259 units, counted before what trails its last component is
///    dropped. Refused are: an empty path, a lone '\', an
///    empty component, two dots in a row anywhere, units below 0x20, and any of " * / : < > ? | and DEL.
///    Names are compared without regard to case.
///  - Functions that return a handle give -1 on failure, the others 1 on success and 0 on failure. No reason is kept.
///  - A null pointer that a function would read or write through makes it fail without effect. A null buffer is
///    allowed when the count is 0.
///  - A failed function changes nothing in the handle tables, and writes its outputs only where said.
///
/// What a host must know about durability
///  - Writing never extends a file. Give it its size first, with Fat_CreateFile or Fat_SetFileSize.
///  - Closing a handle does not write anything, unless the library has dropped the object from its cache meanwhile: the
///    last handle's closing then writes its data. Data reaches the medium when a cache block is evicted, when the
///    cached object is dropped, and at Fat_Unmount; FAT changes of a small volume only at Fat_Unmount. Always unmount.
///  - While mounted only the first FAT is kept up to date. Fat_Unmount copies it over the second one, whether or not
///    the volume has two: on a volume formatted with a single FAT that copy destroys the root directory or the first
///    data clusters. Do not unmount such a volume unless its image is a throw-away copy; format with two FATs.
///  - A volume of 4085 or 4086 clusters is taken for FAT12, where most other systems take it for FAT16. Do not write
///    to such a volume; format with a few clusters more or fewer.
///  - A new directory's first cluster is cleared up to 256 KiB only. With 512 KiB clusters (4096-byte sectors, 128 per
///    cluster) its second half keeps old bytes; format with smaller clusters.
///  - A new name that needs more directory slots in one piece than are free together makes the library slide other
///    entries together. Some of those are then remembered at their old places, and deleting or changing one hits
///    another. After deleting and creating many names in one directory, unmount and mount again before going on.
///  - The library remembers 160 objects. One that is still open when others push it out, and is opened again, exists
///    twice, and the two do not see each other's unsaved data. Keep handles no longer than needed.
///  - Names are compared by three hashes and their length: two names of one directory that agree in all four are one.
///  - A failed write drops that block's changes. The call that reports it may be one for another file, and at
///    Fat_CloseFile and Fat_Unmount nobody reports it: a host that must know counts failures in a storage class of its
///    own, or mounts again and compares. Stop using a volume after the first failed write.
///  - A device that was opened stays open when the boot sector is then refused: a host that probes many images leaks
///    one descriptor per refusal. Test the boot sector first where that matters.

#ifndef FATLIB_FATLIBINTF_H
#define FATLIB_FATLIBINTF_H

#ifndef FATLIB_API
#if defined(__GNUC__)
#define FATLIB_API __attribute__((visibility("default")))
#else
#define FATLIB_API
#endif
#endif

#ifdef __cplusplus
class CFatFileSystem;  // one mounted volume; opaque to the host
class CVolumeStorage;  // see XStorage.h
extern "C" {
#else
typedef struct CFatFileSystem CFatFileSystem;
typedef struct CVolumeStorage CVolumeStorage;
#endif

/// A point in time: 100-nanosecond units since 1601-01-01, as two halves so that the layout is the same on every
/// architecture.
typedef struct WIN_FTIME {
  unsigned int dwLowDateTime;   ///< the low half
  unsigned int dwHighDateTime;  ///< the high half
} WIN_FTIME;

/// One directory entry as the host sees it: 592 bytes, no padding.
///
/// The times are those of the library's own conversion, which cannot represent any FAT date: every time reads as one
/// second before 1970-01-01 00:00:00 UTC (0x019DB1DED4A5E980), and setting a time changes nothing on the medium.
typedef struct WIN_FIND_DATA {
  unsigned int dwFileAttributes;          ///< 0x01 read-only, 02 hidden, 04 system, 08 label, 10 directory, 20 archive
  WIN_FTIME ftCreationTime;               ///< see above
  WIN_FTIME ftLastAccessTime;             ///< see above
  WIN_FTIME ftLastWriteTime;              ///< see above
  unsigned int nFileSizeHigh;             ///< always 0
  unsigned int nFileSizeLow;              ///< size in bytes; 0 for a directory
  unsigned int dwReserved0;               ///< never written
  unsigned int dwReserved1;               ///< never written
  unsigned short cFileName[260];          ///< long name; empty when the entry has none. Zero-terminated, but for a
                                          ///< name of exactly 260 units, which only another system can have written
  unsigned short cAlternateFileName[14];  ///< short name as BASE.EXT, zero-terminated; empty if it cannot be converted
} WIN_FIND_DATA;

/* ---------------------------------------------------------------- the library ----------------------------------- */

/// Starts the library: takes the process locale from the environment (setlocale(LC_ALL, "")), makes the caches and
/// clears both handle tables. To be called before any other function; those fail until it was.
/// A second call keeps the caches and closes every open handle. When memory runs out the library stays unusable: every
/// mount fails.
FATLIB_API void Fat_LibInitialize(void);

/// Stops the library and frees its caches. Unmount every volume first: a volume still mounted is dropped without
/// writing its unsaved changes, and its storage object is not closed (call its Close before freeing it).
/// File systems are released here; a pointer returned by Fat_Mount names nothing afterwards.
/// @return 1 when no file or find handle was open, else 0 (the library is stopped all the same; handles left open stay
///         in the tables, and can only be closed).
FATLIB_API unsigned int Fat_LibTerminate(void);

/// Opens a storage object and mounts the volume on it; the new file system becomes the current one.
/// @param storage    a CFatPartition or CFatMemory, or a class derived from one, made with plain `new`. The host keeps
///                   it alive until Fat_Unmount and frees it then. After a failed mount the library has released its
///                   memory (operator delete, no destructor runs) and the host must not touch it again.
/// @param parameter  handed to the storage object: for CFatPartition the zero-terminated path of the device or image
///                   (opened read-write), for CFatMemory the address of the writable image.
/// @return the new file system, owned by the library, valid until Fat_LibTerminate (do not free it); null on failure:
///         the library is not initialised, no memory, null storage, or the storage could not be opened or is no FAT
///         volume. A storage object that a mounted file system already uses is refused too, and is not released.
/// A failed mount leaves no current file system, even if another one was current: see SetCurrentFileSystem.
FATLIB_API CFatFileSystem* Fat_Mount(CVolumeStorage* storage, void* parameter);

/// Writes back what is unsaved and closes the storage. In this order: the FAT32 FSInfo sector's counters are set to
/// unknown, the root directory and the FAT are written, the first FAT is copied over the second, the cached files and
/// directories are written, the storage is closed.
/// Handles still open on the volume stay in the table, but every function on them fails, except closing.
/// The current file system is not changed: set another one, or mount, before the next path function.
/// @return 1, also when data, a directory, the FSInfo sector or the second FAT could not be written; 0 when the file
///         system is null or not mounted (any more), or when the first FAT could not be written: then the volume is
///         dropped as it is and cannot be used again either. Its storage is not closed: call the object's Close before
///         freeing it.
FATLIB_API unsigned int Fat_Unmount(CFatFileSystem* fileSystem);

/// Makes a mounted file system the current one, on which every path function works. Handles belong to the volume they
/// were opened on, whichever file system is current. Null means none: every function of the sections below then fails,
/// those on handles too. The pointer is not checked here; with one that names no mounted file system only the path
/// functions fail.
FATLIB_API void SetCurrentFileSystem(CFatFileSystem* fileSystem);

/* ---------------------------------------------------------------- files ----------------------------------------- */

/// Opens an existing file or directory.
/// Handles of the same path share one object and therefore one file offset; closing any of them sets it to 0.
/// A file is also reachable "below" a regular file, whose bytes are then read as directory entries: check Fat_IsDir on
/// the parent where a path comes from a user.
/// @return a handle, 0 to 159, the lowest free one; -1 when the path is invalid or not found, when 160 files are open,
///         or on an I/O failure or a damaged directory or cluster chain.
FATLIB_API int Fat_OpenFile(unsigned short* path);

/// Creates a file, and every missing directory of its path.
/// A name that fits 8.3 in plain ASCII, in whatever case, is stored in upper case only. Every other name is stored as
/// a long name with an invented short name; the number in it counts up over the whole run of the library, and may
/// repeat a number that an earlier run gave out.
/// The long name is right all the same; a system that goes by short names may take one file for the other. Run
/// fsck.fat, which renames such pairs, where that matters. A name with at most one dot, whose base takes at most 8
/// bytes and whose extension at most 3 in the locale's encoding, and whose first byte is 0xE5, reads as deleted after
/// the next mount. In UTF-8 those begin with a character from U+5000 to U+5FFF, for instance such a one and up to five
/// ASCII characters: give such files longer names. Below a regular file the new entry is written into that file's
/// bytes: check Fat_IsDir on the parent where a path comes from a user.
/// @param size        bytes to give the file at once. New clusters are not cleared: they read as what the disk held.
/// @param attributes  low byte only; the directory bit is ignored. 0x08 and 0x0F make an entry that other systems do
///                    not see as a file.
/// @return a handle; -1 when the path is invalid or exists, when 160 files are open, when the disk or directory is
///         full, or on an I/O failure. Parent directories made before the failure stay. When the size cannot be given,
///         the name cannot be created again before the next mount.
FATLIB_API int Fat_CreateFile(unsigned short* path, unsigned int size, unsigned int attributes);

/// Closes a handle. The object stays in the library's cache, and nothing is written; if the cache has dropped it, its
/// unsaved data is written now.
FATLIB_API unsigned int Fat_CloseFile(int handle);

/// @param size  out: the file's size in bytes; 0 for a directory.
FATLIB_API unsigned int Fat_GetFileSize(int handle, unsigned int* size);

/// Grows or shrinks a file. New clusters keep what the disk held; shrinking frees clusters, size 0 all of them.
/// Not to be used on a directory: its size counts as 0 here, so that shrinking drops its entries. Nor on a file that
/// another system made larger than 2^32 minus the cluster size: shrinking grows it. Through a handle whose path was
/// renamed or moved meanwhile the call fails after the clusters were changed, or, when a new file has taken the old
/// name, changes the entry of that file. After a failure the handle may show the new size although the directory entry
/// was not written; asking for the same size again then succeeds without writing it. Ask for another size first.
/// @param size  bytes, at most 2^32 minus the cluster size.
/// @return 0 when the size is too large (nothing changed), the disk is full, or on an I/O failure.
FATLIB_API unsigned int Fat_SetFileSize(int handle, unsigned int size);

/// Reads at an explicit offset; the handle's own offset stays.
/// @param offset     bytes from the start. At, beyond or below the limits of the file: 0 bytes, failure.
/// @param count      bytes wanted; cut to the end of the file (for a directory: of its clusters).
/// @param bytesRead  out: the count of bytes as the cache reports it. It is exact for a transfer that lies inside one
///                   block of 256 KiB and starts at the block's beginning; for one whose blocks are all cached; and for
///                   one that starts at a block's beginning with none of them cached. Any other reports less (often 0)
///                   or more than was moved; the data itself is delivered in full. Never use the count to index the
///                   buffer: compute it from the offset and the size.
FATLIB_API unsigned int Fat_ReadFileEx(int handle, long long offset, unsigned int count, unsigned char* buffer,
                                       unsigned int* bytesRead);

/// Writes at an explicit offset; the handle's own offset stays. Writing stops at the file's size.
/// Arguments and result as for Fat_ReadFileEx; the buffer is only read.
FATLIB_API unsigned int Fat_WriteFileEx(int handle, long long offset, unsigned int count, unsigned char* buffer,
                                        unsigned int* bytesWritten);

/// @param offset  out: the handle's current offset in bytes.
FATLIB_API unsigned int Fat_GetFileOffset(int handle, unsigned int* offset);

/// Moves the handle's offset. Methods: 0 sets it to the distance; 1 adds the distance; 2 sets it to size minus the
/// distance, or 0 when the distance exceeds the size; any other leaves it. It is then cut to the file's size.
FATLIB_API unsigned int Fat_SetFileOffset(int handle, unsigned int distance, unsigned int method);

/// Reads at the handle's offset and advances it by the bytes reported, which may be fewer or more than were read (see
/// Fat_ReadFileEx). Reading a file from its start in steps of exactly 256 KiB is safe; for anything else use
/// Fat_ReadFileEx. At the end of the file: success with 0 bytes.
FATLIB_API unsigned int Fat_ReadFile(int handle, unsigned int count, unsigned char* buffer, unsigned int* bytesRead);

/// Writes at the handle's offset and advances it by the bytes reported. Writing stops at the file's size; at the end of
/// the file: success with 0 bytes. The buffer is only read.
FATLIB_API unsigned int Fat_WriteFile(int handle, unsigned int count, unsigned char* buffer,
                                      unsigned int* bytesWritten);

/// @return 1 for a directory, 0 for a file or an invalid handle.
FATLIB_API unsigned int Fat_IsDir(int handle);

/// Fills everything but dwReserved0 and dwReserved1. After a rename the long name shown is still the old one.
FATLIB_API unsigned int Fat_GetFileAttribute(int handle, WIN_FIND_DATA* data);

/// Stores the low byte of dwFileAttributes, unmasked (the directory and label bits are taken as given), and writes the
/// directory entry. Times change nothing; see WIN_FIND_DATA. Names and sizes of the record are ignored.
/// @return 0 also when the entry is not found under the path that the handle was opened with (renamed meanwhile); the
///         handle then shows the new attributes all the same.
FATLIB_API unsigned int Fat_SetFileAttribute(int handle, WIN_FIND_DATA* data);

/* ---------------------------------------------------------------- names ----------------------------------------- */

/// Deletes a file or an empty directory.
/// @return 0 when it is open, not empty, not found or the path is invalid (nothing changed), or on an I/O failure.
FATLIB_API unsigned int Fat_DeleteFile(unsigned short* path);

/// Gives a file or directory a new name in the directory it is in. Only the last component of newPath counts. The entry
/// gets new time stamps.
/// An object that is open or cached stays known under its OLD path as long as it is cached: the old name keeps opening
/// it, cannot be created again, and opening the new name builds a second object that does not see unsaved data of the
/// first. After renaming, unmount and mount again, or rename before the first open.
/// @return 0 when the new name exists (in any case: a change of case only fails), or on a failure as above.
FATLIB_API unsigned int Fat_RenameFile(unsigned short* oldPath, unsigned short* newPath);

/// Moves a file or directory, under its name, into another directory.
/// A cached object stays known under its old path, as after Fat_RenameFile.
/// @param directory  the destination directory; null (and only null) means the root.
/// @return 1 also when, by the two paths alone, it is there already (it need not exist then); 0 when the object or the
/// destination is open, the destination is not a
///         directory, is the object itself or lies below it, or has that name already, or on a failure as above.
FATLIB_API unsigned int Fat_MoveFile(unsigned short* path, unsigned short* directory);

/// Creates a directory, and every missing directory of its path.
/// As with Fat_CreateFile, a path below a regular file writes into that file.
/// @param attributes  low byte only; the directory bit is added. 0x08 makes a directory that is gone after the next
/// mount.
///                    The missing parents get none.
/// @return 0 when the path exists or is invalid, the disk or a directory is full, or on an I/O failure.
FATLIB_API unsigned int Fat_CreateDir(unsigned short* path, unsigned int attributes);

/* ---------------------------------------------------------------- enumeration ----------------------------------- */

/// Starts listing a directory, "." and ".." included, in the order of its entries on the medium.
/// The root directory cannot be listed with this function: it has no path.
/// @return a find handle, 0 to 31, and the first entry in data; -1 when the path is invalid, not found or not a
///         directory, when the directory has no entry, or when 32 searches are open.
FATLIB_API int Fat_FindFirstFile(unsigned short* path, WIN_FIND_DATA* data);

/// @return 1 with the next entry in data; 0 after the last one, with data untouched. The call after that starts again
///         with the first entry. Entries deleted or added meanwhile are skipped or seen by their place.
FATLIB_API unsigned int Fat_FindNextFile(int handle, WIN_FIND_DATA* data);

/// Ends a search.
FATLIB_API unsigned int Fat_CloseFindHandle(int handle);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif  // FATLIB_FATLIBINTF_H
