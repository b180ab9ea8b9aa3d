// Whole exchanges: the input is what a server replies, plain here and through TLS in https_fuzz, and a second exchange
// must then go as the first one of all did. The server is a thread, and drives the clock where the client has to wait.
#include "tests/cpp/platform/TestHooks.h"
#include "tests/fuzz/http_server.h"

#include <filesystem>

namespace {

enum class Kind { Get, Post, Streamed, LongStreamed };

/// One request, and all that the client can learn about its reply.
struct Exchange {
  Exchange() : session(InternetOpenW(L"fuzz", 0, nullptr, nullptr, 0)) {
    InternetSetStatusCallbackW(session, [](HINTERNET, DWORD_PTR context, DWORD stage, void *info, DWORD) {
      auto &self = *reinterpret_cast<Exchange *>(context);
      self.openConnections += stage == INTERNET_STATUS_CONNECTED_TO_SERVER ? 1 : 0;
      self.openConnections -= stage == INTERNET_STATUS_CONNECTION_CLOSED ? 1 : 0;
      bool const isHead = stage == INTERNET_STATUS_RESPONSE_RECEIVED;
      Require(!isHead || *static_cast<DWORD *>(info) <= 100 * 1024, "the head is bounded");
    });
  }
  ~Exchange() {
    InternetCloseHandle(session);
    Require(openConnections == 0, "each connection is closed");
  }

  /// Returns: the error number of the first call that fails, 0 for none.
  DWORD Run(Kind kind, DWORD readSize) {
    HINTERNET const server = InternetConnectA(session, kServerName, kIsTls ? 443 : 80, nullptr, nullptr, 3, 0, 0);
    HINTERNET const request = HttpOpenRequestW(server, kind == Kind::Get ? L"GET" : L"POST", L"/path?a=b", nullptr,
                                               nullptr, nullptr, 0, reinterpret_cast<DWORD_PTR>(this));
    if (!request || !Send(request, kind))
      return GetLastError();
    DWORD size = sizeof status;
    HttpQueryInfoW(request, HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, &status, &size, nullptr);
    std::wstring const text = QueryText(request, HTTP_QUERY_STATUS_CODE);
    Require(text.empty() || text == std::to_wstring(status), "number and text agree"); // empty: it was just closed
    length = QueryText(request, HTTP_QUERY_CONTENT_LENGTH);
    return Read(request, readSize);
  }

  static BOOL Send(HINTERNET request, Kind kind) {
    if (kind == Kind::Get || kind == Kind::Post)
      return HttpSendRequestW(request, L"X-Fuzz: 1", 9, kind == Kind::Get ? nullptr : "body", 4);
    std::string const part(kind == Kind::LongStreamed ? 60'000 : 1'500, 'b');
    INTERNET_BUFFERSW buffers{};
    buffers.dwBufferTotal = static_cast<DWORD>(3 * part.size());
    BOOL isSent = HttpSendRequestExW(request, &buffers, nullptr, HSR_INITIATE, 0);
    for (DWORD index = 0, written = 0; isSent && index < 3; ++index)
      isSent = InternetWriteFile(request, part.data(), static_cast<DWORD>(part.size()), &written);
    return isSent && HttpEndRequestW(request, nullptr, 0, 0);
  }

  /// A header's text, read with no buffer, one that is too small and one that just fits.
  static std::wstring QueryText(HINTERNET request, DWORD level) {
    DWORD size = 0;
    Require(!HttpQueryInfoW(request, level, nullptr, &size, nullptr), "no buffer is too small");
    Exact<WCHAR> const text(std::wstring(size / sizeof(WCHAR), L'#'));
    DWORD room = size - 1;
    bool const isRefused = size == 0 || !HttpQueryInfoW(request, level, text.units.get(), &room, nullptr);
    Require(isRefused && text.view.find(L'\0') == text.view.npos, "a text that does not fit is refused");
    if (size == 0 || !HttpQueryInfoW(request, level, text.units.get(), &size, nullptr))
      return {};
    return std::wstring(text.view.substr(0, size / sizeof(WCHAR)));
  }

