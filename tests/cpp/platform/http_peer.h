// What the tests of the HTTP layer share: a scripted peer as a child process, handles that close themselves, and a
// client that goes through a whole exchange.
#pragma once

#include "platform/LastError.h"
#include "platform/WinInet.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

using Arguments = std::vector<std::string>;

inline Arguments operator+(Arguments left, Arguments const &right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

/// Waits for a condition. Returns: false if it did not come about in ten seconds.
inline bool WaitFor(std::function<bool()> const &condition) {
  for (int n = 0; n < 5000; ++n) {
    if (condition())
      return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return false;
}

inline std::string Content(std::string const &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// A folder that lives as long as the test program, with the peers' certificates in it.
inline std::string const &Folder() {
  static std::string const folder = [] {
    std::string name = (std::filesystem::temp_directory_path() / "http_test.XXXXXX").string();
    if (!mkdtemp(name.data()))
      throw std::runtime_error("no folder");
    std::string const command = "/usr/bin/python3 " SKIFFPORT_SOURCE_DIR "/tests/support/peer.py certificates --certs ";
    if (std::system((command + name).c_str()) != 0)
      throw std::runtime_error("no certificates");
    return name;
  }();
  static struct Remover {
    ~Remover() { std::filesystem::remove_all(folder); }
  } const remover;
  return folder;
}

/// Runs tests/support/peer.py. While it lives, "good.test" leads to it on every port.
class Peer {
public:
  explicit Peer(Arguments arguments) {
    m_record = Folder() + "/received";
    std::filesystem::remove(m_record);
    arguments = Arguments{"python3", SKIFFPORT_SOURCE_DIR "/tests/support/peer.py"} + arguments +
                Arguments{"--record", m_record, "--certs", Folder()};
    std::vector<char *> argv;
    for (std::string &argument : arguments)
      argv.push_back(argument.data());
    argv.push_back(nullptr);
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0)
      throw std::runtime_error("no pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    bool const isStarted = posix_spawn(&m_process, "/usr/bin/python3", &actions, nullptr, argv.data(), environ) == 0;
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    m_stop = in[1];
    FILE *const output = fdopen(out[0], "r");
    bool const isListening = isStarted && std::fscanf(output, "port %d", &m_port) == 1;
    std::fclose(output);
    if (!isListening)
      throw std::runtime_error("the peer did not start");
    bool const isV6 = std::find(arguments.begin(), arguments.end(), "::1") != arguments.end();
    std::string const to = "good.test::" + std::string(isV6 ? "[::1]" : "127.0.0.1") + ":" + std::to_string(m_port);
    setenv("SKIFFPORT_CONNECT_TO", to.c_str(), 1);
    setenv("SSL_CERT_FILE", (Folder() + "/ca.pem").c_str(), 1);
  }
  ~Peer() {
    close(m_stop);
    waitpid(m_process, nullptr, 0);
  }
  Peer(Peer const &) = delete;

  INTERNET_PORT Port() const { return static_cast<INTERNET_PORT>(m_port); }
  std::string Received() const { return Content(m_record); }

private:
  std::string m_record;
  pid_t m_process = 0;
  int m_port = 0;
  int m_stop = -1;
};

struct Handle {
  Handle(HINTERNET handle) : h(handle) {}
  ~Handle() { InternetCloseHandle(h); }
  Handle(Handle const &) = delete;
  operator HINTERNET() const { return h; }
  HINTERNET const h;
};

/// Remembers the status callbacks of its request, as text: "20 127.0.0.1", "31 57", "40".
struct Stages {
  static void Callback(HINTERNET hRequest, DWORD_PTR dwContext, DWORD dwStatus, void *pInformation, DWORD dwLength) {
    auto &self = *reinterpret_cast<Stages *>(dwContext);
    std::string line = std::to_string(dwStatus);
    if (pInformation && dwLength == sizeof(DWORD))
      line += ' ' + std::to_string(*static_cast<DWORD *>(pInformation));
    else if (pInformation)
      for (WCHAR const c : L' ' + std::wstring(static_cast<WCHAR *>(pInformation), dwLength / sizeof(WCHAR) - 1))
        line += static_cast<char>(c);
    std::lock_guard<std::mutex> const lock(self.mutex);
    self.lines.push_back(line);
    if (self.onStage)
      self.onStage(hRequest, dwStatus);
  }
  /// How often the status was told.
  int Count(DWORD dwStatus) {
    std::lock_guard<std::mutex> const lock(mutex);
    auto const isThat = [&](std::string const &line) { return std::atoi(line.c_str()) == static_cast<int>(dwStatus); };
    return static_cast<int>(std::count_if(lines.begin(), lines.end(), isThat));
  }

  std::mutex mutex;
  std::vector<std::string> lines;
  std::function<void(HINTERNET, DWORD)> onStage;
};

/// A session, a connection to good.test and a request. A time limit (ms) is set for connecting and for sending.
struct Client {
  explicit Client(INTERNET_PORT nPort, char const *szVerb = "POST", DWORD dwFlags = 0, WCHAR const *wszAgent = nullptr,
                  char const *szObject = "/x", char const *szHost = "good.test", DWORD dwLimit = 0)
      : session(Prepared(InternetOpenW(wszAgent, 0, nullptr, nullptr, 0), dwLimit)),
        connection(InternetConnectA(session, szHost, nPort, nullptr, nullptr, INTERNET_SERVICE_HTTP, 0, 1)),
        request(HttpOpenRequestA(connection, szVerb, szObject, nullptr, nullptr, nullptr, dwFlags,
                                 reinterpret_cast<DWORD_PTR>(&stages))) {}

  static HINTERNET Prepared(HINTERNET hSession, DWORD dwLimit) {
    InternetSetStatusCallbackW(hSession, Stages::Callback);
    for (DWORD const dwOption : {INTERNET_OPTION_CONNECT_TIMEOUT, INTERNET_OPTION_SEND_TIMEOUT})
      if (dwLimit != 0)
        InternetSetOptionW(hSession, dwOption, &dwLimit, sizeof dwLimit);
    return hSession;
  }
  // Each of these returns the error number, 0 for none.
  static DWORD Error(BOOL bDone) { return bDone ? ERROR_SUCCESS : GetLastError(); }
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
  DWORD Send(WCHAR const *wszHeaders = nullptr, std::string const &body = "") {
    return Error(HttpSendRequestW(request, wszHeaders, 0xFFFFFFFF, body.data(), static_cast<DWORD>(body.size())));
  }
  DWORD Available(DWORD &dwAvailable) { return Error(InternetQueryDataAvailable(request, &dwAvailable, 0, 0)); }
  DWORD Read(std::string &bytes, DWORD dwCount) {
    bytes.resize(dwCount);
    DWORD dwRead = 0;
    DWORD const dwError = Error(InternetReadFile(request, bytes.data(), dwCount, &dwRead));
    bytes.resize(dwRead);
    return dwError;
  }
  /// Reads the reply by what is available: "5 6 0" and so on, with "!12031" for a failure.
  std::string Sizes(std::string *pBody = nullptr) {
    std::string sizes, part;
    for (DWORD dwAvailable = 1; dwAvailable != 0;) {
      DWORD dwError = Available(dwAvailable);
      if (dwError == ERROR_SUCCESS)
        dwError = Read(part, dwAvailable);
      if (dwError != ERROR_SUCCESS)
        return sizes + "!" + std::to_string(dwError);
      sizes += std::to_string(dwAvailable) + " ";
      if (pBody)
        *pBody += part;
    }
    return sizes;
  }
  DWORD Status() {
    DWORD dwStatus = 0, dwLength = sizeof dwStatus;
    HttpQueryInfoW(request, HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, &dwStatus, &dwLength, nullptr);
    return dwStatus;
  }

  Stages stages;
  Handle session;
  Handle connection;
  Handle request;
};
