// The functions of WinInet.h but the URL split: the handle table, and the checks and conversions in front of
// HttpTransfer. Any thread; no exception leaves a function.
#include "platform/http/WinInet.h"

#include "platform/base/HandleTable.h"
#include "platform/base/LastError.h"
#include "platform/base/Seam.h"
#include "platform/http/HostName.h"
#include "platform/http/HttpText.h"
#include "platform/http/HttpTransfer.h"
#include "platform/text/Utf8.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

enum class Kind { Session, Connection, Request };

/// What a handle stands for. Parents outlive their children, and close them.
struct Entry {
  Entry(Kind kindOfEntry, std::shared_ptr<Entry> parentOfEntry)
      : kind(kindOfEntry), process(CurrentProcess()), parent(std::move(parentOfEntry)) {}
  virtual ~Entry() = default;
  virtual void Abort() {}

  Kind const kind;
  pid_t const process;
  std::shared_ptr<Entry> const parent;
  HINTERNET handle = nullptr;

  std::mutex mutex; ///< guards what follows, and a session's settings
  bool isClosed = false;
  std::vector<HINTERNET> children;
};

struct Settings {
  INTERNET_STATUS_CALLBACK callback = nullptr;
  TimeLimits limits;
};

struct Session : Entry {
  static constexpr Kind kKind = Kind::Session;
  explicit Session(std::string agentName) : Entry(kKind, nullptr), agent(std::move(agentName)) {}

  std::string const agent;
  Settings settings;
};

struct Connection : Entry {
  static constexpr Kind kKind = Kind::Connection;
  Connection(std::shared_ptr<Session> session, std::string hostName, INTERNET_PORT portNumber)
      : Entry(kKind, std::move(session)), host(std::move(hostName)), port(portNumber) {}

  std::string const host;
  INTERNET_PORT const port;
};

struct Request : Entry {
  static constexpr Kind kKind = Kind::Request;
  explicit Request(std::shared_ptr<Entry> parentOfEntry) : Entry(kKind, std::move(parentOfEntry)) {}
  void Abort() override { transfer.Abort(); }

  HttpRequest head;
  StatusSink sink;
  HttpTransfer transfer;
  std::atomic<bool> isBusy = false; ///< a call runs
};

HandleTable<Entry> &Table() {
  static auto &table = *new HandleTable<Entry>(0x00CC0004); // never destroyed: a thread may still run at exit
  return table;
}

/// Runs one call's work, which returns an error number; running out of memory becomes one.
template <class Work> BOOL Call(Work work) {
  DWORD dwError = ERROR_NOT_ENOUGH_MEMORY;
  try {
    dwError = work();
  } catch (...) {
    // memory is all that can fail by exception here
  }
  if (dwError != ERROR_SUCCESS)
    SetLastError(dwError);
  return dwError == ERROR_SUCCESS;
}

/// The same for a call that a test can make fail.
template <class Work> BOOL Call(FaultPoint call, Work work) { return !FaultAt(call) && Call(work); }

/// The same for one that makes a handle.
template <class Work> HINTERNET Make(FaultPoint call, Work work) {
  HINTERNET handle = nullptr;
  return Call(call, [&] { return work(handle); }) ? handle : nullptr;
}

/// Finds the object of a handle. A forked child has no use of its parent's handles: their locks may be held.
template <class Object> DWORD Find(HINTERNET handle, std::shared_ptr<Object> &object) {
  std::shared_ptr<Entry> entry = Table().Find(handle);
  if (!entry || entry->process != CurrentProcess())
    return ERROR_INVALID_HANDLE;
  if (entry->kind != Object::kKind)
    return ERROR_INTERNET_INCORRECT_HANDLE_TYPE;
  object = std::static_pointer_cast<Object>(entry);
  return ERROR_SUCCESS;
}

/// Gives the entry a handle and hangs it below its parent.
DWORD Enter(std::shared_ptr<Entry> const &entry, HINTERNET &handle) {
  if (!entry->parent) {
    handle = entry->handle = Table().Add(entry);
    return ERROR_SUCCESS;
  }
  Entry &parent = *entry->parent;
  std::lock_guard<std::mutex> const lock(parent.mutex);
  if (parent.isClosed)
    return ERROR_INTERNET_OPERATION_CANCELLED;
  parent.children.reserve(parent.children.size() + 1);
  handle = entry->handle = Table().Add(entry);
  parent.children.push_back(handle);
  return ERROR_SUCCESS;
}

