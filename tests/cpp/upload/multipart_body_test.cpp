// The exact bytes of the upload's body, and the declared length against the bytes that are built.
#include "upload/MultipartBody.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>

namespace {

std::string const kBoundary = "---------------------------00410FA27B3C";

// A file with the given contents, removed at the end of the test.
class TempFile {
public:
  TempFile(std::string const &name, std::string const &contents)
      : m_path(std::filesystem::temp_directory_path() /
               (name + std::to_string(::testing::UnitTest::GetInstance()->random_seed()))) {
    std::ofstream(m_path, std::ios::binary) << contents;
  }
  ~TempFile() { std::filesystem::remove(m_path); }
  std::wstring Path() const { return m_path.wstring(); }

private:
  std::filesystem::path m_path;
};

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

TEST(MultipartBody, DeclaresTheLengthOfWhatIsSent) {
  TempFile const four("four", "abcd");
  TempFile const empty("empty", "");
  UploadJob job;
  DWORD dwFiles = 1;
  job.AddField("title", "abc");
  job.AddField("empty", "");
  job.AddFile(L"PIPfile", four.Path().c_str(), L"application/octet-stream");
  job.AddFile(L"PIPimg", empty.Path().c_str(), L"t");
  std::string sent;
  for (auto const &[name, value] : job.m_mapFields)
    sent += MakeFieldHead(kBoundary, name) + value + MakeLineEnd();
  sent += MakeFileHead(kBoundary, job.m_vecFiles[0]) + "abcd" + MakeLineEnd();
  sent += MakeFileHead(kBoundary, job.m_vecFiles[1]) + MakeLineEnd() + MakeClosing(kBoundary);
  EXPECT_EQ(BodyLength(job, kBoundary, dwFiles), sent.size());
  EXPECT_EQ(dwFiles, 4U);

  UploadFile const missing = {L"n", L"/no/such/file", L"t"}; // counts as the invalid size
  DWORD const dwHead = static_cast<DWORD>(MakeFileHead(kBoundary, missing).size());
  EXPECT_EQ(FilePartLength(kBoundary, missing, dwFiles), dwHead + 0xFFFFFFFF + 2);
  EXPECT_EQ(dwFiles, 3U);
}

} // namespace
