// The exact bytes of the heads in an upload's body, and the length of a file that can't be read.
#include "upload/MultipartBody.h"

#include <gtest/gtest.h>

#include <regex>

namespace {

std::string const kBoundary = "---------------------------00410FA27B3C";

TEST(MultipartBody, MakesTheHeadsByteForByte) {
  EXPECT_EQ(MakeFieldHead(kBoundary, "title"), "-----------------------------00410FA27B3C\r\n"
                                               "Content-Disposition: form-data; name=\"title\"\r\n\r\n");
  UploadFile const file = {L"PIPfile", L"D:\\p\\\u00e4\".bin", L"application/octet-stream"};
  EXPECT_EQ(MakeFileHead(kBoundary, file),
            "-----------------------------00410FA27B3C\r\n"
            "Content-Disposition: form-data; name=\"PIPfile\"; filename=\"D:\\p\\\xC3\xA4\".bin\"\r\n"
            "Content-Type: application/octet-stream\r\n\r\n");
  EXPECT_EQ(MakeClosing(kBoundary), "-----------------------------00410FA27B3C--\r\n");
  EXPECT_EQ(MakeContentTypeHeader(kBoundary), "Content-Type: multipart/form-data; boundary=" + kBoundary);
}

TEST(MultipartBody, MakesABoundaryOfItsOwnForEachRequest) {
  std::regex const form("-{27}[0-9A-F]{12}");
  std::string const first = MakeBoundary();
  EXPECT_TRUE(std::regex_match(first, form)) << first;
  EXPECT_NE(MakeBoundary(), first);
}

TEST(MultipartBody, CountsAFileThatCantBeOpenedAsTheInvalidSize) {
  UploadFile const file = {L"n", L"/no/such/file", L"t"};
  DWORD dwFiles = 10;
  DWORD const dwHead = static_cast<DWORD>(MakeFileHead(kBoundary, file).size());
  EXPECT_EQ(FilePartLength(kBoundary, file, dwFiles), dwHead + 0xFFFFFFFF + 2);
  EXPECT_EQ(dwFiles, 9U);
}

} // namespace
