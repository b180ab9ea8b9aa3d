// One HTTP exchange over a connection of its own: the request's head, the streamed body, the reply. libcurl drives it
// on the thread that calls; only Abort may come from another one, and the caller sees to it that calls do not overlap.
// It knows nothing of handles and of the last error: failures are returned as error numbers, 0 for none.
#pragma once

#include "platform/http/CurlHandles.h"
#include "platform/http/WinInet.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

/// What goes out, and to whom. Header lines are "Name: value", without line ends.
struct HttpRequest {
  std::string host; ///< a name or an address, IPv6 with or without its brackets
  INTERNET_PORT port = 0;
  bool isSecure = false;
  bool isPost = false;
  bool ignoresDate = false;
  bool ignoresName = false;
  std::string target;                ///< path and query
  std::vector<std::string> headers;  ///< the caller's
  std::vector<std::string> defaults; ///< the layer's own: each gives way to a caller's header of the same name
  DWORD connectLimit = 60'000;       ///< ms until the connection stands
  DWORD sendLimit = 30'000;          ///< ms without progress
};

/// Who is told of the connection's stages. With no callback, or a zero context, nobody is.
struct StatusSink {
  INTERNET_STATUS_CALLBACK callback = nullptr;
  HINTERNET handle = nullptr;
  DWORD_PTR context = 0;

  void Tell(DWORD status, void *information = nullptr, std::size_t length = 0) const noexcept;
  void TellText(DWORD status, std::wstring text) const noexcept;
  void TellCount(DWORD status, std::size_t count) const noexcept;
};

class HttpTransfer {
public:
  HttpTransfer();
  HttpTransfer(HttpTransfer const &) = delete;
  HttpTransfer &operator=(HttpTransfer const &) = delete;
  /// Closes the connection. In a forked child it leaves the parent's connection alone.
  ~HttpTransfer();

  /// Sends a whole request, head and body in one write where libcurl lets it, and waits for the end of the reply's
  /// headers. The body is borrowed for the call; only a POST has one.
  DWORD Send(HttpRequest const &request, StatusSink const &sink, std::string_view body);
  /// Connects and sends the head, which declares the body's length. The body follows by Write and End.
  DWORD Begin(HttpRequest const &request, StatusSink const &sink, std::uint64_t bodyLength);
  /// Sends body bytes, or holds a few; the caller may free them afterwards. After an early reply they only count.
  DWORD Write(void const *data, std::size_t size);
  /// Sends what is held and waits for the end of the reply's headers.
  DWORD End();
  /// Waits for the first byte of the reply and counts all that are there; 0 at its end.
  DWORD Available(std::size_t *size);
  /// Waits until `size` bytes are there or the reply ends.
  DWORD Read(void *buffer, std::size_t size, std::size_t *read);

  bool HasBegun() const { return m_stage != Stage::Idle; }
  bool IsAnswered() const { return m_stage == Stage::Answered; }
  long Status() const { return m_status; }
  /// Empty without such a header.
  std::string const &ContentLength() const { return m_contentLength; }

  /// Ends the call that runs, and all later ones, with ERROR_INTERNET_OPERATION_CANCELLED. Thread: any.
  void Abort();

private:
  enum class Stage { Idle, Sending, Answered };
  enum class Wait { Send, Receive };
  class Limits;
  struct Line {             ///< what the connection has moved so far, in bytes
    std::uint64_t handed;   ///< to the system, of the request
    std::uint64_t acked;    ///< by the peer's system, encryption and handshake included
    std::uint64_t underWay; ///< handed over, not acked yet
    std::uint64_t received;
  };
  struct ListCleanUp {
    void operator()(curl_slist *list) const { curl_slist_free_all(list); }
  };
  using List = std::unique_ptr<curl_slist, ListCleanUp>;
  struct Socket {
    curl_socket_t fd;
    std::wstring address; ///< without the port
  };
  friend struct HttpTransferCallbacks;

