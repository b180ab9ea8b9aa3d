// The only way to send the service a request and read its reply, except for uploads: one procedure over a table of
// variants. Runs on the calling thread and blocks it. Knows nothing of Python.
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

/// Where the size of the reply comes from, and so how often it is read.
enum class ReplySize {
  ContentLength, ///< Once, as many bytes as the header declares; a reply without the header counts as empty.
  Available,     ///< Once, the bytes that are available when the first one has arrived.
  AvailableLoop, ///< Like Available, repeated until the end; each piece counts up to its first zero byte.
};

/// A row of the table: what distinguishes one kind of request from the others.
struct ExchangeVariant {
  RequestKind kind;
  WCHAR const *wszOperation; ///< Its name in the trace.
  WCHAR const *wszAgent;     ///< Null: the module's application name.
  int nVerb;
  INTERNET_PORT nPort;
  DWORD dwFlags;        ///< For OpenRequest.
  bool bSecurityOption; ///< Set the security option if the host is a demo or staging host.
  bool bForm;           ///< Has the fixed headers and a form body, if Send is given one.
  ReplySize replySize;
  std::size_t cchMostObject; ///< Longest object name, in characters; a longer one is refused. 0: no limit.
  std::size_t cbMostReply;   ///< Longest reply, in bytes; a longer one throws. 0: the HTTP layer's limit.
};

ExchangeVariant const &VariantOf(RequestKind kind);

/// The headers of a request with a form body, separated by a single line feed.
extern WCHAR const kFormHeaders[];

/// One exchange, in stages. Session, connection and request stay open until destruction.
class ServiceExchange {
public:
  /// Opens the session. `variant` is borrowed. Throws CInternetException *.
  explicit ServiceExchange(ExchangeVariant const &variant);

  /// Limits connecting and sending, in ms.
  void SetTimeouts(DWORD dwConnect, DWORD dwSend);
  /// Connects, opens the request, sends it and waits for the reply's headers. Host and object name are narrowed in the
  /// thread's ANSI code page; `szForm` is the body if the row has a form, null for none. Returns: what SendRequest
  /// returned. FALSE is a failure without an error number, which a caller may ignore: reading then gives an empty reply
  /// or throws. Throws CInternetException * (ERROR_INTERNET_INVALID_URL for an object name over the row's limit, and
  /// for a control character in host or object name) and std::bad_alloc.
  BOOL Send(WCHAR const *wszHost, WCHAR const *wszObject, char const *szForm = nullptr);
  /// Reads the reply's bytes as the row says; the HTTP status is ignored. Call after Send. A reply that is lost midway
  /// throws, whatever has arrived; one that ends in order short of its declared length does not. Throws
  /// CInternetException * (12152, ERROR_HTTP_INVALID_SERVER_RESPONSE, for a reply over the row's limit) and
  /// std::bad_alloc.
  std::string ReadReply();
  /// ReadReply and LoadReply in one.
  CComPtr<IXMLDOMDocument> ReadDocument();

private:
  std::string ReadAvailable();
  std::string ReadUpTo(std::size_t cb);
  void ThrowIfBroken();
  void CheckLimit(std::size_t cb) const;

  ExchangeVariant const &m_variant;
  CInternetSession m_session;
  std::unique_ptr<CHttpConnection> m_pConnection;
  std::unique_ptr<CHttpFile> m_pFile;
};

/// Traces "[<operation>] Internet Exception! Error code: %d" and frees the exception. Returns: its number.
DWORD TraceAndDelete(CInternetException *pException, WCHAR const *wszOperation);

/// Opens the session and passes the exchange to `work`, which finds the host, sends, and reads the reply and its
/// document while the handles are open. Nothing escapes. Returns: the number of the Internet exception that ended the
/// exchange, which has been traced; otherwise 0, also when `work` ran out of memory.
template <class Work> DWORD RunExchange(RequestKind kind, Work work) {
  ExchangeVariant const &variant = VariantOf(kind);
  try {
    ServiceExchange exchange(variant);
    work(exchange);
  } catch (CInternetException *pException) {
    return TraceAndDelete(pException, variant.wszOperation);
  } catch (std::bad_alloc const &) {
    // Ends like an exchange with an empty reply.
  }
  return 0;
}
