// See CurlHandles.h.
#include "platform/CurlHandles.h"

#include "platform/Fork.h"

#include <array>
#include <mutex>
#include <new>
#include <utility>

#include <openssl/crypto.h>

namespace {

struct Kept {
  Kept() { HoldAcrossFork(mutex); }

  std::mutex mutex;
  pid_t process = CurrentProcess();
  std::array<CurlHandles, 4> handles; // more transfers at a time are rare
};

Kept &TheKept() {
  static Kept &kept = *new Kept; // never destroyed: a thread may still send at exit
  return kept;
}

void InitializeCurl() {
  static bool const isReady = [] {
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr); // a thread may still send at exit
    return curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  }();
  if (!isReady)
    throw std::bad_alloc();
}

} // namespace

CurlHandles MakeCurlHandles() {
  InitializeCurl();
  CurlHandles handles;
  handles.multi.reset(curl_multi_init());
  handles.easy.reset(curl_easy_init());
  if (!handles.multi || !handles.easy)
    throw std::bad_alloc();
  return handles;
}

CurlHandles TakeCurlHandles() {
  Kept &kept = TheKept();
  {
    std::lock_guard<std::mutex> const lock(kept.mutex);
    if (std::exchange(kept.process, CurrentProcess()) != CurrentProcess())
      kept.handles = {}; // a wake-up would reach the parent's
    for (CurlHandles &handles : kept.handles)
      if (handles.easy)
        return std::move(handles);
  }
  return MakeCurlHandles();
}

void KeepCurlHandles(CurlHandles handles) noexcept {
  curl_easy_reset(handles.easy.get());
  Kept &kept = TheKept();
  std::lock_guard<std::mutex> const lock(kept.mutex);
  if (kept.process != CurrentProcess())
    return;
  for (CurlHandles &place : kept.handles)
    if (!place.easy) {
      place = std::move(handles);
      return;
    }
}
