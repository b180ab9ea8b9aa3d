// One HTTP request as the engine takes it: what goes out, and to whom; and the limits of each exchange. Plain data, no
// thread of its own.
#pragma once

#include "platform/http/InternetStatus.h"

#include <string>
#include <vector>

// Nothing limits a body that keeps moving out.
constexpr DWORD kConnectLimit = 60'000;                     // ms until the connection is established, TLS included
constexpr DWORD kSendLimit = 30'000;                        // ms without progress while sending
constexpr std::uint64_t kReceiveLimit = 60'000;             // ms without a byte while receiving
constexpr std::uint64_t kReplyLimit = 300'000;              // ms that calls may wait for one whole reply
constexpr std::size_t kReplyHeadLimit = 100 * 1024;         // bytes of reply headers, interim replies included
constexpr std::uint64_t kReplyBodyLimit = 64 * 1024 * 1024; // bytes
constexpr std::size_t kRequestHeadLimit = 1024 * 1024;      // bytes; libcurl builds no larger head

/// The limits that a caller can change, in ms.
struct TimeLimits {
  DWORD connect = kConnectLimit;
  DWORD send = kSendLimit;
};

/// Header lines are "Name: value", without line ends.
struct HttpRequest {
  std::string host; ///< a name or an address, IPv6 with or without its brackets
  INTERNET_PORT port = 0;
  bool isSecure = false;
  bool isPost = false;
  bool ignoresDate = false;
  bool ignoresName = false;
  std::string target;                ///< path and query
  std::vector<std::string> headers;  ///< the caller's
  std::vector<std::string> defaults; ///< the layer's own: a caller's header of the same name replaces each
  TimeLimits limits;
};
