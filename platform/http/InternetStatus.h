// What the HTTP engine shares with the handle interface above it: handles and ports as types, and the status callback.
// Declarations only. The engine passes a handle on to the callback and knows nothing else of it.
#pragma once

#include "platform/base/Types.h"

using HINTERNET = void *;
using INTERNET_PORT = WORD;

constexpr DWORD INTERNET_STATUS_RESOLVING_NAME = 10;
constexpr DWORD INTERNET_STATUS_NAME_RESOLVED = 11;
constexpr DWORD INTERNET_STATUS_CONNECTING_TO_SERVER = 20;
constexpr DWORD INTERNET_STATUS_CONNECTED_TO_SERVER = 21;
constexpr DWORD INTERNET_STATUS_SENDING_REQUEST = 30;
constexpr DWORD INTERNET_STATUS_REQUEST_SENT = 31;
constexpr DWORD INTERNET_STATUS_RECEIVING_RESPONSE = 40;
constexpr DWORD INTERNET_STATUS_RESPONSE_RECEIVED = 41;
constexpr DWORD INTERNET_STATUS_CLOSING_CONNECTION = 50;
constexpr DWORD INTERNET_STATUS_CONNECTION_CLOSED = 51;

/// Called at each stage of a connection with the request's context; never with a zero context. The information is wide
/// text for 10, 11, 20 and 21, a DWORD count of bytes for 31 and 41, else null; valid during the call only.
/// Thread: the one that makes the call.
using INTERNET_STATUS_CALLBACK = void(CALLBACK *)(HINTERNET hInternet, DWORD_PTR dwContext, DWORD dwStatus,
                                                  void *pInformation, DWORD dwLength);
