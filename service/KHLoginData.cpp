// See KHLoginData.h: life, lock and getters. The requests stand in files of their own, one a topic.
#include "service/KHLoginData.h"

#include "framework/InternetSession.h"
#include "reply/UrlText.h"
#include "service/JoinText.h"
#include "service/ServiceHosts.h"
#include "shell/Trace.h"

#include <new>

KHLoginData::KHLoginData(WCHAR const *wszProdVersion, WCHAR const *wszVersionType, WCHAR const *wszUUID)
    : m_strProdVersion(wszProdVersion), m_strVersionType(wszVersionType),
      m_strSignUpURL(JoinText({L"https://", DefaultServiceHost, L"/signUp"})),
      m_strForgetPasswordURL(JoinText({L"https://", DefaultServiceHost, L"/forgetpwd"})), m_strUUID(wszUUID) {
  TraceInit("KHLoginData");
  InitializeCriticalSection(&m_csToken);
  TraceMsgW(L"TWR version = %s", m_strProdVersion.GetString());
  TraceMsgW(L"TWR versionType = %s", m_strVersionType.GetString());
  // The agent of every session that is given none.
  if (!AfxGetModuleState()->m_lpszCurrentAppName)
    AfxGetModuleState()->m_lpszCurrentAppName = L"DummyAppNameForMFCClass";
}

KHLoginData::~KHLoginData() { DeleteCriticalSection(&m_csToken); }

PyObject *KHLoginData::GetRevisionAPI() { return NewText(m_strRevisionAPI); }
PyObject *KHLoginData::GetUserName() { return NewText(m_strUserName); }
PyObject *KHLoginData::GetUserProfileURL() { return NewText(m_strUserProfileURL); }
PyObject *KHLoginData::GetServerUrl() { return NewText(m_strKHServerUrl); }

PyObject *KHLoginData::GetVideoGalleryURL() {
  return Py_BuildValue("(u,u)", m_strVideoGalleryURLLogout.GetString(), m_strVideoGalleryURLLogin.GetString());
}

PyObject *KHLoginData::GetLoginTokenID() {
  try {
    return NewText(CopyLoginTokenID());
  } catch (std::bad_alloc const &) {
    return PyErr_NoMemory();
  }
}

PyObject *KHLoginData::GetSignUpURL() { return AddressText(m_strSignUpURL); }
PyObject *KHLoginData::GetForgetPasswordURL() { return AddressText(m_strForgetPasswordURL); }
PyObject *KHLoginData::GetTutorialURL() { return AddressText(m_strTutorialURL); }
PyObject *KHLoginData::GetPresetDownloadURL() { return AddressText(m_strPresetDownloadURL); }

// `strMember` is read behind the lookup, which may change it.
PyObject *KHLoginData::AddressText(CString const &strMember) {
  try {
    if (m_bLoggedIn)
      return NewText(DecodeURLText(strMember));
    EnsureKHServerURL();
    return NewText(DecodeURLText(JoinText({L"https://", m_strKHServerUrl, strMember, L"&uuid=", m_strUUID})));
  } catch (std::bad_alloc const &) {
    return PyErr_NoMemory();
  }
}

void KHLoginData::SetKHURLAsReg(WCHAR *wszKHURL) {
  try {
    m_strKHServerUrl = CString(wszKHURL);
  } catch (std::bad_alloc const &) {
    // the host stays as it was
  }
}

CString KHLoginData::CopyLoginTokenID() {
  EnterCriticalSection(&m_csToken);
  try {
    CString strToken = m_strLoginTokenID;
    LeaveCriticalSection(&m_csToken);
    return strToken;
  } catch (std::bad_alloc const &) {
    LeaveCriticalSection(&m_csToken);
    throw;
  }
}

void KHLoginData::SetLoginTokenID(CString strToken) {
  EnterCriticalSection(&m_csToken);
  m_strLoginTokenID = std::move(strToken);
  LeaveCriticalSection(&m_csToken);
}
