// The functions of WinInet.h that open handles, and the one that closes them: checks and conversions of what a request
// goes out with. Any thread; no exception leaves a function.
#include "platform/http/HostName.h"
#include "platform/http/HttpText.h"
#include "platform/http/UrlSplit.h"
#include "platform/http/WinInetCall.h"
#include "platform/text/AnsiText.h"
#include "platform/text/Utf8.h"

#include <string>
#include <string_view>
#include <utility>

namespace {

std::string Text(char const *text) { return text ? text : ""; }

/// In the calling thread's ANSI code page, as all text of the wide functions goes out.
std::string Narrow(WCHAR const *text) { return AnsiFromWide(text ? text : L""); }

/// Runs the work of a call that opens a handle and that a test can make fail. Returns: null on failure.
template <class Work> HINTERNET RunOpen(FaultPoint point, Work work) {
  HINTERNET handle = nullptr;
  return RunCall(point, [&] { return work(handle); }) ? handle : nullptr;
}

DWORD OpenSession(std::string agent, HINTERNET &handle) {
  if (HasControlCharacter(agent))
    return ERROR_INVALID_PARAMETER;
  return AddHandle(std::make_shared<SessionEntry>(std::move(agent)), handle);
}

DWORD OpenConnection(HINTERNET sessionHandle, std::string host, INTERNET_PORT port, HINTERNET &handle) {
  std::shared_ptr<SessionEntry> session;
  if (DWORD const error = FindEntry(sessionHandle, session))
    return error;
  if (!ToWireHost(host))
    return ERROR_INTERNET_INVALID_URL;
  return AddHandle(std::make_shared<ConnectionEntry>(std::move(session), std::move(host), port), handle);
}

/// Path and query as they go out.
std::string ToWireTarget(std::string_view object) {
  std::string target(object.starts_with('/') ? 0 : 1, '/');
  for (char const c : object) {
    if (c == ' ')
      target += "%20";
    else
      target += c;
  }
  return target;
}

/// Applies the session's settings and the flags; where it goes is set already.
void ApplySettings(RequestEntry &request, SessionEntry &session, DWORD flags, DWORD_PTR context) {
  HttpRequest &head = request.head;
  {
    std::lock_guard<std::mutex> const lock(session.mutex);
    request.sink = {session.callback, nullptr, context};
    head.limits = session.limits;
  }
  head.isSecure |= (flags & INTERNET_FLAG_SECURE) || head.port == INTERNET_DEFAULT_HTTPS_PORT;
  head.ignoresDate = flags & INTERNET_FLAG_IGNORE_CERT_DATE_INVALID;
  head.ignoresName = flags & INTERNET_FLAG_IGNORE_CERT_CN_INVALID;
  if (!session.agent.empty())
    head.defaults.push_back("User-Agent: " + session.agent);
  if (flags & INTERNET_FLAG_NO_CACHE_WRITE)
    head.defaults.emplace_back("Cache-Control: no-cache");
}

DWORD AddRequest(std::shared_ptr<RequestEntry> const &request, HINTERNET &handle) {
  DWORD const error = AddHandle(request, handle);
  request->sink.handle = handle;
  return error;
}

DWORD OpenRequest(HINTERNET connectionHandle, std::string const &verb, std::string const &object, DWORD flags,
                  DWORD_PTR context, HINTERNET &handle) {
  std::shared_ptr<ConnectionEntry> connection;
  if (DWORD const error = FindEntry(connectionHandle, connection))
    return error;
  if (!verb.empty() && verb != "GET" && verb != "POST")
    return ERROR_INVALID_PARAMETER;
  auto const request = std::make_shared<RequestEntry>(connection);
  request->head.isPost = verb == "POST";
  request->head.host = connection->host;
  request->head.port = connection->port;
  request->head.target = ToWireTarget(object);
  ApplySettings(*request, static_cast<SessionEntry &>(*connection->parent), flags, context);
  return AddRequest(request, handle);
}

/// Aims a GET request at the URL; its fragment is not sent.
DWORD AimAtUrl(HttpRequest &head, std::string_view url) {
  UrlParts parts;
  if (DWORD const error = SplitUrl(url, parts))
    return error;
  if (parts.schemeNumber != INTERNET_SCHEME_HTTP && parts.schemeNumber != INTERNET_SCHEME_HTTPS)
    return ERROR_INTERNET_UNRECOGNIZED_SCHEME;
  head.host = parts.host;
  if (!ToWireHost(head.host))
    return ERROR_INTERNET_INVALID_URL;
  head.port = parts.port;
  head.target = ToWireTarget(std::string(parts.path).append(parts.extra.substr(0, parts.extra.find('#'))));
  head.isSecure = parts.schemeNumber == INTERNET_SCHEME_HTTPS;
  return ERROR_SUCCESS;
}

DWORD OpenUrl(HINTERNET sessionHandle, std::string_view url, DWORD flags, DWORD_PTR context, HINTERNET &handle) {
  std::shared_ptr<SessionEntry> session;
  if (DWORD const error = FindEntry(sessionHandle, session))
    return error;
  auto const request = std::make_shared<RequestEntry>(session);
  if (DWORD const error = AimAtUrl(request->head, url))
    return error;
  ApplySettings(*request, *session, flags, context);
  if (DWORD const error = AddRequest(request, handle)) // from here on, closing the session ends the call
    return error;
  DWORD const error =
      RunExclusively(*request, [](RequestEntry &entry) { return entry.transfer.Send(entry.head, entry.sink, {}); });
  if (error != ERROR_SUCCESS)
    CloseHandleTree(handle);
  return error;
}

} // namespace