bool CloseTree(HINTERNET handle) {
  std::shared_ptr<Entry> const entry = Table().Remove(handle);
  if (!entry)
    return false;
  if (entry->process != CurrentProcess())
    return true; // the parent process goes on with it
  std::vector<HINTERNET> children;
  {
    std::lock_guard<std::mutex> const lock(entry->mutex);
    entry->isClosed = true;
    children.swap(entry->children);
  }
  entry->Abort();
  for (HINTERNET const child : children)
    CloseTree(child);
  if (entry->parent) {
    std::lock_guard<std::mutex> const lock(entry->parent->mutex);
    std::erase(entry->parent->children, handle);
  }
  return true;
}

/// Runs a call on a request's transfer, unless another one runs: from a second thread, or from a status callback.
template <class Work> DWORD OnRequest(HINTERNET handle, Work work) {
  std::shared_ptr<Request> request;
  if (DWORD const dwError = Find(handle, request))
    return dwError;
  if (request->isBusy.exchange(true))
    return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
  struct Release {
    std::atomic<bool> &isBusy;
    ~Release() { isBusy = false; }
  } const release{request->isBusy};
  return work(*request);
}

std::string Text(char const *szText) { return szText ? szText : ""; }

/// In the calling thread's ANSI code page, as all text of the wide functions goes out.
std::string Narrow(WCHAR const *wszText) { return AnsiFromWide(wszText ? wszText : L""); }

DWORD OpenSession(std::string agent, HINTERNET &handle) {
  if (HasControlCharacter(agent))
    return ERROR_INVALID_PARAMETER;
  return Enter(std::make_shared<Session>(std::move(agent)), handle);
}

DWORD Connect(HINTERNET hSession, std::string host, INTERNET_PORT port, HINTERNET &handle) {
  std::shared_ptr<Session> session;
  if (DWORD const dwError = Find(hSession, session))
    return dwError;
  if (!ToWireHost(host))
    return ERROR_INTERNET_INVALID_URL;
  return Enter(std::make_shared<Connection>(std::move(session), std::move(host), port), handle);
}

DWORD SetTarget(HttpRequest &head, std::string_view object) {
  if (HasControlCharacter(object))
    return ERROR_INTERNET_INVALID_URL;
  head.target.assign(object.starts_with('/') ? 0 : 1, '/');
  for (char const c : object) {
    if (c == ' ')
      head.target += "%20";
    else
      head.target += c;
  }
  return ERROR_SUCCESS;
}

/// Takes over the session's settings and the flags; the target is set already.
void SetUp(Request &request, Session &session, DWORD dwFlags, DWORD_PTR dwContext) {
  HttpRequest &head = request.head;
  {
    std::lock_guard<std::mutex> const lock(session.mutex);
    request.sink = {session.settings.callback, nullptr, dwContext};
    head.limits = session.settings.limits;
  }
  head.isSecure = (dwFlags & INTERNET_FLAG_SECURE) || head.port == INTERNET_DEFAULT_HTTPS_PORT;
  head.ignoresDate = dwFlags & INTERNET_FLAG_IGNORE_CERT_DATE_INVALID;
  head.ignoresName = dwFlags & INTERNET_FLAG_IGNORE_CERT_CN_INVALID;
  if (!session.agent.empty())
    head.defaults.push_back("User-Agent: " + session.agent);
  if (dwFlags & INTERNET_FLAG_NO_CACHE_WRITE)
    head.defaults.emplace_back("Cache-Control: no-cache");
}

DWORD OpenRequest(HINTERNET hConnect, std::string const &verb, std::string const &object, DWORD dwFlags,
                  DWORD_PTR dwContext, HINTERNET &handle) {
  std::shared_ptr<Connection> connection;
  if (DWORD const dwError = Find(hConnect, connection))
    return dwError;
  if (!verb.empty() && verb != "GET" && verb != "POST")
    return ERROR_INVALID_PARAMETER;
  auto const request = std::make_shared<Request>(connection);
  request->head.isPost = verb == "POST";
  request->head.host = connection->host;
  request->head.port = connection->port;
  if (DWORD const dwError = SetTarget(request->head, object))
    return dwError;
  SetUp(*request, static_cast<Session &>(*connection->parent), dwFlags, dwContext);
  return Enter(request, handle);
}

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

DWORD CheckBody(Request &request, std::uint64_t length) {
  request.sink.handle = request.handle;
  return length > 0 && !request.head.isPost ? ERROR_INVALID_PARAMETER : ERROR_SUCCESS;
}

DWORD Send(Request &request, std::string_view body) {
  DWORD const dwError = CheckBody(request, body.size());
  return dwError != ERROR_SUCCESS ? dwError : request.transfer.Send(request.head, request.sink, body);
}

