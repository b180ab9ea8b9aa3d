// The form of a preset as tables: which argument goes out as which text field or file part, and in which encoding.
// Knows nothing of Python.
#pragma once

#include "upload/UploadJob.h"

/// The wide arguments of one upload, borrowed, in the order in which the caller gives them. The 13 paths are not null;
/// a null text counts as empty.
struct PresetArguments {
  WCHAR const *szEffectFilePath;
  WCHAR const *szEffectCoverFilePathAfter;
  WCHAR const *szEffectCoverFilePathBefore;
  WCHAR const *szEffectThumbnailAfter;
  WCHAR const *szEffectThumbnailBefore;
  WCHAR const *szEffectCurveRGBImg;
  WCHAR const *szEffectCurveRImg;
  WCHAR const *szEffectCurveGImg;
  WCHAR const *szEffectCurveBImg;
  WCHAR const *szEffectLvRGBImg;
  WCHAR const *szEffectLvRImg;
  WCHAR const *szEffectLvGImg;
  WCHAR const *szEffectLvBImg;
  WCHAR const *szTemplateKey;
  WCHAR const *szTitle;
  WCHAR const *szCategory;
  WCHAR const *szTags;
  WCHAR const *szDescription;
  WCHAR const *szCollections;
  WCHAR const *szPIPtype;
};

/// Who publishes and with which product, in the bytes that go out. Borrowed.
struct PresetIdentity {
  char const *szLoginTokenID;
  char const *szUUID;
  char const *szProdVersion;
  char const *szVersionType;
};

/// True if each of the thirteen paths names something in the file system.
bool PresetFilesExist(PresetArguments const &arguments);

/// Adds the form's text fields (sixteen, without `tags` and `collections` where these are empty) and its fourteen file
/// parts to the job. May throw std::bad_alloc.
void FillPresetForm(UploadJob &job, PresetIdentity const &identity, PresetArguments const &arguments);
