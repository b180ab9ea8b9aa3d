// Address discovery: asks the detection host for the address document, and falls back to the staging host. Runs on the
// caller's thread.
#include "service/KHLoginData.h"

#include "service/JoinText.h"
#include "service/ReachabilityProbe.h"
#include "service/ServiceExchange.h"
#include "service/ServiceHosts.h"
#include "shell/ScopedGILRelease.h"
#include "trace/Trace.h"

#include <new>

void KHLoginData::InitKHServerURL() {
  if (!m_strKHServerUrl.IsEmpty())
    return;
  Findings findings;
  {
    ScopedGILRelease const release;
    try {
      FindKHServerURL(findings);
    } catch (std::bad_alloc const &) {
      // Not even the fallback could be stored: the next operation tries again.
    }
  }
  Store(findings);
}

void KHLoginData::EnsureKHServerURL() {
  if (!m_strKHServerUrl.IsEmpty())
    return;
  Findings findings;
  FindKHServerURL(findings);
  Store(findings);
}

CString KHLoginData::FindKHServerURL(Findings &findings) {
  UpdateKHURLFromServer(findings);
  // The document's first element, if it was found.
  CString strHost = findings.texts.empty() || findings.texts[0].first != &KHLoginData::m_strKHServerUrl
                        ? CString()
                        : findings.texts[0].second;
  TraceMsgW(L"Get KH server URL from server. URL = %s", strHost.GetString());
  if (strHost.IsEmpty()) {
    strHost = CString(StagingServiceHost);
    findings.texts.emplace_back(&KHLoginData::m_strKHServerUrl, strHost);
    TraceMsgW(L"Use static URL as KH server URL.");
  }
  return strHost;
}

void KHLoginData::UpdateKHURLFromServer(Findings &findings) {
  if (!CheckServerReachable(DetectionProbeUrl, findings))
    return;
  RunExchange(RequestKind::AddressDetection, [&](ServiceExchange &exchange) {
    WCHAR const *const wszTypeKey = m_strVersionType.IsEmpty() ? L"" : L"&versionType=";
    exchange.Send(DetectionHost,
                  JoinText({L"khserver.jsp?ap=tintwright&version=", m_strProdVersion, wszTypeKey, m_strVersionType}));
    ReadAddressDocument(exchange.ReadDocument(), findings);
  });
}

void KHLoginData::ReadAddressDocument(IXMLDOMDocument *pDocument, Findings &findings) {
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
  ReadElements(pDocument, kElements, findings);
}

BOOL KHLoginData::CheckServerReachable(char const *szUrl, Findings &findings) {
  findings.szProbed = szUrl;
  return ReachabilityProbe(m_hInternet, m_hConnect, m_bServerReachable).CheckServerReachable(szUrl);
}
