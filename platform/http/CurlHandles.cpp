#include "platform/http/CurlHandles.h"

#include "platform/base/Fork.h"

#include <array>
#include <cstdlib>
#include <mutex>
#include <new>
#include <utility>

#include <openssl/crypto.h>
#include <sys/stat.h>

namespace {

struct IdleHandles {
  std::mutex mutex;
  pid_t process = CurrentProcess();
  std::array<CurlHandles::Multi, 4> multis; // more transfers at once are rare
};

IdleHandles &Idle() {
  static IdleHandles &idle = *new IdleHandles; // never destroyed: a thread may still send at exit
  return idle;
}

/// May throw std::bad_alloc; the next call then tries again.
void InitializeCurl() {
  [[maybe_unused]] static bool const s_isReady = [] {
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr); // a thread may still send at exit
    // OpenSSL would crash without its default context, which it does not try to create again once memory ran out.
    if (!OSSL_LIB_CTX_get0_global_default())
      throw std::bad_alloc();
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK)
      throw std::bad_alloc();
    std::atexit(LockOthersOut); // runs before OpenSSL's own handler, if the program has used OpenSSL already
    return true;
  }();
}

/// An idle multi handle; null if there is none.
CurlHandles::Multi TakeIdle() {
  IdleHandles &idle = Idle();
  std::lock_guard<std::mutex> const lock(idle.mutex);
  if (std::exchange(idle.process, CurrentProcess()) != CurrentProcess())
    idle.multis = {}; // waking one would wake the parent's
  for (CurlHandles::Multi &multi : idle.multis)
    if (multi)
      return std::move(multi);
  return nullptr;
}

} // namespace

bool IsKeyLogRegular() {
  char const *const path = std::getenv("SSLKEYLOGFILE");
  struct stat status;
  return !path || stat(path, &status) != 0 || S_ISREG(status.st_mode);
}

void FreeThreadState() {
  NoForkScope const scope;
  OPENSSL_thread_stop();
}

CurlHandles MakeCurlHandles(bool mayReuse) {
  InitializeCurl();
  CurlHandles handles;
  if (mayReuse)
    handles.multi = TakeIdle();
  if (!handles.multi)
    handles.multi.reset(curl_multi_init());
  handles.easy.reset(curl_easy_init());
  if (!handles.multi || !handles.easy)
    throw std::bad_alloc();
  return handles;
}

void KeepMultiHandle(CurlHandles::Multi multi) noexcept {
  IdleHandles &idle = Idle();
  std::lock_guard<std::mutex> const lock(idle.mutex);
  if (idle.process != CurrentProcess())
    return;
  for (CurlHandles::Multi &place : idle.multis)
    if (!place) {
      place = std::move(multi);
      return;
    }
}
