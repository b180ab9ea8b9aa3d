// The description of one multipart POST: where it goes, its text fields and its files. Does no input or output of its
// own. Filled on the owner thread before an upload starts and left alone by it while the upload thread runs, which
// reads the job and writes m_dwRate.
#pragma once

#include "platform/base/Types.h"

#include <map>
#include <string>
#include <vector>

struct UploadFile {
  std::wstring m_strName;        ///< Name of the form field.
  std::wstring m_strPath;        ///< Whole path of the local file.
  std::wstring m_strContentType; ///< Value of the part's Content-Type line.
};

/// Text fields in the order in which they go out: by name, compared as unsigned bytes, the shorter first on a tie.
using UploadFields = std::map<std::string, std::string>;
using UploadFiles = std::vector<UploadFile>;

class UploadJob {
public:
  /// Sets a field, replacing an earlier value of that name.
  void AddField(char const *name, char const *value);
  /// Appends a file part; repeats are allowed. The file is not touched here.
  void AddFile(WCHAR const *name, WCHAR const *path, WCHAR const *contentType);
  void ClearFields() { m_mapFields.clear(); }
  void ClearFiles() { m_vecFiles.clear(); }
  /// Takes an https URL without user, password, query or a port other than 443, each component at most 259 bytes.
  /// Returns: false for any other, and the job keeps the URL that it had.
  bool SetUrl(char const *url);
  void GetFields(UploadFields &fields) const { fields = m_mapFields; }
  void GetFiles(UploadFiles &files) const { files = m_vecFiles; }

  std::string m_strUrl; ///< "https://" + host + path; empty until a SetUrl succeeded.
  std::string m_strHost;
  std::string m_strPath; ///< The path on the host.
  UploadFiles m_vecFiles;
  UploadFields m_mapFields;
  DWORD m_dwRate = 5600; ///< Bytes per tick of 500 ms, as the last file that was sent whole left it.
};

/// A new zero-terminated UTF-8 copy of the text in `*out`, which the caller releases with delete[].
/// Returns: 1; 0 for a null text, a null `out` or short memory, with `*out` as it was.
int WideToUtf8(WCHAR const *text, char **out);
