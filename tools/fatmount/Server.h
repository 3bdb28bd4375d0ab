/// @file Server.h
/// Answers the requests of the kernel. Each function gives an errno, or 0: it has then sent its answer, if it is said
/// here what it answers with, and else the caller says that all is well. One thread calls it.

#ifndef FATMOUNT_SERVER_H
#define FATMOUNT_SERVER_H

#define FUSE_USE_VERSION 35
#include <fatlib/Volume.h>
#include <fuse3/fuse_lowlevel.h>

#include <memory>
#include <string>
#include <vector>

#include "Attributes.h"
#include "Nodes.h"
#include "Notifier.h"
#include "PageBuffer.h"
#include "Stats.h"
#include "WriteBack.h"

namespace fatmount {

class Server {
 public:
  /// @param volume  open
  Server(fatlib::Volume* volume, const Owner& owner, WriteBack* writeBack, Notifier* notifier, Stats* stats);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  Stats& Counters() { return *m_pStats; }

  // ---- names: ServerNames.cpp

  int Lookup(fuse_req_t request, NodeId parent, const char* name);  ///< answers with the entry
  void Forget(NodeId id, std::uint64_t lookups) { m_Nodes.Forget(id, lookups); }
  int Mknod(fuse_req_t request, NodeId parent, const char* name, mode_t mode);  ///< answers with the entry
  int Mkdir(fuse_req_t request, NodeId parent, const char* name);               ///< answers with the entry
  int Create(fuse_req_t request, NodeId parent, const char* name, mode_t mode,
             fuse_file_info* file);  ///< answers with the entry
  int Remove(NodeId parent, const char* name, bool directory);
  int Rename(NodeId parent, const char* name, NodeId newParent, const char* newName, unsigned int flags);

  // ---- looking: ServerLook.cpp

  int Getattr(fuse_req_t request, NodeId id);                                       ///< answers with the attributes
  int Setattr(fuse_req_t request, NodeId id, const struct stat& wanted, int what);  ///< answers with the attributes
  int Statfs(fuse_req_t request);                                                   ///< answers with the figures
  int Opendir(fuse_req_t request, NodeId id, fuse_file_info* file);                 ///< answers with the handle
  int Readdir(fuse_req_t request, NodeId id, std::size_t size, off_t offset, fuse_file_info* file,
              bool plus);  ///< answers with entries
  static void Releasedir(fuse_file_info* file);

  // ---- bytes: ServerFiles.cpp

  int Open(fuse_req_t request, NodeId id, fuse_file_info* file);  ///< answers with the handle
  void Release(NodeId id);
  int Read(fuse_req_t request, NodeId id, std::size_t size, off_t offset);  ///< answers with the bytes
  int Write(fuse_req_t request, NodeId id, const char* bytes, std::size_t size,
            off_t offset);  ///< answers with the size
  int Fallocate(NodeId id, int mode, off_t offset, off_t length);
  int Fsync() { return ErrnoOf(m_pWriteBack->Commit()); }

 private:
  struct Listing;

  /// @return ESTALE for a number that was never given: the kernel then looks the name up anew
  int Use(NodeId id, Node** node);
  /// The same of a directory that is there.
  int UseDirectory(NodeId id, Node** node);
  int StatNode(Node* node, fatlib::Entry* entry);
  int AnswerAttributes(fuse_req_t request, Node* node);
  struct stat AttributesOfNode(const Node* node, const fatlib::Entry& entry) const;
  /// What the kernel is told of an entry, which it knows from then on.
  fuse_entry_param Tell(Node* parent, const fatlib::Entry& entry, const std::u16string& spelling, Node** node);
  int AnswerNewEntry(fuse_req_t request, Node* parent, const std::u16string& name, fuse_file_info* file);
  /// Makes the file that a node is of ready for bytes. @return ENOENT, ...
  int OpenFile(Node* node);
  static void OpenHandle(Node* node, fuse_file_info* file);
  int Resize(Node* node, std::uint64_t size);
  int SetTimes(Node* node, const struct stat& wanted, int what);
  int SetMode(Node* node, mode_t mode);
  int MakeOrphan(Node* node);
  void UndoOrphan(Node* node);
  /// Node and place of a name in a directory. @param node  out: null when the kernel never asked for it
  int FindChild(NodeId parent, const char* name, Node** directory, std::u16string* units, Node** node);
  void EntriesChanged(Node* directory);
  void ForgetOtherSpelling(const Node* node, const std::u16string& used);
  int FillListing(Node* node, Listing* listing);
  std::size_t AddEntry(fuse_req_t request, Node* directory, Listing* listing, std::size_t index, char* at,
                       std::size_t room, bool plus);
  int Changed() { return ErrnoOf(m_pWriteBack->Changed()); }

  fatlib::Volume* m_pVolume;
  Owner m_Owner;
  WriteBack* m_pWriteBack;
  Notifier* m_pNotifier;
  Stats* m_pStats;
  Nodes m_Nodes;
  PageBuffer m_Buffer;  // of the answer that is being made
};

}  // namespace fatmount

#endif  // FATMOUNT_SERVER_H
