// The description of an upload: which addresses it accepts.
#include "upload/UploadJob.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(UploadJob, AcceptsOnlyPlainHttpsAddressesOnPort443) {
  std::string const longest(259, 'h');
  UploadJob job;
  for (std::string const &host : {std::string("h.example"), longest})
    for (std::string const port : {"", ":443"}) {
      EXPECT_TRUE(job.SetUrl(("https://" + host + port + "/servlet/p").c_str())) << host << port;
      EXPECT_EQ(job.m_strHost + job.m_strPath + job.m_strUrl, host + "/servlet/phttps://" + host + "/servlet/p");
    }
  for (std::string const &refused :
       {"https://" + longest + "h/p", "https://h/" + longest, std::string("https://h.example:8443/p"),
        std::string("https://h.example:4294967739/p"), std::string("https://[::1/p"), std::string("h.example/p"),
        std::string("http://h.example/p"), std::string("HTTPS://h.example/p"), std::string("https://h.example/p?a=b"),
        std::string("https://h.example/p#a"), std::string("https://user@h.example/p"),
        std::string("https://:secret@h.example/p"), std::string("https:///p"), std::string("https://h\r\nX: y/p"),
        std::string()}) {
    EXPECT_FALSE(job.SetUrl(refused.c_str())) << refused;
    EXPECT_EQ(job.m_strHost + job.m_strPath, longest + "/servlet/p") << "the earlier address stays: " << refused;
  }
}

} // namespace
