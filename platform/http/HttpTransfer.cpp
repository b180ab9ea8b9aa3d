// See HttpTransfer.h. One CURLM and one CURL a transfer: curl_multi_poll can be woken from another thread, which no
// blocking call of libcurl can.
#include "platform/http/HttpTransfer.h"

#include "platform/base/Fork.h"
#include "platform/base/LastError.h"
#include "platform/base/Seam.h"
#include "platform/http/TrustStore.h"
#include "platform/text/Utf8.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include <arpa/inet.h>
#include <linux/sockios.h>
#include <linux/tcp.h>
#include <openssl/ssl.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr std::uint64_t kReceiveLimit = 60'000;        // ms without a byte
constexpr std::uint64_t kReplyLimit = 300'000;         // ms for one whole reply
constexpr std::size_t kRequestHeadLimit = 1024 * 1024; // bytes that libcurl makes a request's head of
constexpr std::size_t kHeadSizeLimit = 100 * 1024;
constexpr std::uint64_t kBodySizeLimit = 64 * 1024 * 1024;
constexpr std::size_t kJoinSize = 4096;            // bytes; smaller writes wait for more
constexpr long kUploadBufferSize = 512 * 1024;     // bytes that one look at the socket sends
constexpr std::uint64_t kSmallRequest = 16 * 1024; // bytes; fits into a buffer that takes no mapping of its own
constexpr std::uint64_t kConnectingPollTime = 20;  // ms; libcurl tries a server's next address only when a poll ends
constexpr std::uint64_t kPollTime = 1000;
constexpr std::uint64_t kDrivenPollTime = 5;

struct CodeRow {
  CURLcode code;
  DWORD error;
};
constexpr CodeRow kErrorNumbers[] = {
    {CURLE_UNSUPPORTED_PROTOCOL, ERROR_HTTP_INVALID_SERVER_RESPONSE}, // a reply that is no HTTP
    {CURLE_WEIRD_SERVER_REPLY, ERROR_HTTP_INVALID_SERVER_RESPONSE},
    {CURLE_GOT_NOTHING, ERROR_HTTP_INVALID_SERVER_RESPONSE},
    {CURLE_BAD_FUNCTION_ARGUMENT, ERROR_HTTP_INVALID_SERVER_RESPONSE}, // a head that begins with a continuation line
    {CURLE_URL_MALFORMAT, ERROR_INTERNET_INVALID_URL},
    {CURLE_COULDNT_RESOLVE_PROXY, ERROR_INTERNET_NAME_NOT_RESOLVED},
    {CURLE_COULDNT_RESOLVE_HOST, ERROR_INTERNET_NAME_NOT_RESOLVED},
    {CURLE_COULDNT_CONNECT, ERROR_INTERNET_CANNOT_CONNECT},
    {CURLE_PROXY, ERROR_INTERNET_CANNOT_CONNECT},
    {CURLE_OPERATION_TIMEDOUT, ERROR_INTERNET_TIMEOUT},
    {CURLE_SSL_CONNECT_ERROR, ERROR_INTERNET_SECURITY_CHANNEL_ERROR},
    {CURLE_PEER_FAILED_VERIFICATION, ERROR_INTERNET_INVALID_CA},
    {CURLE_BAD_CONTENT_ENCODING, ERROR_INTERNET_DECODING_FAILED},
    {CURLE_OUT_OF_MEMORY, ERROR_NOT_ENOUGH_MEMORY},
};

struct VerifyRow {
  long result;
  DWORD error;
};
/// Why a certificate was refused; what is not here counts as the issuer's fault.
constexpr VerifyRow kVerifyErrors[] = {
    {X509_V_ERR_UNSPECIFIED, ERROR_INTERNET_SEC_CERT_CN_INVALID}, // the chain is good, the name is not
    {X509_V_ERR_CERT_NOT_YET_VALID, ERROR_INTERNET_SEC_CERT_DATE_INVALID},
    {X509_V_ERR_CERT_HAS_EXPIRED, ERROR_INTERNET_SEC_CERT_DATE_INVALID},
    {X509_V_ERR_UNABLE_TO_GET_CRL, ERROR_INTERNET_SEC_CERT_REV_FAILED},
    {X509_V_ERR_CERT_REVOKED, ERROR_INTERNET_SEC_CERT_REVOKED},
};

