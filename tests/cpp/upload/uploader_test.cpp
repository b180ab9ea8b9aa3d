// A whole transfer against a scripted peer: the bytes on the wire, the chunks, and how it ends when a call fails.
#include "platform/text/CodePages.h"
#include "tests/cpp/platform/TestHooks.h"
#include "tests/cpp/platform/http/http_peer.h"
#include "tests/cpp/upload/receiver.h"
#include "upload/UploadThread2.h"

#include <gtest/gtest.h>

#include <numeric>
#include <tuple>

namespace {

constexpr HRESULT HResult(DWORD dwError) { return static_cast<HRESULT>(0x80070000U | dwError); }

class UploaderTest : public ::testing::Test {
protected:
  void SetUp() override {
    m_hooks.sleep = [this](DWORD ms) { m_dwSlept += ms; };
    job.SetUrl("https://good.test/servlet/uploadTemplate");
  }
  void TearDown() override { SetPlatformTestHooks(nullptr); }

  void AddFile(std::string const &name, std::string const &contents) {
    std::string const strPath = Folder() + "/" + name;
    WCHAR wszPath[_MAX_PATH];
    MultiByteToWideChar(CP_UTF8, 0, strPath.c_str(), -1, wszPath, _MAX_PATH);
    std::ofstream(strPath, std::ios::binary) << contents;
    job.AddFile(L"f", wszPath, L"t");
  }
  HRESULT Post() {
    SessionHandle session;
    Uploader uploader(&receiver, &job, &result, session);
    SetPlatformTestHooks(&m_hooks);
    HRESULT const hr = uploader.Post();
    SetPlatformTestHooks(nullptr);
    EXPECT_EQ(result.m_hr, hr);
    reply = uploader.m_strReply;
    return hr;
  }

