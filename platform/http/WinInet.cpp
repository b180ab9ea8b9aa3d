// The functions of WinInet.h that work on open handles: options, headers, sending, the reply. Any thread; no exception
// leaves a function.
#include "platform/http/WinInetCall.h"
#include "platform/text/AnsiText.h"
#include "platform/text/Utf8.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

namespace {

/// Each line becomes a header; empty ones are skipped.
DWORD AddHeaders(HttpRequest &head, std::string_view text) {
  while (!text.empty()) {
    std::string_view const line = text.substr(0, text.find_first_of("\r\n"));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    if (line.empty())
      continue;
    if (line.find(':') == line.npos || line.find('\0') != line.npos)
      return ERROR_INVALID_PARAMETER;
    head.headers.emplace_back(line);
  }
  return ERROR_SUCCESS;
}

/// Only a POST has a body.
DWORD CheckBody(HttpRequest const &head, std::uint64_t length) {
  return length > 0 && !head.isPost ? ERROR_INVALID_PARAMETER : ERROR_SUCCESS;
}

/// Sends the whole request, with header lines of this call's own.
DWORD SendRequest(RequestEntry &request, std::wstring_view headers, std::string_view body) {
  if (DWORD const error = AddHeaders(request.head, AnsiFromWide(headers)))
    return error;
  if (DWORD const error = CheckBody(request.head, body.size()))
    return error;
  return request.transfer.Send(request.head, request.sink, body);
}

/// Sends the head of a request whose body follows.
DWORD BeginRequest(RequestEntry &request, std::uint64_t bodyLength) {
  DWORD const error = CheckBody(request.head, bodyLength);
  return error != ERROR_SUCCESS ? error : request.transfer.Begin(request.head, request.sink, bodyLength);
}

DWORD SetSessionOption(SessionEntry &session, DWORD option, DWORD value) {
  std::lock_guard<std::mutex> const lock(session.mutex);
  switch (option) {
  case INTERNET_OPTION_CONNECT_TIMEOUT:
    session.limits.connect = value;
    return ERROR_SUCCESS;
  case INTERNET_OPTION_SEND_TIMEOUT:
    session.limits.send = value;
    return ERROR_SUCCESS;
  default:
    return ERROR_INTERNET_INVALID_OPTION;
  }
}

DWORD SetSecurityFlags(RequestEntry &request, DWORD value) {
  if (request.transfer.HasBegun())
    return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
  request.head.ignoresDate |= (value & SECURITY_FLAG_IGNORE_CERT_DATE_INVALID) != 0;
  request.head.ignoresName |= (value & SECURITY_FLAG_IGNORE_CERT_CN_INVALID) != 0;
  return ERROR_SUCCESS; // revocation is never checked
}

/// Stores a value in a buffer of `*length` bytes, and the value's size there.
DWORD Store(void const *value, DWORD size, void *buffer, DWORD *length) {
  DWORD const room = std::exchange(*length, size);
  if (!buffer || room < size)
    return ERROR_INSUFFICIENT_BUFFER;
  std::memcpy(buffer, value, size);
  return ERROR_SUCCESS;
}

DWORD QueryInfo(RequestEntry &request, DWORD infoLevel, void *buffer, DWORD *length) {
  HttpTransfer const &transfer = request.transfer;
  if (!transfer.IsAnswered())
    return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
  auto const status = static_cast<DWORD>(transfer.Status());
  if (infoLevel == (HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER))
    return Store(&status, sizeof status, buffer, length);
  std::wstring text;
  if (infoLevel == HTTP_QUERY_CONTENT_LENGTH)
    text = WideFromUtf8(transfer.ContentLength());
  else if (infoLevel == HTTP_QUERY_STATUS_CODE)
    text = std::to_wstring(status);
  if (text.empty())
    return ERROR_HTTP_HEADER_NOT_FOUND;
  auto const size = static_cast<DWORD>(text.size() * sizeof(WCHAR));
  DWORD const error = Store(text.c_str(), size + sizeof(WCHAR), buffer, length);
  if (error == ERROR_SUCCESS)
    *length = size;
  return error;
}

} // namespace

INTERNET_STATUS_CALLBACK InternetSetStatusCallbackW(HINTERNET hSession, INTERNET_STATUS_CALLBACK pfnCallback) {
  INTERNET_STATUS_CALLBACK pfnEarlier = nullptr;
  RunCall([&] {
    std::shared_ptr<SessionEntry> session;
    DWORD const error = FindEntry(hSession, session);
    if (error == ERROR_SUCCESS) {
      std::lock_guard<std::mutex> const lock(session->mutex);
      pfnEarlier = std::exchange(session->callback, pfnCallback);
    }
    return error;
  });
  return pfnEarlier;
}