struct MessageRow {
  char const *text;
  DWORD error;
};
/// Lost connections and broken framing, by libcurl's message: it has one code for them, and the system's error number
/// is overwritten by then.
constexpr MessageRow kLossMessages[] = {
    {"chunked-encoding", ERROR_HTTP_INVALID_SERVER_RESPONSE},
    {"reset by peer", ERROR_INTERNET_CONNECTION_RESET},
    {"SSL_ERROR_SYSCALL", ERROR_INTERNET_CONNECTION_ABORTED},
    {"unexpected eof", ERROR_INTERNET_CONNECTION_ABORTED},
};

/// Suppresses what libcurl would add by itself.
constexpr char const *kSuppressed[] = {"Accept:", "Content-Type:", "Expect:"};

std::string_view HeaderName(std::string_view line) { return line.substr(0, line.find(':')); }

/// Bytes of the request's head, rather too many.
std::size_t RequestHeadSize(HttpRequest const &request) {
  std::size_t size = 256 + request.target.size() + 2 * request.host.size();
  for (auto const *lines : {&request.headers, &request.defaults})
    for (std::string const &line : *lines)
      size += line.size() + 2;
  return size;
}

bool IsSameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string_view Trimmed(std::string_view text) {
  constexpr char const *kBlanks = " \t\r\n";
  std::size_t const first = text.find_first_not_of(kBlanks);
  if (first == text.npos)
    return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

/// True for decimal digits that name a number over 64 bits.
bool IsOverflowingNumber(std::string_view text) {
  std::int64_t number = 0;
  char const *const end = text.data() + text.size();
  auto const [stop, error] = std::from_chars(text.data(), end, number);
  return stop == end && error == std::errc::result_out_of_range;
}

/// True if the environment names a proxy for plain HTTP. Whether "no_proxy" excludes the host is left to libcurl.
bool IsProxyNamed() {
  char const *const names[] = {"http_proxy", "all_proxy", "ALL_PROXY"};
  return std::any_of(std::begin(names), std::end(names), [](char const *name) { return std::getenv(name); });
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

std::wstring AddressText(sockaddr const *address) {
  char text[INET6_ADDRSTRLEN] = "";
  void const *const bytes = address->sa_family == AF_INET6
                                ? static_cast<void const *>(&reinterpret_cast<sockaddr_in6 const *>(address)->sin6_addr)
                                : &reinterpret_cast<sockaddr_in const *>(address)->sin_addr;
  inet_ntop(address->sa_family, bytes, text, sizeof text);
  return WideFromUtf8(text);
}

/// True if the socket is connected to that address. A number that libcurl closed unseen may be another's by now.
bool IsConnectedTo(int fd, std::wstring const &address) {
  sockaddr_storage peer{};
  socklen_t size = sizeof peer;
  return getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &size) == 0 &&
         AddressText(reinterpret_cast<sockaddr *>(&peer)) == address;
}

} // namespace

// --- Telling of the stages

void StatusSink::Tell(DWORD status, void *information, std::size_t length) const noexcept {
  if (!callback || !context)
    return;
  try {
    callback(handle, context, status, information, static_cast<DWORD>(length));
  } catch (...) {
    // nothing may pass through libcurl's frames
  }
}

void StatusSink::TellText(DWORD status, std::wstring text) const noexcept {
  Tell(status, text.data(), (text.size() + 1) * sizeof(WCHAR));
}

void StatusSink::TellCount(DWORD status, std::size_t count) const noexcept {
  DWORD dwCount = static_cast<DWORD>(count);
  Tell(status, &dwCount, sizeof dwCount);
}

// --- What libcurl calls: plain functions that end at the transfer, and that let nothing escape

struct HttpTransferCallbacks {
  /// Runs the work; memory failure ends the transfer, which the result `failed` asks libcurl for.
  template <class Result, class Work> static Result Run(void *transfer, Result failed, Work work) {
    auto &self = *static_cast<HttpTransfer *>(transfer);
    try {
      return work(self);
    } catch (std::bad_alloc const &) {
      self.m_error = ERROR_NOT_ENOUGH_MEMORY;
      return failed;
    }
  }
  static int Resolving(void *, void *, void *transfer) {
    return Run(transfer, 1, [](HttpTransfer &self) {
      self.Resolving();
      return 0;
    });
  }
  static curl_socket_t Open(void *transfer, curlsocktype, curl_sockaddr *address) {
    return Run(transfer, curl_socket_t{CURL_SOCKET_BAD}, [&](HttpTransfer &self) { return self.Open(*address); });
  }
  static int Close(void *transfer, curl_socket_t fd) {
    static_cast<HttpTransfer *>(transfer)->CloseSocket(fd);
    return 0;
  }
  static CURLcode Tls(CURL *, void *context, void *transfer) {
    return Run(transfer, CURLE_OUT_OF_MEMORY, [&](HttpTransfer &self) { return self.SetUpTls(context); });
  }
  static int Requested(void *transfer, char *, char *, int, int) {
    return Run(transfer, CURL_PREREQFUNC_ABORT, [](HttpTransfer &self) {
      self.Requested();
      return CURL_PREREQFUNC_OK;
    });
  }
  static std::size_t Supply(char *buffer, std::size_t size, std::size_t count, void *transfer) {
    return static_cast<HttpTransfer *>(transfer)->Supply(buffer, size * count);
  }
  static std::size_t TakeHeader(char *data, std::size_t size, std::size_t count, void *transfer) {
    std::string_view const line(data, size * count);
    return Run(transfer, std::size_t{0},
               [&](HttpTransfer &self) { return self.TakeHeader(line) ? line.size() : std::size_t{0}; });
  }
  static std::size_t TakeBody(char *data, std::size_t size, std::size_t count, void *transfer) {
    std::string_view const bytes(data, size * count);
    return Run(transfer, std::size_t{0},
               [&](HttpTransfer &self) { return self.TakeBody(bytes) ? bytes.size() : std::size_t{0}; });
  }
};

