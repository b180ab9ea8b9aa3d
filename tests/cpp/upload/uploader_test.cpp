// A whole transfer against a scripted peer: the bytes on the wire, the chunks, and how it ends when a call fails.
#include "platform/text/CodePages.h"
#include "tests/cpp/platform/TestHooks.h"
#include "tests/cpp/platform/http/http_peer.h"
#include "tests/cpp/upload/receiver.h"
#include "upload/UploadThread2.h"

#include <gtest/gtest.h>

#include <cstring>
#include <numeric>

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
  std::vector<std::pair<DWORD, DWORD>> const chunks = {{0, 1},    {499, 2},  {500, 4},  {1250, 4}, {1251, 4},
                                                       {1251, 2}, {9000, 1}, {1251, 1}, {0, 1},    {0, 2}};
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
  AddFile("chunks", std::string(std::accumulate(expected.begin(), expected.end(), 0U), 'x'));
  EXPECT_EQ(Post(), S_OK);
  std::erase_if(receiver.writes, [](DWORD dwBytes) { return dwBytes < 0x8000; });
  EXPECT_EQ(receiver.writes, expected);
  EXPECT_EQ(m_dwSlept, 50 * chunks.size());
  EXPECT_EQ(job.m_dwRate, 19 * 0x8000U / 30) << "as of the last tick; the next file starts with it";
}

TEST_F(UploaderTest, EndsTheUploadAtTheFirstFailedCall) {
  struct Case {
    FaultPoint call;
    int nth;
    char const *szCalls; // what the receiver sees of the two files
  };
  constexpr char kBoth[] = "begin 0/4 4/4 done begin 0/4 4/4 done ";
  // Writes: field head, value and line end; then head, contents and line end of each file; the closing line.
  Case const cases[] = {
      {FaultPoint::InternetOpenW, 1, ""},
      {FaultPoint::InternetConnectA, 1, ""},
      {FaultPoint::HttpOpenRequestA, 1, ""},
      {FaultPoint::HttpAddRequestHeadersA, 1, ""},
      {FaultPoint::HttpSendRequestExW, 1, ""},
      {FaultPoint::InternetWriteFile, 1, ""},
      {FaultPoint::InternetWriteFile, 3, ""},
      {FaultPoint::InternetWriteFile, 4, ""},
      {FaultPoint::CreateFileW, 3, ""}, // after the two of the length pass
      {FaultPoint::ReadFile, 1, "begin 0/4 failed "},
      {FaultPoint::InternetWriteFile, 5, "begin 0/4 failed "},
      {FaultPoint::ReadFile, 2, "begin 0/4 failed "},
      {FaultPoint::InternetWriteFile, 6, "begin 0/4 4/4 done "},
      {FaultPoint::CreateFileW, 4, "begin 0/4 4/4 done "},
      {FaultPoint::InternetWriteFile, 10, kBoth},
      {FaultPoint::HttpEndRequestW, 1, kBoth},
  };
  Peer const peer("reply --tls good --body ok");
  job.AddField("a", "b");
  AddFile("one", "abcd");
  AddFile("two", "abcd");
  for (Case const &c : cases) {
    SCOPED_TRACE(std::to_string(static_cast<int>(c.call)) + " " + std::to_string(c.nth));
    receiver.files.clear();
    int nCall = 0;
    m_hooks.fault = [&](FaultPoint call, DWORD *pdwError) {
      *pdwError = 1450;
      return call == c.call && ++nCall == c.nth;
    };
    EXPECT_EQ(Post(), HResult(1450));
    EXPECT_EQ(receiver.files, c.szCalls);
    EXPECT_EQ(reply + std::to_string(result.m_nHttpStatus), "-1") << "there was no reply";
  }
  for (auto const &[point, szReply, nStatus] :
       {std::tuple{FaultPoint::HttpQueryInfoW, "ok", -1}, std::tuple{FaultPoint::InternetQueryDataAvailable, "", 200},
        std::tuple{FaultPoint::InternetReadFile, "", 200}}) {
    m_hooks.fault = [point = point](FaultPoint call, DWORD *) { return call == point; };
    EXPECT_EQ(Post(), S_OK);
    EXPECT_EQ(reply + std::to_string(result.m_nHttpStatus), szReply + std::to_string(nStatus));
  }
}

TEST_F(UploaderTest, StopsAtAnyQueryThatSaysSo) {
  Peer const peer("reply --tls good");
  AddFile("one", "abcd");
  AddFile("two", "abcd");
  char const *const calls[] = {"begin 0/4 failed ", "begin 0/4 failed ", "begin 0/4 4/4 done begin 0/4 failed "};
  for (int nQuery = 0; nQuery < 3; ++nQuery) {
    receiver.files.clear();
    receiver.nQueriesBeforeStop = nQuery;
    EXPECT_EQ(Post(), UPLOAD_E_CANCELLED);
    EXPECT_EQ(receiver.files, calls[nQuery]) << nQuery;
  }
  job.ClearFiles();
  receiver.nQueriesBeforeStop = 0;
  EXPECT_EQ(Post(), S_OK) << "a job without files never asks";
}

TEST_F(UploaderTest, StopsSendingAndReadsAnEarlyReply) {
  std::string const refusal = " --status 413 --body 'too large'";
  for (std::string const &scenario :
       {"early-keep" + refusal, "early-hold" + refusal, "early-keep --length chunked" + refusal,
        "early-keep --length none" + refusal, // the peer closes when it sees the end of our data
        "early-keep --header 'Connection: close'" + refusal,
        std::string("early-keep --header 'Connection: close' --body ok"),
        std::string("early-keep --raw 'HTTP/1.0 200 OK\\r\\nContent-Length: 2\\r\\n\\r\\nok'")}) {
    Peer const peer(scenario + " --tls good");
    job.ClearFiles();
    AddFile("large", std::string(8'000'000, 'x'));
    EXPECT_EQ(Post(), S_OK) << scenario;
    bool const isRefusal = scenario.ends_with(refusal);
    EXPECT_EQ(std::to_string(result.m_nHttpStatus) + reply, isRefusal ? "413too large" : "200ok") << scenario;
  }
}

TEST(UploadThread, ReportsAThreadThatCannotBeCreated) {
  UploadJob job;
  UploadResult result;
  Receiver receiver;
  PlatformTestHooks hooks;
  hooks.fault = [](FaultPoint call, DWORD *) { return call == FaultPoint::_beginthreadex; };
  SetPlatformTestHooks(&hooks);
  UploadThread2 thread(&job, &result, &receiver);
  EXPECT_FALSE(thread.Start());
  EXPECT_EQ(thread.m_uThreadId, 0U);
  EXPECT_EQ(thread.Wait(), 0xFFFFFFFF) << "without a handle";
  SetPlatformTestHooks(nullptr);
}

} // namespace
