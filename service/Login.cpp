// Login and logout. Login runs without the interpreter lock from its first blocking step on and touches no Python
// object.
#include "service/KHLoginData.h"

#include "framework/CW2A.h"
#include "platform/system/Browser.h"
#include "service/JoinText.h"
#include "service/ServiceExchange.h"
#include "service/ServiceHosts.h"
#include "shell/ScopedGILRelease.h"
#include "shell/Trace.h"

#include <new>

/// An element of the login reply behind the token, and what becomes of it; a null member is read and dropped.
struct LoginElement {
  WCHAR const *wszPath;
  CString KHLoginData::*pMember;
  WCHAR const *wszStored; ///< Null: no trace.
  WCHAR const *wszQueryFailed;
  bool bFailedQueryEndsLogin;

  static LoginElement const kElements[8];
};

LoginElement const LoginElement::kElements[8] = {
    {L"info/username", &KHLoginData::m_strUserName, nullptr, L"Login KH fail: Can not parse username from xml.", true},
    {L"info/profileURL", &KHLoginData::m_strUserProfileURL, nullptr,
     L"Login KH fail: Can not parse profileURL from xml.", true},
    {L"info/VideoGallery", &KHLoginData::m_strVideoGalleryURLLogin, L"TWR VideoGalleryURL_login = %s",
     L"Login KH fail: Can not parse VideoGallery from xml.", false},
    {L"info/AdjustmentPreset", &KHLoginData::m_strPresetDownloadURL, nullptr,
     L"Login KH fail: Can not parse AdjustmentPreset from xml.", true},
    {L"info/Tutorial", &KHLoginData::m_strTutorialURL, L"TWR Tutorial = %s",
     L"Login KH fail: Can not parse Tutorial from xml.", false},
    {L"info/search", nullptr, nullptr, L"Login KH fail: Can not parse search from xml.", true},
    {L"info/RevisionAPI", &KHLoginData::m_strRevisionAPI, L"TWR Revision API = %s",
     L"Update KHInfo fail: Can not parse Revision API from xml.", false},
    {L"info/errMsg", nullptr, nullptr, L"Login KH fail: Can not parse errMsg from xml.", true},
};

namespace {

constexpr int kMostCharacters = 259; // of a token or a first-login address; a longer one fails the login

// Opens the first-login page if the reply names one. Returns: true if it names one, which is no login.
bool OpenFirstLogin(IXMLDOMDocument *pDocument) {
  CString strAddress;
  ReadElement(pDocument, L"info/firstloginUrl", strAddress);
  if (strAddress.IsEmpty())
    return false;
  if (strAddress.GetLength() <= kMostCharacters)
    ShellExecuteW(nullptr, L"open", strAddress, nullptr, nullptr, SW_SHOWNORMAL);
  return true;
}

// Returns: 1 with the token, which may be empty; 0 without one.
UINT ReadToken(IXMLDOMDocument *pDocument, CString &strToken) {
  ElementState const state = ReadElement(pDocument, L"info/tokenid", strToken);
  if (state == ElementState::QueryFailed)
    TraceMsgW(L"Login KH fail: Can not parse tokenid from xml.");
  if (state != ElementState::Found) {
    TraceMsgW(L"No tokenID, login failed!!");
    return 0;
  }
  return strToken.GetLength() <= kMostCharacters ? 1 : 0;
}

} // namespace

UINT KHLoginData::LoginKestrelhub(WCHAR const *wszUserName, WCHAR const *wszPassword) {
  if (!wszUserName || !wszPassword) {
    TraceMsgW(L"Login KH fail: Empty user name or password");
    m_bLoggedIn = FALSE;
    return 0;
  }
  ScopedGILRelease const release;
  try {
    return Login(wszUserName, wszPassword);
  } catch (std::bad_alloc const &) {
    return 0;
  }
}

UINT KHLoginData::Login(WCHAR const *wszUserName, WCHAR const *wszPassword) {
  EnsureKHServerURL();
  // The fixed default host, whatever host the session uses.
  if (!CheckServerReachable(DefaultServiceProbeUrl)) {
    TraceMsgW(L"Login KH fail: Can not reach the KH server");
    return 0;
  }
  CW2A const form(JoinText({L"account=", wszUserName, L"&pwd=", wszPassword, L"&AP=TWR&Version=", m_strProdVersion,
                            L"&versionType=", m_strVersionType, L"&uuid=", m_strUUID}));
  UINT uResult = 0;
  CString strToken;
  DWORD const dwError = RunExchange(RequestKind::Login, [&](ServiceExchange &exchange) {
    if (exchange.Send(m_strKHServerUrl, L"/servlet/memLogin", form))
      uResult = ReadLoginReply(exchange.ReadDocument(), strToken);
    else
      TraceMsgW(L"Login KH fail: Get <false response> when send request to KH");
  });
  if (dwError != 0)
    return dwError;
  if (uResult == 1) {
    m_bLoggedIn = TRUE;
    SetLoginTokenID(std::move(strToken));
  }
  return uResult;
}

// Stores what the reply holds, also when it is no login. Returns: 1 with the token for a login, else 0.
UINT KHLoginData::ReadLoginReply(IXMLDOMDocument *pDocument, CString &strToken) {
  bool const bFirstLogin = OpenFirstLogin(pDocument);
  UINT uResult = ReadToken(pDocument, strToken);
  for (LoginElement const &element : LoginElement::kElements) {
    CString strDropped;
    CString &strText = element.pMember ? this->*element.pMember : strDropped;
    ElementState const state = ReadElement(pDocument, element.wszPath, strText);
    if (state == ElementState::QueryFailed) {
      TraceMsgW(element.wszQueryFailed);
      if (element.bFailedQueryEndsLogin)
        uResult = 0;
    } else if (state == ElementState::Found && element.wszStored) {
      TraceMsgW(element.wszStored, strText.GetString());
    }
  }
  return bFirstLogin ? 0 : uResult;
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