/// A GET request for the URL; what is behind a "#" stays here.
DWORD MakeUrlRequest(std::shared_ptr<Session> const &session, std::string_view url, DWORD dwFlags, DWORD_PTR dwContext,
                     std::shared_ptr<Request> &request) {
  request = std::make_shared<Request>(session);
  HttpRequest &head = request->head;
  head.host.resize(url.size() + 1);
  URL_COMPONENTSA parts{};
  parts.dwStructSize = sizeof parts;
  parts.lpszHostName = head.host.data();
  parts.dwHostNameLength = static_cast<DWORD>(head.host.size());
  if (!InternetCrackUrlA(url.data(), 0, 0, &parts))
    return GetLastError();
  if (parts.nScheme != INTERNET_SCHEME_HTTP && parts.nScheme != INTERNET_SCHEME_HTTPS)
    return ERROR_INTERNET_UNRECOGNIZED_SCHEME;
  head.host.resize(parts.dwHostNameLength);
  head.port = parts.nPort;
  if (!ToWireHost(head.host))
    return ERROR_INTERNET_INVALID_URL;
  url.remove_prefix(url.find("://") + 3);
  url = url.substr(0, url.find('#'));
  url.remove_prefix(std::min(url.find_first_of("/?"), url.size()));
  if (DWORD const dwError = SetTarget(head, url))
    return dwError;
  SetUp(*request, *session, parts.nScheme == INTERNET_SCHEME_HTTPS ? dwFlags | INTERNET_FLAG_SECURE : dwFlags,
        dwContext);
  return ERROR_SUCCESS;
}

DWORD OpenUrl(HINTERNET hSession, char const *szUrl, DWORD dwFlags, DWORD_PTR dwContext, HINTERNET &handle) {
  std::shared_ptr<Session> session;
  if (DWORD const dwError = Find(hSession, session))
    return dwError;
  std::shared_ptr<Request> request;
  if (DWORD const dwError = MakeUrlRequest(session, szUrl ? szUrl : "", dwFlags, dwContext, request))
    return dwError;
  if (DWORD const dwError = Enter(request, handle)) // from here on, closing the session ends the call
    return dwError;
  DWORD const dwError = Send(*request, {});
  if (dwError != ERROR_SUCCESS)
    CloseTree(handle);
  return dwError;
}

DWORD SetSessionOption(Session &session, DWORD dwOption, DWORD dwValue) {
  std::lock_guard<std::mutex> const lock(session.mutex);
  switch (dwOption) {
  case INTERNET_OPTION_CONNECT_TIMEOUT:
    session.settings.limits.connect = dwValue;
    return ERROR_SUCCESS;
  case INTERNET_OPTION_SEND_TIMEOUT:
    session.settings.limits.send = dwValue;
    return ERROR_SUCCESS;
  default:
    return ERROR_INTERNET_INVALID_OPTION;
  }
}

DWORD SetSecurityFlags(Request &request, DWORD dwValue) {
  if (request.transfer.HasBegun())
    return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
  request.head.ignoresDate |= (dwValue & SECURITY_FLAG_IGNORE_CERT_DATE_INVALID) != 0;
  request.head.ignoresName |= (dwValue & SECURITY_FLAG_IGNORE_CERT_CN_INVALID) != 0;
  return ERROR_SUCCESS; // revocation is never checked
}

/// Stores a value whose size in bytes the caller must have room for.
DWORD Store(void const *value, DWORD size, DWORD room, void *pBuffer, DWORD *pdwLength) {
  *pdwLength = size;
  if (!pBuffer || room < size)
    return ERROR_INSUFFICIENT_BUFFER;
  std::memcpy(pBuffer, value, size);
  return ERROR_SUCCESS;
}

DWORD QueryInfo(Request &request, DWORD dwInfoLevel, void *pBuffer, DWORD *pdwLength) {
  HttpTransfer const &transfer = request.transfer;
  if (!transfer.IsAnswered())
    return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
  DWORD const room = *pdwLength;
  auto const dwStatus = static_cast<DWORD>(transfer.Status());
  if (dwInfoLevel == (HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER))
    return Store(&dwStatus, sizeof dwStatus, room, pBuffer, pdwLength);
  std::wstring text;
  if (dwInfoLevel == HTTP_QUERY_CONTENT_LENGTH)
    text = WideFromUtf8(transfer.ContentLength());
  else if (dwInfoLevel == HTTP_QUERY_STATUS_CODE)
    text = std::to_wstring(dwStatus);
  if (text.empty())
    return ERROR_HTTP_HEADER_NOT_FOUND;
  auto const size = static_cast<DWORD>(text.size() * sizeof(WCHAR));
  DWORD const dwError = Store(text.c_str(), size + sizeof(WCHAR), room, pBuffer, pdwLength);
  if (dwError == ERROR_SUCCESS)
    *pdwLength = size;
  return dwError;
}

} // namespace

