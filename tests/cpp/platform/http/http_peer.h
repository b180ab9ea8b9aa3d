// What the tests of the HTTP layer share: a scripted peer as a child process, and a client for a whole exchange.
#pragma once

#include "platform/base/LastError.h"
#include "platform/http/WinInet.h"
#include "tests/cpp/platform/helpers.h"

#include <atomic>
#include <cstdio>
#include <iterator>

inline std::string Content(std::string const &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// The scripted peer's command, and a folder with its certificates that lasts as long as the test program.
inline std::string const kPeerCommand = "exec /usr/bin/python3 " SKIFFPORT_SOURCE_DIR "/tests/support/peer.py ";
inline std::string const &Folder() {
  static struct Temporary {
    Temporary() {
      if (!mkdtemp(name.data()) || std::system((kPeerCommand + "certificates --certs " + name).c_str()) != 0)
        std::abort();
    }
    ~Temporary() { std::filesystem::remove_all(name); }
    std::string name = (std::filesystem::temp_directory_path() / "http_test.XXXXXX").string();
  } const folder;
  return folder.name;
}

/// Runs the scripted peer with these arguments. While it lives, "good.test" resolves to it on every port.
class Peer {
public:
  explicit Peer(std::string const &arguments) {
    std::filesystem::remove(Folder() + "/received");
    std::filesystem::remove(Folder() + "/port");
    std::string const command = kPeerCommand + arguments + " --certs " + Folder() + " --record " + Folder() +
                                "/received > " + Folder() + "/port";
    m_pipe = popen(command.c_str(), "we");
    std::string port;
    if (!WaitFor([&] { return (port = Content(Folder() + "/port")).ends_with('\n'); }))
      std::abort();
    setenv("SKIFFPORT_CONNECT_TO", ("good.test::127.0.0.1:" + port.substr(5, port.size() - 6)).c_str(), 1);
    setenv("SSL_CERT_FILE", (Folder() + "/ca.pem").c_str(), 1);
  }
  ~Peer() { pclose(m_pipe); }
  Peer(Peer const &) = delete;

  std::string Received() const { return Content(Folder() + "/received"); }

private:
  FILE *m_pipe = nullptr;
};

/// The error number of a call, 0 for none.
inline DWORD Error(BOOL bDone) { return bDone ? ERROR_SUCCESS : GetLastError(); }

/// A session, a connection and a request, whose status callbacks it counts. The calls return their error number.
struct Client {
  explicit Client(INTERNET_PORT nPort, DWORD dwFlags = 0, char const *szHost = "good.test", char const *szObject = "/x")
      : session(Prepare()),
        connection(InternetConnectA(session, szHost, nPort, nullptr, nullptr, INTERNET_SERVICE_HTTP, 0, 1)),
        request(HttpOpenRequestA(connection, "POST", szObject, nullptr, nullptr, nullptr, dwFlags,
                                 reinterpret_cast<DWORD_PTR>(this))) {}
  ~Client() { InternetCloseHandle(session); } // and its connection and request

  static HINTERNET Prepare() {
    HINTERNET const hSession = InternetOpenW(nullptr, 0, nullptr, nullptr, 0);
    InternetSetStatusCallbackW(hSession, [](HINTERNET, DWORD_PTR dwContext, DWORD dwStatus, void *, DWORD) {
      auto &self = *reinterpret_cast<Client *>(dwContext);
      ++self.stages[dwStatus];
      if (self.onStage)
        self.onStage(dwStatus);
    });
    return hSession;
  }
  DWORD Begin(DWORD dwDeclared) {
    INTERNET_BUFFERSW buffers{};
    buffers.dwStructSize = sizeof buffers;
    buffers.dwBufferTotal = dwDeclared;
    return Error(HttpSendRequestExW(request, &buffers, nullptr, HSR_INITIATE, 0));
  }
  DWORD Write(std::string const &bytes) {
    DWORD dwWritten = 0;
    return Error(InternetWriteFile(request, bytes.data(), static_cast<DWORD>(bytes.size()), &dwWritten));
  }
  DWORD End() { return Error(HttpEndRequestW(request, nullptr, 0, 0)); }
  DWORD Send(std::string const &body = "") {
    return Error(HttpSendRequestW(request, nullptr, 0, body.data(), static_cast<DWORD>(body.size())));
  }
  DWORD Read(std::string &bytes, DWORD dwCount) {
    bytes.resize(dwCount);
    DWORD dwRead = 0;
    DWORD const dwError = Error(InternetReadFile(request, bytes.data(), dwCount, &dwRead));
    bytes.resize(dwRead);
    return dwError;
  }

  std::atomic<int> stages[64]; // how often each status was reported
  std::function<void(DWORD)> onStage;
  HINTERNET const session;
  HINTERNET const connection;
  HINTERNET const request;
};
