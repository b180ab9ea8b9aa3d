// Sets up a libcurl handle for one request: URL and target, headers, options. Any thread, one at a time for a handle.
// It knows nothing of how the transfer runs.
#pragma once

#include "platform/http/CurlHandles.h"
#include "platform/http/HttpRequest.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

struct RequestBody {
  std::uint64_t length = 0;
  char const *bytes = nullptr; ///< borrowed; null if libcurl is to ask for them
};

/// What the easy handle points to; must outlive it.
struct CurlMemory {
  struct ListCleanUp {
    void operator()(curl_slist *list) const { curl_slist_free_all(list); }
  };
  using List = std::unique_ptr<curl_slist, ListCleanUp>;

  List headers;
  List connectTo;
  std::array<char, CURL_ERROR_SIZE> message{}; ///< libcurl's error text
};

/// The size of the request's head in bytes, rounded up.
std::size_t EstimateHeadSize(HttpRequest const &request);

/// Sets everything but the callbacks. A small request gets a small buffer. Errors: throws std::bad_alloc.
void SetUpCurl(CURL *easy, HttpRequest const &request, RequestBody const &body, bool isSmall, CurlMemory &memory);

constexpr std::uint64_t kSmallRequest = 16 * 1024; // bytes; fits into a buffer that takes no mapping of its own