HINTERNET InternetOpenW(WCHAR const *wszAgent, DWORD /*dwAccessType*/, WCHAR const * /*wszProxy*/,
                        WCHAR const * /*wszBypass*/, DWORD /*dwFlags*/) {
  return RunOpen(FaultPoint::InternetOpenW, [&](HINTERNET &handle) { return OpenSession(Narrow(wszAgent), handle); });
}

HINTERNET InternetOpenA(char const *szAgent, DWORD /*dwAccessType*/, char const * /*szProxy*/,
                        char const * /*szBypass*/, DWORD /*dwFlags*/) {
  return RunOpen(FaultPoint::InternetOpenA, [&](HINTERNET &handle) { return OpenSession(Text(szAgent), handle); });
}

HINTERNET InternetConnectA(HINTERNET hSession, char const *szServer, INTERNET_PORT nPort, char const * /*szUser*/,
                           char const * /*szPassword*/, DWORD /*dwService*/, DWORD /*dwFlags*/,
                           DWORD_PTR /*dwContext*/) {
  return RunOpen(FaultPoint::InternetConnectA,
                 [&](HINTERNET &handle) { return OpenConnection(hSession, Text(szServer), nPort, handle); });
}

HINTERNET InternetConnectW(HINTERNET hSession, WCHAR const *wszServer, INTERNET_PORT nPort, WCHAR const * /*wszUser*/,
                           WCHAR const * /*wszPassword*/, DWORD /*dwService*/, DWORD /*dwFlags*/,
                           DWORD_PTR /*dwContext*/) {
  return RunOpen(FaultPoint::InternetConnectW,
                 [&](HINTERNET &handle) { return OpenConnection(hSession, Narrow(wszServer), nPort, handle); });
}

HINTERNET HttpOpenRequestA(HINTERNET hConnect, char const *szVerb, char const *szObject, char const * /*szVersion*/,
                           char const * /*szReferrer*/, char const ** /*pszAcceptTypes*/, DWORD dwFlags,
                           DWORD_PTR dwContext) {
  return RunOpen(FaultPoint::HttpOpenRequestA, [&](HINTERNET &handle) {
    return OpenRequest(hConnect, Text(szVerb), Text(szObject), dwFlags, dwContext, handle);
  });
}

HINTERNET HttpOpenRequestW(HINTERNET hConnect, WCHAR const *wszVerb, WCHAR const *wszObject,
                           WCHAR const * /*wszVersion*/, WCHAR const * /*wszReferrer*/,
                           WCHAR const ** /*pwszAcceptTypes*/, DWORD dwFlags, DWORD_PTR dwContext) {
  return RunOpen(FaultPoint::HttpOpenRequestW, [&](HINTERNET &handle) {
    return OpenRequest(hConnect, Narrow(wszVerb), Narrow(wszObject), dwFlags, dwContext, handle);
  });
}

HINTERNET InternetOpenUrlA(HINTERNET hSession, char const *szUrl, char const * /*szHeaders*/, DWORD /*dwHeadersLength*/,
                           DWORD dwFlags, DWORD_PTR dwContext) {
  return RunOpen(FaultPoint::InternetOpenUrlA,
                 [&](HINTERNET &handle) { return OpenUrl(hSession, szUrl ? szUrl : "", dwFlags, dwContext, handle); });
}

BOOL InternetCloseHandle(HINTERNET hInternet) {
  return RunCall([&]() -> DWORD { return CloseHandleTree(hInternet) ? ERROR_SUCCESS : ERROR_INVALID_HANDLE; });
}
