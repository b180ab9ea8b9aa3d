// The form of a preset: which files must exist, and how texts and files become the parts of an upload.
// Thread: the owner's, like the job that is filled. Knows nothing of Python.
#pragma once

#include "upload/UploadJob.h"

#include <span>

/// How a text goes out. A null text counts as empty.
enum class TextRule { Utf8, Utf8UnlessEmpty, Ansi };

/// One text field, borrowed: either bytes that go out as they are, or a text and its rule.
struct PresetField {
  PresetField(char const *szFieldName, char const *szFieldBytes) : szName(szFieldName), szBytes(szFieldBytes) {}
  PresetField(char const *szFieldName, WCHAR const *wszFieldText, TextRule textRule)
      : szName(szFieldName), wszText(wszFieldText ? wszFieldText : L""), rule(textRule) {}

  char const *szName;
  char const *szBytes = nullptr; ///< Null: the text counts.
  WCHAR const *wszText = nullptr;
  TextRule rule = TextRule::Utf8;
};

/// One file, borrowed, and the one or two form names under which it goes out.
struct PresetFile {
  WCHAR const *wszPath;
  WCHAR const *wszName;
  WCHAR const *wszSecondName = nullptr;
};

/// True if each path is not null and names something in the file system.
bool PresetFilesExist(std::span<PresetFile const> files);

/// Adds the fields (without the empty ones that their rule leaves out) and the file parts to the job, in order. May
/// throw std::bad_alloc.
void FillPresetForm(UploadJob &job, std::span<PresetField const> fields, std::span<PresetFile const> files);
