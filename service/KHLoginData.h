// The session object through which Python talks to the community service. It holds the service's host, the member's
// token and name, and every address that the service returned.
//
// Thread: any, with the GIL held, which guards the members. LoginKestrelhub and InitKHServerURL release the GIL for
// their requests: meanwhile they use copies and what never changes, and they store what they read with the GIL held
// again. So any thread may call the object meanwhile. Of two logins at a time, the one that ends last decides. All
// other requests hold the GIL until they return.
#pragma once

#include <Python.h>

#include "framework/CString.h"
#include "platform/http/WinInet.h"
#include "platform/system/Threads.h"

#include <atomic>
#include <span>
#include <utility>
#include <vector>

struct IXMLDOMDocument;

class KHLoginData {
public:
  /// Copies the product version, the version type and the installation uuid, which never change; null counts as empty.
  /// Makes no request. May throw std::bad_alloc.
  KHLoginData(WCHAR const *wszProdVersion, WCHAR const *wszVersionType, WCHAR const *wszUUID);
  KHLoginData(KHLoginData const &) = delete;
  KHLoginData &operator=(KHLoginData const &) = delete;
  ~KHLoginData();

  /// Logs a member in. Returns: 1 if logged in; 0 if not, for a reason that at most the trace shows; otherwise the
  /// number (12000 range) of the network failure. Releases the GIL. Blocks for the detection if the host is unknown,
  /// a probe of some 5.5 s at most and one exchange under the HTTP layer's limits. An earlier login stays in force
  /// after a failure, except after a null argument; other members may already hold values of the failed attempt.
  UINT LoginKestrelhub(WCHAR const *wszUserName, WCHAR const *wszPassword);
  /// Forgets host, token, name and addresses, but not the logged-out gallery address. Makes no request.
  void LogoutKestrelhub();
  /// Finds the service's host unless it is known. Releases the GIL. Out of memory counts as a failed detection. A host
  /// that was set meanwhile stays.
  void InitKHServerURL();
  /// Sets the service's host, unchecked, so that none is looked up. The host stays as it was if memory runs out.
  void SetKHURLAsReg(WCHAR *wszKHURL);

  // Plain getters. Return a new reference to a str, empty if unset; the gallery's is a tuple of two (logged out, logged
  // in). Null with a Python error, or std::bad_alloc, if memory runs out.
  PyObject *GetRevisionAPI();
  PyObject *GetUserName();
  PyObject *GetUserProfileURL();
  PyObject *GetVideoGalleryURL();
  PyObject *GetServerUrl();
  PyObject *GetLoginTokenID();

  // Address getters, with the same results: the page's address, percent-decoded. When logged out, they find the host
  // first if it is unknown, and join "https://", the host, the member, "&uuid=" and the uuid.
  PyObject *GetSignUpURL();
  PyObject *GetForgetPasswordURL();
  PyObject *GetTutorialURL();
  PyObject *GetPresetDownloadURL();

  /// Fetches the categories of a location and adds them to the cache. Returns: a new reference to a dict from id to
  /// name of the whole cache, in the order of the ids as text, cut short before the first entry with an empty name;
  /// None if no dict can be created.
  PyObject *GetPresetCategory(WCHAR const *wszLocationID);
  /// Looks up the cached name of a category id; no request. Returns: TRUE and the name, or FALSE, with `strCategroy`
  /// unchanged.
  BOOL GetCategroyName(int nCategroyIndex, CString &strCategroy);
  /// Returns: the number of cached categories; no request.
  int GetCategoryCount();
  /// Asks for the address of a shared effect. Returns: a new reference to a str, percent-decoded; one blank for null;
  /// empty if the service knows no such effect or the exchange failed.
  PyObject *GetEffectByGUID(WCHAR const *wszPresetGUID);
  /// Registers a video with the service, in two exchanges. Returns: a new reference to a str, the address in the
  /// service's answer or one blank on any failure; null without a Python error if the second reply is empty.
  PyObject *SetRelateVideo(WCHAR const *wszVideoURL, WCHAR const *wszWebsite, WCHAR const *wszVideoInfo);

  // State of the last probe; see ReachabilityProbe.h.
  std::atomic<HINTERNET> m_hInternet = nullptr;
  std::atomic<HINTERNET> m_hConnect = nullptr;
  HINTERNET m_hRequest = nullptr; ///< Not used.
  std::atomic<BOOL> m_bServerReachable = FALSE;
  char m_szChkServerUrl[_MAX_PATH] = {};

private:
  using Member = CString KHLoginData::*;
  /// What an operation has read, on its way to the members. Belongs to the thread of the operation.
  struct Findings {
    std::vector<std::pair<Member, CString>> texts; ///< In the order of the replies.
    char const *szProbed = nullptr;                ///< The URL of the last probe; null if there was none.
  };
  /// An element of a reply, the member that keeps its text, and the trace lines about it.
  struct ReplyElement {
    WCHAR const *wszPath;
    Member pMember;              ///< Null: the text is read and dropped.
    WCHAR const *wszStored;      ///< Its %s is the text. Null: no trace.
    WCHAR const *wszQueryFailed; ///< Null: no trace.
    bool bQueryMustSucceed = false;
  };
  void EnsureKHServerURL(); ///< Leaves m_strKHServerUrl not empty, or throws std::bad_alloc.
  void Store(Findings &findings);

  // Thread: any, without the GIL too: they use no Python object, and of the members only those that never change and
  // the probe's. They may throw std::bad_alloc.

  /// Reads all elements in order. Returns: false if a query that must succeed failed; a missing element is no failure.
  static bool ReadElements(IXMLDOMDocument *pDocument, std::span<ReplyElement const> elements, Findings &findings);
  /// Returns: the host, never empty, which is among the findings too.
  CString FindKHServerURL(Findings &findings);
  void UpdateKHURLFromServer(Findings &findings);
  static void ReadAddressDocument(IXMLDOMDocument *pDocument, Findings &findings);
  BOOL CheckServerReachable(char const *szUrl, Findings &findings);
  UINT Login(CString strHost, WCHAR const *wszUserName, WCHAR const *wszPassword, Findings &findings,
             CString &strToken);
  static UINT ReadLoginReply(IXMLDOMDocument *pDocument, Findings &findings, CString &strToken);

  void FetchCategories(WCHAR const *wszLocationID);
  void ParseCategories(struct IXMLDOMNode *pNode);
  void ParseCategory(struct IXMLDOMNode *pNode);
  CString FindEffect(WCHAR const *wszPresetGUID);
  void GetVideoID(CString &strVideoID);

  PyObject *AddressText(CString const &strMember);
  CString CopyLoginTokenID();
  void SetLoginTokenID(CString strToken); ///< Wipes the earlier token.

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
  CRITICAL_SECTION m_csToken; // held for no longer than one string copy
};

/// Returns: a new reference to a str of the text; null with a Python error if memory runs out.
inline PyObject *NewText(CString const &strText) { return Py_BuildValue("u", strText.GetString()); }
