// The two libcurl handles of a transfer. A small request's multi handle is reused for a later one: creating one costs
// such a request a tenth of its processor time. An idle one holds no connection, option or name of its previous
// transfer, only the two descriptors that libcurl wakes itself with. The easy handle is always new: libcurl 7.88 keeps
// a pointer to the last header of a handle's previous transfer, and follows it when a reply's first header line begins
// with a blank. Safe from any thread.
#pragma once

#include <memory>
#include <new>

#include <curl/curl.h>

struct CurlHandles {
  struct MultiCleanUp {
    void operator()(CURLM *multi) const { curl_multi_cleanup(multi); }
  };
  struct EasyCleanUp {
    void operator()(CURL *easy) const { curl_easy_cleanup(easy); }
  };
  using Multi = std::unique_ptr<CURLM, MultiCleanUp>;

  Multi multi;
  std::unique_ptr<CURL, EasyCleanUp> easy; // destroyed first
};

/// False if SSLKEYLOGFILE names anything but a regular file or a name that is free. libcurl would open it and, if it is
/// a FIFO, wait there for a reader.
bool IsKeyLogRegular();

/// A new easy handle with a new multi handle, or with an idle one if `mayReuse`. The easy handle is not added yet.
/// Errors: throws std::bad_alloc.
CurlHandles MakeCurlHandles(bool mayReuse);
/// Takes back a multi handle whose only transfer is over and was removed. Cannot fail; a surplus handle is freed.
void KeepMultiHandle(CurlHandles::Multi multi) noexcept;

/// Frees what OpenSSL has for the calling thread. For the end of a transfer: what is left at the thread's end, OpenSSL
/// frees without keeping forks out meanwhile, and a child could find one of its locks taken. Cannot fail.
void FreeThreadState();

/// Errors: throws std::bad_alloc, which is all that can fail: libcurl knows every option used here.
template <class Value> void SetCurlOption(CURL *easy, CURLoption option, Value value) {
  if (curl_easy_setopt(easy, option, value) != CURLE_OK)
    throw std::bad_alloc();
}
template <class Value> Value GetCurlInfo(CURL *easy, CURLINFO info) {
  Value value{};
  curl_easy_getinfo(easy, info, &value);
  return value;
}
