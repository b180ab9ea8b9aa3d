// The session object through which Python talks to the community service: the service's host, the member's token and
// name, and every address that the service handed out. Runs on its caller's thread; while one thread is inside
// LoginKestrelhub, which lets go of the interpreter lock, another may use GetLoginTokenID only.
#pragma once

#include <Python.h>

#include "framework/CString.h"
#include "platform/http/WinInet.h"
#include "platform/system/Threads.h"

#include <atomic>
#include <span>

struct IXMLDOMDocument;

class KHLoginData {
public:
  /// Product version, version type and installation uuid, copied and fixed for the object's life; a null counts as
  /// empty. Makes no request. May throw std::bad_alloc.
  KHLoginData(WCHAR const *wszProdVersion, WCHAR const *wszVersionType, WCHAR const *wszUUID);
  KHLoginData(KHLoginData const &) = delete;
  KHLoginData &operator=(KHLoginData const &) = delete;
  ~KHLoginData();

  /// Logs a member in. Returns: 1 logged in; 0 not, for a reason that only the trace tells; else the number (12000
  /// range) of the network failure. Only 1 is success. Lets go of the interpreter lock. Blocks for the detection, a
  /// probe of at most 5.5 s and one exchange under the HTTP layer's limits.
  UINT LoginKestrelhub(WCHAR const *wszUserName, WCHAR const *wszPassword);
  /// Forgets the session; no request.
  void LogoutKestrelhub();
  /// Finds the service's host unless it is known. Lets go of the interpreter lock.
  void InitKHServerURL();
  /// Fixes the service's host; nothing is looked up then. The text is not checked.
  void SetKHURLAsReg(WCHAR *wszKHURL);

  // Plain getters: a new reference to a str (two in a tuple for the gallery: logged out, logged in), empty when unset.
  PyObject *GetRevisionAPI();
  PyObject *GetUserName();
  PyObject *GetUserProfileURL();
  PyObject *GetVideoGalleryURL();
  PyObject *GetServerUrl();
  PyObject *GetLoginTokenID(); ///< Thread: any.

  // Address getters: the page's address, percent-decoded. Logged out, "https://", host, member, "&uuid=" and the uuid
  // joined; they then find the host first and hold the interpreter lock meanwhile.
  PyObject *GetSignUpURL();
  PyObject *GetForgetPasswordURL();
  PyObject *GetTutorialURL();
  PyObject *GetPresetDownloadURL();

  /// Fetches the categories of a location into the cache. Returns: new reference to a dict of the whole cache, id to
  /// name; None if no dict can be had. Holds the interpreter lock.
  PyObject *GetPresetCategory(WCHAR const *wszLocationID);
  /// The cached name of a category id. Returns: TRUE and the name, or FALSE with `strCategroy` unchanged. No request.
  BOOL GetCategroyName(int nCategroyIndex, CString &strCategroy);
  int GetCategoryCount(); ///< Entries in the cache. No request.
  /// The address of a shared effect, percent-decoded. Returns: new reference to a str: one blank for null, empty when
  /// the service knows none or the exchange failed. Holds the interpreter lock.
  PyObject *GetEffectByGUID(WCHAR const *wszPresetGUID);
  /// Tells the service of a video, in two exchanges. Returns: new reference to the str that the service answers, or one
  /// blank on any failure; null without a Python error if the second reply is empty. Holds the interpreter lock.
  PyObject *SetRelateVideo(WCHAR const *wszVideoURL, WCHAR const *wszWebsite, WCHAR const *wszVideoInfo);

  // The last probe (ReachabilityProbe.h).
  std::atomic<HINTERNET> m_hInternet = nullptr;
  std::atomic<HINTERNET> m_hConnect = nullptr;
  HINTERNET m_hRequest = nullptr; ///< Used by no operation.
  std::atomic<BOOL> m_bServerReachable = FALSE;
  char m_szChkServerUrl[_MAX_PATH] = {};

private:
  /// An element of a reply, the member that keeps its text, and the trace lines about it.
  struct ReplyElement {
    WCHAR const *wszPath;
    CString KHLoginData::*pMember; ///< Null: the text is read and dropped.
    WCHAR const *wszStored;        ///< Its %s is the text. Null: no trace.
    WCHAR const *wszQueryFailed;   ///< Null: no trace.
    bool bQueryMustSucceed = false;
  };
  /// Reads the elements in order, each whatever became of the others. Returns: false if a query that must succeed
  /// failed; an element that is missing is no failure.
  bool ReadElements(IXMLDOMDocument *pDocument, std::span<ReplyElement const> elements);

  // Address discovery. None of it touches Python.
  void EnsureKHServerURL(); ///< Leaves m_strKHServerUrl not empty, or throws std::bad_alloc.
  void UpdateKHURLFromServer();
  void ReadAddressDocument(IXMLDOMDocument *pDocument);
  BOOL CheckServerReachable(char const *szUrl);

  // Login. None of it touches Python.
  UINT Login(WCHAR const *wszUserName, WCHAR const *wszPassword);
  UINT ReadLoginReply(IXMLDOMDocument *pDocument, CString &strToken);

  void FetchCategories(WCHAR const *wszLocationID);
  void ParseCategories(struct IXMLDOMNode *pNode);
  void ParseCategory(struct IXMLDOMNode *pNode);
  CString FindEffect(WCHAR const *wszPresetGUID);
  void GetVideoID(CString &strVideoID);

  PyObject *AddressText(CString const &strMember);
  CString CopyLoginTokenID();
  void SetLoginTokenID(CString strToken);

  BOOL m_bLoggedIn = FALSE;
  CString m_strKHServerUrl;
  CString m_strUserProfileURL;
  CString m_strUserName;
  CString m_strLoginTokenID; // guarded by m_csToken
  CString m_strProdVersion;
  CString m_strVersionType;
  CString m_strPresetDownloadURL;
  CString m_strSignUpURL;
  CString m_strForgetPasswordURL;
  CString m_strVideoGalleryURLLogin;
  CString m_strVideoGalleryURLLogout;
  CString m_strTutorialURL;
  CString m_strRevisionAPI;
  CString m_strUUID;
  CMapStringToString m_mapCategory{10};
  CRITICAL_SECTION m_csToken; // held for one string copy at a time
};

/// A new reference to a str of the text.
inline PyObject *NewText(CString const &strText) { return Py_BuildValue("u", strText.GetString()); }
