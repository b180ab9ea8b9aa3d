// Lifetime, lock, getters, and the reading of reply elements. Each topic's requests have a file of their own.
#include "service/KHLoginData.h"

#include "framework/Handles.h"
#include "framework/InternetSession.h"
#include "reply/Document.h"
#include "reply/UrlText.h"
#include "service/JoinText.h"
#include "service/ServiceHosts.h"
#include "trace/Trace.h"

#include <cstring>
#include <new>

KHLoginData::KHLoginData(WCHAR const *wszProdVersion, WCHAR const *wszVersionType, WCHAR const *wszUUID)
    : m_strProdVersion(wszProdVersion), m_strVersionType(wszVersionType),
      m_strSignUpURL(JoinText({L"https://", DefaultServiceHost, L"/signUp"})),
      m_strForgetPasswordURL(JoinText({L"https://", DefaultServiceHost, L"/forgetpwd"})), m_strUUID(wszUUID) {
  TraceInit("KHLoginData");
  InitializeCriticalSection(&m_csToken);
  TraceMsgW(L"TWR version = %s", m_strProdVersion.GetString());
  TraceMsgW(L"TWR versionType = %s", m_strVersionType.GetString());
  // Sessions that are given no agent use this name.
  if (!AfxGetModuleState()->m_lpszCurrentAppName)
    AfxGetModuleState()->m_lpszCurrentAppName = L"DummyAppNameForMFCClass";
}

KHLoginData::~KHLoginData() {
  SetLoginTokenID(CString());
  DeleteCriticalSection(&m_csToken);
}

PyObject *KHLoginData::GetRevisionAPI() { return NewText(m_strRevisionAPI); }
PyObject *KHLoginData::GetUserName() { return NewText(m_strUserName); }
PyObject *KHLoginData::GetUserProfileURL() { return NewText(m_strUserProfileURL); }
PyObject *KHLoginData::GetServerUrl() { return NewText(m_strKHServerUrl); }

PyObject *KHLoginData::GetVideoGalleryURL() {
  return Py_BuildValue("(u,u)", m_strVideoGalleryURLLogout.GetString(), m_strVideoGalleryURLLogin.GetString());
}

PyObject *KHLoginData::GetLoginTokenID() { return NewText(CopyLoginTokenID()); }

PyObject *KHLoginData::GetSignUpURL() { return AddressText(m_strSignUpURL); }
PyObject *KHLoginData::GetForgetPasswordURL() { return AddressText(m_strForgetPasswordURL); }
PyObject *KHLoginData::GetTutorialURL() { return AddressText(m_strTutorialURL); }
PyObject *KHLoginData::GetPresetDownloadURL() { return AddressText(m_strPresetDownloadURL); }

// `strMember` is read after the lookup, which may change it.
PyObject *KHLoginData::AddressText(CString const &strMember) {
  if (m_bLoggedIn)
    return NewText(DecodeURLText(strMember));
  EnsureKHServerURL();
  return NewText(DecodeURLText(JoinText({L"https://", m_strKHServerUrl, strMember, L"&uuid=", m_strUUID})));
}

void KHLoginData::SetKHURLAsReg(WCHAR *wszKHURL) {
  try {
    m_strKHServerUrl = CString(wszKHURL);
  } catch (std::bad_alloc const &) {
    // The host stays as it was.
  }
}

CString KHLoginData::CopyLoginTokenID() {
  SectionLock const lock(m_csToken);
  return m_strLoginTokenID;
}

void KHLoginData::SetLoginTokenID(CString strToken) {
  {
    SectionLock const lock(m_csToken);
    std::swap(m_strLoginTokenID, strToken);
  }
  strToken.Wipe();
}

// Thread: with the GIL. Cannot fail.
void KHLoginData::Store(Findings &findings) {
  for (auto &[pMember, strText] : findings.texts)
    if (pMember != &KHLoginData::m_strKHServerUrl || m_strKHServerUrl.IsEmpty())
      this->*pMember = std::move(strText);
  if (findings.szProbed && std::strlen(findings.szProbed) < sizeof m_szChkServerUrl)
    std::memcpy(m_szChkServerUrl, findings.szProbed, std::strlen(findings.szProbed) + 1);
}

bool KHLoginData::ReadElements(IXMLDOMDocument *pDocument, std::span<ReplyElement const> elements, Findings &findings) {
  bool bSucceeded = true;
  for (ReplyElement const &element : elements) {
    CString strText;
    ElementState const state = ReadElement(pDocument, element.wszPath, strText);
    if (state == ElementState::Found && element.wszStored)
      TraceMsgW(element.wszStored, strText.GetString());
    if (state == ElementState::Found && element.pMember)
      findings.texts.emplace_back(element.pMember, std::move(strText));
    if (state != ElementState::QueryFailed)
      continue;
    if (element.wszQueryFailed)
      TraceMsgW(element.wszQueryFailed);
    bSucceeded = bSucceeded && !element.bQueryMustSucceed;
  }
  return bSucceeded;
}
