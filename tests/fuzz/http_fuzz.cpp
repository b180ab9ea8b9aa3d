// Whole exchanges: the input is what a server replies, plain here and through TLS in https_fuzz, and a second exchange
// must then go as the first one of all did. The server is a thread, and drives the clock where the client has to wait.
#include "platform/http/WinInet.h"
#include "tests/cpp/platform/TestHooks.h"
#include "tests/fuzz/http_server.h"

#include <array>
#include <filesystem>

namespace {

enum class Kind { Get, Post, Streamed, LongStreamed };

/// One request and all that the client can learn about its reply.
class Exchange {
public:
  Exchange() : m_session(InternetOpenW(L"fuzz", 0, nullptr, nullptr, 0)) {
    InternetSetStatusCallbackW(m_session, [](HINTERNET, DWORD_PTR context, DWORD status, void *info, DWORD) {
      auto &self = *reinterpret_cast<Exchange *>(context);
      ++self.m_counts[status];
      Require(status != INTERNET_STATUS_RESPONSE_RECEIVED || *static_cast<DWORD *>(info) <= 100 * 1024,
              "the head is bounded");
    });
  }
  ~Exchange() {
    InternetCloseHandle(m_session);
    Require(m_counts[INTERNET_STATUS_CONNECTED_TO_SERVER] == m_counts[INTERNET_STATUS_CONNECTION_CLOSED],
            "each connection is closed");
  }
  HINTERNET Session() const { return m_session; }

  /// Returns: the error number of the first call that fails, 0 for none.
  DWORD Run(Kind kind, DWORD readSize) {
    HINTERNET const connection =
        InternetConnectA(m_session, kServerName, kIsTls ? 443 : 80, nullptr, nullptr, INTERNET_SERVICE_HTTP, 0, 0);
    HINTERNET const request = HttpOpenRequestW(connection, kind == Kind::Get ? L"GET" : L"POST", L"/path?a=b", nullptr,
                                               nullptr, nullptr, 0, reinterpret_cast<DWORD_PTR>(this));
    if (!request)
      return GetLastError(); // the server has closed the session
    if (!Send(request, kind)) {
      DWORD const error = GetLastError();
      DWORD length = 0;
      Require(!HttpQueryInfoW(request, HTTP_QUERY_STATUS_CODE, nullptr, &length, nullptr), "no reply, no status");
      return error;
    }
    Query(request);
    return Read(request, readSize);
  }

  DWORD status = 0;
  std::wstring length; ///< the text of Content-Length
  std::string body;

private:
  static BOOL Send(HINTERNET request, Kind kind) {
    std::string const part(kind == Kind::LongStreamed ? 60'000 : 1'500, 'b');
    DWORD const partSize = static_cast<DWORD>(part.size()), count = 3;
    if (kind == Kind::Get || kind == Kind::Post)
      return HttpSendRequestW(request, L"X-Fuzz: 1", static_cast<DWORD>(-1), kind == Kind::Get ? nullptr : "body", 4);
    INTERNET_BUFFERSW buffers{};
    buffers.dwBufferTotal = count * partSize;
    BOOL isSent = HttpSendRequestExW(request, &buffers, nullptr, HSR_INITIATE, 0);
    for (DWORD index = 0, written = 0; isSent && index < count; ++index)
      isSent = InternetWriteFile(request, part.data(), partSize, &written);
    return isSent && HttpEndRequestW(request, nullptr, 0, 0);
  }

  /// A header's text, read with buffers that are too small and then with one that just fits.
  static std::wstring QueryText(HINTERNET request, DWORD level) {
    DWORD size = 0;
    Require(!HttpQueryInfoW(request, level, nullptr, &size, nullptr), "no buffer is too small");
    if (GetLastError() != ERROR_INSUFFICIENT_BUFFER)
      return {};
    Exact<WCHAR> const text(std::wstring(size / sizeof(WCHAR), L'#'));
    DWORD room = size - 1;
    Require(!HttpQueryInfoW(request, level, text.Data(), &room, nullptr) && text.View()[0] == L'#', "cut is refused");
    if (room != size || !HttpQueryInfoW(request, level, text.Data(), &room, nullptr))
      return {};
    Require(room == size - sizeof(WCHAR) && text.View().back() == 0, "the length excludes the terminator");
    return std::wstring(text.View().substr(0, text.View().size() - 1));
  }

