// The header lines of a reply.
#include "platform/http/HttpReply.h"
#include "platform/http/HttpRequest.h"
#include "platform/http/WinInet.h"
#include "tests/fuzz/fuzz.h"

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
  unsigned const choice = TakeByte(input);
  char const *const statusLine = choice % 2 == 0 ? "HTTP/1.1 000\r\n" : ""; // if odd, it is of the input
  CheckReply(statusLine + std::string(input), static_cast<long>(choice) * 4 + 1);
}
