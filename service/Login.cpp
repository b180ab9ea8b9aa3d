// Login and logout. Login releases the GIL before its first step that blocks, and stores what it read with the GIL held
// again.
#include "service/KHLoginData.h"

#include "framework/CW2A.h"
#include "platform/system/Browser.h"
#include "service/JoinText.h"
#include "service/ServiceExchange.h"
#include "service/ServiceHosts.h"
#include "service/WebAddress.h"
#include "shell/ScopedGILRelease.h"
#include "trace/Trace.h"

#include <new>

namespace {

constexpr int kMostCharacters = 259; // of a token or a first-login address; a longer one makes the login fail

// Opens the first-login page if the reply names one. Returns: whether it does; the login then fails.
bool OpenFirstLogin(IXMLDOMDocument *pDocument) {
  CString strAddress;
  ReadElement(pDocument, L"info/firstloginUrl", strAddress);
  if (strAddress.IsEmpty())
    return false;
  if (strAddress.GetLength() <= kMostCharacters && IsWebAddress(strAddress.GetString()))
    ShellExecuteW(nullptr, L"open", strAddress, nullptr, nullptr, SW_SHOWNORMAL);
  return true;
}

// Returns: true and the token, which may be empty; false if there is none or it is too long.
bool ReadToken(IXMLDOMDocument *pDocument, CString &strToken) {
  ElementState const state = ReadElement(pDocument, L"info/tokenid", strToken);
  if (state == ElementState::QueryFailed)
    TraceMsgW(L"Login KH fail: Can not parse tokenid from xml.");
  if (state != ElementState::Found) {
    TraceMsgW(L"No tokenID, login failed!!");
    return false;
  }
  return strToken.GetLength() <= kMostCharacters;
}

// Wipes a text at the end of its scope, since it holds the password.
template <class Text> struct WipedAtEnd {
  Text &text;
  ~WipedAtEnd() { text.Wipe(); }
};

} // namespace

UINT KHLoginData::LoginKestrelhub(WCHAR const *wszUserName, WCHAR const *wszPassword) {
  if (!wszUserName || !wszPassword) {
    TraceMsgW(L"Login KH fail: Empty user name or password");
    m_bLoggedIn = FALSE;
    return 0;
  }
  CString strHost;
  CString strToken;
  Findings findings;
  UINT uResult = 0;
  try {
    strHost = m_strKHServerUrl;
  } catch (std::bad_alloc const &) {
    return 0;
  }
  {
    ScopedGILRelease const release;
    try {
      uResult = Login(std::move(strHost), wszUserName, wszPassword, findings, strToken);
    } catch (std::bad_alloc const &) {
      uResult = 0;
    }
  }
  Store(findings); // even if the login failed
  if (uResult == 1) {
    m_bLoggedIn = TRUE;
    SetLoginTokenID(std::move(strToken));
  }
  return uResult;
}

// `strHost` is empty if it must be found first. Returns: 1 and the token for a login; 0 or an error number.
UINT KHLoginData::Login(CString strHost, WCHAR const *wszUserName, WCHAR const *wszPassword, Findings &findings,
                        CString &strToken) {
  if (strHost.IsEmpty())
    strHost = FindKHServerURL(findings);
  // The fixed default host, whatever host the session uses.
  if (!CheckServerReachable(DefaultServiceProbeUrl, findings)) {
    TraceMsgW(L"Login KH fail: Can not reach the KH server");
    return 0;
  }
  CString strForm = JoinText({L"account=", wszUserName, L"&pwd=", wszPassword, L"&AP=TWR&Version=", m_strProdVersion,
                              L"&versionType=", m_strVersionType, L"&uuid=", m_strUUID});
  WipedAtEnd<CString> const wideEnd{strForm};
  CW2A form(strForm);
  WipedAtEnd<CW2A> const end{form};
  UINT uResult = 0;
  DWORD const dwError = RunExchange(RequestKind::Login, [&](ServiceExchange &exchange) {
    if (exchange.Send(strHost, L"/servlet/memLogin", form))
      uResult = ReadLoginReply(exchange.ReadDocument(), findings, strToken);
    else
      TraceMsgW(L"Login KH fail: Get <false response> when send request to KH");
  });
  return dwError != 0 ? dwError : uResult;
}

// Keeps what the reply holds, even if the login fails. Returns: 1 and the token for a login, else 0.
UINT KHLoginData::ReadLoginReply(IXMLDOMDocument *pDocument, Findings &findings, CString &strToken) {
  static constexpr ReplyElement kElements[] = {
      {L"info/username", &KHLoginData::m_strUserName, nullptr, L"Login KH fail: Can not parse username from xml.",
       true},
      {L"info/profileURL", &KHLoginData::m_strUserProfileURL, nullptr,
       L"Login KH fail: Can not parse profileURL from xml.", true},
      {L"info/VideoGallery", &KHLoginData::m_strVideoGalleryURLLogin, L"TWR VideoGalleryURL_login = %s",
       L"Login KH fail: Can not parse VideoGallery from xml."},
      {L"info/AdjustmentPreset", &KHLoginData::m_strPresetDownloadURL, nullptr,
       L"Login KH fail: Can not parse AdjustmentPreset from xml.", true},
      {L"info/Tutorial", &KHLoginData::m_strTutorialURL, L"TWR Tutorial = %s",
       L"Login KH fail: Can not parse Tutorial from xml."},
      {L"info/search", nullptr, nullptr, L"Login KH fail: Can not parse search from xml.", true},
      {L"info/RevisionAPI", &KHLoginData::m_strRevisionAPI, L"TWR Revision API = %s",
       L"Update KHInfo fail: Can not parse Revision API from xml."},
      {L"info/errMsg", nullptr, nullptr, L"Login KH fail: Can not parse errMsg from xml.", true},
  };
  bool const bFirstLogin = OpenFirstLogin(pDocument);
  bool const bToken = ReadToken(pDocument, strToken);
  bool const bElements = ReadElements(pDocument, kElements, findings);
  return bToken && bElements && !bFirstLogin ? 1 : 0;
}

void KHLoginData::LogoutKestrelhub() {
  m_bServerReachable = FALSE;
  m_strKHServerUrl.Empty();
  m_strUserProfileURL.Empty();
  m_bLoggedIn = FALSE;
  SetLoginTokenID(CString());
  m_strUserName.Empty();
  m_strPresetDownloadURL.Empty();
  m_strSignUpURL.Empty();
  m_strForgetPasswordURL.Empty();
  m_strVideoGalleryURLLogin.Empty();
  m_strTutorialURL.Empty();
  m_strRevisionAPI.Empty();
}
