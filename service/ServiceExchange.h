// The one way in which a request goes to the service and its XML comes back: a procedure over a table of variants.
// Blocks the calling thread. Knows nothing of Python.
#pragma once

#include "platform/CString.h"
#include "platform/InternetSession.h"
#include "platform/XmlDom.h"

#include <memory>
#include <string>

enum class RequestKind {
  AddressDetection,
  Login,
  PresetCategories,
  EffectByGuid,
  VideoId,
  RelatedVideo,
  BlockingRequestSecure,
  BlockingRequestPlain,
};

/// Where the size of the reply comes from, and with it how often it is read.
enum class ReplySize {
  ContentLength, ///< Once, as the header says; a reply without one counts as empty.
  Available,     ///< Once, what is there when the first bytes are.
  AvailableLoop, ///< As long as there is something.
};

/// A row of the table: how one kind of request differs from the others.
struct ExchangeVariant {
  RequestKind kind;
  WCHAR const *wszOperation; ///< Name in the trace.
  WCHAR const *wszAgent;     ///< Null: the module's application name.
  int nVerb;
  INTERNET_PORT nPort;
  DWORD dwFlags;        ///< Of OpenRequest.
  bool bSecurityOption; ///< Set the security option if the host is a demo or staging host.
  bool bForm;           ///< Goes out with the fixed headers and a form body.
  ReplySize replySize;
  std::size_t cchMostObject; ///< Longest object name in characters; a longer one is refused. 0: no limit.
};

ExchangeVariant const &VariantOf(RequestKind kind);

/// Headers of the requests with a form body, divided by a single line feed.
extern WCHAR const kFormHeaders[];

/// One exchange, in stages. The session lives from construction to destruction.
class ServiceExchange {
public:
  /// Makes the session. Throws CInternetException *.
  explicit ServiceExchange(ExchangeVariant const &variant);

  /// Limits connecting and sending, in ms.
  void SetTimeouts(DWORD dwConnect, DWORD dwSend);
  /// Connects, opens the request and sends it; `szForm` is the body of a row with a form, null for none. Returns: what
  /// SendRequest returned. Throws CInternetException *, ERROR_INTERNET_INVALID_URL for an object name over the row's
  /// limit, too.
  BOOL Send(WCHAR const *wszHost, WCHAR const *wszObject, char const *szForm);
  /// Reads the reply's bytes as the row says. Call after Send. Throws CInternetException * and std::bad_alloc.
  std::string ReadReply();

private:
  std::string ReadUpTo(std::size_t cb);

  ExchangeVariant const &m_variant;
  CInternetSession m_session;
  std::unique_ptr<CHttpConnection> m_pConnection;
  std::unique_ptr<CHttpFile> m_pFile;
};

struct ExchangeResult {
  enum Outcome {
    Replied,
    SendRefused, ///< SendRequest returned FALSE.
    OutOfMemory,
    Exception, ///< dwError tells which; it has been traced.
  };
  Outcome outcome;
  DWORD dwError;
  std::string strReply;
};

/// The whole exchange in its guarded region. An Internet exception is traced as
/// "[<operation>] Internet Exception! Error code: %d". Nothing escapes.
ExchangeResult RunExchange(RequestKind kind, WCHAR const *wszHost, WCHAR const *wszObject,
                           char const *szForm = nullptr);

/// The reply, up to its first zero byte, as a document; its bytes count as the calling thread's ANSI code page.
/// Returns: an empty document for a reply that does not parse; null if no document can be made. May throw
/// std::bad_alloc.
CComPtr<IXMLDOMDocument> LoadReply(std::string const &strReply);

enum class ElementState { Found, Missing, QueryFailed };

/// The text of the first element at a path from the document. `strText` changes only when it was found. A null document
/// has no elements.
ElementState ReadElement(IXMLDOMDocument *pDocument, WCHAR const *wszPath, CString &strText);

/// True if the node is no comment and has that name, compared without regard to case.
bool NodeNameIs(IXMLDOMNode *pNode, WCHAR const *wszName);

/// Calls `visit` for each child node of that name, compared without regard to case; comments and nodes without a name
/// are passed over. A null node has no children.
template <class Visit> void ForEachChild(IXMLDOMNode *pNode, WCHAR const *wszName, Visit visit) {
  CComPtr<IXMLDOMNode> pChild;
  if (!pNode || FAILED(pNode->get_firstChild(&pChild)))
    return;
  while (pChild) {
    if (NodeNameIs(pChild, wszName))
      visit(static_cast<IXMLDOMNode *>(pChild));
    CComPtr<IXMLDOMNode> pNext;
    if (FAILED(pChild->get_nextSibling(&pNext)))
      return;
    pChild = std::move(pNext);
  }
}
