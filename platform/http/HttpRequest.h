// One HTTP request as the engine takes it: what goes out, and to whom. Plain data, no thread of its own.
#pragma once

#include "platform/http/HttpLimits.h"
#include "platform/http/InternetStatus.h"

#include <string>
#include <vector>

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
