// InternetCrackUrlA copies the parts into the caller's buffers.
#include "platform/http/UrlSplit.h"

#include "platform/base/LastError.h"
#include "platform/http/HttpText.h"
#include "platform/http/WinInetCall.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace {

struct Scheme {
  std::string_view name;
  INTERNET_SCHEME number;
  INTERNET_PORT port;
};
constexpr Scheme kSchemes[] = {{"http", INTERNET_SCHEME_HTTP, INTERNET_DEFAULT_HTTP_PORT},
                               {"https", INTERNET_SCHEME_HTTPS, INTERNET_DEFAULT_HTTPS_PORT}};

/// Cuts the text before the position off its front; all of it for npos.
std::string_view Cut(std::string_view &text, std::size_t position) {
  std::string_view const front = text.substr(0, position);
  text.remove_prefix(front.size());
  return front;
}

bool IsScheme(std::string_view text) {
  auto const isAlpha = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
  auto const isInner = [&](char c) { return isAlpha(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.'; };
  return !text.empty() && isAlpha(text.front()) && std::all_of(text.begin(), text.end(), isInner);
}

void SplitUser(std::string_view &authority, UrlParts &parts) {
  std::size_t const at = authority.rfind('@');
  if (at == authority.npos)
    return;
  std::string_view user = Cut(authority, at);
  authority.remove_prefix(1);
  parts.user = Cut(user, user.find(':'));
  parts.password = user.empty() ? user : user.substr(1);
}

/// Takes the host and the port after it. Returns: false for one that is no port number.
bool SplitPort(std::string_view &authority, UrlParts &parts) {
  bool const isLiteral = authority.starts_with('[');
  std::size_t const colon = authority.find(':', isLiteral ? authority.find(']') : 0);
  parts.host = Cut(authority, colon);
  if (isLiteral && !parts.host.ends_with(']'))
    return false;
  if (authority.empty())
    return true;
  char const *const end = authority.data() + authority.size();
  auto const [stop, error] = std::from_chars(authority.data() + 1, end, parts.port);
  return error == std::errc() && stop == end && parts.port != 0;
}

} // namespace

DWORD SplitUrl(std::string_view url, UrlParts &parts) {
  if (url.empty())
    return ERROR_INVALID_PARAMETER;
  if (HasControlCharacter(url))
    return ERROR_INTERNET_INVALID_URL;
  std::size_t const colon = url.find(':');
  if (colon == url.npos || !IsScheme(url.substr(0, colon)))
    return ERROR_INTERNET_UNRECOGNIZED_SCHEME;
  parts.scheme = Cut(url, colon);
  for (Scheme const &scheme : kSchemes) {
    if (IsSameName(scheme.name, parts.scheme)) {
      parts.schemeNumber = scheme.number;
      parts.port = scheme.port;
    }
  }
  if (!url.starts_with("://"))
    return ERROR_INTERNET_INVALID_URL;
  url.remove_prefix(3);
  std::string_view authority = Cut(url, url.find_first_of("/?#"));
  parts.path = Cut(url, url.find_first_of("?#"));
  parts.extra = url;
  SplitUser(authority, parts);
  return SplitPort(authority, parts) && !parts.host.empty() ? ERROR_SUCCESS : ERROR_INTERNET_INVALID_URL;
}

BOOL InternetCrackUrlA(char const *szUrl, DWORD /*dwUrlLength*/, DWORD /*dwFlags*/, URL_COMPONENTSA *pComponents) {
  UrlParts parts;
  DWORD error = SplitUrl(szUrl ? szUrl : "", parts);
  URL_COMPONENTSA &out = *pComponents;
  struct Component {
    std::string_view text;
    char *buffer;
    DWORD &length;
  };
  Component const components[] = {
      {parts.scheme, out.lpszScheme, out.dwSchemeLength},   {parts.host, out.lpszHostName, out.dwHostNameLength},
      {parts.user, out.lpszUserName, out.dwUserNameLength}, {parts.password, out.lpszPassword, out.dwPasswordLength},
      {parts.path, out.lpszUrlPath, out.dwUrlPathLength},   {parts.extra, out.lpszExtraInfo, out.dwExtraInfoLength}};
  for (Component const &component : components)
    if (error == ERROR_SUCCESS && component.text.size() >= component.length)
      error = ERROR_INSUFFICIENT_BUFFER;
  if (error != ERROR_SUCCESS)
    return ReportResult(error);
  for (Component const &component : components) {
    *std::copy(component.text.begin(), component.text.end(), component.buffer) = '\0';
    component.length = static_cast<DWORD>(component.text.size());
  }
  out.nScheme = parts.schemeNumber;
  out.nPort = parts.port;
  return TRUE;
}
