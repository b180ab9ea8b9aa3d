// The form of a preset: which argument goes out under which name, and how it is encoded.
#include "publish/PresetForm.h"

#include <gtest/gtest.h>

namespace {

PresetArguments SampleArguments() {
  return {L"/0",  L"/1",  L"/2",  L"/3",  L"/4",
          L"/5",  L"/6",  L"/7",  L"/8",  L"/9",
          L"/10", L"/11", L"/12", L"key", L"ti\u00e4\"\r\n",
          L"ca",  L"ta",  L"de",  L"co",  L"pi"};
}

std::string Join(UploadFields const &fields) {
  std::string text;
  for (auto const &[name, value] : fields)
    text += name + "=" + value + ";";
  return text;
}

TEST(PresetForm, HoldsEveryFieldAndFourteenParts) {
  UploadJob job;
  FillPresetForm(job, {"tok", "uu", "10.5", "retail"}, SampleArguments());
  EXPECT_EQ(
      Join(job.m_mapFields),
      "AP=TWR;AspectRatio=1:1;PIPtype=pi;Version=10.5;category=ca;collections=co;description=de;"
      "productName=Quillon Tintwright;tags=ta;templateKey=key;templatetype=PRESET;title=ti\xC3\xA4\"\r\n;token=tok;"
      "uuid=uu;versionInfo=10.5;versionType=retail;");
  std::wstring parts;
  for (UploadFile const &file : job.m_vecFiles) {
    parts += file.m_strName + L"=" + file.m_strPath + L";";
    EXPECT_EQ(file.m_strContentType, L"application/octet-stream");
  }
  EXPECT_EQ(parts, L"PIPfile=/0;PIPimg=/1;PIPimg_1=/1;PIPimg_2=/2;PIPimg_3=/3;PIPimg_4=/4;PIPimg_5=/5;PIPimg_6=/6;"
                   L"PIPimg_7=/7;PIPimg_8=/8;PIPimg_9=/9;PIPimg_10=/10;PIPimg_11=/11;PIPimg_12=/12;");
}

TEST(PresetForm, LeavesOutOnlyEmptyTagsAndCollections) {
  for (WCHAR const *wszNothing : {static_cast<WCHAR const *>(nullptr), L""}) {
    PresetArguments arguments = SampleArguments();
    arguments.szTags = arguments.szCollections = arguments.szTitle = arguments.szTemplateKey = wszNothing;
    UploadJob job;
    FillPresetForm(job, {"", "", "", ""}, arguments);
    EXPECT_EQ(job.m_mapFields.count("tags") + job.m_mapFields.count("collections"), 0U);
    EXPECT_EQ(job.m_mapFields.size(), 14U);
    EXPECT_EQ(job.m_mapFields.at("title") + job.m_mapFields.at("templateKey"), "");
  }
}

} // namespace
