// The one way in which a request goes to the service and its XML comes back: a procedure over a table of variants.
// Blocks the calling thread. Knows nothing of Python.
#pragma once

#include "framework/CString.h"
#include "framework/InternetSession.h"
#include "reply/Document.h"

#include <memory>
#include <new>
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
  std::size_t cbMostReply;   ///< Longest reply in bytes; more is no reply. 0: the HTTP layer's limit.
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
  /// Connects, opens the request and sends it. `wszObject` is narrowed in the thread's ANSI code page; `szForm` is the
  /// body if the row has a form, null for none. Returns: what SendRequest returned. FALSE is a failure without a
  /// number: most topics ignore it, because reading the reply then throws. Throws CInternetException *, with
  /// ERROR_INTERNET_INVALID_URL for an object name over the row's limit, and std::bad_alloc.
  BOOL Send(WCHAR const *wszHost, WCHAR const *wszObject, char const *szForm = nullptr);
  /// Reads the reply's bytes as the row says. Call after Send. A reply that breaks off is an exception, whatever came
  /// before: only an orderly end is an end. Throws CInternetException * (ERROR_HTTP_INVALID_SERVER_RESPONSE for a reply
  /// over the row's limit) and std::bad_alloc.
  std::string ReadReply();
  /// The same, as a document (LoadReply).
  CComPtr<IXMLDOMDocument> ReadDocument();

private:
  std::string ReadAvailable();
  std::string ReadUpTo(std::size_t cb);
  void CheckEnd();
  void CheckLimit(std::size_t cb) const;

  ExchangeVariant const &m_variant;
  CInternetSession m_session;
  std::unique_ptr<CHttpConnection> m_pConnection;
  std::unique_ptr<CHttpFile> m_pFile;
};

/// Traces "[<operation>] Internet Exception! Error code: %d" and frees the exception. Returns: its number.
DWORD TraceAndDelete(CInternetException *pException, WCHAR const *wszOperation);

/// A whole exchange in its guarded region: makes the session and hands the exchange to `work`, which finds the host,
/// sends, and reads the reply while the handles are open. Nothing escapes. Returns: the number of the Internet
/// exception that ended it, which has been traced; else 0, also when memory ran out before `work` was through.
template <class Work> DWORD RunExchange(RequestKind kind, Work work) {
  ExchangeVariant const &variant = VariantOf(kind);
  try {
    ServiceExchange exchange(variant);
    work(exchange);
  } catch (CInternetException *pException) {
    return TraceAndDelete(pException, variant.wszOperation);
  } catch (std::bad_alloc const &) {
    // as a reply without content
  }
  return 0;
}
