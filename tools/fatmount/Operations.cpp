/// @file Operations.cpp

#include "Operations.h"

#include <cerrno>
#include <new>

#include "Server.h"

namespace fatmount {

namespace {

Server& ServerOf(fuse_req_t request) { return *static_cast<Server*>(fuse_req_userdata(request)); }

/// @return what the work gives, or ENOMEM
template <typename Work>
int Try(Server& server, Request kind, Work work) {
  server.Counters().Count(kind);
  int error;
  try {
    error = work(server);
  } catch (const std::bad_alloc&) {
    error = ENOMEM;
  }
  if (error != 0) ++server.Counters().refused;
  return error;
}

/// For a function that sends its answer itself.
template <typename Work>
void Answer(fuse_req_t request, Request kind, Work work) {
  const int error = Try(ServerOf(request), kind, work);
  if (error != 0) (void)fuse_reply_err(request, error);
}

/// For one that has nothing to send.
template <typename Work>
void Confirm(fuse_req_t request, Request kind, Work work) {
  (void)fuse_reply_err(request, Try(ServerOf(request), kind, work));
}

void Init(void*, fuse_conn_info* connection) {
  // What the kernel would keep back could be lost, and every write would throw the bytes away that it has.
  connection->want &= ~static_cast<unsigned int>(FUSE_CAP_WRITEBACK_CACHE | FUSE_CAP_AUTO_INVAL_DATA);
  connection->want |= connection->capable & (FUSE_CAP_ASYNC_READ | FUSE_CAP_ATOMIC_O_TRUNC | FUSE_CAP_READDIRPLUS |
                                             FUSE_CAP_READDIRPLUS_AUTO | FUSE_CAP_EXPLICIT_INVAL_DATA);
  connection->want &= ~static_cast<unsigned int>(FUSE_CAP_PARALLEL_DIROPS);
}

// ---------------------------------------------------------------------------------------------- names

void Lookup(fuse_req_t request, fuse_ino_t parent, const char* name) {
  Answer(request, Request::Lookup, [&](Server& server) { return server.Lookup(request, parent, name); });
}

void Forget(fuse_req_t request, fuse_ino_t id, std::uint64_t lookups) {
  Server& server = ServerOf(request);
  server.Counters().Count(Request::Forget);
  server.Forget(id, lookups);
  fuse_reply_none(request);
}

void ForgetMulti(fuse_req_t request, std::size_t count, fuse_forget_data* forgets) {
  Server& server = ServerOf(request);
  for (std::size_t i = 0; i < count; ++i) {
    server.Counters().Count(Request::Forget);
    server.Forget(forgets[i].ino, forgets[i].nlookup);
  }
  fuse_reply_none(request);
}

void Mknod(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, dev_t) {
  Answer(request, Request::Mknod, [&](Server& server) { return server.Mknod(request, parent, name, mode); });
}

void Mkdir(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t) {
  Answer(request, Request::Mkdir, [&](Server& server) { return server.Mkdir(request, parent, name); });
}

void Create(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, fuse_file_info* file) {
  Answer(request, Request::Create, [&](Server& server) { return server.Create(request, parent, name, mode, file); });
}

void Unlink(fuse_req_t request, fuse_ino_t parent, const char* name) {
  Confirm(request, Request::Unlink, [&](Server& server) { return server.Remove(parent, name, false); });
}

void Rmdir(fuse_req_t request, fuse_ino_t parent, const char* name) {
  Confirm(request, Request::Rmdir, [&](Server& server) { return server.Remove(parent, name, true); });
}

void Rename(fuse_req_t request, fuse_ino_t parent, const char* name, fuse_ino_t newParent, const char* newName,
            unsigned int flags) {
  Confirm(request, Request::Rename,
          [&](Server& server) { return server.Rename(parent, name, newParent, newName, flags); });
}

void Symlink(fuse_req_t request, const char*, fuse_ino_t, const char*) {
  Confirm(request, Request::Symlink, [](Server&) { return EPERM; });
}

void Link(fuse_req_t request, fuse_ino_t, fuse_ino_t, const char*) {
  Confirm(request, Request::Link, [](Server&) { return EPERM; });
}

// ---------------------------------------------------------------------------------------------- looking

void Getattr(fuse_req_t request, fuse_ino_t id, fuse_file_info*) {
  Answer(request, Request::Getattr, [&](Server& server) { return server.Getattr(request, id); });
}

void Setattr(fuse_req_t request, fuse_ino_t id, struct stat* wanted, int what, fuse_file_info*) {
  Answer(request, Request::Setattr, [&](Server& server) { return server.Setattr(request, id, *wanted, what); });
}

void Statfs(fuse_req_t request, fuse_ino_t) {
  Answer(request, Request::Statfs, [&](Server& server) { return server.Statfs(request); });
}

void Opendir(fuse_req_t request, fuse_ino_t id, fuse_file_info* file) {
  Answer(request, Request::Opendir, [&](Server& server) { return server.Opendir(request, id, file); });
}

void Readdir(fuse_req_t request, fuse_ino_t id, std::size_t size, off_t offset, fuse_file_info* file) {
  Answer(request, Request::Readdir,
         [&](Server& server) { return server.Readdir(request, id, size, offset, file, false); });
}

void Readdirplus(fuse_req_t request, fuse_ino_t id, std::size_t size, off_t offset, fuse_file_info* file) {
  Answer(request, Request::Readdirplus,
         [&](Server& server) { return server.Readdir(request, id, size, offset, file, true); });
}

void Releasedir(fuse_req_t request, fuse_ino_t, fuse_file_info* file) {
  Confirm(request, Request::Releasedir, [&](Server&) {
    Server::Releasedir(file);
    return 0;
  });
}

// ---------------------------------------------------------------------------------------------- bytes

void Open(fuse_req_t request, fuse_ino_t id, fuse_file_info* file) {
  Answer(request, Request::Open, [&](Server& server) { return server.Open(request, id, file); });
}

void Read(fuse_req_t request, fuse_ino_t id, std::size_t size, off_t offset, fuse_file_info*) {
  Answer(request, Request::Read, [&](Server& server) { return server.Read(request, id, size, offset); });
}

void Write(fuse_req_t request, fuse_ino_t id, const char* bytes, std::size_t size, off_t offset, fuse_file_info*) {
  Answer(request, Request::Write, [&](Server& server) { return server.Write(request, id, bytes, size, offset); });
}

void Flush(fuse_req_t request, fuse_ino_t, fuse_file_info*) {
  Confirm(request, Request::Flush, [](Server&) { return 0; });
}

void Release(fuse_req_t request, fuse_ino_t id, fuse_file_info*) {
  Confirm(request, Request::Release, [&](Server& server) {
    server.Release(id);
    return 0;
  });
}

void Fsync(fuse_req_t request, fuse_ino_t, int, fuse_file_info*) {
  Confirm(request, Request::Fsync, [](Server& server) { return server.Fsync(); });
}

void Fsyncdir(fuse_req_t request, fuse_ino_t, int, fuse_file_info*) {
  Confirm(request, Request::Fsyncdir, [](Server& server) { return server.Fsync(); });
}

void Fallocate(fuse_req_t request, fuse_ino_t id, int mode, off_t offset, off_t length, fuse_file_info*) {
  Confirm(request, Request::Fallocate, [&](Server& server) { return server.Fallocate(id, mode, offset, length); });
}

fuse_lowlevel_ops MakeOperations() {
  fuse_lowlevel_ops operations{};
  operations.init = Init;
  operations.lookup = Lookup;
  operations.forget = Forget;
  operations.forget_multi = ForgetMulti;
  operations.getattr = Getattr;
  operations.setattr = Setattr;
  operations.mknod = Mknod;
  operations.mkdir = Mkdir;
  operations.unlink = Unlink;
  operations.rmdir = Rmdir;
  operations.symlink = Symlink;
  operations.link = Link;
  operations.rename = Rename;
  operations.create = Create;
  operations.open = Open;
  operations.read = Read;
  operations.write = Write;
  operations.flush = Flush;
  operations.release = Release;
  operations.fsync = Fsync;
  operations.opendir = Opendir;
  operations.readdir = Readdir;
  operations.readdirplus = Readdirplus;
  operations.releasedir = Releasedir;
  operations.fsyncdir = Fsyncdir;
  operations.statfs = Statfs;
  operations.fallocate = Fallocate;
  return operations;
}

}  // namespace

const fuse_lowlevel_ops& Operations() {
  static const fuse_lowlevel_ops operations = MakeOperations();
  return operations;
}

}  // namespace fatmount
