// What an upload is made of: the addresses that it accepts, the parts of its body, the arithmetic of its reports.
#include "upload/MultipartBody.h"
#include "upload/ProgressMeter.h"

#include <gtest/gtest.h>

TEST(UploadJob, AcceptsOnlyPlainHttpsAddressesOnPort443) {
  std::string const longest(259, 'h');
  UploadJob job;
  for (std::string const &host : {std::string("h.example"), longest})
    for (std::string const port : {"", ":443"}) {
      EXPECT_TRUE(job.SetUrl(("https://" + host + port + "/servlet/p").c_str())) << host << port;
      EXPECT_EQ(job.m_strHost + job.m_strPath + job.m_strUrl, host + "/servlet/phttps://" + host + "/servlet/p");
    }
  std::string const host = "https://" + longest + "h/p", path = "https://h/" + longest;
  for (char const *url : {host.c_str(), path.c_str(), "https://h:8443/p", "", "https://h:4294967739/p",
                          "https://[::1/p", "h/p", "http://h/p", "HTTPS://h/p", "https://h/p?a=b", "https://h/p#a",
                          "https://user@h/p", "https://:secret@h/p", "https:///p", "https://h\r\nX: y/p"}) {
    EXPECT_FALSE(job.SetUrl(url)) << url;
    EXPECT_EQ(job.m_strHost + job.m_strPath, longest + "/servlet/p") << "the earlier address stays: " << url;
  }
}

TEST(MultipartBody, HasABoundaryOfItsOwnAndCountsAFileThatDoesNotOpenAsTheInvalidSize) {
  EXPECT_NE(MakeBoundary(), MakeBoundary());
  UploadFile const file = {L"n", L"/no/such/file", L"t"};
  DWORD dwFiles = 10;
  EXPECT_EQ(FilePartLength("b", file, dwFiles), MakeFileHead("b", file).size() + 1); // -1 and the line end
  EXPECT_EQ(dwFiles, 9U);
}

/// The report that is due at that time, with so many bytes more; all zeros for none.
static ProgressReport Due(ProgressMeter &meter, DWORD dwMilliseconds, DWORD dwSent = 0) {
  ProgressReport report = {};
  meter.AddSent(dwSent);
  return meter.Periodic(dwMilliseconds, report) ? report : ProgressReport{};
}

TEST(ProgressMeter, ReportsTwoFilesAtTheInitialRate) {
  DWORD dwAllSent = 0;
  ProgressMeter first(5600, 10'250, 56'000, 112'000, dwAllSent);
  EXPECT_EQ(first.First(), (ProgressReport{0, 56'000, 10, 0, 112'000, 20, 5600}));
  EXPECT_EQ(Due(first, 10'499, 28'000), ProgressReport{}) << "the tick has not changed";
  EXPECT_EQ(Due(first, 11'000), (ProgressReport{28'000, 56'000, 2, 28'000, 112'000, 6, 14'000})) << "two ticks";
  EXPECT_EQ(Due(first, 11'499), ProgressReport{}) << "only one report a tick";
  EXPECT_EQ(Due(first, 15'000, 28'000), (ProgressReport{56'000, 56'000, 0, 56'000, 112'000, 10, 5600})) << "ten ticks";
  EXPECT_EQ(first.Last(), (ProgressReport{56'000, 56'000, 0, 56'000, 112'000, 10, 5600}));
  ProgressMeter second(first.Rate(), 15'000, 56'000, 112'000, dwAllSent);
  EXPECT_EQ(second.First(), (ProgressReport{0, 56'000, 10, 56'000, 112'000, 20, 5600})) << "of the whole total";
  EXPECT_EQ(Due(second, 16'000, 11'200), (ProgressReport{11'200, 56'000, 8, 67'200, 112'000, 8, 5600}));
}

TEST(ProgressMeter, MeetsShrunkFilesAZeroRateAndAClockThatWraps) {
  DWORD dwAllSent[3] = {};
  ProgressMeter shrunk(5600, 0, 11'200, 11'200, dwAllSent[0]), slow(0, 0, 100, 100, dwAllSent[1]);
  shrunk.First();
  shrunk.AddSent(5'000);
  EXPECT_EQ(shrunk.Last(), (ProgressReport{11'200, 11'200, 2, 5'000, 11'200, 2, 5600})) << "the latest times again";
  EXPECT_EQ(slow.First(), (ProgressReport{0, 100, 100, 0, 100, 100, 0})) << "divides by 1";
  EXPECT_EQ(Due(slow, 5'000, 3), (ProgressReport{3, 100, 97, 3, 100, 97, 0}));
  ProgressMeter wrapped(5600, 0xFFFFFFFF, 100, 100, dwAllSent[2]);
  EXPECT_TRUE(Due(wrapped, 0).dwFileTotal == 100 && Due(wrapped, 0xFFFFFFFF).dwFileTotal == 100) << "the start's tick";
}
