// See TrustStore.h. Reading the system's roots anew for each connection would cost some 17 ms of processor time each.
#include "platform/TrustStore.h"

#include "platform/Fork.h"

#include <cstdlib>
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

struct Shared {
  Shared() { HoldAcrossFork(mutex); }

  std::mutex mutex;
  Source source;
  X509_STORE *store = nullptr;
};

Shared &TheStore() {
  static Shared &shared = *new Shared; // never destroyed: a thread may still connect at exit
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

X509_STORE *ReadRoots(std::string const &path) {
  X509_STORE *const store = X509_STORE_new();
  if (!store)
    return nullptr;
  X509_STORE_set_flags(store, X509_V_FLAG_TRUSTED_FIRST | X509_V_FLAG_PARTIAL_CHAIN);
  if (path.empty())
    X509_STORE_set_default_paths(store); // a hashed directory, which is read certificate by certificate as they are met
  else
    X509_STORE_load_file(store, path.c_str());
  ERR_clear_error(); // an empty store refuses every server, which says enough
  return store;
}

} // namespace

bool UseTrustStore(ssl_ctx_st *context) {
  Shared &shared = TheStore();
  std::lock_guard<std::mutex> const lock(shared.mutex);
  Source source = CurrentSource();
  if (!shared.store || source != shared.source) {
    X509_STORE *const store = ReadRoots(std::get<0>(source));
    if (!store)
      return false;
    X509_STORE_free(shared.store); // contexts that use it keep their own reference
    shared.store = store;
    shared.source = std::move(source);
  }
  SSL_CTX_set1_cert_store(context, shared.store);
  return true;
}
