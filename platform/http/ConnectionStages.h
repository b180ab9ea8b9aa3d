// The sockets of one connection, opened and closed for libcurl, and the connection's stages as they are reported: name,
// address, connected, closed. Runs on the thread that makes the call. It knows nothing of requests and replies.
#pragma once

#include "platform/http/StatusSink.h"

#include <string>
#include <vector>

#include <curl/curl.h>

/// All functions but those that say so may throw std::bad_alloc.
class ConnectionStages {
public:
  void Begin(StatusSink const &sink, std::wstring host);
  StatusSink const &Sink() const { return m_sink; }

  /// Reports the host's name, once.
  void Resolving();
  /// Opens a socket for the address and reports the attempt. Returns: CURL_SOCKET_BAD on failure.
  curl_socket_t Open(curl_sockaddr const &address);
  /// Finds out which of the sockets was connected first and reports it, once.
  void Connected();
  /// Closes a socket. The end of the connection is reported now or, if `isDeferred`, by ReportClosed. Cannot fail.
  void Close(curl_socket_t fd, bool isDeferred);
  /// Reports a deferred end, once. Cannot fail.
  void ReportClosed();

  /// The connected socket, CURL_SOCKET_BAD before and afterwards.
  curl_socket_t Socket() const { return m_connected; }
  /// True if no socket is open. Cannot fail.
  bool IsClosed() const;

private:
  struct Attempt {
    curl_socket_t fd;
    std::wstring address; ///< without the port
  };

  StatusSink m_sink;
  std::wstring m_host;
  bool m_isHostReported = false;
  std::vector<Attempt> m_attempts;
  curl_socket_t m_connected = CURL_SOCKET_BAD;
  bool m_isCloseDeferred = false;
};
