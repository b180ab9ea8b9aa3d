// A whole transfer against a scripted peer: the bytes on the wire, the chunks, and how it ends when a call fails.
#include "framework/ComTypes.h"
#include "tests/cpp/platform/TestHooks.h"
#include "tests/cpp/platform/http/http_peer.h"
#include "tests/cpp/upload/receiver.h"
#include "upload/UploadThread2.h"

static constexpr HRESULT HResult(DWORD dwError) { return static_cast<HRESULT>(0x80070000U | dwError); }

struct UploaderTest : ::testing::Test {
  UploaderTest() { job.SetUrl("https://good.test/servlet/uploadTemplate"); }

  void AddFile(std::string const &name, std::string const &contents) {
    std::string const path = Folder() + "/" + name;
    std::ofstream(path, std::ios::binary) << contents;
    job.AddFile(L"f", CComBSTR(path.c_str()), L"t");
  }
  // Gathers what the receiver sees of the files, and status and reply in `answer`.
  HRESULT Post() {
    receiver.files.clear();
    SessionHandle session;
    Uploader uploader(&receiver, &job, &result, session);
    ScopedTestHooks const hooks(m_hooks);
    HRESULT const hr = uploader.Post();
    EXPECT_EQ(result.m_hr, hr);
    answer = std::to_string(result.m_nHttpStatus) + uploader.m_strReply;
    return hr;
  }

  UploadJob job;
  UploadResult result;
  Receiver receiver;
  std::string answer;
  PlatformTestHooks m_hooks{nullptr, [this](DWORD ms) { m_dwSlept += ms; }, nullptr};
  DWORD m_dwSlept = 0;
};

TEST_F(UploaderTest, SendsTheDeclaredBytesAndReadsTheReply) {
  Peer const peer("pieces --tls good --status 500 --body '<a/>'");
  job.AddField("title", "abc");
  job.AddField("empty", "");
  AddFile("\xC3\xA4\"", "abcd");
  AddFile("none", "");
  EXPECT_EQ(Post(), S_OK);
  EXPECT_EQ(answer, "500<a/>");
  EXPECT_EQ(receiver.files, "begin 0/4 4/4 done begin 0/0 0/0 done ");
  EXPECT_EQ(m_dwSlept, 50U) << "one chunk";
  std::string const sent = peer.Received();
  std::string const boundary = sent.substr(sent.find("boundary=") + 9, 39);
  EXPECT_EQ(boundary.find_last_not_of("0123456789ABCDEF"), 26U) << boundary;
  std::string const part = "--" + boundary + "\r\nContent-Disposition: form-data; name=\"";
  std::string const file = part + "f\"; filename=\"" + Folder();
  std::string const body = part + "empty\"\r\n\r\n\r\n" + part + "title\"\r\n\r\nabc\r\n" + file +
                           "/\xC3\xA4\"\"\r\nContent-Type: t\r\n\r\nabcd\r\n" + file +
                           "/none\"\r\nContent-Type: t\r\n\r\n\r\n--" + boundary + "--\r\n";
  std::string head = "POST /servlet/uploadTemplate HTTP/1.1\r\nHost: good.test\r\nContent-Type: multipart/form-data; ";
  head += "boundary=" + boundary + "\r\nUser-Agent: WinInetPost/0.0.4\r\nCache-Control: no-cache\r\nContent-Length: ";
  EXPECT_EQ(sent, head + std::to_string(body.size()) + "\r\n\r\n" + body);
  EXPECT_TRUE(receiver.calls.starts_with(L"resolving good.test; resolved 127.0.0.1; connecting 127.0.0.1; connected "
                                         L"127.0.0.1; sending; sent " +
                                         std::to_wstring(sent.size() - body.size()) + L"; sending; sent "));
  EXPECT_TRUE(receiver.calls.ends_with(L"receiving; received 44; closing; closed; ")) << "44 bytes of reply headers";
}