HINTERNET InternetOpenW(WCHAR const *wszAgent, DWORD /*dwAccessType*/, WCHAR const * /*wszProxy*/,
                        WCHAR const * /*wszBypass*/, DWORD /*dwFlags*/) {
  return Make(FaultPoint::InternetOpenW, [&](HINTERNET &handle) { return OpenSession(Narrow(wszAgent), handle); });
}

HINTERNET InternetOpenA(char const *szAgent, DWORD /*dwAccessType*/, char const * /*szProxy*/,
                        char const * /*szBypass*/, DWORD /*dwFlags*/) {
  return Make(FaultPoint::InternetOpenA, [&](HINTERNET &handle) { return OpenSession(Text(szAgent), handle); });
}

INTERNET_STATUS_CALLBACK InternetSetStatusCallbackW(HINTERNET hSession, INTERNET_STATUS_CALLBACK pfnCallback) {
  INTERNET_STATUS_CALLBACK pfnEarlier = nullptr;
  Call([&] {
    std::shared_ptr<Session> session;
    DWORD const dwError = Find(hSession, session);
    if (dwError == ERROR_SUCCESS) {
      std::lock_guard<std::mutex> const lock(session->mutex);
      pfnEarlier = std::exchange(session->settings.callback, pfnCallback);
    }
    return dwError;
  });
  return pfnEarlier;
}

HINTERNET InternetConnectA(HINTERNET hSession, char const *szServer, INTERNET_PORT nPort, char const * /*szUser*/,
                           char const * /*szPassword*/, DWORD /*dwService*/, DWORD /*dwFlags*/,
                           DWORD_PTR /*dwContext*/) {
  return Make(FaultPoint::InternetConnectA,
              [&](HINTERNET &handle) { return Connect(hSession, Text(szServer), nPort, handle); });
}

HINTERNET InternetConnectW(HINTERNET hSession, WCHAR const *wszServer, INTERNET_PORT nPort, WCHAR const * /*wszUser*/,
                           WCHAR const * /*wszPassword*/, DWORD /*dwService*/, DWORD /*dwFlags*/,
                           DWORD_PTR /*dwContext*/) {
  return Make(FaultPoint::InternetConnectW,
              [&](HINTERNET &handle) { return Connect(hSession, Narrow(wszServer), nPort, handle); });
}

HINTERNET HttpOpenRequestA(HINTERNET hConnect, char const *szVerb, char const *szObject, char const * /*szVersion*/,
                           char const * /*szReferrer*/, char const ** /*pszAcceptTypes*/, DWORD dwFlags,
                           DWORD_PTR dwContext) {
  return Make(FaultPoint::HttpOpenRequestA, [&](HINTERNET &handle) {
    return OpenRequest(hConnect, Text(szVerb), Text(szObject), dwFlags, dwContext, handle);
  });
}

HINTERNET HttpOpenRequestW(HINTERNET hConnect, WCHAR const *wszVerb, WCHAR const *wszObject,
                           WCHAR const * /*wszVersion*/, WCHAR const * /*wszReferrer*/,
                           WCHAR const ** /*pwszAcceptTypes*/, DWORD dwFlags, DWORD_PTR dwContext) {
  return Make(FaultPoint::HttpOpenRequestW, [&](HINTERNET &handle) {
    return OpenRequest(hConnect, Narrow(wszVerb), Narrow(wszObject), dwFlags, dwContext, handle);
  });
}

BOOL HttpAddRequestHeadersA(HINTERNET hRequest, char const *szHeaders, DWORD dwLength, DWORD /*dwModifiers*/) {
  return Call(FaultPoint::HttpAddRequestHeadersA, [&] {
    return OnRequest(hRequest, [&](Request &request) -> DWORD {
      if (request.transfer.HasBegun())
        return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
      std::string_view const headers = szHeaders ? szHeaders : "";
      return AddHeaders(request.head, headers.substr(0, dwLength));
    });
  });
}

BOOL InternetSetOptionW(HINTERNET hInternet, DWORD dwOption, void *pValue, DWORD dwLength) {
  return Call([&]() -> DWORD {
    DWORD dwValue = 0;
    if (!pValue || dwLength != sizeof dwValue)
      return ERROR_INVALID_PARAMETER;
    std::memcpy(&dwValue, pValue, sizeof dwValue);
    if (dwOption == INTERNET_OPTION_SECURITY_FLAGS)
      return OnRequest(hInternet, [&](Request &request) { return SetSecurityFlags(request, dwValue); });
    std::shared_ptr<Session> session;
    DWORD const dwError = Find(hInternet, session);
    return dwError != ERROR_SUCCESS ? dwError : SetSessionOption(*session, dwOption, dwValue);
  });
}

