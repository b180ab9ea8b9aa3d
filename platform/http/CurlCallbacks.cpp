// See CurlCallbacks.h.
#include "platform/http/CurlCallbacks.h"

#include "platform/base/LastError.h"
#include "platform/http/HttpTransfer.h"

#include <new>

/// Runs the work; running out of memory ends the transfer, which the result `failed` asks libcurl for.
template <class Result, class Work> Result CurlCallbacks::Run(void *transfer, Result failed, Work work) {
  auto &self = *static_cast<HttpTransfer *>(transfer);
  try {
    return work(self);
  } catch (std::bad_alloc const &) {
    self.m_error = ERROR_NOT_ENOUGH_MEMORY;
    return failed;
  }
}

int CurlCallbacks::Resolving(void *, void *, void *transfer) {
  return Run(transfer, 1, [](HttpTransfer &self) {
    self.m_connection.Resolving();
    return 0;
  });
}

curl_socket_t CurlCallbacks::Open(void *transfer, curlsocktype, curl_sockaddr *address) {
  return Run(transfer, curl_socket_t{CURL_SOCKET_BAD},
             [&](HttpTransfer &self) { return self.m_connection.Open(*address); });
}

int CurlCallbacks::Close(void *transfer, curl_socket_t fd) {
  static_cast<HttpTransfer *>(transfer)->CloseSocket(fd);
  return 0;
}

CURLcode CurlCallbacks::SetUpTls(CURL *, void *context, void *transfer) {
  return Run(transfer, CURLE_OUT_OF_MEMORY, [&](HttpTransfer &self) { return self.SetUpTls(context); });
}

int CurlCallbacks::StartRequest(void *transfer, char *, char *, int, int) {
  return Run(transfer, CURL_PREREQFUNC_ABORT, [](HttpTransfer &self) {
    self.StartRequest();
    return CURL_PREREQFUNC_OK;
  });
}

std::size_t CurlCallbacks::Supply(char *buffer, std::size_t size, std::size_t count, void *transfer) {
  return static_cast<HttpTransfer *>(transfer)->Supply(buffer, size * count);
}

std::size_t CurlCallbacks::TakeHeader(char *data, std::size_t size, std::size_t count, void *transfer) {
  std::string_view const line(data, size * count);
  return Run(transfer, std::size_t{0},
             [&](HttpTransfer &self) { return self.TakeHeader(line) ? line.size() : std::size_t{0}; });
}

std::size_t CurlCallbacks::TakeBody(char *data, std::size_t size, std::size_t count, void *transfer) {
  std::string_view const bytes(data, size * count);
  return Run(transfer, std::size_t{0},
             [&](HttpTransfer &self) { return self.TakeBody(bytes) ? bytes.size() : std::size_t{0}; });
}

void CurlCallbacks::SetUp(CURL *easy, HttpTransfer &transfer) {
  SetCurlOption(easy, CURLOPT_RESOLVER_START_FUNCTION, &Resolving);
  SetCurlOption(easy, CURLOPT_RESOLVER_START_DATA, &transfer);
  SetCurlOption(easy, CURLOPT_OPENSOCKETFUNCTION, &Open);
  SetCurlOption(easy, CURLOPT_OPENSOCKETDATA, &transfer);
  SetCurlOption(easy, CURLOPT_CLOSESOCKETFUNCTION, &Close);
  SetCurlOption(easy, CURLOPT_CLOSESOCKETDATA, &transfer);
  SetCurlOption(easy, CURLOPT_SSL_CTX_FUNCTION, &SetUpTls);
  SetCurlOption(easy, CURLOPT_SSL_CTX_DATA, &transfer);
  SetCurlOption(easy, CURLOPT_PREREQFUNCTION, &StartRequest);
  SetCurlOption(easy, CURLOPT_PREREQDATA, &transfer);
  SetCurlOption(easy, CURLOPT_READFUNCTION, &Supply);
  SetCurlOption(easy, CURLOPT_READDATA, &transfer);
  SetCurlOption(easy, CURLOPT_HEADERFUNCTION, &TakeHeader);
  SetCurlOption(easy, CURLOPT_HEADERDATA, &transfer);
  SetCurlOption(easy, CURLOPT_WRITEFUNCTION, &TakeBody);
  SetCurlOption(easy, CURLOPT_WRITEDATA, &transfer);
}
