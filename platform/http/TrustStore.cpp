// See TrustStore.h. Reading the system's roots for each connection would cost some 17 ms of processor time each.
#include "platform/http/TrustStore.h"

#include "platform/base/Fork.h"

#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <sys/stat.h>

namespace {

/// Path, device, inode, size, and the seconds and nanoseconds of the last change; an empty path for the system's roots.
using Source = std::tuple<std::string, dev_t, ino_t, off_t, time_t, long>;

struct StoreCleanUp {
  void operator()(X509_STORE *store) const { X509_STORE_free(store); }
};
using Store = std::unique_ptr<X509_STORE, StoreCleanUp>;

struct SharedStore {
  SharedStore() { HoldAcrossFork(mutex); }

  std::mutex mutex;
  Source source;
  Store store;
};

SharedStore &ProcessStore() {
  static SharedStore &shared = *new SharedStore; // never destroyed: a thread may still connect at exit
  return shared;
}

Source CurrentSource() {
  char const *const path = std::getenv("SSL_CERT_FILE");
  if (!path || !*path)
    return {};
  struct stat info {};
  if (stat(path, &info) != 0)
    info = {};
  return {path, info.st_dev, info.st_ino, info.st_size, info.st_mtim.tv_sec, info.st_mtim.tv_nsec};
}

/// A store of the roots; null if out of memory. `isComplete` says whether they could be read: a store without them
/// refuses every server.
Store ReadRoots(std::string const &path, bool &isComplete) {
  Store store(X509_STORE_new());
  if (!store)
    return nullptr;
  X509_STORE_set_flags(store.get(), X509_V_FLAG_TRUSTED_FIRST | X509_V_FLAG_PARTIAL_CHAIN);
  if (path.empty()) // a hashed directory; its certificates are read one by one when needed
    isComplete = X509_STORE_set_default_paths(store.get()) == 1;
  else
    isComplete = X509_STORE_load_file(store.get(), path.c_str()) == 1;
  ERR_clear_error();
  return store;
}

} // namespace

bool UseTrustStore(ssl_ctx_st *context) {
  SharedStore &shared = ProcessStore();
  std::lock_guard<std::mutex> const lock(shared.mutex);
  Source source = CurrentSource();
  if (!shared.store || source != shared.source) {
    bool isComplete = false;
    Store store = ReadRoots(std::get<0>(source), isComplete);
    if (!store)
      return false;
    if (!isComplete) { // fails this connection only: the next one reads the roots again
      SSL_CTX_set1_cert_store(context, store.get());
      return true;
    }
    shared.store = std::move(store); // contexts that use the previous store keep their own reference
    shared.source = std::move(source);
  }
  SSL_CTX_set1_cert_store(context, shared.store.get());
  return true;
}

void ForgetTrustStore() {
  SharedStore &shared = ProcessStore();
  std::lock_guard<std::mutex> const lock(shared.mutex);
  shared.store.reset();
}