BOOL HttpAddRequestHeadersA(HINTERNET hRequest, char const *szHeaders, DWORD dwLength, DWORD /*dwModifiers*/) {
  return RunCall(FaultPoint::HttpAddRequestHeadersA, [&] {
    return RunOnRequest(hRequest, [&](RequestEntry &request) -> DWORD {
      if (request.transfer.HasBegun())
        return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
      std::string_view const headers = szHeaders ? szHeaders : "";
      return AddHeaders(request.head, headers.substr(0, dwLength));
    });
  });
}

BOOL InternetSetOptionW(HINTERNET hInternet, DWORD dwOption, void *pValue, DWORD dwLength) {
  return RunCall([&]() -> DWORD {
    DWORD value = 0;
    if (!pValue || dwLength != sizeof value)
      return ERROR_INVALID_PARAMETER;
    std::memcpy(&value, pValue, sizeof value);
    if (dwOption == INTERNET_OPTION_SECURITY_FLAGS)
      return RunOnRequest(hInternet, [&](RequestEntry &request) { return SetSecurityFlags(request, value); });
    std::shared_ptr<SessionEntry> session;
    DWORD const error = FindEntry(hInternet, session);
    return error != ERROR_SUCCESS ? error : SetSessionOption(*session, dwOption, value);
  });
}

BOOL HttpSendRequestW(HINTERNET hRequest, WCHAR const *wszHeaders, DWORD dwHeadersLength, void const *pBody,
                      DWORD dwBodyLength) {
  return RunCall(FaultPoint::HttpSendRequestW, [&] {
    return RunOnRequest(hRequest, [&](RequestEntry &request) {
      std::wstring_view const headers = wszHeaders ? wszHeaders : L"";
      return SendRequest(request, headers.substr(0, dwHeadersLength),
                         {static_cast<char const *>(pBody), pBody ? dwBodyLength : 0});
    });
  });
}

BOOL HttpSendRequestExW(HINTERNET hRequest, INTERNET_BUFFERSW *pIn, INTERNET_BUFFERSW * /*pOut*/, DWORD /*dwFlags*/,
                        DWORD_PTR /*dwContext*/) {
  return RunCall(FaultPoint::HttpSendRequestExW, [&] {
    return RunOnRequest(hRequest,
                        [&](RequestEntry &request) { return BeginRequest(request, pIn ? pIn->dwBufferTotal : 0); });
  });
}

BOOL InternetWriteFile(HINTERNET hRequest, void const *pBuffer, DWORD dwBytes, DWORD *pdwWritten) {
  *pdwWritten = 0;
  return RunCall(FaultPoint::InternetWriteFile, [&] {
    return RunOnRequest(hRequest, [&](RequestEntry &request) {
      DWORD const error = request.transfer.Write(pBuffer, dwBytes);
      if (error == ERROR_SUCCESS)
        *pdwWritten = dwBytes;
      return error;
    });
  });
}

BOOL HttpEndRequestW(HINTERNET hRequest, INTERNET_BUFFERSW * /*pOut*/, DWORD /*dwFlags*/, DWORD_PTR /*dwContext*/) {
  return RunCall(FaultPoint::HttpEndRequestW,
                 [&] { return RunOnRequest(hRequest, [](RequestEntry &request) { return request.transfer.End(); }); });
}

BOOL HttpQueryInfoW(HINTERNET hRequest, DWORD dwInfoLevel, void *pBuffer, DWORD *pdwLength, DWORD * /*pdwIndex*/) {
  return RunCall(FaultPoint::HttpQueryInfoW, [&] {
    return RunOnRequest(hRequest,
                        [&](RequestEntry &request) { return QueryInfo(request, dwInfoLevel, pBuffer, pdwLength); });
  });
}

BOOL InternetQueryDataAvailable(HINTERNET hRequest, DWORD *pdwAvailable, DWORD /*dwFlags*/, DWORD_PTR /*dwContext*/) {
  *pdwAvailable = 0;
  return RunCall(FaultPoint::InternetQueryDataAvailable, [&] {
    return RunOnRequest(hRequest, [&](RequestEntry &request) {
      std::size_t size = 0;
      DWORD const error = request.transfer.Available(&size);
      *pdwAvailable = static_cast<DWORD>(size);
      return error;
    });
  });
}

BOOL InternetReadFile(HINTERNET hFile, void *pBuffer, DWORD dwBytes, DWORD *pdwRead) {
  *pdwRead = 0;
  return RunCall(FaultPoint::InternetReadFile, [&] {
    return RunOnRequest(hFile, [&](RequestEntry &request) {
      std::size_t read = 0;
      DWORD const error = request.transfer.Read(pBuffer, dwBytes, &read);
      *pdwRead = static_cast<DWORD>(read);
      return error;
    });
  });
}
