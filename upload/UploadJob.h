// The description of one multipart POST: its address, text fields and files. Does no I/O.
// Thread: the owner thread fills it before an upload starts and must not touch it while the upload thread runs, which
// reads it and writes m_dwRate. It copies what it is given, and adding or copying may throw std::bad_alloc.
#pragma once

#include "platform/base/Types.h"

#include <map>
#include <string>
#include <vector>

struct UploadFile {
  std::wstring m_strName;        ///< Name of the form field.
  std::wstring m_strPath;        ///< Full path of the local file.
  std::wstring m_strContentType; ///< Value of the part's Content-Type line.
};

/// Text fields in the order in which they are sent: by name, as unsigned bytes, a prefix before the longer name.
using UploadFields = std::map<std::string, std::string>;
using UploadFiles = std::vector<UploadFile>;

class UploadJob {
public:
  /// Sets a field, replacing any earlier value under that name.
  void AddField(char const *name, char const *value);
  /// Appends a file part; a name may repeat. Does not open the file.
  void AddFile(WCHAR const *name, WCHAR const *path, WCHAR const *contentType);
  void ClearFields() { m_mapFields.clear(); }
  void ClearFiles() { m_vecFiles.clear(); }
  /// Accepts an https URL with no user, password or query, with no port or 443, no control character, and at most 259
  /// bytes a component. Returns: false for any other, and the job keeps its earlier URL.
  bool SetUrl(char const *url);
  /// These two replace the contents of their output with a copy.
  void GetFields(UploadFields &fields) const { fields = m_mapFields; }
  void GetFiles(UploadFiles &files) const { files = m_vecFiles; }

  std::string m_strUrl; ///< "https://" + host + path; empty until a SetUrl succeeds.
  std::string m_strHost;
  std::string m_strPath; ///< The path on the host.
  UploadFiles m_vecFiles;
  UploadFields m_mapFields;
  DWORD m_dwRate = 5600; ///< Bytes per tick of 500 ms, as measured for the last file that was sent completely.
};

/// Stores a new zero-terminated UTF-8 copy of the text in `*out`; the caller releases it with delete[]. Thread: any.
/// Returns: 1; or 0 with `*out` unchanged for a null text, a null `out` or when out of memory.
int WideToUtf8(WCHAR const *text, char **out);