void HttpTransfer::Resolving() {
  if (m_isResolvingTold)
    return;
  m_isResolvingTold = true;
  m_sink.TellText(INTERNET_STATUS_RESOLVING_NAME, m_host);
}

curl_socket_t HttpTransfer::Open(curl_sockaddr const &address) {
  std::wstring const text = AddressText(&address.addr);
  Resolving(); // libcurl does not report it for an address that it knows already
  if (m_sockets.empty())
    m_sink.TellText(INTERNET_STATUS_NAME_RESOLVED, text);
  m_sink.TellText(INTERNET_STATUS_CONNECTING_TO_SERVER, text);
  m_sockets.push_back({CURL_SOCKET_BAD, text});
  m_sockets.back().fd = socket(address.family, address.socktype | SOCK_CLOEXEC, address.protocol);
  return m_sockets.back().fd;
}

/// Finds out which of the sockets won.
void HttpTransfer::Connected() {
  if (m_connected != CURL_SOCKET_BAD)
    return;
  bool const isOnlyOne = m_sockets.size() == 1;
  auto const it = std::find_if(m_sockets.rbegin(), m_sockets.rend(), [=](Socket const &socket) {
    return isOnlyOne || IsConnectedTo(socket.fd, socket.address);
  });
  if (it == m_sockets.rend())
    return;
  m_connected = it->fd;
  m_sink.TellText(INTERNET_STATUS_CONNECTED_TO_SERVER, it->address);
}

CURLcode HttpTransfer::SetUpTls(void *context) {
  auto *const tls = static_cast<SSL_CTX *>(context);
  Connected();
  if (m_ignoresDate)
    X509_VERIFY_PARAM_set_flags(SSL_CTX_get0_param(tls), X509_V_FLAG_NO_CHECK_TIME);
  return UseTrustStore(tls) ? CURLE_OK : CURLE_OUT_OF_MEMORY;
}

void HttpTransfer::Requested() {
  Connected();
  m_isRequested = true;
  m_sizeBeforeHead = Get<long>(CURLINFO_REQUEST_SIZE);
  m_sink.Tell(INTERNET_STATUS_SENDING_REQUEST);
}

std::size_t HttpTransfer::Supply(char *buffer, std::size_t size) {
  if (IsSendingOver()) {
    m_isCutShort = true;
    return 0; // ends the body; the reply is still read
  }
  std::size_t supplied = 0;
  for (std::string_view &source : m_source) {
    std::size_t const part = source.copy(buffer + supplied, size - supplied);
    source.remove_prefix(part);
    supplied += part;
  }
  m_isPaused = supplied == 0;
  return m_isPaused ? static_cast<std::size_t>(CURL_READFUNC_PAUSE) : supplied;
}

bool HttpTransfer::TakeHeader(std::string_view line) {
  m_headSize += line.size();
  if (m_headSize > kHeadSizeLimit) {
    m_error = ERROR_HTTP_INVALID_SERVER_RESPONSE;
    return false;
  }
  if (m_isHeadIn) // a trailer
    return true;
  if (line.starts_with("HTTP/")) {
    m_contentLength.clear(); // what came before was an interim reply
  } else if (IsSameName(HeaderName(line), "Content-Length")) {
    m_contentLength = Trimmed(line.substr(line.find(':') + 1));
  } else if (Trimmed(line).empty()) {
    m_status = Get<long>(CURLINFO_RESPONSE_CODE);
    m_isHeadIn = m_status >= 200 || m_status == 101;
    if (m_isHeadIn && IsOverflowingNumber(m_contentLength)) {
      m_error = ERROR_HTTP_INVALID_SERVER_RESPONSE; // an answer whose body can't be read
      return false;
    }
  }
  return true;
}