TEST_F(UploaderTest, AdaptsTheChunkSizeToTheDurationOfTheLastWrite) {
  Peer const peer("reply --tls good");
  // The duration of each chunk's write in ms and its size in units of 32 KiB; the first write is the file's head.
  std::vector<std::pair<DWORD, DWORD>> const chunks = {
      {0, 1}, {499, 2}, {500, 4}, {1250, 4}, {1251, 4}, {1251, 2}, {9000, 1}, {1251, 1}, {0, 1},   {0, 2},
      {0, 4}, {0, 8},   {0, 16},  {0, 32},   {0, 64},   {0, 128},  {0, 256},  {0, 512},  {0, 512}, {0, 512}};
  std::size_t nWrite = 0;
  std::uint64_t now = 1000;
  m_hooks.now = [&now] { return now; };
  m_hooks.fault = [&](FaultPoint call, DWORD *) {
    if (call == FaultPoint::InternetWriteFile && nWrite++ > 0 && nWrite - 2 < chunks.size())
      now += chunks[nWrite - 2].first;
    return false;
  };
  std::vector<DWORD> expected;
  DWORD dwTotal = 0;
  for (auto const &[ms, units] : chunks)
    dwTotal += expected.emplace_back(units * 0x8000);
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
  std::string const failed = "begin 0/4 failed ", one = "begin 0/4 4/4 done ", both = one + one;
  // The call, which of its kind, and what the receiver sees of the two files. Writes: field head, value and line end;
  // then head, contents and line end of each file; the closing line. Two files are opened to learn their sizes.
  std::tuple<FaultPoint, int, std::string> const rows[] = {
      {InternetOpenW, 1, ""},          {InternetConnectA, 1, ""},     {HttpOpenRequestA, 1, ""},
      {HttpAddRequestHeadersA, 1, ""}, {HttpSendRequestExW, 1, ""},   {InternetWriteFile, 1, ""},
      {InternetWriteFile, 4, ""},      {CreateFileW, 3, ""},          {ReadFile, 1, failed},
      {InternetWriteFile, 5, failed},  {ReadFile, 2, failed},         {InternetWriteFile, 6, one},
      {CreateFileW, 4, one},           {InternetWriteFile, 10, both}, {HttpEndRequestW, 1, both}};
  Peer const peer("reply --tls good --body ok");
  job.AddField("a", "b");
  AddFile("one", "abcd");
  AddFile("two", "abcd");
  for (auto const &row : rows) {
    m_hooks.fault = [&row, n = std::get<int>(row)](FaultPoint call, DWORD *pdwError) mutable {
      return *pdwError = 1450, call == std::get<FaultPoint>(row) && --n == 0;
    };
    EXPECT_EQ(Post(), HResult(1450));
    EXPECT_EQ(receiver.files + answer, std::get<std::string>(row) + "-1") << std::get<int>(row);
  }
  for (FaultPoint const failing : {HttpQueryInfoW, InternetQueryDataAvailable, InternetReadFile}) {
    m_hooks.fault = [failing](FaultPoint call, DWORD *) { return call == failing; };
    EXPECT_EQ(Post(), S_OK);
    EXPECT_EQ(answer, failing == HttpQueryInfoW ? "-1ok" : "200");
  }
  m_hooks.fault = nullptr;
  for (int nQuery = 0; nQuery < 3; ++nQuery) { // the query that asks to stop
    receiver.nQueriesBeforeStop = nQuery;
    EXPECT_EQ(Post(), UPLOAD_E_CANCELLED);
    EXPECT_EQ(receiver.files, nQuery < 2 ? failed : one + failed) << nQuery;
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
  ScopedTestHooks const hooks({.fault = [](FaultPoint call, DWORD *) { return call == FaultPoint::_beginthreadex; }});
  UploadThread2 none(&job, &result, &receiver);
  EXPECT_FALSE(none.Start() || none.m_uThreadId != 0);
  EXPECT_EQ(none.Wait(), 0xFFFFFFFF) << "without a handle";
}