  DWORD Read(HINTERNET request, DWORD size) {
    for (DWORD available = 0, read = 1; read != 0; body.size() > 256 ? size = 65536 : 0) {
      if (!InternetQueryDataAvailable(request, &available, 0, 0))
        return GetLastError();
      DWORD const asked = std::min(available + 1, size);
      Exact<char> const part(std::string(asked, '#'));
      if (!InternetReadFile(request, part.units.get(), asked, &read))
        return GetLastError();
      Require(read >= std::min(available, asked), "what is available is read");
      body.append(part.view.substr(0, read));
    }
    return ERROR_SUCCESS;
  }

  HINTERNET const session;
  std::atomic<int> openConnections = 0;
  DWORD status = 0;
  std::wstring length; ///< the text of Content-Length
  std::string body;
};

/// The outcome is one that the script can have.
void CheckOutcome(Script const &script, Exchange const &exchange, DWORD error) {
  std::pair<DWORD, bool> const documented[] = {{ERROR_SUCCESS, true},
                                               {ERROR_INTERNET_CONNECTION_ABORTED, true},
                                               {ERROR_INTERNET_CONNECTION_RESET, true},
                                               {ERROR_HTTP_INVALID_SERVER_RESPONSE, true},
                                               {ERROR_INTERNET_DECODING_FAILED, true},
                                               {ERROR_INTERNET_SECURITY_CHANNEL_ERROR, kIsTls},
                                               {ERROR_INTERNET_TIMEOUT, script.end == Script::Stall},
                                               {ERROR_INTERNET_CANNOT_CONNECT, script.isEager}, // reset before that
                                               {ERROR_INTERNET_OPERATION_CANCELLED, script.isCancelling},
                                               {ERROR_INVALID_HANDLE, script.isCancelling}};
  bool const isDocumented = std::any_of(std::begin(documented), std::end(documented),
                                        [=](auto const &row) { return row.first == error && row.second; });
  Require(isDocumented, ("a documented error, not " + std::to_string(error)).c_str());
  std::string const &reply = script.reply;
  bool const mayBeChunked = reply.find("hunked") != reply.npos || reply.find("HUNKED") != reply.npos;
  Require(mayBeChunked || reply.find(exchange.body) != reply.npos, "the body is a part of what was sent");
  Require(exchange.body.size() <= reply.size(), "no byte comes from elsewhere");
  std::string const status = exchange.status == 0 ? "" : std::to_string(exchange.status);
  Require(reply.find(status) != reply.npos, "the status was sent");
}

std::size_t OpenSockets() {
  std::size_t count = 0;
  std::error_code ignored;
  for (auto const &entry : std::filesystem::directory_iterator("/proc/self/fd"))
    count += std::filesystem::read_symlink(entry, ignored).native().starts_with("socket:") ? 1 : 0;
  return count;
}

/// An exchange with a server that behaves well. It must go as all others did, on the wire, too.
void CheckGoodExchange(Server &server) {
  static std::string firstRequest;
  static std::size_t firstSockets = 0;
  std::string request;
  {
    Exchange exchange;
    server.Start({"HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nsecond"}, exchange.session);
    Require(exchange.Run(Kind::Get, 4096) == ERROR_SUCCESS, "a good exchange succeeds");
    Require(exchange.status == 200 && exchange.length == L"6" && exchange.body == "second", "its reply comes in");
    request = server.Finish();
  }
  if (firstRequest.empty())
    firstRequest = request, firstSockets = OpenSockets();
  Require(request == firstRequest, "each request is the same");
  Require(OpenSockets() == firstSockets, "no socket is left open");
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
  static PlatformTestHooks const hooks{[] { return g_now.load(); }, {}, {}};
  static Server &server = []() -> Server & {
    SetPlatformTestHooks(&hooks);
    Server &made = *new Server;
    CheckGoodExchange(made);
    return made;
  }();
  Input input = Of(data, size);
  unsigned const choice = input.Byte();
  Script script{"", input.Byte(), static_cast<Script::End>(choice & 3), (choice & 4) != 0, (choice & 0x20) != 0};
  script.reply = Expanded(input.rest);
  {
    Exchange exchange;
    server.Start(script, exchange.session);
    DWORD const error = exchange.Run(static_cast<Kind>(choice >> 3 & 3), 1U << (choice >> 6) * 6);
    server.Finish(); // it may be closing the session
    CheckOutcome(script, exchange, error);
  }
  CheckGoodExchange(server);
  return 0;
}
