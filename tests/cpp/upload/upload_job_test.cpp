// The description of an upload: which addresses it takes, and the order of its parts.
#include "upload/UploadJob.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

TEST(UploadJob, TakesOnlyPlainHttpsAddressesOnPort443) {
  struct Case {
    std::string url;
    bool bTaken;
    char const *szHost;
    char const *szPath;
  };
  std::string const longest(259, 'h');
  Case const cases[] = {
      {"https://h.example/servlet/uploadTemplate", true, "h.example", "/servlet/uploadTemplate"},
      {"https://h.example:443/servlet/uploadTemplate", true, "h.example", "/servlet/uploadTemplate"},
      {"https://" + longest + "/p", true, longest.c_str(), "/p"},
      {"https://" + longest + "h/p", false, "", ""},
      {"https://h/" + std::string(259, 'p'), false, "", ""},
      {"https://h.example:8443/p", false, "", ""},
      {"https://h.example:443x/p", false, "", ""},
      {"http://h.example/p", false, "", ""},
      {"HTTPS://h.example/p", false, "", ""},
      {"https://h.example/p?a=b", false, "", ""},
      {"https://h.example/p#a", false, "", ""},
      {"https://user@h.example/p", false, "", ""},
      {"https://:secret@h.example/p", false, "", ""},
      {"https:///p", false, "", ""},
      {"https://h\r\nX: y/p", false, "", ""},
      {"", false, "", ""},
  };
  for (Case const &c : cases) {
    UploadJob job;
    EXPECT_EQ(job.SetUrl(c.url.c_str()), c.bTaken) << c.url;
    EXPECT_EQ(job.m_strHost, c.szHost) << c.url;
    EXPECT_EQ(job.m_strPath, c.szPath) << c.url;
    EXPECT_EQ(job.m_strUrl, c.bTaken ? std::string("https://") + c.szHost + c.szPath : "") << c.url;
  }
}

TEST(UploadJob, ARefusedAddressLeavesTheEarlierOne) {
  UploadJob job;
  ASSERT_TRUE(job.SetUrl("https://h.example/p"));
  EXPECT_FALSE(job.SetUrl("https://other.example:8443/q"));
  EXPECT_EQ(job.m_strUrl, "https://h.example/p");
}

TEST(UploadJob, HoldsFieldsByNameAndFilesInCallOrder) {
  UploadJob job;
  for (char const *name : {"title", "AP", "versionType", "templatetype", "category", "versionInfo", "templateKey"})
    job.AddField(name, "first");
  job.AddField("title", "second");
  job.AddField("\xE4", "");
  job.AddFile(L"b", L"/b", L"t");
  job.AddFile(L"a", L"/a", L"t");
  job.AddFile(L"b", L"/c", L"t");

  UploadFields fields = {{"stale", "x"}};
  job.GetFields(fields);
  std::string names;
  for (auto const &[name, value] : fields)
    names += name + (value.empty() ? "=; " : "=" + value + "; ");
  EXPECT_EQ(names, "AP=first; category=first; templateKey=first; templatetype=first; title=second; "
                   "versionInfo=first; versionType=first; \xE4=; ");
  UploadFiles files(1);
  job.GetFiles(files);
  ASSERT_EQ(files.size(), 3U);
  EXPECT_EQ(files[0].m_strPath + files[1].m_strPath + files[2].m_strPath, L"/b/a/c");
}

TEST(WideToUtf8, ConvertsWhateverAStrMayHold) {
  char *szUtf8 = nullptr;
  ASSERT_EQ(WideToUtf8(L"a\u00e4\U0001F600\xD800z", &szUtf8), 1);
  std::unique_ptr<char[]> const owner(szUtf8);
  EXPECT_STREQ(szUtf8, "a\xC3\xA4\xF0\x9F\x98\x80\xEF\xBF\xBDz");
  EXPECT_EQ(WideToUtf8(nullptr, &szUtf8), 0);
  EXPECT_EQ(WideToUtf8(L"a", nullptr), 0);
}

} // namespace
