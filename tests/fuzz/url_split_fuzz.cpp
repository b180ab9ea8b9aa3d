// The split of a URL, its copy into a caller's buffers, and the host's form on the wire.
#include "platform/http/HostName.h"
#include "platform/http/UrlSplit.h"
#include "tests/fuzz/fuzz.h"

#include <cstring>

namespace {

/// Puts the URL together again from its parts, which are views of its text.
void CheckParts(std::string_view url, UrlParts const &parts) {
  auto const between = [](char const *start, char const *end) { return std::string_view(start, end - start); };
  std::string_view const user = between(parts.scheme.data() + parts.scheme.size() + 3, parts.host.data());
  std::string_view const port = between(parts.host.data() + parts.host.size(), parts.path.data());
  std::string const name(parts.user), password(parts.password);
  bool const isUser = user == name + '@' || user == name + ':' + password + '@';
  Require(user.empty() ? name.empty() && password.empty() : isUser, "user and password precede the host");
  bool const isPort = port.starts_with(':') && std::stoul(std::string(port.substr(1))) == parts.port;
  Require(port.empty() || isPort, "the port follows the host");
  Require(!port.empty() || (parts.schemeNumber == INTERNET_SCHEME_UNKNOWN) == (parts.port == 0), "the scheme's port");
  std::string text(parts.scheme);
  text.append("://").append(user).append(parts.host).append(port).append(parts.path).append(parts.extra);
  Require(text == url, "the parts make up the URL");
  Require(!parts.host.empty() && parts.host.find_first_of("/?#@") == url.npos, "a host");
  Require(parts.path.find_first_of("?#") == url.npos && (parts.path.empty() || parts.path[0] == '/'), "a path");
}

/// Compares what fits into buffers of that size with the parts.
void CheckCopies(char const *url, UrlParts const &parts, DWORD error, std::size_t room) {
  std::string_view const texts[] = {parts.scheme, parts.host, parts.user, parts.password, parts.path, parts.extra};
  std::unique_ptr<char[]> buffers[6];
  for (auto &buffer : buffers)
    buffer = std::make_unique<char[]>(room);
  auto const length = static_cast<DWORD>(room);
  URL_COMPONENTSA c{sizeof c,         buffers[0].get(), length, 0,
                    buffers[1].get(), length,           0,      buffers[2].get(),
                    length,           buffers[3].get(), length, buffers[4].get(),
                    length,           buffers[5].get(), length};
  bool const isSplit = InternetCrackUrlA(url, 0, 0, &c) != 0;
  bool const fits = std::all_of(std::begin(texts), std::end(texts), [&](auto text) { return text.size() < room; });
  DWORD const expected = error != ERROR_SUCCESS ? error : fits ? ERROR_SUCCESS : ERROR_INSUFFICIENT_BUFFER;
  Require((isSplit ? ERROR_SUCCESS : GetLastError()) == expected, "the copy ends as the split and the room say");
  for (int index = 0; isSplit && index < 6; ++index)
    Require(texts[index] == buffers[index].get(), "each part is copied and terminated");
  if (isSplit)
    Require(c.dwHostNameLength == parts.host.size() && c.nPort == parts.port, "length and port are stored");
}

void CheckWireHost(std::string_view text) {
  std::string host(text);
  bool const isHost = ToWireHost(host);
  Require(isHost || host == text, "a refused host stays");
  for (unsigned char const c : isHost ? host : "")
    Require(c > 0x20 && c < 0x7F && !std::strchr("/?#@\\%", c), "nothing in a host ends or escapes it");
  std::string again = host;
  Require(!isHost || (!host.empty() && ToWireHost(again) && again == host), "a host on the wire stays as it is");
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
  Input input(data, size);
  std::size_t const room = input.Byte();
  Exact<char> const url(input.Rest());
  UrlParts parts;
  DWORD const error = SplitUrl(url.View(), parts);
  if (error == ERROR_SUCCESS) {
    CheckParts(url.View(), parts);
    CheckWireHost(parts.host);
  } else {
    Require(error == ERROR_INVALID_PARAMETER || error == ERROR_INTERNET_INVALID_URL ||
                error == ERROR_INTERNET_UNRECOGNIZED_SCHEME,
            "a documented error");
  }
  Exact<char> const terminated(input.Rest().substr(0, input.Rest().find('\0')), 1);
  UrlParts terminatedParts;
  DWORD const terminatedError = SplitUrl(terminated.View(), terminatedParts);
  CheckCopies(terminated.Data(), terminatedParts, terminatedError, room);
  CheckWireHost(input.Rest());
  return 0;
}