BOOL HttpSendRequestW(HINTERNET hRequest, WCHAR const *wszHeaders, DWORD dwHeadersLength, void const *pBody,
                      DWORD dwBodyLength) {
  return Call(FaultPoint::HttpSendRequestW, [&] {
    return OnRequest(hRequest, [&](Request &request) {
      std::wstring_view const headers = wszHeaders ? wszHeaders : L"";
      DWORD const dwError = AddHeaders(request.head, AnsiFromWide(headers.substr(0, dwHeadersLength)));
      if (dwError != ERROR_SUCCESS)
        return dwError;
      return Send(request, {static_cast<char const *>(pBody), pBody ? dwBodyLength : 0});
    });
  });
}

BOOL HttpSendRequestExW(HINTERNET hRequest, INTERNET_BUFFERSW *pIn, INTERNET_BUFFERSW * /*pOut*/, DWORD /*dwFlags*/,
                        DWORD_PTR /*dwContext*/) {
  return Call(FaultPoint::HttpSendRequestExW, [&] {
    return OnRequest(hRequest, [&](Request &request) {
      DWORD const dwLength = pIn ? pIn->dwBufferTotal : 0;
      DWORD const dwError = CheckBody(request, dwLength);
      return dwError != ERROR_SUCCESS ? dwError : request.transfer.Begin(request.head, request.sink, dwLength);
    });
  });
}

BOOL InternetWriteFile(HINTERNET hRequest, void const *pBuffer, DWORD dwBytes, DWORD *pdwWritten) {
  *pdwWritten = 0;
  return Call(FaultPoint::InternetWriteFile, [&] {
    return OnRequest(hRequest, [&](Request &request) {
      DWORD const dwError = request.transfer.Write(pBuffer, dwBytes);
      if (dwError == ERROR_SUCCESS)
        *pdwWritten = dwBytes;
      return dwError;
    });
  });
}

BOOL HttpEndRequestW(HINTERNET hRequest, INTERNET_BUFFERSW * /*pOut*/, DWORD /*dwFlags*/, DWORD_PTR /*dwContext*/) {
  return Call(FaultPoint::HttpEndRequestW,
              [&] { return OnRequest(hRequest, [](Request &request) { return request.transfer.End(); }); });
}

BOOL HttpQueryInfoW(HINTERNET hRequest, DWORD dwInfoLevel, void *pBuffer, DWORD *pdwLength, DWORD * /*pdwIndex*/) {
  return Call(FaultPoint::HttpQueryInfoW, [&] {
    return OnRequest(hRequest, [&](Request &request) { return QueryInfo(request, dwInfoLevel, pBuffer, pdwLength); });
  });
}

BOOL InternetQueryDataAvailable(HINTERNET hRequest, DWORD *pdwAvailable, DWORD /*dwFlags*/, DWORD_PTR /*dwContext*/) {
  *pdwAvailable = 0;
  return Call(FaultPoint::InternetQueryDataAvailable, [&] {
    return OnRequest(hRequest, [&](Request &request) {
      std::size_t size = 0;
      DWORD const dwError = request.transfer.Available(&size);
      *pdwAvailable = static_cast<DWORD>(size);
      return dwError;
    });
  });
}

BOOL InternetReadFile(HINTERNET hFile, void *pBuffer, DWORD dwBytes, DWORD *pdwRead) {
  *pdwRead = 0;
  return Call(FaultPoint::InternetReadFile, [&] {
    return OnRequest(hFile, [&](Request &request) {
      std::size_t read = 0;
      DWORD const dwError = request.transfer.Read(pBuffer, dwBytes, &read);
      *pdwRead = static_cast<DWORD>(read);
      return dwError;
    });
  });
}

HINTERNET InternetOpenUrlA(HINTERNET hSession, char const *szUrl, char const * /*szHeaders*/, DWORD /*dwHeadersLength*/,
                           DWORD dwFlags, DWORD_PTR dwContext) {
  return Make(FaultPoint::InternetOpenUrlA,
              [&](HINTERNET &handle) { return OpenUrl(hSession, szUrl, dwFlags, dwContext, handle); });
}

BOOL InternetCloseHandle(HINTERNET hInternet) {
  return Call([&]() -> DWORD { return CloseTree(hInternet) ? ERROR_SUCCESS : ERROR_INVALID_HANDLE; });
}
