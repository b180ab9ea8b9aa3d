// See CurlHandles.h.
#include "platform/http/CurlHandles.h"

#include "platform/base/Fork.h"

#include <array>
#include <mutex>
#include <new>
#include <utility>

#include <openssl/crypto.h>

namespace {

struct IdleHandles {
  IdleHandles() { HoldAcrossFork(mutex); }

  std::mutex mutex;
  pid_t process = CurrentProcess();
  std::array<CurlHandles::Multi, 4> multis; // more transfers at once are rare
};

IdleHandles &Idle() {
  static IdleHandles &idle = *new IdleHandles; // never destroyed: a thread may still send at exit
  return idle;
}

/// Frees what OpenSSL has for a thread before OpenSSL itself does, which would keep no fork out meanwhile.
struct ThreadCleanUp {
  ~ThreadCleanUp() {
    NoForkScope const scope;
    OPENSSL_thread_stop();
  }
};

/// May throw std::bad_alloc; the next call then tries again.
void InitializeCurl() {
  [[maybe_unused]] static bool const s_isReady = [] {
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr); // a thread may still send at exit
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK)
      throw std::bad_alloc();
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

CurlHandles MakeCurlHandles(bool mayReuse) {
  InitializeCurl();
  [[maybe_unused]] static thread_local ThreadCleanUp const s_cleanUp;
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
