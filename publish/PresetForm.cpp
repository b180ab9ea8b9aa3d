#include "publish/PresetForm.h"

#include "framework/CW2A.h"
#include "platform/system/Files.h"

#include <algorithm>
#include <memory>
#include <new>

namespace {

constexpr WCHAR kContentType[] = L"application/octet-stream";

void AddUtf8Field(UploadJob &job, char const *szName, WCHAR const *wszText) {
  char *szUtf8 = nullptr;
  if (!WideToUtf8(wszText, &szUtf8))
    throw std::bad_alloc();
  std::unique_ptr<char[]> const owner(szUtf8);
  job.AddField(szName, szUtf8);
}

void AddField(UploadJob &job, PresetField const &field) {
  if (field.szBytes)
    job.AddField(field.szName, field.szBytes);
  else if (field.rule == TextRule::Ansi)
    job.AddField(field.szName, CW2A(field.wszText, CP_ACP));
  else if (field.wszText[0] || field.rule != TextRule::Utf8UnlessEmpty)
    AddUtf8Field(job, field.szName, field.wszText);
}

} // namespace

bool PresetFilesExist(std::span<PresetFile const> files) {
  return std::all_of(files.begin(), files.end(), [](PresetFile const &file) { return PathFileExistsW(file.wszPath); });
}

void FillPresetForm(UploadJob &job, std::span<PresetField const> fields, std::span<PresetFile const> files) {
  for (PresetField const &field : fields)
    AddField(job, field);
  for (PresetFile const &file : files) {
    job.AddFile(file.wszName, file.wszPath, kContentType);
    if (file.wszSecondName)
      job.AddFile(file.wszSecondName, file.wszPath, kContentType);
  }
}
