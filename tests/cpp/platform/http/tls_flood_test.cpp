// Floods inside TLS: many records without data in each phase of an exchange. OpenSSL takes them in by itself, and would
// not return while more are there, so that no time limit could end the call, and no abort.
#include "tests/cpp/platform/http/http_peer.h"

#include "tests/cpp/platform/TestHooks.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <csignal>
#include <openssl/ssl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

enum class Phase { Handshake, Upload, Reply, Body };

constexpr int kRecords = 600;

struct FloodRow {
  char const *szName;
  Phase phase;
  DWORD dwStage; // in which the client waits until the records are there
  int nVersion;
  int (*sendOne)(SSL *tls); // null: a plain record, which needs no handshake
};

FloodRow const kFloods[] = {
    {"hello requests for a handshake", Phase::Handshake, INTERNET_STATUS_CONNECTED_TO_SERVER, 0, nullptr},
    {"tickets for a reply", Phase::Reply, INTERNET_STATUS_RECEIVING_RESPONSE, TLS1_3_VERSION, SSL_new_session_ticket},
    {"tickets in a body", Phase::Body, INTERNET_STATUS_RESPONSE_RECEIVED, TLS1_3_VERSION, SSL_new_session_ticket},
    {"tickets during an upload", Phase::Upload, INTERNET_STATUS_SENDING_REQUEST, TLS1_3_VERSION,
     SSL_new_session_ticket},
    {"renegotiations", Phase::Reply, INTERNET_STATUS_RECEIVING_RESPONSE, TLS1_2_VERSION,
     [](SSL *tls) { return SSL_renegotiate(tls); }},
};

/// A server for one client. It sends the records when the client is ready for them, and then nothing more.
class Flooder {
public:
  explicit Flooder(FloodRow const &row) : m_row(row) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (bind(m_listener, reinterpret_cast<sockaddr *>(&address), size) != 0 || listen(m_listener, 1) != 0 ||
        getsockname(m_listener, reinterpret_cast<sockaddr *>(&address), &size) != 0)
      std::abort();
    m_port = address.sin_port;
    setenv("SKIFFPORT_CONNECT_TO", ("good.test::127.0.0.1:" + std::to_string(ntohs(m_port))).c_str(), 1);
    setenv("SSL_CERT_FILE", (Folder() + "/ca.pem").c_str(), 1);
    m_thread = std::thread([this] { Serve(); });
  }
  ~Flooder() {
    shutdown(m_listener, SHUT_RDWR);
    m_thread.join();
    close(m_listener);
  }
  Flooder(Flooder const &) = delete;

  /// Returns: false if the records are not out in time.
  bool SendRecords() {
    m_isClientReady = true;
    return WaitFor([&] { return m_isDone.load(); });
  }
  /// What the client's system has received and the client has not read, in bytes.
  int Unread() const {
    for (int fd = 3, unread = 0; fd < 256; ++fd) {
      sockaddr_in peer{};
      socklen_t size = sizeof peer;
      if (getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &size) == 0 && peer.sin_port == m_port)
        return ioctl(fd, FIONREAD, &unread) == 0 ? unread : 0;
    }
    return 0;
  }

private:
  void Serve() {
    int const client = accept(m_listener, nullptr, nullptr);
    if (m_row.sendOne) {
      Flood(client);
    } else {
      WaitFor([&] { return m_isClientReady.load(); });
      constexpr char kHelloRequest[] = {22, 3, 3, 0, 4, 0, 0, 0, 0};
      for (int n = 0; n < kRecords; ++n)
        send(client, kHelloRequest, sizeof kHelloRequest, MSG_NOSIGNAL);
    }
    m_isDone = true;
    for (char bytes[4096]; m_row.phase != Phase::Upload && recv(client, bytes, sizeof bytes, 0) > 0;) {
    }
    accept(m_listener, nullptr, nullptr); // until the end
    close(client);
  }
  void Flood(int client) {
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> const context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
    SSL_CTX_set_max_proto_version(context.get(), m_row.nVersion);
    SSL_CTX_use_certificate_chain_file(context.get(), (Folder() + "/good.pem").c_str());
    SSL_CTX_use_PrivateKey_file(context.get(), (Folder() + "/good.pem").c_str(), SSL_FILETYPE_PEM);
    std::unique_ptr<SSL, decltype(&SSL_free)> const tls(SSL_new(context.get()), SSL_free);
    SSL_set_fd(tls.get(), client);
    char bytes[4096];
    if (SSL_accept(tls.get()) != 1 || SSL_read(tls.get(), bytes, sizeof bytes) <= 0)
      return;
    if (m_row.phase == Phase::Body)
      SSL_write(tls.get(), "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n", 38);
    WaitFor([&] { return m_isClientReady.load(); });
    for (int n = 0; n < kRecords && m_row.sendOne(tls.get()) == 1 && SSL_do_handshake(tls.get()) == 1; ++n) {
    }
  }

  FloodRow const &m_row;
  int const m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  in_port_t m_port = 0;
  std::atomic<bool> m_isClientReady = false;
  std::atomic<bool> m_isDone = false;
  std::thread m_thread;
};

/// Runs the exchange; returns the error that ended it.
DWORD GoThrough(Client &client, Phase phase) {
  DWORD dwError = phase == Phase::Upload ? client.Begin(0xFFFFFFFF) : client.Send();
  std::string bytes(1 << 20, 'b');
  while (dwError == 0 && phase == Phase::Upload)
    dwError = client.Write(bytes);
  return dwError != 0 ? dwError : client.Read(bytes, 9);
}

TEST(TlsFlood, ReturnsToTheCallAgainAndAgain) {
  std::signal(SIGPIPE, SIG_IGN); // OpenSSL writes without MSG_NOSIGNAL
  for (FloodRow const &row : kFloods) {
    for (bool const isClosed : {true, false}) {
      SCOPED_TRACE(testing::Message() << row.szName << (isClosed ? ", closed" : ""));
      Flooder flooder(row);
      Client client(443);
      std::uint64_t uNow = 0;
      bool isFlooded = false;
      int nLooks = 0, nLooksAmidst = 0; // from when the records are there; with some of them unread
      client.stages.onStage = [&](DWORD dwStage) {
        bool const isNext = row.phase != Phase::Upload || client.stages.counts[dwStage] == 2;
        if (dwStage == row.dwStage && isNext && !isFlooded)
          isFlooded = flooder.SendRecords();
      };
      PlatformTestHooks clock;
      clock.now = [&] {
        nLooksAmidst += isFlooded && flooder.Unread() > 0;
        nLooks += isFlooded;
        if (nLooks == 3 && isClosed)
          InternetCloseHandle(client.session);
        return nLooks > 3 ? uNow += 20'000 : uNow;
      };
      SetPlatformTestHooks(&clock);
      EXPECT_EQ(isClosed ? 12017u : 12002u, GoThrough(client, row.phase));
      EXPECT_GE(nLooksAmidst, 3);
      SetPlatformTestHooks(nullptr);
    }
  }
}

} // namespace