  static void Append(List &list, std::string const &line);
  template <class Value> void Set(CURLoption option, Value value);
  template <class Value> Value Get(CURLINFO info) const;
  DWORD Start(HttpRequest const &request, StatusSink const &sink, std::uint64_t bodyLength, char const *body);
  void SetUp(HttpRequest const &request, std::uint64_t bodyLength, char const *body);
  void SetUpTarget(HttpRequest const &request);
  void SetUpHeaders(HttpRequest const &request);
  void SetUpCallbacks();

  void Perform();
  template <class Ready> bool PumpUntil(Wait wait, Ready ready);
  bool Flush();
  DWORD AwaitReply();
  void Finish(CURLcode code);
  void Fail(DWORD error);
  DWORD Failure() const;
  DWORD ErrorNumber(CURLcode code) const;
  Line MeasureLine() const;

  std::uint64_t Sent() const;
  bool IsHeadOut() const;
  /// An early final reply that ends the sending: a status of 300 or more, or any that came whole and ended the
  /// connection.
  bool IsSendingOver() const { return m_isHeadIn && (m_status >= 300 || (m_isFinished && m_error == 0)); }
  void ShutSendingSide();
  bool IsReplyWhole() const;
  std::size_t Buffered() const { return m_reply.size() - m_taken; }
  std::size_t Take(char *buffer, std::size_t size);

  // What libcurl calls. These may throw std::bad_alloc.
  void Resolving();
  curl_socket_t Open(curl_sockaddr const &address);
  void Connected();
  CURLcode SetUpTls(void *context);
  void Requested();
  std::size_t Supply(char *buffer, std::size_t size);
  bool TakeHeader(std::string_view line);
  bool TakeBody(std::string_view data);
  void CloseSocket(curl_socket_t fd);
  void TellClosed();

  pid_t const m_process;
  std::atomic<bool> m_isAborted = false;
  std::atomic<bool> m_isPolling = false; ///< a wait has begun, or is about to, that a wake-up ends
  StatusSink m_sink;
  std::wstring m_host;
  bool m_ignoresDate = false;
  DWORD m_connectLimit = 0;
  DWORD m_sendLimit = 0;

  Stage m_stage = Stage::Idle;
  bool m_isFinished = false; ///< libcurl has nothing more to do
  DWORD m_error = 0;         ///< why it finished; 0 for a reply that came whole

  bool m_isResolvingTold = false;
  bool m_isRequested = false; ///< the connection stands, and the head is the next thing out
  long m_sizeBeforeHead = 0;  ///< bytes that went to a proxy first
  std::vector<Socket> m_sockets;
  curl_socket_t m_connected = CURL_SOCKET_BAD;
  bool m_isClosedUntold = false;

  std::uint64_t m_declared = 0; ///< the body's length
  std::uint64_t m_accepted = 0; ///< body bytes taken from the caller
  std::string m_held;           ///< small writes that wait for more
  std::string_view m_source[2]; ///< what goes out now: the held bytes, then the caller's; empty between calls
  bool m_isStreamed = false;    ///< they come by Write
  bool m_isPaused = false;      ///< libcurl waits for body bytes
  bool m_isCutShort = false;    ///< libcurl was told, after an early reply, that no more come

  long m_status = 0;
  bool m_isHeadIn = false;
  std::size_t m_headSize = 0; ///< bytes of header lines, those of interim replies included
  std::string m_contentLength;
  std::string m_reply;
  std::size_t m_taken = 0; ///< bytes of m_reply that the caller has
  std::uint64_t m_received = 0;
  std::uint64_t m_replyWait = 0; ///< ms that calls have waited for the reply

  std::array<char, CURL_ERROR_SIZE> m_message{};
  List m_headers;
  List m_connectTo;
  CurlHandles m_curl;      ///< from Begin on
  bool m_mayReuse = false; ///< the multi handle may serve a later transfer
};