bool HttpTransfer::TakeBody(std::string_view data) {
  m_received += data.size();
  if (m_received > kBodySizeLimit) {
    m_error = ERROR_HTTP_INVALID_SERVER_RESPONSE;
    return false;
  }
  m_reply.append(data);
  return true;
}

void HttpTransfer::CloseSocket(curl_socket_t fd) {
  bool const isConnected = fd == m_connected;
  bool const isTold = isConnected && !(m_isHeadIn && m_stage == Stage::Sending); // else the reply is told of first
  if (isConnected) {
    m_connected = CURL_SOCKET_BAD;
    m_isClosedUntold = !isTold;
  }
  if (isTold)
    m_sink.Tell(INTERNET_STATUS_CLOSING_CONNECTION);
  close(fd);
  for (Socket &socket : m_sockets)
    if (socket.fd == fd)
      socket.fd = CURL_SOCKET_BAD;
  if (isTold)
    m_sink.Tell(INTERNET_STATUS_CONNECTION_CLOSED);
}

/// Tells of what was put off.
void HttpTransfer::TellClosed() {
  if (!std::exchange(m_isClosedUntold, false))
    return;
  m_sink.Tell(INTERNET_STATUS_CLOSING_CONNECTION);
  m_sink.Tell(INTERNET_STATUS_CONNECTION_CLOSED);
}

// --- Setting up

HttpTransfer::HttpTransfer() : m_process(CurrentProcess()) {}

HttpTransfer::~HttpTransfer() {
  if (CurrentProcess() != m_process) {
    static_cast<void>(m_curl.easy.release()); // closing would end the parent's connection, too
    static_cast<void>(m_curl.multi.release());
    return;
  }
  if (!m_curl.easy)
    return;
  curl_multi_remove_handle(m_curl.multi.get(), m_curl.easy.get()); // closes the socket, and tells of it
  TellClosed();
  bool const isClosed = std::all_of(m_sockets.begin(), m_sockets.end(),
                                    [](Socket const &socket) { return socket.fd == CURL_SOCKET_BAD; });
  if (m_mayReuse && isClosed && m_isFinished && m_error == ERROR_SUCCESS)
    KeepMultiHandle(std::move(m_curl.multi));
}

void HttpTransfer::Append(List &list, std::string const &line) {
  curl_slist *const longer = curl_slist_append(list.get(), line.c_str());
  if (!longer)
    throw std::bad_alloc();
  static_cast<void>(list.release());
  list.reset(longer);
}

template <class Value> void HttpTransfer::Set(CURLoption option, Value value) {
  if (curl_easy_setopt(m_curl.easy.get(), option, value) != CURLE_OK)
    throw std::bad_alloc(); // the options are all known to the library
}

template <class Value> Value HttpTransfer::Get(CURLINFO info) const {
  Value value{};
  curl_easy_getinfo(m_curl.easy.get(), info, &value);
  return value;
}

void HttpTransfer::SetUp(HttpRequest const &request, std::uint64_t bodyLength, char const *body) {
  m_host = WideFromUtf8(request.host);
  m_ignoresDate = request.ignoresDate;
  m_connectLimit = request.connectLimit;
  m_sendLimit = request.sendLimit;
  m_declared = bodyLength;
  SetUpTarget(request);
  SetUpHeaders(request);
  SetUpCallbacks();
  Set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  Set(CURLOPT_NOSIGNAL, 1L);
  Set(CURLOPT_QUICK_EXIT, 1L); // does not wait for a resolver that hangs
  Set(CURLOPT_TCP_NODELAY, 1L);
  Set(CURLOPT_FRESH_CONNECT, 1L);
  Set(CURLOPT_FORBID_REUSE, 1L);
  Set(CURLOPT_DNS_CACHE_TIMEOUT, 0L);
  Set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  Set(CURLOPT_UPLOAD_BUFFERSIZE, m_mayReuse ? static_cast<long>(kSmallRequest) : kUploadBufferSize);
  Set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request.connectLimit));
  Set(CURLOPT_ERRORBUFFER, m_message.data());
  Set(CURLOPT_SSL_SESSIONID_CACHE, 0L); // a session's resumption would skip the certificate checks
  Set(CURLOPT_SSL_VERIFYPEER, 1L);
  Set(CURLOPT_SSL_VERIFYHOST, request.ignoresName ? 0L : 2L);
  Set(CURLOPT_CAINFO, static_cast<char const *>(nullptr)); // the trust store takes their place
  Set(CURLOPT_CAPATH, static_cast<char const *>(nullptr));
  Set(CURLOPT_CA_CACHE_TIMEOUT, 0L); // what the handles keep from an earlier transfer would take its place
  if (!request.isPost)
    return;
  Set(CURLOPT_POST, 1L);
  Set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(bodyLength));
  Set(CURLOPT_POSTFIELDS, body); // null: Supply gives it
}

