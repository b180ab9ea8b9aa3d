#include "platform/http/ConnectionStages.h"

#include "platform/text/Utf8.h"

#include <algorithm>
#include <utility>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

std::wstring AddressText(sockaddr const *address) {
  char text[INET6_ADDRSTRLEN] = "";
  void const *const bytes = address->sa_family == AF_INET6
                                ? static_cast<void const *>(&reinterpret_cast<sockaddr_in6 const *>(address)->sin6_addr)
                                : &reinterpret_cast<sockaddr_in const *>(address)->sin_addr;
  inet_ntop(address->sa_family, bytes, text, sizeof text);
  return WideFromUtf8(text);
}

/// True if the socket is connected to that address. libcurl may have closed it by itself, and its number may be reused.
bool IsConnectedTo(int fd, std::wstring const &address) {
  sockaddr_storage peer{};
  socklen_t size = sizeof peer;
  return getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &size) == 0 &&
         AddressText(reinterpret_cast<sockaddr *>(&peer)) == address;
}

} // namespace

void ConnectionStages::Begin(StatusSink const &sink, std::wstring host) {
  m_sink = sink;
  m_host = std::move(host);
}

void ConnectionStages::Resolving() {
  if (!std::exchange(m_isHostReported, true))
    m_sink.ReportText(INTERNET_STATUS_RESOLVING_NAME, m_host);
}

curl_socket_t ConnectionStages::Open(curl_sockaddr const &address) {
  std::wstring const text = AddressText(&address.addr);
  Resolving(); // libcurl does not report it for an address that it already knows
  if (m_attempts.empty())
    m_sink.ReportText(INTERNET_STATUS_NAME_RESOLVED, text);
  m_sink.ReportText(INTERNET_STATUS_CONNECTING_TO_SERVER, text);
  m_attempts.push_back({CURL_SOCKET_BAD, text});
  m_attempts.back().fd = socket(address.family, address.socktype | SOCK_CLOEXEC, address.protocol);
  return m_attempts.back().fd;
}

void ConnectionStages::Connected() {
  if (m_connected != CURL_SOCKET_BAD)
    return;
  auto const it = std::find_if(m_attempts.rbegin(), m_attempts.rend(),
                               [](Attempt const &attempt) { return IsConnectedTo(attempt.fd, attempt.address); });
  if (it == m_attempts.rend())
    return;
  m_connected = it->fd;
  m_sink.ReportText(INTERNET_STATUS_CONNECTED_TO_SERVER, it->address);
}

void ConnectionStages::Close(curl_socket_t fd, bool isDeferred) {
  bool const isConnected = fd == m_connected;
  if (isConnected) {
    m_connected = CURL_SOCKET_BAD;
    m_isCloseDeferred = isDeferred;
  }
  if (isConnected && !isDeferred)
    m_sink.Report(INTERNET_STATUS_CLOSING_CONNECTION);
  close(fd);
  for (Attempt &attempt : m_attempts)
    if (attempt.fd == fd)
      attempt.fd = CURL_SOCKET_BAD;
  if (isConnected && !isDeferred)
    m_sink.Report(INTERNET_STATUS_CONNECTION_CLOSED);
}

void ConnectionStages::ReportClosed() {
  if (!std::exchange(m_isCloseDeferred, false))
    return;
  m_sink.Report(INTERNET_STATUS_CLOSING_CONNECTION);
  m_sink.Report(INTERNET_STATUS_CONNECTION_CLOSED);
}

bool ConnectionStages::IsClosed() const {
  return std::all_of(m_attempts.begin(), m_attempts.end(),
                     [](Attempt const &attempt) { return attempt.fd == CURL_SOCKET_BAD; });
}
