// One CURLM and one CURL per transfer: curl_multi_poll can be woken from another thread, which no blocking call of
// libcurl can.
#include "platform/http/HttpTransfer.h"

#include "platform/base/Fork.h"
#include "platform/base/LastError.h"
#include "platform/base/Seam.h"
#include "platform/http/SocketTuning.h"
#include "platform/text/Utf8.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <sys/socket.h>

namespace {

constexpr std::size_t kJoinSize = 4096;           // bytes; smaller writes wait for more
constexpr std::uint64_t kConnectingPollTime = 20; // ms; libcurl tries a server's next address only when a poll ends
constexpr std::uint64_t kPollTime = 1000;
constexpr std::uint64_t kDrivenPollTime = 5;

} // namespace

HttpTransfer::HttpTransfer() : m_process(CurrentProcess()) {}

HttpTransfer::~HttpTransfer() {
  if (CurrentProcess() != m_process) {
    static_cast<void>(m_curl.easy.release()); // closing would end the parent's connection, too
    static_cast<void>(m_curl.multi.release());
    return;
  }
  if (!m_curl.easy)
    return;
  NoForkScope const scope;
  curl_multi_remove_handle(m_curl.multi.get(), m_curl.easy.get()); // closes the socket and reports it
  m_connection.ReportClosed();
  if (m_mayReuse && m_connection.IsClosed() && m_isFinished && m_error == ERROR_SUCCESS)
    KeepMultiHandle(std::move(m_curl.multi));
  m_curl.easy.reset(); // here, while no fork can happen
  m_curl.multi.reset();
  FreeThreadState();
}

// --- Driving libcurl

/// Takes the transfer as far as it goes without waiting. A fork waits for it: a child whose parent had a thread in
/// OpenSSL could never connect, since a lock there would stay locked.
void HttpTransfer::Perform() {
  NoForkScope const scope;
  if (m_isAborted)
    return Fail(ERROR_INTERNET_OPERATION_CANCELLED);
  if (m_isFinished)
    return;
  if (m_isPaused && (IsSendingOver() || !m_source[0].empty() || !m_source[1].empty())) {
    m_isPaused = false;
    curl_easy_pause(m_curl.easy.get(), CURLPAUSE_CONT);
  }
  AllowTlsReads();
  int count = 0;
  if (curl_multi_perform(m_curl.multi.get(), &count) != CURLM_OK)
    return Fail(ERROR_NOT_ENOUGH_MEMORY);
  while (CURLMsg const *const message = curl_multi_info_read(m_curl.multi.get(), &count))
    if (message->msg == CURLMSG_DONE)
      Finish(message->data.result);
  if (m_isCutShort)
    ShutDownSending();
  if (m_isAborted)
    Fail(ERROR_INTERNET_OPERATION_CANCELLED);
}

/// A service that keeps reading after its refusal learns in this way that nothing more comes, and ends its reply.
void HttpTransfer::ShutDownSending() {
  m_isCutShort = false;
  if (m_connection.Socket() != CURL_SOCKET_BAD)
    shutdown(m_connection.Socket(), SHUT_WR);
}

/// Drives the transfer until `ready()`. Returns: false if it was ended, or ended by itself, before that.
template <class Ready> bool HttpTransfer::PumpUntil(Wait wait, Ready ready) {
  WaitLimits limits(wait, m_limits, wait == Wait::Receive ? MeasureProgress() : Progress(), m_replyWait, m_isStreamed);
  for (;;) {
    Perform();
    if (m_error == ERROR_INTERNET_OPERATION_CANCELLED)
      return false;
    if (ready())
      return true;
    if (m_isFinished)
      return false;
    std::uint64_t const left = limits.Left(MeasureProgress(), !m_isRequestStarted);
    if (left == 0) {
      Fail(ERROR_INTERNET_TIMEOUT);
      return false;
    }
    std::uint64_t const slice = ClockIsDriven()      ? kDrivenPollTime
                                : m_isRequestStarted ? kPollTime
                                                     : kConnectingPollTime;
    m_isPolling = true;
    if (!m_isAborted) // an abort before the wait began wakes nobody
      curl_multi_poll(m_curl.multi.get(), nullptr, 0, static_cast<int>(std::min(left, slice)), nullptr);
    m_isPolling = false;
  }
}