void HttpTransfer::SetUpTarget(HttpRequest const &request) {
  bool const isBare = request.host.find(':') != std::string::npos && !request.host.starts_with('[');
  std::string url = request.isSecure ? "https://" : "http://";
  url += isBare ? '[' + request.host + ']' : request.host;
  url += ':' + std::to_string(request.port);
  if (!request.isSecure && IsProxyNamed()) {
    url += Escaped(request.target); // libcurl makes of it what the proxy wants
  } else {
    url += '/';
    Set(CURLOPT_REQUEST_TARGET, request.target.c_str());
  }
  Set(CURLOPT_URL, url.c_str());
  Set(CURLOPT_PATH_AS_IS, 1L);
  Set(CURLOPT_PROTOCOLS_STR, "http,https");

  char const *const connectTo = std::getenv("SKIFFPORT_CONNECT_TO");
  std::string_view entries = connectTo ? connectTo : "";
  while (!entries.empty()) {
    std::string_view const entry = entries.substr(0, entries.find(','));
    Append(m_connectTo, std::string(entry));
    entries.remove_prefix(std::min(entry.size() + 1, entries.size()));
  }
  Set(CURLOPT_CONNECT_TO, m_connectTo.get());
}

void HttpTransfer::SetUpHeaders(HttpRequest const &request) {
  auto const isGiven = [&](std::string_view line) {
    return std::any_of(request.headers.begin(), request.headers.end(),
                       [&](std::string const &header) { return IsSameName(HeaderName(header), HeaderName(line)); });
  };
  for (char const *line : kSuppressed)
    if (!isGiven(line))
      Append(m_headers, line);
  for (std::string const &line : request.headers) {
    bool const isEmpty = Trimmed(line).ends_with(':') && HeaderName(line).size() + 1 == Trimmed(line).size();
    Append(m_headers, isEmpty ? std::string(HeaderName(line)) + ';' : line); // libcurl's way to write an empty value
  }
  for (std::string const &line : request.defaults)
    if (!isGiven(line))
      Append(m_headers, line);
  Set(CURLOPT_HTTPHEADER, m_headers.get());
}

void HttpTransfer::SetUpCallbacks() {
  using Callbacks = HttpTransferCallbacks;
  Set(CURLOPT_RESOLVER_START_FUNCTION, &Callbacks::Resolving);
  Set(CURLOPT_RESOLVER_START_DATA, this);
  Set(CURLOPT_OPENSOCKETFUNCTION, &Callbacks::Open);
  Set(CURLOPT_OPENSOCKETDATA, this);
  Set(CURLOPT_CLOSESOCKETFUNCTION, &Callbacks::Close);
  Set(CURLOPT_CLOSESOCKETDATA, this);
  Set(CURLOPT_SSL_CTX_FUNCTION, &Callbacks::Tls);
  Set(CURLOPT_SSL_CTX_DATA, this);
  Set(CURLOPT_PREREQFUNCTION, &Callbacks::Requested);
  Set(CURLOPT_PREREQDATA, this);
  Set(CURLOPT_READFUNCTION, &Callbacks::Supply);
  Set(CURLOPT_READDATA, this);
  Set(CURLOPT_HEADERFUNCTION, &Callbacks::TakeHeader);
  Set(CURLOPT_HEADERDATA, this);
  Set(CURLOPT_WRITEFUNCTION, &Callbacks::TakeBody);
  Set(CURLOPT_WRITEDATA, this);
}

// --- Waiting

/// Watches one wait: how long it lasts, and how long nothing has moved.
class HttpTransfer::Limits {
public:
  Limits(HttpTransfer &transfer, Wait wait)
      : m_transfer(transfer), m_wait(wait), m_begin(SteadyMilliseconds()), m_moved(m_begin) {
    if (wait == Wait::Receive) // most sends end before the first look
      m_line = transfer.MeasureLine();
    m_ackLimit = m_line.acked + m_line.underWay;
  }
  ~Limits() {
    if (m_wait == Wait::Receive)
      m_transfer.m_replyWait += SteadyMilliseconds() - m_begin;
  }
  Limits(Limits const &) = delete;
  Limits &operator=(Limits const &) = delete;

