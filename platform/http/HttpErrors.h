// Turns what libcurl reports of a failed transfer into an error number. Pure function, any thread.
#pragma once

#include "platform/base/LastError.h"

#include <curl/curl.h>

/// What libcurl reports of a failed transfer, and how far the transfer had come.
struct CurlFailure {
  CURLcode code;
  char const *message;  ///< libcurl's error text, possibly empty
  long verifyResult;    ///< OpenSSL's result of the certificate check
  long systemError;     ///< the last errno of a connection
  long proxyStatus;     ///< the proxy's answer to CONNECT; 0 for none
  bool isConnecting;    ///< no byte of the request is out
  bool isAwaitingReply; ///< the request goes out or is out, the reply's head is not in
};

/// The error number of WinInet.h; never ERROR_SUCCESS.
DWORD ErrorNumber(CurlFailure const &failure);