  void Query(HINTERNET request) {
    DWORD size = sizeof status;
    HttpQueryInfoW(request, HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, &status, &size, nullptr);
    std::wstring const text = QueryText(request, HTTP_QUERY_STATUS_CODE);
    Require(text.empty() || text == std::to_wstring(status), "number and text agree"); // empty: it was just closed
    length = QueryText(request, HTTP_QUERY_CONTENT_LENGTH);
  }

  DWORD Read(HINTERNET request, DWORD size) {
    for (DWORD available = 0, read = 0;;) {
      if (!InternetQueryDataAvailable(request, &available, 0, 0))
        return GetLastError();
      Exact<char> const part(std::string(std::min(available + 1, size), '#'));
      if (!InternetReadFile(request, part.Data(), static_cast<DWORD>(part.View().size()), &read))
        return GetLastError();
      Require(read >= std::min<std::size_t>(available, part.View().size()), "what is available is read");
      body.append(part.View().substr(0, read));
      size = body.size() > 256 ? 65536 : size; // large bodies would take long in small pieces
      if (read == 0)
        return ERROR_SUCCESS;
    }
  }

  HINTERNET const m_session;
  std::array<std::atomic<int>, 128> m_counts{};
};

/// The outcome that the input can bring about, and no other.
void CheckOutcome(Script const &script, Exchange const &exchange, DWORD error) {
  DWORD const expected[] = {ERROR_SUCCESS,
                            ERROR_INTERNET_CONNECTION_ABORTED,
                            ERROR_INTERNET_CONNECTION_RESET,
                            ERROR_HTTP_INVALID_SERVER_RESPONSE,
                            ERROR_INTERNET_DECODING_FAILED,
                            script.end == Script::Stall ? ERROR_INTERNET_TIMEOUT : 0,
                            script.isCancelling ? ERROR_INTERNET_OPERATION_CANCELLED : 0,
                            script.isCancelling ? ERROR_INVALID_HANDLE : 0,
                            script.isEager ? ERROR_INTERNET_CANNOT_CONNECT : 0, // already ended
                            kIsTls ? ERROR_INTERNET_SECURITY_CHANNEL_ERROR : 0};
  std::string const text = "a documented error, not " + std::to_string(error);
  Require(std::count(std::begin(expected), std::end(expected), error) != 0, text.c_str());
  std::string const &reply = script.reply;
  bool const isWhole = reply.find("hunked") == reply.npos && reply.find("HUNKED") == reply.npos;
  Require(exchange.body.size() <= reply.size(), "no byte comes from elsewhere");
  Require(!isWhole || reply.find(exchange.body) != reply.npos, "the body is a part of what was sent");
  if (exchange.status != 0)
    Require(reply.find(std::to_string(exchange.status)) != reply.npos, "the status was sent");
  bool const isAscii = std::all_of(exchange.length.begin(), exchange.length.end(), [](WCHAR c) { return c < 0x80; });
  if (isAscii)
    Require(reply.find(std::string(exchange.length.begin(), exchange.length.end())) != reply.npos, "so was the length");
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
  std::string request;
  static std::size_t sockets = 0;
  {
    Exchange exchange;
    server.Start({"HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nsecond"}, exchange.Session());
    Require(exchange.Run(Kind::Post, 4096) == ERROR_SUCCESS, "a good exchange succeeds");
    Require(exchange.status == 200 && exchange.length == L"6" && exchange.body == "second", "its reply comes in");
    request = server.Finish();
  }
  Require(request == (firstRequest.empty() ? firstRequest = request : firstRequest), "each request is the same");
  std::size_t const open = OpenSockets();
  Require(open == (sockets == 0 ? sockets = open : sockets), "no socket is left open");
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
  static PlatformTestHooks hooks{[] { return g_now.load(); }, {}, {}};
  static Server &server = []() -> Server & {
    SetPlatformTestHooks(&hooks);
    Server &made = *new Server;
    CheckGoodExchange(made);
    return made;
  }();
  Input input(data, size);
  unsigned const choice = input.Byte();
  Script script{"", input.Byte(), static_cast<Script::End>(choice & 3), (choice & 4) != 0, (choice & 0x20) != 0};
  script.reply = Expanded(input.Rest());
  {
    Exchange exchange;
    server.Start(script, exchange.Session());
    DWORD const error = exchange.Run(static_cast<Kind>(choice >> 3 & 3), 1U << (choice >> 6) * 6);
    server.Finish(); // it may be closing the session
    CheckOutcome(script, exchange, error);
  }
  CheckGoodExchange(server);
  return 0;
}
