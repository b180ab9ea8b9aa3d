// Holds the sentences of GetErrorMessage, in which a blocking request reports its error number; the host's helpers put
// those of a login into words of their own.
#include "framework/InternetSession.h"

#include "platform/base/LastError.h"
#include "platform/text/Text.h"

#include <algorithm>
#include <string>
#include <vector>

namespace {

struct Sentence {
  DWORD error;
  WCHAR const *text;
};
/// At most 79 characters each.
constexpr Sentence kSentences[] = {
    {ERROR_NOT_ENOUGH_MEMORY, L"There is not enough memory for the request."},
    {ERROR_INTERNET_TIMEOUT, L"The server did not answer in time."},
    {ERROR_INTERNET_INVALID_URL, L"The address of the server or of the page is not valid."},
    {ERROR_INTERNET_NAME_NOT_RESOLVED, L"The server's name could not be found."},
    {ERROR_INTERNET_INCORRECT_HANDLE_STATE, L"The request is not in the right state for this operation."},
    {ERROR_INTERNET_CANNOT_CONNECT, L"The server could not be reached, or refused the connection."},
    {ERROR_INTERNET_CONNECTION_ABORTED, L"The connection with the server was lost."},
    {ERROR_INTERNET_CONNECTION_RESET, L"The server reset the connection."},
    {ERROR_INTERNET_SEC_CERT_DATE_INVALID, L"The server's certificate has expired or is not valid yet."},
    {ERROR_INTERNET_SEC_CERT_CN_INVALID, L"The server's certificate was issued for another name."},
    {ERROR_INTERNET_INVALID_CA, L"The issuer is not trusted, or SSL_CERT_FILE names no readable certificates."},
    {ERROR_INTERNET_SEC_CERT_REV_FAILED, L"It could not be checked whether the server's certificate was revoked."},
    {ERROR_INTERNET_SEC_CERT_REVOKED, L"The server's certificate was revoked."},
    {ERROR_HTTP_INVALID_SERVER_RESPONSE, L"The server's reply is not valid HTTP, or too long."},
    {ERROR_INTERNET_SECURITY_CHANNEL_ERROR, L"A secure connection with the server could not be set up."},
    {ERROR_INTERNET_DECODING_FAILED, L"The server's reply could not be decoded."},
};

constexpr WCHAR const *kVerbs[] = {L"POST", L"GET"};

[[noreturn]] void ThrowLastError() { throw new CInternetException(GetLastError()); }

} // namespace

AFX_MODULE_STATE *AfxGetModuleState() {
  static AFX_MODULE_STATE state{nullptr};
  return &state;
}

BOOL CInternetException::GetErrorMessage(WCHAR *wszText, UINT cchText) const {
  if (!wszText || cchText == 0)
    return FALSE;
  auto const it = std::find_if(std::begin(kSentences), std::end(kSentences),
                               [this](Sentence const &row) { return row.error == m_dwError; });
  if (it != std::end(kSentences))
    _snwprintf_s(wszText, cchText, _TRUNCATE, L"%s", it->text);
  else
    _snwprintf_s(wszText, cchText, _TRUNCATE, L"The request failed with error number %u.", m_dwError);
  return TRUE;
}

BOOL CInternetFile::SetOption(DWORD dwOption, void *pValue, DWORD dwLength, DWORD /*dwFlags*/) {
  return InternetSetOptionW(m_hFile.get(), dwOption, pValue, dwLength);
}

std::uint64_t CInternetFile::GetLength() const {
  DWORD dwAvailable = 0;
  return InternetQueryDataAvailable(m_hFile.get(), &dwAvailable, 0, 0) ? dwAvailable : 0;
}

UINT CInternetFile::Read(void *pBuffer, UINT nCount) {
  DWORD dwRead = 0;
  if (!InternetReadFile(m_hFile.get(), pBuffer, nCount, &dwRead))
    ThrowLastError();
  return dwRead;
}

BOOL CHttpFile::SendRequest(WCHAR const *wszHeaders, DWORD dwHeadersLength, void const *pBody, DWORD dwBodyLength) {
  // Only read, although Windows's declaration does not say so.
  BOOL const bSent =
      HttpSendRequestW(m_hFile.get(), wszHeaders, dwHeadersLength, const_cast<void *>(pBody), dwBodyLength);
  if (!bSent && GetLastError() != ERROR_SUCCESS)
    ThrowLastError();
  return bSent;
}

BOOL CHttpFile::QueryInfo(DWORD dwInfoLevel, CString &strText) const {
  strText.Empty();
  DWORD dwLength = 0;
  if (HttpQueryInfoW(m_hFile.get(), dwInfoLevel, nullptr, &dwLength, nullptr) ||
      GetLastError() != ERROR_INSUFFICIENT_BUFFER)
    return FALSE;
  std::vector<WCHAR> text(dwLength / sizeof(WCHAR) + 1);
  if (!HttpQueryInfoW(m_hFile.get(), dwInfoLevel, text.data(), &dwLength, nullptr))
    return FALSE;
  strText = CString(text.data());
  return TRUE;
}

CHttpFile *CHttpConnection::OpenRequest(int nVerb, WCHAR const *wszObject, WCHAR const *wszReferrer,
                                        DWORD_PTR dwContext, WCHAR const **pwszAcceptTypes, WCHAR const *wszVersion,
                                        DWORD dwFlags) {
  if (m_nPort == INTERNET_DEFAULT_HTTPS_PORT)
    dwFlags |= INTERNET_FLAG_SECURE;
  InternetHandle hRequest(HttpOpenRequestW(m_hConnection.get(), kVerbs[nVerb], wszObject, wszVersion, wszReferrer,
                                           pwszAcceptTypes, dwFlags, dwContext));
  if (!hRequest)
    ThrowLastError();
  return new CHttpFile(std::move(hRequest));
}

CInternetSession::CInternetSession(WCHAR const *wszAgent, DWORD_PTR /*dwContext*/, DWORD dwAccessType,
                                   WCHAR const *wszProxy, WCHAR const *wszBypass, DWORD dwFlags)
    : m_hSession(InternetOpenW(wszAgent ? wszAgent : AfxGetModuleState()->m_lpszCurrentAppName, dwAccessType, wszProxy,
                               wszBypass, dwFlags)) {
  if (!m_hSession)
    ThrowLastError();
}

BOOL CInternetSession::SetOption(DWORD dwOption, DWORD dwValue, DWORD /*dwFlags*/) {
  return InternetSetOptionW(m_hSession.get(), dwOption, &dwValue, sizeof dwValue);
}

CHttpConnection *CInternetSession::GetHttpConnection(WCHAR const *wszServer, INTERNET_PORT nPort, WCHAR const *wszUser,
                                                     WCHAR const *wszPassword) {
  InternetHandle hConnection(
      InternetConnectW(m_hSession.get(), wszServer, nPort, wszUser, wszPassword, INTERNET_SERVICE_HTTP, 0, 1));
  if (!hConnection)
    ThrowLastError();
  return new CHttpConnection(std::move(hConnection), nPort);
}
