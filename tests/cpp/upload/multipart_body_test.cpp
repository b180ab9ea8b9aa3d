// The parts of an upload's body.
#include "upload/MultipartBody.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

namespace {

TEST(MultipartBody, MakesADifferentBoundaryForEachRequest) {
  std::regex const form("-{27}[0-9A-F]{12}");
  std::string const first = MakeBoundary();
  EXPECT_TRUE(std::regex_match(first, form)) << first;
  EXPECT_NE(MakeBoundary(), first);
}

TEST(MultipartBody, CountsAFileThatCannotBeOpenedAsTheInvalidSize) {
  UploadFile const file = {L"n", L"/no/such/file", L"t"};
  DWORD dwFiles = 10;
  DWORD const dwHead = static_cast<DWORD>(MakeFileHead("b", file).size());
  EXPECT_EQ(FilePartLength("b", file, dwFiles), dwHead + 0xFFFFFFFF + 2);
  EXPECT_EQ(dwFiles, 9U);
}

} // namespace
