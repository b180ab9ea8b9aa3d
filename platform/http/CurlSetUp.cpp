#include "platform/http/CurlSetUp.h"

#include "platform/http/HttpText.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <string>
#include <string_view>

#include <openssl/x509.h>
#include <sys/stat.h>

namespace {

constexpr long kUploadBufferSize = 512 * 1024; // bytes that libcurl sends at once when the socket is writable

constexpr long kRootsTime = 60; // s that a multi handle keeps the roots of a file

/// Suppresses the headers that libcurl would add by itself.
constexpr char const *kSuppressed[] = {"Accept:", "Content-Type:", "Expect:"};

void Append(CurlMemory::List &list, std::string const &line) {
  curl_slist *const longer = curl_slist_append(list.get(), line.c_str());
  if (!longer)
    throw std::bad_alloc();
  static_cast<void>(list.release());
  list.reset(longer);
}

/// True for plain HTTP if the environment names a proxy. Whether "no_proxy" excludes the host is left to libcurl.
bool GoesByPlainProxy(HttpRequest const &request) {
  char const *const names[] = {"http_proxy", "all_proxy", "ALL_PROXY"};
  return !request.isSecure &&
         std::any_of(std::begin(names), std::end(names), [](char const *name) { return std::getenv(name); });
}

/// The target as a URL can hold it.
std::string Escaped(std::string const &target) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  for (unsigned char const c : target) {
    if (c > 0x20 && c < 0x7F && c != '#')
      text += static_cast<char>(c);
    else
      text += {'%', kDigits[c >> 4], kDigits[c & 15]};
  }
  return text;
}

void SetUpTarget(CURL *easy, HttpRequest const &request) {
  bool const isBareIPv6 = request.host.find(':') != std::string::npos && !request.host.starts_with('[');
  std::string url = request.isSecure ? "https://" : "http://";
  url += isBareIPv6 ? '[' + request.host + ']' : request.host;
  url += ':' + std::to_string(request.port);
  if (GoesByPlainProxy(request)) {
    url += Escaped(request.target); // libcurl derives from it what the proxy wants
  } else {
    url += '/';
    SetCurlOption(easy, CURLOPT_REQUEST_TARGET, request.target.c_str());
  }
  SetCurlOption(easy, CURLOPT_URL, url.c_str());
  SetCurlOption(easy, CURLOPT_PATH_AS_IS, 1L);
  SetCurlOption(easy, CURLOPT_PROTOCOLS_STR, "http,https");
}

/// Sends hosts elsewhere, as SKIFFPORT_CONNECT_TO says.
void SetUpConnectTo(CURL *easy, CurlMemory::List &connectTo) {
  char const *const text = std::getenv("SKIFFPORT_CONNECT_TO");
  std::string_view entries = text ? text : "";
  while (!entries.empty()) {
    std::string_view const entry = entries.substr(0, entries.find(','));
    Append(connectTo, std::string(entry));
    entries.remove_prefix(std::min(entry.size() + 1, entries.size()));
  }
  SetCurlOption(easy, CURLOPT_CONNECT_TO, connectTo.get());
}

void SetUpHeaders(CURL *easy, HttpRequest const &request, CurlMemory::List &headers) {
  auto const isGiven = [&](std::string_view line) {
    return std::any_of(request.headers.begin(), request.headers.end(),
                       [&](std::string const &header) { return IsSameName(HeaderName(header), HeaderName(line)); });
  };
  for (char const *line : kSuppressed)
    if (!isGiven(line))
      Append(headers, line);
  for (std::string const &line : request.headers) {
    std::string_view const name = HeaderName(line), trimmed = Trimmed(line);
    bool const isEmpty = trimmed.ends_with(':') && name.size() + 1 == trimmed.size();
    Append(headers, isEmpty ? std::string(name) + ';' : line); // how libcurl is given an empty value
  }
  for (std::string const &line : request.defaults)
    if (!isGiven(line))
      Append(headers, line);
  SetCurlOption(easy, CURLOPT_HTTPHEADER, headers.get());
}

/// The file that SSL_CERT_FILE names, null without the variable. For anything but a regular file, such as a FIFO, which
/// libcurl would wait for, it is one without certificates: nothing is trusted then.
char const *RootsFile() {
  char const *const path = std::getenv("SSL_CERT_FILE");
  if (!path || !*path)
    return nullptr;
  struct stat status;
  return stat(path, &status) == 0 && S_ISREG(status.st_mode) ? path : "/dev/null";
}

/// The system's roots, by a name for each certificate: OpenSSL reads only what it needs, whereas parsing the bundle
/// would take 17 ms of each request.
char const *RootsDirectory() {
  char const *const path = std::getenv(X509_get_default_cert_dir_env());
  return path && *path ? path : X509_get_default_cert_dir();
}

void SetUpTls(CURL *easy, HttpRequest const &request) {
  SetCurlOption(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2)); // at least
  SetCurlOption(easy, CURLOPT_SSL_SESSIONID_CACHE, 0L); // a session's resumption would skip the certificate checks
  SetCurlOption(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  SetCurlOption(easy, CURLOPT_SSL_VERIFYHOST, request.ignoresName ? 0L : 2L);
  char const *const file = RootsFile();
  char const *const directory = file ? nullptr : RootsDirectory();
  for (CURLoption const option : {CURLOPT_CAINFO, CURLOPT_PROXY_CAINFO})
    SetCurlOption(easy, option, file);
  for (CURLoption const option : {CURLOPT_CAPATH, CURLOPT_PROXY_CAPATH})
    SetCurlOption(easy, option, directory);
  SetCurlOption(easy, CURLOPT_CA_CACHE_TIMEOUT, kRootsTime);
}

} // namespace

std::size_t EstimateHeadSize(HttpRequest const &request) {
  std::size_t const targetSize = GoesByPlainProxy(request) ? Escaped(request.target).size() : request.target.size();
  std::size_t size = 256 + targetSize + 2 * request.host.size();
  for (auto const *lines : {&request.headers, &request.defaults})
    for (std::string const &line : *lines)
      size += line.size() + 2;
  return size;
}

void SetUpCurl(CURL *easy, HttpRequest const &request, RequestBody const &body, bool isSmall, CurlMemory &memory) {
  SetUpTarget(easy, request);
  SetUpConnectTo(easy, memory.connectTo);
  SetUpHeaders(easy, request, memory.headers);
  SetUpTls(easy, request);
  SetCurlOption(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  SetCurlOption(easy, CURLOPT_NOSIGNAL, 1L);
  SetCurlOption(easy, CURLOPT_QUICK_EXIT, 1L); // does not wait for a resolver that hangs
  SetCurlOption(easy, CURLOPT_TCP_NODELAY, 1L);
  SetCurlOption(easy, CURLOPT_FRESH_CONNECT, 1L);
  SetCurlOption(easy, CURLOPT_FORBID_REUSE, 1L);
  SetCurlOption(easy, CURLOPT_DNS_CACHE_TIMEOUT, 0L);
  SetCurlOption(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  SetCurlOption(easy, CURLOPT_UPLOAD_BUFFERSIZE, isSmall ? static_cast<long>(kSmallRequest) : kUploadBufferSize);
  SetCurlOption(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request.limits.connect));
  SetCurlOption(easy, CURLOPT_ERRORBUFFER, memory.message.data());
  if (!request.isPost)
    return;
  SetCurlOption(easy, CURLOPT_POST, 1L);
  SetCurlOption(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.length));
  SetCurlOption(easy, CURLOPT_COPYPOSTFIELDS, body.bytes); // an early reply may end the call before it is out
}
