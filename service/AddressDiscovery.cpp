// Address discovery: asks the detection host for the address document, and falls back to the staging host. Runs on the
// caller's thread and uses no Python object.
#include "service/KHLoginData.h"

#include "service/JoinText.h"
#include "service/ReachabilityProbe.h"
#include "service/ServiceExchange.h"
#include "service/ServiceHosts.h"
#include "shell/ScopedGILRelease.h"
#include "shell/Trace.h"

#include <new>

void KHLoginData::InitKHServerURL() {
  ScopedGILRelease const release;
  try {
    EnsureKHServerURL();
  } catch (std::bad_alloc const &) {
    // Not even the fallback could be stored: the next operation tries again.
  }
}

void KHLoginData::EnsureKHServerURL() {
  if (!m_strKHServerUrl.IsEmpty())
    return;
  UpdateKHURLFromServer();
  TraceMsgW(L"Get KH server URL from server. URL = %s", m_strKHServerUrl.GetString());
  if (m_strKHServerUrl.IsEmpty()) {
    m_strKHServerUrl = CString(StagingServiceHost);
    TraceMsgW(L"Use static URL as KH server URL.");
  }
}

void KHLoginData::UpdateKHURLFromServer() {
  if (!CheckServerReachable(DetectionProbeUrl))
    return;
  RunExchange(RequestKind::AddressDetection, [this](ServiceExchange &exchange) {
    WCHAR const *const wszTypeKey = m_strVersionType.IsEmpty() ? L"" : L"&versionType=";
    exchange.Send(DetectionHost,
                  JoinText({L"khserver.jsp?ap=tintwright&version=", m_strProdVersion, wszTypeKey, m_strVersionType}));
    ReadAddressDocument(exchange.ReadDocument());
  });
}

void KHLoginData::ReadAddressDocument(IXMLDOMDocument *pDocument) {
  static constexpr ReplyElement kElements[] = {
      {L"INFO/APIUrl", &KHLoginData::m_strKHServerUrl, nullptr, nullptr},
      {L"INFO/AdjustmentPreset", &KHLoginData::m_strPresetDownloadURL, nullptr, nullptr},
      {L"INFO/SignUp", &KHLoginData::m_strSignUpURL, L"TWR SignUp = %s",
       L"Update KHInfo fail: Can not parse SignUp from xml."},
      {L"INFO/ForgetPassword", &KHLoginData::m_strForgetPasswordURL, L"TWR ForgetPassword = %s",
       L"Update KHInfo fail: Can not parse ForgetPassword from xml."},
      {L"INFO/VideoGallery", &KHLoginData::m_strVideoGalleryURLLogout, L"TWR VideoGalleryURL_logout = %s",
       L"Update KHInfo fail: Can not parse VideoGallery from xml."},
      {L"INFO/Tutorial", &KHLoginData::m_strTutorialURL, L"TWR Tutorial = %s",
       L"Update KHInfo fail: Can not parse Tutorial from xml."},
  };
  ReadElements(pDocument, kElements);
}

BOOL KHLoginData::CheckServerReachable(char const *szUrl) {
  ReachabilityProbe probe = {m_hInternet, m_hConnect, m_bServerReachable, m_szChkServerUrl};
  return probe.CheckServerReachable(szUrl);
}