  /// Milliseconds that the wait may still last; 0 when its time is up.
  std::uint64_t Left() {
    std::uint64_t const now = SteadyMilliseconds();
    bool const isReceiving = m_wait == Wait::Receive;
    Line line = m_transfer.MeasureLine();
    if (line.handed != m_line.handed)
      m_ackLimit = line.acked + line.underWay;
    line.acked = std::min(line.acked, m_ackLimit); // what a peer makes TLS answer is no progress
    bool const isSending = line.handed != m_line.handed || line.acked != m_line.acked;
    if (isSending || (isReceiving && line.received != m_line.received))
      m_moved = now;
    if (isReceiving && isSending)
      m_begin = now; // what the system had buffered of the request still goes out
    m_line = line;
    auto const left = [now](std::uint64_t since, std::uint64_t limit) { return limit - std::min(now - since, limit); };
    if (!m_transfer.m_isRequested)
      return left(m_begin, m_transfer.m_connectLimit);
    if (!isReceiving)
      return left(m_moved, m_transfer.m_sendLimit);
    std::uint64_t const spent = std::min(m_transfer.m_replyWait, kReplyLimit);
    return std::min(left(m_moved, kReceiveLimit), left(m_begin, kReplyLimit - spent));
  }

private:
  HttpTransfer &m_transfer;
  Wait const m_wait;
  std::uint64_t m_begin;
  std::uint64_t m_moved;
  std::uint64_t m_ackLimit; ///< acknowledgements count up to here
  Line m_line{};            ///< as of the last look
};

/// The socket's own counters are part of it: libcurl counts a block as sent only when all of it is out, which takes
/// long on a slow line, and what the system has buffered of the body takes longer still.
HttpTransfer::Line HttpTransfer::MeasureLine() const {
  Line line{Sent() + static_cast<std::uint64_t>(Get<long>(CURLINFO_REQUEST_SIZE)) + (m_isRequested ? 1 : 0), 0, 0,
            m_headSize + m_received};
  if (m_connected == CURL_SOCKET_BAD)
    return line;
  int unacked = 0;
  if (ioctl(m_connected, SIOCOUTQ, &unacked) == 0) // first: what is acked in between then counts twice, not never
    line.underWay = static_cast<std::uint64_t>(unacked);
  tcp_info info{};
  socklen_t size = sizeof info;
  if (getsockopt(m_connected, IPPROTO_TCP, TCP_INFO, &info, &size) == 0) {
    line.acked = info.tcpi_bytes_acked;
    line.received += info.tcpi_bytes_received;
  }
  return line;
}

/// Takes the transfer as far as it goes without waiting.
void HttpTransfer::Perform() {
  if (m_isAborted)
    return Fail(ERROR_INTERNET_OPERATION_CANCELLED);
  if (m_isFinished)
    return;
  if (m_isPaused && (IsSendingOver() || !m_source[0].empty() || !m_source[1].empty())) {
    m_isPaused = false;
    curl_easy_pause(m_curl.easy.get(), CURLPAUSE_CONT);
  }
  int count = 0;
  if (curl_multi_perform(m_curl.multi.get(), &count) != CURLM_OK)
    return Fail(ERROR_NOT_ENOUGH_MEMORY);
  while (CURLMsg const *const message = curl_multi_info_read(m_curl.multi.get(), &count))
    if (message->msg == CURLMSG_DONE)
      Finish(message->data.result);
  if (m_isCutShort)
    ShutSendingSide();
  if (m_isAborted)
    Fail(ERROR_INTERNET_OPERATION_CANCELLED);
}

/// A service that reads on after its refusal learns so that nothing more comes, and ends its reply.
void HttpTransfer::ShutSendingSide() {
  m_isCutShort = false;
  if (m_connected != CURL_SOCKET_BAD)
    shutdown(m_connected, SHUT_WR);
}

/// Drives the transfer until `ready()`. Returns: false if it was ended, or ended by itself, before that.
template <class Ready> bool HttpTransfer::PumpUntil(Wait wait, Ready ready) {
  Limits limits(*this, wait);
  for (;;) {
    Perform();
    if (m_error == ERROR_INTERNET_OPERATION_CANCELLED)
      return false;
    if (ready())
      return true;
    if (m_isFinished)
      return false;
    std::uint64_t const left = limits.Left();
    if (left == 0) {
      Fail(ERROR_INTERNET_TIMEOUT);
      return false;
    }
    std::uint64_t const slice = ClockIsDriven() ? kDrivenPollTime : m_isRequested ? kPollTime : kConnectingPollTime;
    m_isPolling = true;
    if (!m_isAborted) // set before the wait began: it wakes nobody
      curl_multi_poll(m_curl.multi.get(), nullptr, 0, static_cast<int>(std::min(left, slice)), nullptr);
    m_isPolling = false;
  }
}

