// The split of a URL, and the host's form on the wire.
#include "platform/http/HostName.h"
#include "platform/http/UrlSplit.h"
#include "tests/fuzz/fuzz.h"

/// Puts the URL together again from its parts, which are views of its text.
static void CheckParts(std::string_view url, UrlParts const &parts) {
  auto const between = [](char const *start, char const *end) { return std::string_view(start, end - start); };
  std::string_view const user = between(parts.scheme.data() + parts.scheme.size() + 3, parts.host.data());
  std::string_view const port = between(parts.host.data() + parts.host.size(), parts.path.data());
  std::string const name(parts.user), password(parts.password);
  bool const isUser = user == name + '@' || user == name + ':' + password + '@';
  Require(user.empty() ? name.empty() && password.empty() : isUser, "user and password precede the host");
  Require(port.empty() ? (parts.schemeNumber == INTERNET_SCHEME_UNKNOWN) == (parts.port == 0)
                       : port[0] == ':' && std::stoul(std::string(port.substr(1))) == parts.port,
          "the port is the scheme's or follows the host");
  std::string text(parts.scheme);
  text.append("://").append(user).append(parts.host).append(port).append(parts.path).append(parts.extra);
  Require(text == url, "the parts make up the URL");
  Require(!parts.host.empty() && parts.host.find_first_of("/?#@") == url.npos, "a host");
  Require(parts.path.find_first_of("?#") == url.npos && (parts.path.empty() || parts.path[0] == '/'), "a path");
}

static void CheckWireHost(std::string_view text) {
  std::string host(text);
  if (!ToWireHost(host))
    return Require(host == text, "a refused host stays");
  // Control characters are for those to refuse who put a request's text together.
  Require(std::all_of(host.begin(), host.end(), [](char c) { return c >= 0; }), "a host on the wire is ASCII");
  Require(!host.empty() && host.find_first_of(" /?#@\\%") == host.npos, "nothing ends or escapes a host");
  std::string again = host;
  Require(ToWireHost(again) && again == host, "a host on the wire stays as it is");
}

FUZZ_TARGET(input) {
  std::string_view const text = input.rest;
  Exact<char> const url(text.substr(0, text.find('\0')));
  UrlParts parts;
  DWORD const error = SplitUrl(url.view, parts);
  bool const isBad = error == ERROR_INVALID_PARAMETER || error == ERROR_INTERNET_INVALID_URL;
  Require(error == ERROR_SUCCESS || isBad || error == ERROR_INTERNET_UNRECOGNIZED_SCHEME, "a documented error");
  if (error == ERROR_SUCCESS)
    CheckParts(url.view, parts);
  CheckWireHost(error == ERROR_SUCCESS ? parts.host : text);
}
