// The server of the exchanges that are fuzzed: a thread in the same process that accepts one connection, plain or with
// TLS as the target is built, and replays a script.
#pragma once

#include "platform/http/WinInet.h"
#include "tests/fuzz/fuzz.h"

#include <atomic>
#include <csignal>
#include <thread>
#include <utility>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#ifdef SKIFFPORT_FUZZ_TLS
constexpr bool kIsTls = true;
#else
constexpr bool kIsTls = false;
#endif
constexpr char kServerName[] = "good.test";

/// The platform's clock in ms.
inline std::atomic<std::uint64_t> g_now = 1'000'000;

struct Script {
  enum End : unsigned { Finish, Close, Reset, Stall };

  std::string reply;
  std::size_t firstPart = 0; ///< bytes of the reply that are sent on their own
  End end = Finish;
  bool isEager = false;      ///< replies before the request; with TLS, instead of a handshake
  bool isCancelling = false; ///< closes the client's session when the reply is out
};

constexpr std::size_t kLongestReply = 150'000; // more than the platform takes of a head

/// Repeats what precedes each pair of a byte 1 and a count, back to the start of its line: for long lines and heads.
inline std::string Expanded(std::string_view text) {
  std::string expanded;
  for (std::size_t index = 0; index < text.size() && expanded.size() < kLongestReply; ++index) {
    if (text[index] != 1 || index + 1 == text.size()) {
      expanded += text[index];
      continue;
    }
    std::size_t const end = expanded.find_last_not_of("\r\n");
    std::size_t const start = expanded.rfind('\n', end) + 1;
    std::string const line = expanded.substr(end == expanded.npos ? 0 : start);
    for (int count = static_cast<unsigned char>(text[++index]); count > 0 && expanded.size() < kLongestReply; --count)
      expanded += line;
  }
  return expanded;
}

/// A context with a certificate of its own, which SSL_CERT_FILE makes trusted.
inline SSL_CTX *MakeTlsContext() {
  EVP_PKEY *const key = EVP_EC_gen("P-256");
  X509 *const certificate = X509_new();
  X509_set_version(certificate, 2);
  X509_gmtime_adj(X509_getm_notBefore(certificate), -86'400);
  X509_gmtime_adj(X509_getm_notAfter(certificate), 86'400);
  X509_set_pubkey(certificate, key);
  X509_NAME *const name = X509_get_subject_name(certificate);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<unsigned char const *>("fuzz"), -1, -1, 0);
  X509_set_issuer_name(certificate, name);
  X509_EXTENSION *const names = X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, "DNS:good.test");
  X509_add_ext(certificate, names, -1);
  X509_EXTENSION_free(names);
  X509_sign(certificate, key, EVP_sha256());
  int const fd = memfd_create("certificate", MFD_CLOEXEC);
  BIO *const file = BIO_new_fd(fd, BIO_NOCLOSE);
  PEM_write_bio_X509(file, certificate);
  BIO_free(file);
  setenv("SSL_CERT_FILE", ("/proc/self/fd/" + std::to_string(fd)).c_str(), 1);
  SSL_CTX *const context = SSL_CTX_new(TLS_server_method());
  SSL_CTX_set_num_tickets(context, 0);
  Require(SSL_CTX_use_certificate(context, certificate) == 1 && SSL_CTX_use_PrivateKey(context, key) == 1, "TLS");
  X509_free(certificate);
  EVP_PKEY_free(key);
  return context;
}

class Server {
public:
  Server() : m_listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), m_tls(kIsTls ? MakeTlsContext() : nullptr) {
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    auto *const bound = reinterpret_cast<sockaddr *>(&address);
    socklen_t size = sizeof address;
    Require(bind(m_listener, bound, size) == 0 && listen(m_listener, 8) == 0, "a listening socket");
    getsockname(m_listener, bound, &size);
    int const isOn = 1;
    setsockopt(m_listener, IPPROTO_TCP, TCP_NODELAY, &isOn, sizeof isOn); // its connections inherit it
    std::string const place = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    setenv("SKIFFPORT_CONNECT_TO", (std::string(kServerName) + "::" + place).c_str(), 1);
    std::signal(SIGPIPE, SIG_IGN);
  }

  /// Serves one connection, on a thread of its own.
  void Start(Script script, HINTERNET clientSession) {
    m_isOver = false;
    m_thread = std::thread([this, script = std::move(script), clientSession] { Serve(script, clientSession); });
  }
  /// Call it when the client is done. Returns: what the client had sent.
  std::string Finish() {
    m_isOver = true;
    m_thread.join();
    return std::exchange(m_received, {});
  }

private:
  struct Connection {
    ~Connection() {
      SSL_free(tls);
      close(fd);
    }
    void Write(std::string_view bytes) const {
      for (long sent = 1; sent > 0 && !bytes.empty(); bytes.remove_prefix(sent > 0 ? sent : 0))
        sent = tls ? SSL_write(tls, bytes.data(), static_cast<int>(bytes.size()))
                   : send(fd, bytes.data(), bytes.size(), 0);
    }
    int fd;
    SSL *tls;
  };

  bool ReadMore(Connection const &connection) {
    char buffer[65536];
    long const size = connection.tls ? SSL_read(connection.tls, buffer, sizeof buffer)
                                     : recv(connection.fd, buffer, sizeof buffer, 0);
    m_received.append(buffer, size > 0 ? size : 0);
    return size > 0;
  }

  void Serve(Script const &script, HINTERNET clientSession) {
    for (pollfd waiting{m_listener, POLLIN, 0}; poll(&waiting, 1, 5) == 0;)
      if (m_isOver)
        return; // the client did not get as far as connecting
    Connection const connection{accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC),
                                kIsTls && !script.isEager ? SSL_new(m_tls) : nullptr};
    if (connection.tls && (SSL_set_fd(connection.tls, connection.fd) != 1 || SSL_accept(connection.tls) != 1))
      return;
    while (!script.isEager && m_received.find("\r\n\r\n") == m_received.npos)
      if (!ReadMore(connection))
        return;
    std::string_view const reply = script.reply;
    connection.Write(reply.substr(0, script.firstPart));
    connection.Write(reply.substr(std::min(script.firstPart, reply.size())));
    if (script.isCancelling)
      InternetCloseHandle(clientSession);
    End(script.end, connection);
  }

  void End(Script::End end, Connection const &connection) {
    linger const atOnce{1, 0};
    if (end == Script::Reset)
      setsockopt(connection.fd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    if (end == Script::Finish && connection.tls)
      SSL_shutdown(connection.tls);
    if (end == Script::Finish)
      shutdown(connection.fd, SHUT_WR);
    pollfd waiting{connection.fd, POLLIN, 0};
    for (bool isOpen = end == Script::Finish || end == Script::Stall; isOpen;)
      if (poll(&waiting, 1, end == Script::Stall ? 1 : -1) == 0)
        g_now += 70'000;
      else
        isOpen = ReadMore(connection);
  }

  int const m_listener;
  SSL_CTX *const m_tls;
  std::atomic<bool> m_isOver = false;
  std::thread m_thread;
  std::string m_received;
};