void HttpTransfer::Finish(CURLcode code) {
  m_isFinished = true;
  if (m_error != ERROR_SUCCESS) // a callback has said why
    return;
  bool const isLengthBad = code == CURLE_WEIRD_SERVER_REPLY && std::strstr(m_memory.message.data(), "Content-Length");
  long const status = Get<long>(CURLINFO_RESPONSE_CODE);
  if (isLengthBad && !m_reply.IsHeadIn() && status >= 200) {
    m_reply.EndHead(status); // a reply whose length is not a number: its body counts as empty
    return;
  }
  bool const hasEnded = code == CURLE_OK || code == CURLE_PARTIAL_FILE; // by the peer, in order
  if (!hasEnded || !m_reply.IsHeadIn())
    m_error = ErrorNumber(Describe(code));
}

void HttpTransfer::Fail(DWORD error) {
  NoForkScope const scope;
  m_error = error;
  m_isFinished = true;
  curl_multi_remove_handle(m_curl.multi.get(), m_curl.easy.get()); // closes the connection
}

DWORD HttpTransfer::Failure() const { return m_error != ERROR_SUCCESS ? m_error : ERROR_INTERNET_CONNECTION_ABORTED; }

CurlFailure HttpTransfer::Describe(CURLcode code) const {
  CurlFailure failure{};
  failure.code = code;
  failure.message = m_memory.message.data();
  failure.verifyResult = Get<long>(CURLINFO_SSL_VERIFYRESULT);
  failure.systemError = Get<long>(CURLINFO_OS_ERRNO);
  failure.proxyStatus = Get<long>(CURLINFO_HTTP_CONNECTCODE);
  failure.isConnecting = !m_isRequestStarted;
  failure.isAwaitingReply = m_isRequestStarted && !m_reply.IsHeadIn();
  return failure;
}

// --- How far the exchange has come

std::uint64_t HttpTransfer::Sent() const { return static_cast<std::uint64_t>(Get<curl_off_t>(CURLINFO_SIZE_UPLOAD_T)); }

Progress HttpTransfer::MeasureProgress() const {
  Progress progress;
  progress.queued =
      Sent() + static_cast<std::uint64_t>(Get<long>(CURLINFO_REQUEST_SIZE)) + (m_isRequestStarted ? 1 : 0);
  progress.received = m_reply.Received();
  if (m_connection.Socket() != CURL_SOCKET_BAD)
    AddSocketProgress(m_connection.Socket(), progress);
  return progress;
}

bool HttpTransfer::IsHeadOut() const {
  bool const isOut = m_isRequestStarted && Get<long>(CURLINFO_REQUEST_SIZE) > m_sizeBeforeHead;
  return m_reply.IsHeadIn() || (isOut && (m_isStreamed ? m_declared == 0 || m_isPaused : Sent() >= m_declared));
}

/// True after an early final reply that ends the sending: a status of 300 or more, or any that came whole and ended the
/// connection.
bool HttpTransfer::IsSendingOver() const {
  return m_reply.IsHeadIn() && (m_reply.Status() >= 300 || (m_isFinished && m_error == ERROR_SUCCESS));
}

/// A refused body may be stuck half-way, so that libcurl does not finish with a reply that is all there.
bool HttpTransfer::IsReplyWhole() const {
  return m_isFinished ? m_error == ERROR_SUCCESS : IsSendingOver() && m_reply.IsBodyIn();
}

// --- The steps of an exchange

