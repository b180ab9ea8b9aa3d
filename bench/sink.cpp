// A peer that costs next to nothing: it reads a request's body into one buffer, drops it and sends a fixed reply.
//
// sink ADDRESS PEM [REPLIES]: PEM holds certificate and key; REPLIES holds further replies that take precedence, each a
// line with two sizes, then the start of a request line and a body of these sizes. Prints its TLS port and its plain
// port, one per line, serves one request per connection, each on its own thread, and exits when standard input closes.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <csignal>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr std::size_t kBufferSize = 1 << 18;

/// Starts of request lines, and the bodies of the replies.
std::vector<std::pair<std::string, std::string>> g_replies = {
    {"POST /servlet/uploadTemplate",
     "<uploadTemplate><templateUrl>https%3a%2f%2fwww.kestrelhub.example%2fp%2f7</templateUrl></uploadTemplate>"},
    {"POST /servlet/memLogin",
     "<info><tokenid>0123456789abcdef</tokenid><username>Bench</username>"
     "<profileURL>https://www.kestrelhub.example/u</profileURL>"
     "<VideoGallery>https://www.kestrelhub.example/v</VideoGallery><search>s</search></info>"},
    {"GET /khserver.jsp", "<INFO><APIUrl>www.kestrelhub.example</APIUrl><AdjustmentPreset>/p?v=1</AdjustmentPreset>"
                          "<SignUp>/s?v=1</SignUp></INFO>"},
    {"", "ok"}};

void ReadReplies(char const *path) {
  std::ifstream file(path);
  std::size_t position = 0, sizes[2];
  for (char space; file >> sizes[0] >> sizes[1] && file.get(space); ++position) {
    std::string start(sizes[0], 0), body(sizes[1], 0);
    file.read(start.data(), static_cast<std::streamsize>(start.size()));
    file.read(body.data(), static_cast<std::streamsize>(body.size()));
    g_replies.emplace(g_replies.begin() + static_cast<std::ptrdiff_t>(position), start, body);
  }
}

/// One connection, with TLS or without.
class Connection {
public:
  Connection(int fd, SSL_CTX *context) : m_fd(fd), m_tls(context ? SSL_new(context) : nullptr) {}
  Connection(Connection const &) = delete;
  Connection &operator=(Connection const &) = delete;
  ~Connection() {
    if (m_tls)
      SSL_shutdown(m_tls);
    SSL_free(m_tls);
    close(m_fd);
  }

  bool Accept() { return !m_tls || (SSL_set_fd(m_tls, m_fd) == 1 && SSL_accept(m_tls) == 1); }
  int Read(char *buffer, std::size_t size) {
    return m_tls ? SSL_read(m_tls, buffer, static_cast<int>(size)) : static_cast<int>(read(m_fd, buffer, size));
  }
  void Write(std::string const &text) {
    if (m_tls)
      SSL_write(m_tls, text.data(), static_cast<int>(text.size()));
    else if (write(m_fd, text.data(), text.size()) < 0)
      return; // the client is gone
  }

private:
  int m_fd;
  SSL *m_tls;
};

std::size_t ContentLength(std::string const &head) {
  for (std::size_t line = 0; (line = head.find("\r\n", line)) != head.npos; line += 2)
    if (strncasecmp(head.c_str() + line + 2, "content-length:", 15) == 0)
      return std::strtoull(head.c_str() + line + 17, nullptr, 10);
  return 0;
}

void Serve(int fd, SSL_CTX *context) {
  Connection connection(fd, context);
  if (!connection.Accept())
    return;
  std::vector<char> buffer(kBufferSize);
  std::string head;
  std::size_t end;
  while ((end = head.find("\r\n\r\n")) == head.npos) {
    int const count = connection.Read(buffer.data(), buffer.size());
    if (count <= 0)
      return;
    head.append(buffer.data(), static_cast<std::size_t>(count));
  }
  std::size_t received = head.size() - end - 4;
  for (std::size_t const length = ContentLength(head.substr(0, end + 2)); received < length;) {
    int const count = connection.Read(buffer.data(), std::min(buffer.size(), length - received));
    if (count <= 0)
      return;
    received += static_cast<std::size_t>(count);
  }
  auto const reply = std::find_if(g_replies.begin(), g_replies.end(),
                                  [&](auto const &candidate) { return head.starts_with(candidate.first); });
  connection.Write("HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: " + std::to_string(reply->second.size()) +
                   "\r\n\r\n" + reply->second);
}

/// Serves connections on a thread of its own. Returns the port.
int Listen(char const *address, SSL_CTX *context) {
  int const listener = socket(AF_INET, SOCK_STREAM, 0), one = 1;
  sockaddr_in name{};
  name.sin_family = AF_INET;
  socklen_t size = sizeof name;
  if (inet_pton(AF_INET, address, &name.sin_addr) != 1 ||
      bind(listener, reinterpret_cast<sockaddr *>(&name), sizeof name) != 0 || listen(listener, 256) != 0 ||
      getsockname(listener, reinterpret_cast<sockaddr *>(&name), &size) != 0)
    std::exit((std::perror("sink"), 1));
  std::thread([=] {
    for (int fd; (fd = accept(listener, nullptr, nullptr)) >= 0;) {
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      std::thread(Serve, fd, context).detach();
    }
  }).detach();
  return ntohs(name.sin_port);
}

} // namespace

int main(int argc, char **argv) {
  if (argc < 3)
    return 2;
  std::signal(SIGPIPE, SIG_IGN);
  SSL_CTX *const context = SSL_CTX_new(TLS_server_method());
  if (SSL_CTX_use_certificate_chain_file(context, argv[2]) != 1 ||
      SSL_CTX_use_PrivateKey_file(context, argv[2], SSL_FILETYPE_PEM) != 1)
    return 1;
  if (argc > 3)
    ReadReplies(argv[3]);
  std::printf("%d\n%d\n", Listen(argv[1], context), Listen(argv[1], nullptr));
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
  std::_Exit(0);
}
