#include "platform/http/HttpErrors.h"

#include <cerrno>
#include <cstring>

#include <openssl/x509_vfy.h>

namespace {

struct CodeRow {
  CURLcode code;
  DWORD error;
};
constexpr auto kTooLarge = static_cast<CURLcode>(100); // CURLE_TOO_LARGE, which libcurl 7.88 lacks
constexpr CodeRow kErrorNumbers[] = {
    {CURLE_UNSUPPORTED_PROTOCOL, ERROR_HTTP_INVALID_SERVER_RESPONSE}, // a reply that is not HTTP
    {CURLE_WEIRD_SERVER_REPLY, ERROR_HTTP_INVALID_SERVER_RESPONSE},
    {CURLE_GOT_NOTHING, ERROR_HTTP_INVALID_SERVER_RESPONSE},
    {CURLE_BAD_FUNCTION_ARGUMENT, ERROR_HTTP_INVALID_SERVER_RESPONSE}, // a head that begins with a continuation line
    {kTooLarge, ERROR_HTTP_INVALID_SERVER_RESPONSE},                   // header lines over its own limits
    {CURLE_URL_MALFORMAT, ERROR_INTERNET_INVALID_URL},
    {CURLE_COULDNT_RESOLVE_PROXY, ERROR_INTERNET_NAME_NOT_RESOLVED},
    {CURLE_COULDNT_RESOLVE_HOST, ERROR_INTERNET_NAME_NOT_RESOLVED},
    {CURLE_COULDNT_CONNECT, ERROR_INTERNET_CANNOT_CONNECT},
    {CURLE_PROXY, ERROR_INTERNET_CANNOT_CONNECT},
    {CURLE_OPERATION_TIMEDOUT, ERROR_INTERNET_TIMEOUT},
    {CURLE_SSL_CONNECT_ERROR, ERROR_INTERNET_SECURITY_CHANNEL_ERROR},
    {CURLE_PEER_FAILED_VERIFICATION, ERROR_INTERNET_INVALID_CA},
    {CURLE_SSL_CACERT_BADFILE, ERROR_INTERNET_INVALID_CA}, // nothing is trusted
    {CURLE_BAD_CONTENT_ENCODING, ERROR_INTERNET_DECODING_FAILED},
    {CURLE_OUT_OF_MEMORY, ERROR_NOT_ENOUGH_MEMORY},
};

struct VerifyRow {
  long result;
  DWORD error;
};
/// Why a certificate was refused; a result that is not listed counts as the issuer's fault.
constexpr VerifyRow kVerifyErrors[] = {
    {X509_V_ERR_UNSPECIFIED, ERROR_INTERNET_SEC_CERT_CN_INVALID}, // the chain is good, the name is not
    {X509_V_ERR_CERT_NOT_YET_VALID, ERROR_INTERNET_SEC_CERT_DATE_INVALID},
    {X509_V_ERR_CERT_HAS_EXPIRED, ERROR_INTERNET_SEC_CERT_DATE_INVALID},
};

struct MessageRow {
  char const *text;
  DWORD error;
};
/// Lost connections and broken framing, by libcurl's message: it has one code for all of them, and errno is already
/// overwritten by then.
constexpr MessageRow kLossMessages[] = {
    {"chunked-encoding", ERROR_HTTP_INVALID_SERVER_RESPONSE},
    {"chunk hex-length", ERROR_HTTP_INVALID_SERVER_RESPONSE}, // in libcurl 8.14
    {"reset by peer", ERROR_INTERNET_CONNECTION_RESET},
    {"SSL_ERROR_SYSCALL", ERROR_INTERNET_CONNECTION_ABORTED},
    {"unexpected eof", ERROR_INTERNET_CONNECTION_ABORTED},
};

} // namespace

DWORD ErrorNumber(CurlFailure const &failure) {
  CURLcode const code = failure.code;
  if (code == CURLE_OUT_OF_MEMORY && failure.isAwaitingReply)
    return ERROR_HTTP_INVALID_SERVER_RESPONSE; // how libcurl reports a header line over its own limit
  if (failure.isConnecting && failure.proxyStatus >= 300)
    return ERROR_INTERNET_CANNOT_CONNECT; // the proxy refused the tunnel
  if (code == CURLE_PEER_FAILED_VERIFICATION) {
    for (VerifyRow const &row : kVerifyErrors)
      if (row.result == failure.verifyResult)
        return row.error;
  }
  if (code == CURLE_SSL_CONNECT_ERROR || code == CURLE_SEND_ERROR || code == CURLE_RECV_ERROR) {
    for (MessageRow const &row : kLossMessages)
      if (std::strstr(failure.message, row.text))
        return row.error;
    if (failure.systemError == ECONNRESET)
      return ERROR_INTERNET_CONNECTION_RESET;
  }
  for (CodeRow const &row : kErrorNumbers)
    if (row.code == code)
      return row.error;
  return ERROR_INTERNET_CONNECTION_ABORTED;
}
