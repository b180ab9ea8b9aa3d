// What libcurl calls while a transfer runs: plain functions that end at the transfer and let no exception escape. They
// run on the thread that makes the call, inside curl_multi_perform or where the transfer removes its handle.
#pragma once

#include <cstddef>

#include <curl/curl.h>

class HttpTransfer;

struct CurlCallbacks {
  /// Makes the easy handle call the transfer, which must outlive it. Errors: throws std::bad_alloc.
  static void SetUp(CURL *easy, HttpTransfer &transfer);

private:
  template <class Result, class Work> static Result Run(void *transfer, Result failed, Work work);
  static int Resolving(void *, void *, void *transfer);
  static curl_socket_t Open(void *transfer, curlsocktype, curl_sockaddr *address);
  static int Close(void *transfer, curl_socket_t fd);
  static CURLcode SetUpTls(CURL *, void *context, void *transfer);
  static int StartRequest(void *transfer, char *, char *, int, int);
  static std::size_t Supply(char *buffer, std::size_t size, std::size_t count, void *transfer);
  static std::size_t TakeHeader(char *data, std::size_t size, std::size_t count, void *transfer);
  static std::size_t TakeBody(char *data, std::size_t size, std::size_t count, void *transfer);
};
