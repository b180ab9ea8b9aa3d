// The description of an upload: which addresses it accepts.
#include "upload/UploadJob.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(UploadJob, AcceptsOnlyPlainHttpsAddressesOnPort443) {
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
      {"https://h.example:4294967739/p", false, "", ""},
      {"https://[::1/p", false, "", ""},
      {"h.example/p", false, "", ""},
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
    EXPECT_FALSE(job.SetUrl("https://other.example:8443/q"));
    EXPECT_EQ(job.m_strHost, c.szHost) << "a refused address leaves the earlier one in place";
  }
}

} // namespace