void HttpTransfer::SetUp(HttpRequest const &request, RequestBody const &body) {
  NoForkScope const scope;
  m_curl = MakeCurlHandles(m_mayReuse);
  m_limits = request.limits;
  m_declared = body.length;
  m_ignoresDate = request.ignoresDate;
  SetUpCurl(m_curl.easy.get(), request, body, m_mayReuse, m_memory);
  SetUpCallbacks();
}

DWORD HttpTransfer::Start(HttpRequest const &request, StatusSink const &sink, RequestBody const &body) {
  if (m_stage != Stage::Idle)
    return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
  if (!IsKeyLogRegular())
    return ERROR_INTERNET_SECURITY_CHANNEL_ERROR;
  m_stage = Stage::Sending;
  m_connection.Begin(sink, WideFromUtf8(request.host));
  m_isStreamed = body.bytes == nullptr;
  std::size_t const headSize = EstimateHeadSize(request);
  if (headSize > kRequestHeadLimit)
    return ERROR_INTERNET_INVALID_URL;
  m_mayReuse = body.bytes && headSize + body.length <= kSmallRequest;
  SetUp(request, body);
  if (curl_multi_add_handle(m_curl.multi.get(), m_curl.easy.get()) != CURLM_OK)
    return ERROR_NOT_ENOUGH_MEMORY;
  if (!PumpUntil(Wait::Send, [this] { return IsHeadOut(); }))
    return Failure();
  long const headBytes = Get<long>(CURLINFO_REQUEST_SIZE) - m_sizeBeforeHead;
  m_connection.Sink().ReportCount(INTERNET_STATUS_REQUEST_SENT, static_cast<std::size_t>(headBytes));
  return ERROR_SUCCESS;
}

DWORD HttpTransfer::Send(HttpRequest const &request, StatusSink const &sink, std::string_view body) {
  if (DWORD const error = Start(request, sink, {body.size(), body.data() ? body.data() : ""}))
    return error;
  return AwaitReply();
}

DWORD HttpTransfer::Begin(HttpRequest const &request, StatusSink const &sink, std::uint64_t bodyLength) {
  m_held.reserve(kJoinSize);
  return Start(request, sink, {bodyLength, nullptr});
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
  m_connection.Sink().Report(INTERNET_STATUS_SENDING_REQUEST);
  m_accepted += size;
  std::string_view const bytes(static_cast<char const *>(data), size);
  if (m_held.size() + size < kJoinSize) {
    m_held.append(bytes);
  } else {
    m_source[1] = bytes;
    if (!Flush())
      return Failure();
    PaceSending(m_connection.Socket());
    WidenSendBuffer(m_connection.Socket());
  }
  m_connection.Sink().ReportCount(INTERNET_STATUS_REQUEST_SENT, size);
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
  m_connection.Sink().Report(INTERNET_STATUS_RECEIVING_RESPONSE);
  if (!PumpUntil(Wait::Receive, [this] { return m_reply.IsHeadIn(); }))
    return Failure();
  m_connection.Sink().ReportCount(INTERNET_STATUS_RESPONSE_RECEIVED, m_reply.HeadSize());
  m_stage = Stage::Answered;
  m_connection.ReportClosed();
  return ERROR_SUCCESS;
}

DWORD HttpTransfer::Available(std::size_t *size) {
  if (m_stage != Stage::Answered)
    return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
  if (!PumpUntil(Wait::Receive, [this] { return m_reply.Buffered() > 0 || IsReplyWhole(); }))
    return Failure();
  for (std::size_t before = 0; before != m_reply.Buffered();) {
    before = m_reply.Buffered();
    Perform();
  }
  *size = m_reply.Buffered();
  return ERROR_SUCCESS;
}

DWORD HttpTransfer::Read(void *buffer, std::size_t size, std::size_t *read) {
  if (m_stage != Stage::Answered)
    return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
  auto *const bytes = static_cast<char *>(buffer);
  std::size_t taken = m_reply.Read(bytes, size);
  bool const isWhole = taken == size || PumpUntil(Wait::Receive, [&] {
                         taken += m_reply.Read(bytes + taken, size - taken);
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