  UploadJob job;
  UploadResult result;
  Receiver receiver;
  std::string reply;
  PlatformTestHooks m_hooks;
  DWORD m_dwSlept = 0;
};

TEST_F(UploaderTest, SendsTheDeclaredBytesAndReadsTheReply) {
  Peer const peer("reply --tls good --status 500 --body '<a/>'");
  job.AddField("title", "abc");
  job.AddField("empty", "");
  AddFile("\xC3\xA4\"", "abcd");
  AddFile("none", "");
  EXPECT_EQ(Post(), S_OK);
  EXPECT_EQ(result.m_nHttpStatus, 500);
  EXPECT_EQ(reply, "<a/>");
  EXPECT_EQ(receiver.files, "begin 0/4 4/4 done begin 0/0 0/0 done ");
  EXPECT_EQ(m_dwSlept, 50U) << "one chunk";

  std::string const sent = peer.Received();
  std::size_t const at = sent.find("boundary=");
  ASSERT_NE(at, std::string::npos);
  std::string const boundary = sent.substr(at + 9, 39);
  std::string const dash = "--" + boundary;
  std::string const file = "Content-Disposition: form-data; name=\"f\"; filename=\"" + Folder();
  std::string const body = dash + "\r\nContent-Disposition: form-data; name=\"empty\"\r\n\r\n\r\n" + dash +
                           "\r\nContent-Disposition: form-data; name=\"title\"\r\n\r\nabc\r\n" + dash + "\r\n" + file +
                           "/\xC3\xA4\"\"\r\nContent-Type: t\r\n\r\nabcd\r\n" + dash + "\r\n" + file +
                           "/none\"\r\nContent-Type: t\r\n\r\n\r\n" + dash + "--\r\n";
  EXPECT_EQ(sent,
            "POST /servlet/uploadTemplate HTTP/1.1\r\nHost: good.test\r\nContent-Type: multipart/form-data; boundary=" +
                boundary + "\r\nUser-Agent: WinInetPost/0.0.4\r\nCache-Control: no-cache\r\nContent-Length: " +
                std::to_string(body.size()) + "\r\n\r\n" + body);
  EXPECT_TRUE(receiver.calls.starts_with(L"resolving good.test; resolved 127.0.0.1; connecting 127.0.0.1; connected "
                                         L"127.0.0.1; sending; sent " +
                                         std::to_wstring(sent.size() - body.size()) + L"; sending; sent "));
  EXPECT_TRUE(receiver.calls.ends_with(L"receiving; received 44; closing; closed; ")) << "44 bytes of reply headers";
}

TEST_F(UploaderTest, AdaptsTheChunkSizeToTheDurationOfTheLastWrite) {
  Peer const peer("reply --tls good");
  // The duration of each chunk's write in ms and its size in units of 32 KiB; the first write is the file's head.
  std::vector<std::pair<DWORD, DWORD>> chunks = {{0, 1},    {499, 2},  {500, 4},  {1250, 4}, {1251, 4},
                                                 {1251, 2}, {9000, 1}, {1251, 1}, {0, 1}};
  for (DWORD units = 2; units <= 512; units *= 2)
    chunks.emplace_back(0, units);
  chunks.insert(chunks.end(), {{0, 512}, {0, 512}}); // 16 MiB is the most
  std::size_t nWrite = 0;
  std::uint64_t now = 1000;
  m_hooks.now = [&now] { return now; };
  m_hooks.fault = [&](FaultPoint call, DWORD *) {
    if (call == FaultPoint::InternetWriteFile && nWrite++ > 0 && nWrite - 2 < chunks.size())
      now += chunks[nWrite - 2].first;
    return false;
  };
  std::vector<DWORD> expected;
  for (auto const &[ms, units] : chunks)
    expected.push_back(units * 0x8000);
  DWORD const dwTotal = std::accumulate(expected.begin(), expected.end(), 0U);
  AddFile("chunks", "");
  std::filesystem::resize_file(Folder() + "/chunks", dwTotal);
  EXPECT_EQ(Post(), S_OK);
  std::erase_if(receiver.writes, [](DWORD dwBytes) { return dwBytes < 0x8000; });
  EXPECT_EQ(receiver.writes, expected);
  EXPECT_EQ(m_dwSlept, 50 * chunks.size());
  EXPECT_EQ(job.m_dwRate, 19 * 0x8000U / 30) << "as of the last tick; the next file starts with it";
}

TEST_F(UploaderTest, EndsTheUploadAtTheFirstFailedCall) {
  using enum FaultPoint;
  constexpr char kNone[] = "", kBegun[] = "begin 0/4 failed ", kOne[] = "begin 0/4 4/4 done ",
                 kBoth[] = "begin 0/4 4/4 done begin 0/4 4/4 done ";
  // The call, which of its kind, and what the receiver sees of the two files. Writes: field head, value and line end;
  // then head, contents and line end of each file; the closing line. Two files are opened to learn their sizes.
  struct Case {
    FaultPoint call;
    int nth;
    char const *szCalls;
  };
  Case const cases[] = {{InternetOpenW, 1, kNone},      {InternetConnectA, 1, kNone},
                        {HttpOpenRequestA, 1, kNone},   {HttpAddRequestHeadersA, 1, kNone},
                        {HttpSendRequestExW, 1, kNone}, {InternetWriteFile, 1, kNone},
                        {InternetWriteFile, 4, kNone},  {CreateFileW, 3, kNone},
                        {ReadFile, 1, kBegun},          {InternetWriteFile, 5, kBegun},
                        {ReadFile, 2, kBegun},          {InternetWriteFile, 6, kOne},
                        {CreateFileW, 4, kOne},         {InternetWriteFile, 10, kBoth},
                        {HttpEndRequestW, 1, kBoth}};
  Peer const peer("reply --tls good --body ok");
  job.AddField("a", "b");
  AddFile("one", "abcd");
  AddFile("two", "abcd");
  for (Case const &c : cases) {
    receiver.files.clear();
    m_hooks.fault = [&c, n = c.nth](FaultPoint call, DWORD *pdwError) mutable {
      *pdwError = 1450;
      return call == c.call && --n == 0;
    };
    EXPECT_EQ(Post(), HResult(1450));
    EXPECT_EQ(receiver.files + reply + std::to_string(result.m_nHttpStatus), c.szCalls + std::string("-1")) << c.nth;
  }
  for (Case const &c :
       {Case{HttpQueryInfoW, -1, "ok"}, {InternetQueryDataAvailable, 200, ""}, {InternetReadFile, 200, ""}}) {
    m_hooks.fault = [&c](FaultPoint call, DWORD *) { return call == c.call; };
    EXPECT_EQ(Post(), S_OK);
    EXPECT_EQ(reply + std::to_string(result.m_nHttpStatus), c.szCalls + std::to_string(c.nth));
  }
  m_hooks.fault = nullptr;
  std::pair<int, char const *> const stops[] = {{0, kBegun}, {1, kBegun}, {2, "begin 0/4 4/4 done begin 0/4 failed "}};
  for (auto const &[nQuery, szCalls] : stops) { // the query that asks to stop
    receiver.files.clear();
    receiver.nQueriesBeforeStop = nQuery;
    EXPECT_EQ(Post(), UPLOAD_E_CANCELLED);
    EXPECT_EQ(receiver.files, szCalls) << nQuery;
  }
  job.ClearFiles();
  receiver.nQueriesBeforeStop = 0;
  EXPECT_EQ(Post(), S_OK) << "a job without files never asks";
}

TEST_F(UploaderTest, StopsSendingAndReadsAnEarlyReply) {
  std::string const refusal = " --status 413 --body 'too large'";
  AddFile("large", std::string(8'000'000, 'x'));
  for (std::string const &scenario :
       {"early-keep" + refusal, "early-hold" + refusal, "early-keep --length chunked" + refusal,
        "early-keep --length none" + refusal, // the peer closes when it sees the end of our data
        "early-keep --header 'Connection: close'" + refusal,
        std::string("early-keep --header 'Connection: close' --body ok"),
        std::string("early-keep --raw 'HTTP/1.0 200 OK\\r\\nContent-Length: 2\\r\\n\\r\\nok'")}) {
    Peer const peer(scenario + " --tls good");
    EXPECT_EQ(Post(), S_OK) << scenario;
    bool const isRefusal = scenario.ends_with(refusal);
    EXPECT_EQ(std::to_string(result.m_nHttpStatus) + reply, isRefusal ? "413too large" : "200ok") << scenario;
  }
}

TEST_F(UploaderTest, RunsOnAThreadThatCanBeAborted) {
  Peer const peer("silent-reply --tls good");
  UploadThread2 thread(&job, &result, &receiver);
  ASSERT_TRUE(thread.Start() && thread.m_uThreadId != 0);
  EXPECT_TRUE(WaitFor([&peer] { return peer.Received().ends_with("--\r\n"); }));
  EXPECT_FALSE(thread.EndsWithin(0));
  thread.Abort();
  EXPECT_EQ(thread.Wait(), static_cast<DWORD>(HResult(12017)));
  EXPECT_TRUE(receiver.calls.ends_with(L"on another thread; "));
  m_hooks.fault = [](FaultPoint call, DWORD *) { return call == FaultPoint::_beginthreadex; };
  SetPlatformTestHooks(&m_hooks);
  UploadThread2 none(&job, &result, &receiver);
  EXPECT_FALSE(none.Start() || none.m_uThreadId != 0);
  EXPECT_EQ(none.Wait(), 0xFFFFFFFF) << "without a handle";
}

} // namespace
