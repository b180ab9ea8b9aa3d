// See PresetForm.h.
#include "publish/PresetForm.h"

#include "framework/CW2A.h"
#include "platform/system/Files.h"

#include <memory>
#include <new>
#include <utility>

namespace {

using Argument = WCHAR const *PresetArguments::*;
using Identity = char const *PresetIdentity::*;

enum class Encoding { Utf8, Ansi };

/// A field takes its value from one of three places: an argument, the identity, or a constant.
struct FieldRow {
  char const *szName;
  Argument argument;
  Encoding encoding; ///< Of the argument.
  bool bOnlyIfNotEmpty;
  Identity identity;
  char const *szConstant;
};

constexpr FieldRow FromArgument(char const *szName, Argument argument, Encoding encoding,
                                bool bOnlyIfNotEmpty = false) {
  return {szName, argument, encoding, bOnlyIfNotEmpty, nullptr, nullptr};
}
constexpr FieldRow FromIdentity(char const *szName, Identity identity) {
  return {szName, nullptr, Encoding::Ansi, false, identity, nullptr};
}
constexpr FieldRow Constant(char const *szName, char const *szValue) {
  return {szName, nullptr, Encoding::Ansi, false, nullptr, szValue};
}

constexpr FieldRow kFields[] = {
    FromIdentity("token", &PresetIdentity::szLoginTokenID),
    FromArgument("collections", &PresetArguments::szCollections, Encoding::Utf8, true),
    FromArgument("title", &PresetArguments::szTitle, Encoding::Utf8),
    FromArgument("tags", &PresetArguments::szTags, Encoding::Utf8, true),
    FromArgument("description", &PresetArguments::szDescription, Encoding::Utf8),
    FromArgument("category", &PresetArguments::szCategory, Encoding::Utf8),
    FromArgument("PIPtype", &PresetArguments::szPIPtype, Encoding::Utf8),
    Constant("templatetype", "PRESET"),
    FromArgument("templateKey", &PresetArguments::szTemplateKey, Encoding::Ansi),
    Constant("productName", "Quillon Tintwright"),
    FromIdentity("versionInfo", &PresetIdentity::szProdVersion),
    Constant("AP", "TWR"),
    FromIdentity("Version", &PresetIdentity::szProdVersion),
    Constant("AspectRatio", "1:1"),
    FromIdentity("versionType", &PresetIdentity::szVersionType),
    FromIdentity("uuid", &PresetIdentity::szUUID),
};

struct FileRow {
  WCHAR const *wszName;
  Argument path;
};

constexpr FileRow kFiles[] = {
    {L"PIPfile", &PresetArguments::szEffectFilePath},
    {L"PIPimg", &PresetArguments::szEffectCoverFilePathAfter},
    {L"PIPimg_1", &PresetArguments::szEffectCoverFilePathAfter},
    {L"PIPimg_2", &PresetArguments::szEffectCoverFilePathBefore},
    {L"PIPimg_3", &PresetArguments::szEffectThumbnailAfter},
    {L"PIPimg_4", &PresetArguments::szEffectThumbnailBefore},
    {L"PIPimg_5", &PresetArguments::szEffectCurveRGBImg},
    {L"PIPimg_6", &PresetArguments::szEffectCurveRImg},
    {L"PIPimg_7", &PresetArguments::szEffectCurveGImg},
    {L"PIPimg_8", &PresetArguments::szEffectCurveBImg},
    {L"PIPimg_9", &PresetArguments::szEffectLvRGBImg},
    {L"PIPimg_10", &PresetArguments::szEffectLvRImg},
    {L"PIPimg_11", &PresetArguments::szEffectLvGImg},
    {L"PIPimg_12", &PresetArguments::szEffectLvBImg},
};

// The user's text, in UTF-8 through WideToUtf8; null and empty give an empty value.
void AddArgument(UploadJob &job, FieldRow const &row, WCHAR const *wszValue) {
  if (row.encoding == Encoding::Ansi) {
    job.AddField(row.szName, CW2A(wszValue, CP_ACP));
    return;
  }
  char *szUtf8 = nullptr;
  if (!WideToUtf8(wszValue, &szUtf8))
    throw std::bad_alloc();
  std::unique_ptr<char[]> const owner(szUtf8);
  job.AddField(row.szName, szUtf8);
}

void AddField(UploadJob &job, FieldRow const &row, PresetIdentity const &identity, PresetArguments const &arguments) {
  if (row.szConstant)
    return job.AddField(row.szName, row.szConstant);
  if (row.identity)
    return job.AddField(row.szName, identity.*row.identity);
  WCHAR const *const wszValue = arguments.*row.argument ? arguments.*row.argument : L"";
  if (*wszValue || !row.bOnlyIfNotEmpty)
    AddArgument(job, row, wszValue);
}

} // namespace

bool PresetFilesExist(PresetArguments const &arguments) {
  Argument asked = nullptr; // the rows of one path stand side by side, and it is asked for once
  for (FileRow const &row : kFiles)
    if (row.path != std::exchange(asked, row.path) && !PathFileExistsW(arguments.*row.path))
      return false;
  return true;
}

void FillPresetForm(UploadJob &job, PresetIdentity const &identity, PresetArguments const &arguments) {
  for (FieldRow const &row : kFields)
    AddField(job, row, identity, arguments);
  for (FileRow const &row : kFiles)
    job.AddFile(row.wszName, arguments.*row.path, L"application/octet-stream");
}
