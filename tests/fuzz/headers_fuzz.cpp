// Header lines: those that a caller adds to a request, and those of a reply.
#include "platform/http/HandleTree.h"
#include "platform/http/HttpReply.h"
#include "platform/http/HttpRequest.h"
#include "platform/http/WinInet.h"
#include "tests/fuzz/fuzz.h"

/// Adds the text's lines to a request.
static void CheckRequest(std::string_view text) {
  HINTERNET const session = InternetOpenA("x", 0, nullptr, nullptr, 0);
  HINTERNET const server = InternetConnectA(session, "good.test", 80, nullptr, nullptr, INTERNET_SERVICE_HTTP, 0, 0);
  HINTERNET const request = HttpOpenRequestA(server, "GET", "/", nullptr, nullptr, nullptr, 0, 0);
  std::size_t const size = text.find('\0') == text.npos ? text.size() : 0xFFFFFFFF;
  BOOL const isAdded = HttpAddRequestHeadersA(request, Exact<char>(text, 1).units.get(), static_cast<DWORD>(size), 0);
  Require(isAdded || GetLastError() == ERROR_INVALID_PARAMETER, "added, or refused as no header");
  HttpRequest const head = std::static_pointer_cast<RequestEntry>(FindHandle(request))->head;
  InternetCloseHandle(session);
  std::string lines, expected(text.substr(0, text.find('\0')));
  for (std::string const &line : head.headers)
    lines += line;
  std::erase_if(expected, [](char c) { return c == '\r' || c == '\n'; });
  Require(isAdded ? lines == expected : expected.starts_with(lines), "each line is stored as it is");
}

/// Feeds the reply's lines and then its body as libcurl would; a line that begins with "*" 1024 times.
static void CheckReply(std::string_view text, long status) {
  HttpReply reply;
  std::size_t size = 0;
  while (!text.empty() && !reply.IsHeadIn()) {
    Exact<char> const line(text.substr(0, std::min(text.find('\n'), text.size() - 1) + 1));
    text.remove_prefix(line.view.size());
    bool const isFirst = size == 0;
    DWORD error = ERROR_SUCCESS;
    for (int times = line.view[0] == '*' ? 1024 : 1; times > 0 && error == ERROR_SUCCESS;
         --times, size = reply.HeadSize()) {
      error = reply.TakeHeader(line.view, status);
      Require(reply.HeadSize() == size + line.view.size(), "each byte of the head counts");
    }
    Require(size <= kReplyHeadLimit || error != ERROR_SUCCESS, "the head is bounded");
    if (error != ERROR_SUCCESS)
      return Require(error == ERROR_HTTP_INVALID_SERVER_RESPONSE, "a line is no HTTP");
    Require(!isFirst || line.view.starts_with("HTTP/"), "a head begins with a version");
    Require(!reply.IsHeadIn() || line.view[0] == '\r' || line.view[0] == '\n', "an empty line ends a head");
  }
  if (!reply.IsHeadIn())
    return;
  Require(reply.Status() == status && (status >= 200 || status == 101), "a final head has its status");
  std::string const &length = reply.ContentLength();
  Require(reply.TakeBody(Exact<char>(text).view) == ERROR_SUCCESS, "a body is taken");
  bool const isNumber = !length.empty() && length.find_first_not_of("0123456789") == length.npos && length.size() < 19;
  Require(!isNumber || reply.IsBodyIn() == (text.size() >= std::stoull(length)), "the length ends the body");
  Exact<char> const body(std::string(text.size() + 1, '#'));
  std::size_t const half = reply.Read(body.units.get(), text.size() / 2);
  std::size_t const rest = reply.Read(body.units.get() + half, text.size() + 1 - half);
  Require(body.view.substr(0, half + rest) == text && reply.Buffered() == 0, "the body is given out as it came");
}

FUZZ_TARGET(input) {
  unsigned const choice = input.Byte();
  CheckRequest(input.rest);
  char const *const statusLine = choice % 2 == 0 ? "HTTP/1.1 000\r\n" : ""; // if odd, it is of the input
  CheckReply(statusLine + std::string(input.rest), static_cast<long>(choice) * 4 + 1);
}