void HttpTransfer::Finish(CURLcode code) {
  m_isFinished = true;
  if (m_error != ERROR_SUCCESS) // a callback has said why
    return;
  bool const isLengthBad = code == CURLE_WEIRD_SERVER_REPLY && std::strstr(m_message.data(), "Content-Length");
  if (isLengthBad && !m_isHeadIn && Get<long>(CURLINFO_RESPONSE_CODE) >= 200) {
    m_status = Get<long>(CURLINFO_RESPONSE_CODE); // an answer whose length is no number: its body counts as empty
    m_isHeadIn = true;
    return;
  }
  bool const hasEnded = code == CURLE_OK || code == CURLE_PARTIAL_FILE; // by the peer, in order
  if (!hasEnded || !m_isHeadIn)
    m_error = ErrorNumber(code);
}

void HttpTransfer::Fail(DWORD error) {
  m_error = error;
  m_isFinished = true;
  curl_multi_remove_handle(m_curl.multi.get(), m_curl.easy.get()); // closes the connection
}

DWORD HttpTransfer::Failure() const { return m_error != ERROR_SUCCESS ? m_error : ERROR_INTERNET_CONNECTION_ABORTED; }

DWORD HttpTransfer::ErrorNumber(CURLcode code) const {
  if (code == CURLE_OUT_OF_MEMORY && m_isRequested && Sent() == m_declared && !m_isHeadIn)
    return ERROR_HTTP_INVALID_SERVER_RESPONSE; // libcurl's word for a header line over its own limit
  if (!m_isRequested && Get<long>(CURLINFO_HTTP_CONNECTCODE) >= 300)
    return ERROR_INTERNET_CANNOT_CONNECT; // the proxy refused the tunnel
  if (code == CURLE_PEER_FAILED_VERIFICATION) {
    for (VerifyRow const &row : kVerifyErrors)
      if (row.result == Get<long>(CURLINFO_SSL_VERIFYRESULT))
        return row.error;
  }
  if (code == CURLE_SSL_CONNECT_ERROR || code == CURLE_SEND_ERROR || code == CURLE_RECV_ERROR) {
    for (MessageRow const &row : kLossMessages)
      if (std::strstr(m_message.data(), row.text))
        return row.error;
    if (Get<long>(CURLINFO_OS_ERRNO) == ECONNRESET)
      return ERROR_INTERNET_CONNECTION_RESET;
  }
  for (CodeRow const &row : kErrorNumbers)
    if (row.code == code)
      return row.error;
  return ERROR_INTERNET_CONNECTION_ABORTED;
}

// --- The stages of an exchange

std::uint64_t HttpTransfer::Sent() const { return static_cast<std::uint64_t>(Get<curl_off_t>(CURLINFO_SIZE_UPLOAD_T)); }

bool HttpTransfer::IsHeadOut() const {
  bool const isOut = m_isRequested && Get<long>(CURLINFO_REQUEST_SIZE) > m_sizeBeforeHead;
  return m_isHeadIn || (isOut && (m_isStreamed ? m_declared == 0 || m_isPaused : Sent() >= m_declared));
}

/// A refused body may be stuck half-way, so that libcurl does not finish with a reply that is all there.
bool HttpTransfer::IsReplyWhole() const {
  if (m_isFinished)
    return m_error == ERROR_SUCCESS;
  std::uint64_t length = 0;
  char const *const end = m_contentLength.data() + m_contentLength.size();
  bool const isLengthKnown = std::from_chars(m_contentLength.data(), end, length).ec == std::errc();
  return IsSendingOver() && isLengthKnown && m_received >= length;
}

std::size_t HttpTransfer::Take(char *buffer, std::size_t size) {
  std::size_t const taken = m_reply.copy(buffer, size, m_taken);
  m_taken += taken;
  if (Buffered() == 0) {
    m_reply = {}; // its memory as well: a document is read before the handles are closed
    m_taken = 0;
  }
  return taken;
}

