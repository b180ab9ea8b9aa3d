// What libcurl calls while a transfer runs: the part of HttpTransfer that is entered from libcurl's frames, on the
// thread that makes the call. Nothing throws through them.
#include "platform/http/HttpTransfer.h"

#include "platform/base/LastError.h"

#include <new>

#include <openssl/bio.h>
#include <openssl/ssl.h>

namespace {

/// Of OpenSSL from the connection, in one step of a transfer: a record takes two. More than libcurl reads of a large
/// body.
constexpr int kMostTlsReads = 256;

} // namespace

CURLcode HttpTransfer::SetUpTls(void *context) {
  auto *const tls = static_cast<SSL_CTX *>(context);
  m_connection.Connected();
  SSL_CTX_set_options(tls, SSL_OP_IGNORE_UNEXPECTED_EOF); // an end without TLS's own counts, as without TLS
  if (m_ignoresDate)
    X509_VERIFY_PARAM_set_flags(SSL_CTX_get0_param(tls), X509_V_FLAG_NO_CHECK_TIME);
  if (!SSL_CTX_set_app_data(tls, this))
    return CURLE_OUT_OF_MEMORY;
  SSL_CTX_set_info_callback(tls, [](SSL const *ssl, int event, int) {
    BIO *const connection = SSL_get_rbio(ssl); // null if libcurl had no memory for it
    if (!connection || !(event & SSL_CB_HANDSHAKE_START))
      return;
    BIO_set_callback_arg(connection, static_cast<char *>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl))));
    BIO_set_callback_ex(connection, BeforeTlsRead);
  });
  return CURLE_OK;
}

void HttpTransfer::AllowTlsReads() { m_tlsReadsLeft = kMostTlsReads; }

/// Makes OpenSSL return to libcurl once it has read often enough in this step. It would otherwise go on for as long as
/// records without data keep coming, which anyone on the way can send in plain text before the handshake is over: no
/// time limit would be looked at, no abort, and a fork would wait.
long HttpTransfer::BeforeTlsRead(BIO *connection, int operation, char const *, std::size_t, int, long, int result,
                                 std::size_t *) {
  if (operation != BIO_CB_READ)
    return result;
  auto &self = *reinterpret_cast<HttpTransfer *>(BIO_get_callback_arg(connection));
  if (self.m_tlsReadsLeft > 0) {
    --self.m_tlsReadsLeft;
    return result;
  }
  BIO_set_retry_read(connection); // as if nothing had arrived yet
  return -1;
}

void HttpTransfer::StartRequest() {
  m_connection.Connected();
  m_isRequestStarted = true;
  m_sizeBeforeHead = Get<long>(CURLINFO_REQUEST_SIZE);
  m_connection.Sink().Report(INTERNET_STATUS_SENDING_REQUEST);
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

/// Notes why the transfer ends, unless it is ERROR_SUCCESS. Returns: whether it goes on.
bool HttpTransfer::GoesOn(DWORD error) {
  if (error != ERROR_SUCCESS)
    m_error = error;
  return error == ERROR_SUCCESS;
}

void HttpTransfer::CloseSocket(curl_socket_t fd) {
  bool const isReplyUnreported = m_reply.IsHeadIn() && m_stage == Stage::Sending;
  m_connection.Close(fd, isReplyUnreported); // the reply is reported first
}

/// Runs a callback's work; running out of memory ends the transfer, which the result `failed` asks libcurl for.
template <class Result, class Work> Result HttpTransfer::Call(void *transfer, Result failed, Work work) noexcept {
  auto &self = *static_cast<HttpTransfer *>(transfer);
  try {
    return work(self);
  } catch (std::bad_alloc const &) {
    self.m_error = ERROR_NOT_ENOUGH_MEMORY;
    return failed;
  }
}

void HttpTransfer::SetUpCallbacks() {
  auto const set = [this](CURLoption function, CURLoption data, auto *callback) {
    SetCurlOption(m_curl.easy.get(), function, callback);
    SetCurlOption(m_curl.easy.get(), data, this);
  };
  set(
      CURLOPT_RESOLVER_START_FUNCTION, CURLOPT_RESOLVER_START_DATA, +[](void *, void *, void *self) {
        return Call(self, 1, [](HttpTransfer &t) { return t.m_connection.Resolving(), 0; });
      });
  set(
      CURLOPT_OPENSOCKETFUNCTION, CURLOPT_OPENSOCKETDATA, +[](void *self, curlsocktype, curl_sockaddr *address) {
        return Call(self, curl_socket_t{CURL_SOCKET_BAD},
                    [&](HttpTransfer &t) { return t.m_connection.Open(*address); });
      });
  set(
      CURLOPT_CLOSESOCKETFUNCTION, CURLOPT_CLOSESOCKETDATA, +[](void *self, curl_socket_t fd) {
        return Call(self, 0, [&](HttpTransfer &t) { return t.CloseSocket(fd), 0; });
      });
  set(
      CURLOPT_SSL_CTX_FUNCTION, CURLOPT_SSL_CTX_DATA, +[](CURL *, void *context, void *self) {
        return Call(self, CURLE_OUT_OF_MEMORY, [&](HttpTransfer &t) { return t.SetUpTls(context); });
      });
  set(
      CURLOPT_PREREQFUNCTION, CURLOPT_PREREQDATA, +[](void *self, char *, char *, int, int) {
        return Call(self, CURL_PREREQFUNC_ABORT, [](HttpTransfer &t) { return t.StartRequest(), CURL_PREREQFUNC_OK; });
      });
  set(
      CURLOPT_READFUNCTION, CURLOPT_READDATA, +[](char *buffer, std::size_t size, std::size_t count, void *self) {
        return Call(self, std::size_t{CURL_READFUNC_ABORT},
                    [&](HttpTransfer &t) { return t.Supply(buffer, size * count); });
      });
  set(
      CURLOPT_HEADERFUNCTION, CURLOPT_HEADERDATA, +[](char *data, std::size_t size, std::size_t count, void *self) {
        return Call(self, std::size_t{0}, [&](HttpTransfer &t) {
          return t.GoesOn(t.m_reply.TakeHeader({data, size * count}, t.Get<long>(CURLINFO_RESPONSE_CODE)))
                     ? size * count
                     : 0;
        });
      });
  set(
      CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA, +[](char *data, std::size_t size, std::size_t count, void *self) {
        return Call(self, std::size_t{0}, [&](HttpTransfer &t) {
          return t.GoesOn(t.m_reply.TakeBody({data, size * count})) ? size * count : 0;
        });
      });
}
