// The handles of WinInet.h: sessions, their connections, and the requests of both, as entries of a tree. Closing an
// entry closes those below it. Safe from any thread.
#pragma once

#include "platform/http/HttpRequest.h"
#include "platform/http/HttpTransfer.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

/// What a handle stands for. Parents outlive their children, and close them.
struct HandleEntry {
  explicit HandleEntry(std::shared_ptr<HandleEntry> parentOfEntry);
  virtual ~HandleEntry() = default;
  /// Ends the call that runs on the entry, and all later ones.
  virtual void Abort() {}

  pid_t const process;
  std::shared_ptr<HandleEntry> const parent;

  std::mutex mutex; ///< guards what follows, and a session's settings
  bool isClosed = false;
  std::vector<HINTERNET> children;
};

struct SessionEntry : HandleEntry {
  explicit SessionEntry(std::string agentName) : HandleEntry(nullptr), agent(std::move(agentName)) {}

  std::string const agent;
  INTERNET_STATUS_CALLBACK callback = nullptr;
  TimeLimits limits;
};

struct ConnectionEntry : HandleEntry {
  ConnectionEntry(std::shared_ptr<SessionEntry> session, std::string hostName, INTERNET_PORT portNumber)
      : HandleEntry(std::move(session)), host(std::move(hostName)), port(portNumber) {}

  std::string const host;
  INTERNET_PORT const port;
};

struct RequestEntry : HandleEntry {
  explicit RequestEntry(std::shared_ptr<HandleEntry> parentOfEntry) : HandleEntry(std::move(parentOfEntry)) {}
  void Abort() override { transfer.Abort(); }

  std::atomic<bool> isBusy = false; ///< a call runs; only that call uses what follows
  HttpRequest head;
  StatusSink sink;
  HttpTransfer transfer;
};

/// Gives the entry a handle and adds it to its parent's children. Returns: an error number; 12017 if the parent is
/// closed. May throw std::bad_alloc.
DWORD AddHandle(std::shared_ptr<HandleEntry> const &entry, HINTERNET &handle);

/// Null for a handle that is not, or no longer, in the tree, and for one of a parent process: its lock may be held.
std::shared_ptr<HandleEntry> FindHandle(HINTERNET handle);

/// Takes the entry and those below it out of the tree and aborts their calls; in a forked child, the parent process's
/// entries stay as they are. Returns: false if there is no such handle. May throw std::bad_alloc.
bool CloseHandleTree(HINTERNET handle);
