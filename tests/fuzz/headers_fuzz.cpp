// Header lines: those that a caller adds to a request, as they are stored and handed to libcurl, and those of a reply.
#include "platform/http/CurlSetUp.h"
#include "platform/http/HandleTree.h"
#include "platform/http/HttpReply.h"
#include "platform/http/HttpText.h"
#include "platform/http/WinInet.h"
#include "tests/fuzz/fuzz.h"

namespace {

/// Adds the text to a request. Returns: the request's lines, each ended by a line feed.
std::string Added(std::string_view text, HttpRequest &head) {
  HINTERNET const session = InternetOpenA(nullptr, 0, nullptr, nullptr, 0);
  HINTERNET const connection =
      InternetConnectA(session, "good.test", 80, nullptr, nullptr, INTERNET_SERVICE_HTTP, 0, 0);
  HINTERNET const request = HttpOpenRequestA(connection, "GET", "/", nullptr, nullptr, nullptr, 0, 0);
  std::size_t const whole = text.substr(0, text.find('\0')).size();
  BOOL const isAdded = HttpAddRequestHeadersA(request, Exact<char>(text, 1).Data(), static_cast<DWORD>(whole), 0);
  Require(isAdded || GetLastError() == ERROR_INVALID_PARAMETER, "added, or refused as no header");
  head = std::static_pointer_cast<RequestEntry>(FindHandle(request))->head;
  InternetCloseHandle(session);
  std::string lines, expected;
  for (std::string const &line : head.headers)
    lines += line + '\n';
  for (char const c : text.substr(0, whole)) // line ends count as one, and at the start not at all
    if (c != '\r' && c != '\n')
      expected += c;
    else if (!expected.empty() && expected.back() != '\n')
      expected += '\n';
  expected += expected.empty() || expected.back() == '\n' ? "" : "\n";
  Require(isAdded ? lines == expected : expected.starts_with(lines), "each line is stored as it is");
  return lines;
}

void CheckRequest(std::string_view text) {
  HttpRequest head;
  std::string const lines = Added(text, head);
  head.defaults = {"User-Agent: x", "Cache-Control: no-cache"};
  CurlHandles const handles = MakeCurlHandles(false);
  CurlMemory memory;
  SetUpCurl(handles.easy.get(), head, {}, true, memory);
  std::size_t given = 0, size = 0;
  for (curl_slist const *item = memory.headers.get(); item; item = item->next) {
    std::string_view const line = item->data;
    Require(line.find_first_of("\r\n") == line.npos, "no line ends inside a header");
    Require(line.find_first_of(":;") != line.npos, "a header has a name");
    bool const isGiven = lines.find(std::string(HeaderName(line.substr(0, line.find_last_of(":;"))))) != lines.npos;
    given += isGiven ? 1 : 0;
    size += line.size() + 2;
  }
  Require(given >= head.headers.size(), "each header is handed over");
  Require(size <= EstimateHeadSize(head), "the estimate is enough");
}

/// Feeds the reply's lines and then its body as libcurl would.
void CheckReply(std::string_view text, long status) {
  HttpReply reply;
  std::size_t size = 0;
  DWORD error = ERROR_SUCCESS;
  while (!text.empty() && error == ERROR_SUCCESS && !reply.IsHeadIn()) {
    Exact<char> const line(text.substr(0, text.find('\n')));
    text.remove_prefix(std::min(line.View().size() + 1, text.size()));
    for (unsigned times = line.View().starts_with('*') ? 1024 : 1; times != 0 && error == ERROR_SUCCESS; --times) {
      error = reply.TakeHeader(line.View(), status);
      size += line.View().size();
      Require(reply.HeadSize() == size, "each byte of the head counts");
      Require((error == ERROR_SUCCESS) || (error == ERROR_HTTP_INVALID_SERVER_RESPONSE), "taken or not HTTP");
      Require(size <= 100 * 1024 || error != ERROR_SUCCESS, "the head is bounded");
    }
  }
  if (error != ERROR_SUCCESS || !reply.IsHeadIn())
    return;
  Require(reply.Status() == status && (status >= 200 || status == 101), "a final head has its status");
  std::string const length = reply.ContentLength();
  Require(Trimmed(length) == length, "a length has no blanks around it");
  Require(reply.TakeBody(Exact<char>(text).View()) == ERROR_SUCCESS, "a body is taken");
  bool const isNumber = !length.empty() && length.find_first_not_of("0123456789") == length.npos && length.size() < 19;
  Require(!isNumber || reply.IsBodyIn() == (text.size() >= std::stoull(length)), "the length ends the body");
  std::string body(text.size() + 1, '#');
  std::size_t const half = reply.Read(body.data(), text.size() / 2);
  body.resize(half + reply.Read(body.data() + half, body.size() - half));
  Require(body == text && reply.Buffered() == 0, "the body is given out as it came");
  Require(reply.Received() == size + text.size(), "each byte of the reply counts");
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
  Input input(data, size);
  long const status = static_cast<long>(input.Byte()) * 4;
  CheckRequest(input.Rest());
  CheckReply(input.Rest(), status);
  return 0;
}
