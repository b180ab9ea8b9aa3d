#include "upload/UploadJob.h"

#include "framework/CW2A.h"
#include "platform/http/WinInet.h"
#include "platform/text/CodePages.h"

#include <cstring>
#include <memory>
#include <new>

namespace {

// The components of a URL; each buffer holds 259 bytes and the terminator.
struct SplitUrl {
  char szScheme[_MAX_PATH] = {};
  char szHost[_MAX_PATH] = {};
  char szUser[_MAX_PATH] = {};
  char szPassword[_MAX_PATH] = {};
  char szPath[_MAX_PATH] = {};
  char szExtra[_MAX_PATH] = {};
  INTERNET_PORT nPort = 0;
};

bool Split(char const *url, SplitUrl &split) {
  URL_COMPONENTSA components = {};
  components.dwStructSize = sizeof components;
  components.lpszScheme = split.szScheme;
  components.lpszHostName = split.szHost;
  components.lpszUserName = split.szUser;
  components.lpszPassword = split.szPassword;
  components.lpszUrlPath = split.szPath;
  components.lpszExtraInfo = split.szExtra;
  components.dwSchemeLength = components.dwHostNameLength = components.dwUserNameLength = components.dwPasswordLength =
      components.dwUrlPathLength = components.dwExtraInfoLength = _MAX_PATH;
  if (!InternetCrackUrlA(url, 0, 0, &components))
    return false;
  split.nPort = components.nPort;
  return true;
}

} // namespace

void UploadJob::AddField(char const *name, char const *value) { m_mapFields[name] = value; }

void UploadJob::AddFile(WCHAR const *name, WCHAR const *path, WCHAR const *contentType) {
  m_vecFiles.push_back({name, path, contentType});
}

bool UploadJob::SetUrl(char const *url) {
  SplitUrl split;
  if (!HasNoControlCharacter(url) || !Split(url, split))
    return false;
  if (std::memcmp(split.szScheme, "https", sizeof "https") != 0 || split.nPort != INTERNET_DEFAULT_HTTPS_PORT)
    return false;
  // InternetCrackUrlA itself may accept a URL without a host.
  if (!split.szHost[0] || split.szUser[0] || split.szPassword[0] || split.szExtra[0])
    return false;
  std::string strUrl = std::string("https://") + split.szHost + split.szPath;
  std::string strHost = split.szHost;
  std::string strPath = split.szPath;
  m_strUrl.swap(strUrl);
  m_strHost.swap(strHost);
  m_strPath.swap(strPath);
  return true;
}

int WideToUtf8(WCHAR const *text, char **out) {
  int const size = text ? WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr) : 0;
  if (size == 0 || !out)
    return 0;
  std::unique_ptr<char[]> buffer(new (std::nothrow) char[static_cast<std::size_t>(size) + 1]);
  if (!buffer || WideCharToMultiByte(CP_UTF8, 0, text, -1, buffer.get(), size, nullptr, nullptr) == 0)
    return 0;
  *out = buffer.release();
  return 1;
}
