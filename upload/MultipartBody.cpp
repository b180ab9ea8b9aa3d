#include "upload/MultipartBody.h"

#include "framework/CW2A.h"
#include "platform/text/Text.h"

#include <cstdlib>

namespace {

constexpr char kDisposition[] = "Content-Disposition: form-data; name=\"";

std::string MakeDelimiter(std::string const &boundary) { return "--" + boundary + "\r\n"; }

DWORD Length(std::string const &text) { return static_cast<DWORD>(text.size()); }

} // namespace

KernelHandle OpenForReading(std::wstring const &path) {
  return KernelHandle(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
}

std::string MakeBoundary() {
  unsigned const first = static_cast<unsigned>(std::rand()) & 0xFFFF;
  unsigned const second = static_cast<unsigned>(std::rand()) & 0xFFFF;
  unsigned const third = static_cast<unsigned>(std::rand()) & 0xFFFF;
  char szDigits[_MAX_PATH] = {};
  _snprintf_s(szDigits, sizeof szDigits, _TRUNCATE, "%04X%04X%04X", first, second, third);
  return std::string(27, '-') + szDigits;
}

std::string MakeContentTypeHeader(std::string const &boundary) {
  return "Content-Type: multipart/form-data; boundary=" + boundary;
}

std::string MakeFieldHead(std::string const &boundary, std::string const &name) {
  return MakeDelimiter(boundary) + kDisposition + name + "\"\r\n\r\n";
}

std::string MakeFileHead(std::string const &boundary, UploadFile const &file) {
  return MakeDelimiter(boundary) + kDisposition + CW2A(file.m_strName.c_str()).m_psz + "\"; filename=\"" +
         CW2A(file.m_strPath.c_str(), CP_UTF8).m_psz +
         "\"\r\nContent-Type: " + CW2A(file.m_strContentType.c_str()).m_psz + "\r\n\r\n";
}

std::string MakeLineEnd() { return "\r\n"; }

std::string MakeClosing(std::string const &boundary) { return "--" + boundary + "--\r\n"; }

DWORD FieldPartLength(std::string const &boundary, std::string const &name, std::string const &value) {
  return Length(MakeFieldHead(boundary, name)) + Length(value) + Length(MakeLineEnd());
}

DWORD FilePartLength(std::string const &boundary, UploadFile const &file, DWORD &filesTotal) {
  DWORD const dwSize = GetFileSize(OpenForReading(file.m_strPath).get(), nullptr); // INVALID_FILE_SIZE without one
  filesTotal += dwSize;
  return Length(MakeFileHead(boundary, file)) + dwSize + Length(MakeLineEnd());
}

DWORD BodyLength(UploadJob const &job, std::string const &boundary, DWORD &filesTotal) {
  filesTotal = 0;
  DWORD dwTotal = 0;
  UploadFields fields;
  job.GetFields(fields);
  for (auto const &[name, value] : fields)
    dwTotal += FieldPartLength(boundary, name, value);
  UploadFiles files;
  job.GetFiles(files);
  for (UploadFile const &file : files)
    dwTotal += FilePartLength(boundary, file, filesTotal);
  return dwTotal + Length(MakeClosing(boundary));
}
