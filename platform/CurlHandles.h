// The two libcurl handles of a transfer, kept for later transfers: making them costs a small request a tenth of its
// processor time. What is kept holds no connection, no option and no name of the one before. Safe from any thread.
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

/// Both handles, the easy one outside the multi one. Errors: throws std::bad_alloc.
CurlHandles TakeCurlHandles();
/// Takes the handles back when the transfer is over and its connection closed. Cannot fail; what is one too many goes.
void KeepCurlHandles(CurlHandles handles) noexcept;
