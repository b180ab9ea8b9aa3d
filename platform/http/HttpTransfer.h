// One HTTP exchange over a connection of its own: the request's head, the streamed body, the reply. libcurl drives it
// on the thread that calls; only Abort may come from another one, and the caller sees to it that calls do not overlap.
// It knows nothing of handles and of the last error: failures are returned as error numbers, 0 for none.
#pragma once

#include "platform/http/ConnectionStages.h"
#include "platform/http/CurlHandles.h"
#include "platform/http/CurlSetUp.h"
#include "platform/http/HttpErrors.h"
#include "platform/http/HttpReply.h"
#include "platform/http/HttpRequest.h"
#include "platform/http/StatusSink.h"
#include "platform/http/WaitLimits.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <openssl/types.h>
#include <sys/types.h>

/// All functions but the destructor, Abort and the getters may throw std::bad_alloc. Thread: any, one call at a time,
/// but for Abort.
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
  /// Sends body bytes, or holds a few; the caller may free them afterwards. After an early reply they are only counted.
  DWORD Write(void const *data, std::size_t size);
  /// Sends what is held and waits for the end of the reply's headers.
  DWORD End();
  /// Waits for the first byte of the reply and counts all that are there; 0 at its end.
  DWORD Available(std::size_t *size);
  /// Waits until `size` bytes are there or the reply ends.
  DWORD Read(void *buffer, std::size_t size, std::size_t *read);

  bool HasBegun() const { return m_stage != Stage::Idle; }
  bool IsAnswered() const { return m_stage == Stage::Answered; }
  long Status() const { return m_reply.Status(); }
  /// Empty without such a header.
  std::string const &ContentLength() const { return m_reply.ContentLength(); }

  /// Ends the call that runs, and all later ones, with ERROR_INTERNET_OPERATION_CANCELLED. Thread: any.
  void Abort();

private:
  enum class Stage { Idle, Sending, Answered };
  using Wait = WaitLimits::Kind;

  DWORD Start(HttpRequest const &request, StatusSink const &sink, RequestBody const &body);
  void SetUp(HttpRequest const &request, RequestBody const &body);
  void SetUpCallbacks();
  template <class Result, class Work> static Result Call(void *transfer, Result failed, Work work) noexcept;
  void Perform();
  template <class Ready> bool PumpUntil(Wait wait, Ready ready);
  bool Flush();
  DWORD AwaitReply();
  void Finish(CURLcode code);
  void Fail(DWORD error);
  DWORD Failure() const;
  CurlFailure Describe(CURLcode code) const;
  void ShutDownSending();

  template <class Value> Value Get(CURLINFO info) const { return GetCurlInfo<Value>(m_curl.easy.get(), info); }
  std::uint64_t Sent() const;
  Progress MeasureProgress() const;
  bool IsHeadOut() const;
  bool IsSendingOver() const;
  bool IsReplyWhole() const;

  // What libcurl's callbacks call. SetUpTls and StartRequest may throw std::bad_alloc.
  CURLcode SetUpTls(void *context);
  void AllowTlsReads();
  static long BeforeTlsRead(BIO *connection, int operation, char const *, std::size_t, int, long, int result,
                            std::size_t *);
  void StartRequest();
  std::size_t Supply(char *buffer, std::size_t size);
  bool GoesOn(DWORD error);
  void CloseSocket(curl_socket_t fd);

  // Any thread, at any time. While m_isPolling is set, Abort also uses the multi handle of m_curl, to wake it.
  std::atomic<bool> m_isAborted = false;
  std::atomic<bool> m_isPolling = false; ///< a wait that a wake-up ends has begun, or is about to

  // Set once, when the transfer is made or begins.
  pid_t const m_process;
  TimeLimits m_limits;
  std::uint64_t m_declared = 0; ///< the body's length
  bool m_isStreamed = false;    ///< the body comes by Write
  bool m_ignoresDate = false;
  bool m_mayReuse = false; ///< the multi handle may serve a later transfer

  // The calling thread, outside libcurl's callbacks; those may read it.
  Stage m_stage = Stage::Idle;
  bool m_isFinished = false;     ///< libcurl has nothing more to do
  std::uint64_t m_accepted = 0;  ///< body bytes taken from the caller
  std::uint64_t m_replyWait = 0; ///< ms that calls have waited for the reply
  std::string m_held;            ///< small writes that wait for more

  // The calling thread, and libcurl's callbacks while it is in a call.
  DWORD m_error = 0; ///< why the transfer ended; 0 for a reply that came whole
  ConnectionStages m_connection;
  bool m_isRequestStarted = false; ///< the connection is established, and the head is the next thing out
  long m_sizeBeforeHead = 0;       ///< bytes that went to a proxy first
  std::string_view m_source[2];    ///< what goes out now: the held bytes, then the caller's; empty between calls
  bool m_isPaused = false;         ///< libcurl waits for body bytes
  bool m_isCutShort = false;       ///< Supply ended the body after an early reply
  int m_tlsReadsLeft = 0;          ///< of OpenSSL, in this step
  HttpReply m_reply;

  // libcurl's own. It points into m_memory, and calls back until the handles are gone.
  CurlMemory m_memory;
  CurlHandles m_curl; ///< from Start on
};