DWORD HttpTransfer::Start(HttpRequest const &request, StatusSink const &sink, std::uint64_t bodyLength,
                          char const *body) {
  if (m_stage != Stage::Idle)
    return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
  m_stage = Stage::Sending;
  m_sink = sink;
  m_isStreamed = body == nullptr;
  std::size_t const headSize = RequestHeadSize(request);
  if (headSize > kRequestHeadLimit)
    return ERROR_INTERNET_INVALID_URL;
  m_mayReuse = !m_isStreamed && headSize + bodyLength <= kSmallRequest;
  m_curl = MakeCurlHandles(m_mayReuse);
  SetUp(request, bodyLength, body);
  if (curl_multi_add_handle(m_curl.multi.get(), m_curl.easy.get()) != CURLM_OK)
    return ERROR_NOT_ENOUGH_MEMORY;
  if (!PumpUntil(Wait::Send, [this] { return IsHeadOut(); }))
    return Failure();
  m_sink.TellCount(INTERNET_STATUS_REQUEST_SENT,
                   static_cast<std::size_t>(Get<long>(CURLINFO_REQUEST_SIZE) - m_sizeBeforeHead));
  return ERROR_SUCCESS;
}

DWORD HttpTransfer::Send(HttpRequest const &request, StatusSink const &sink, std::string_view body) {
  if (DWORD const error = Start(request, sink, body.size(), body.data() ? body.data() : ""))
    return error;
  return AwaitReply();
}

DWORD HttpTransfer::Begin(HttpRequest const &request, StatusSink const &sink, std::uint64_t bodyLength) {
  m_held.reserve(kJoinSize);
  return Start(request, sink, bodyLength, nullptr);
}

/// Sends all that was accepted. After an early reply, or when all is out, it does nothing.
bool HttpTransfer::Flush() {
  m_source[0] = m_held;
  bool const isSent = PumpUntil(Wait::Send, [this] { return IsSendingOver() || Sent() >= m_accepted; });
  m_source[0] = m_source[1] = {};
  m_held.clear();
  return isSent;
}

DWORD HttpTransfer::Write(void const *data, std::size_t size) {
  if (m_stage != Stage::Sending || !m_isStreamed || size > m_declared - m_accepted)
    return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
  if (m_isAborted)
    Fail(ERROR_INTERNET_OPERATION_CANCELLED);
  if (m_error == ERROR_INTERNET_OPERATION_CANCELLED || (m_error != ERROR_SUCCESS && !IsSendingOver()))
    return m_error;
  m_sink.Tell(INTERNET_STATUS_SENDING_REQUEST);
  m_accepted += size;
  std::string_view const bytes(static_cast<char const *>(data), size);
  if (m_held.size() + size < kJoinSize) {
    m_held.append(bytes);
  } else {
    m_source[1] = bytes;
    if (!Flush())
      return Failure();
  }
  m_sink.TellCount(INTERNET_STATUS_REQUEST_SENT, size);
  return ERROR_SUCCESS;
}

DWORD HttpTransfer::End() {
  if (m_stage != Stage::Sending || !m_isStreamed)
    return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
  if (m_accepted < m_declared) {
    Fail(ERROR_INTERNET_INCORRECT_HANDLE_STATE);
    return Failure();
  }
  return Flush() ? AwaitReply() : Failure();
}

DWORD HttpTransfer::AwaitReply() {
  m_sink.Tell(INTERNET_STATUS_RECEIVING_RESPONSE);
  if (!PumpUntil(Wait::Receive, [this] { return m_isHeadIn; }))
    return Failure();
  m_sink.TellCount(INTERNET_STATUS_RESPONSE_RECEIVED, m_headSize);
  m_stage = Stage::Answered;
  TellClosed();
  return ERROR_SUCCESS;
}

DWORD HttpTransfer::Available(std::size_t *size) {
  if (m_stage != Stage::Answered)
    return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
  if (!PumpUntil(Wait::Receive, [this] { return Buffered() > 0 || IsReplyWhole(); }))
    return Failure();
  for (std::size_t before = 0; before != Buffered();) {
    before = Buffered();
    Perform();
  }
  *size = Buffered();
  return ERROR_SUCCESS;
}

DWORD HttpTransfer::Read(void *buffer, std::size_t size, std::size_t *read) {
  if (m_stage != Stage::Answered)
    return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
  auto *const bytes = static_cast<char *>(buffer);
  std::size_t taken = Take(bytes, size);
  bool const isWhole = taken == size || PumpUntil(Wait::Receive, [&] {
                         taken += Take(bytes + taken, size - taken);
                         return taken == size || IsReplyWhole();
                       });
  if (!isWhole && (taken == 0 || m_error == ERROR_INTERNET_OPERATION_CANCELLED))
    return Failure();
  *read = taken;
  return ERROR_SUCCESS;
}

void HttpTransfer::Abort() {
  m_isAborted = true;
  if (m_isPolling)
    curl_multi_wakeup(m_curl.multi.get());
}
