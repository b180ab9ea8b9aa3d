// The two libcurl handles of a transfer. Those of small requests are kept for later ones: making them costs such a
// request a tenth of its processor time. What is kept holds no connection, no option and no name of the transfer
// before, but the two descriptors that libcurl wakes itself with. Safe from any thread.
#pragma once

#include <memory>

#include <curl/curl.h>

struct CurlHandles {
  struct MultiCleanUp {
    void operator()(CURLM *multi) const { curl_multi_cleanup(multi); }
  };
  struct EasyCleanUp {
    void operator()(CURL *easy) const { curl_easy_cleanup(easy); }
  };
  std::unique_ptr<CURLM, MultiCleanUp> multi;
  std::unique_ptr<CURL, EasyCleanUp> easy; // goes first
};

/// New handles, the easy one outside the multi one. Errors: throws std::bad_alloc.
CurlHandles MakeCurlHandles();
/// Kept handles, else new ones.
CurlHandles TakeCurlHandles();
/// Takes the handles back when the transfer is over and its connection closed. Cannot fail; what is one too many goes.
void KeepCurlHandles(CurlHandles handles) noexcept;
