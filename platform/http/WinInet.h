// The HTTP client interface: a session, a connection, a request, the streamed body and the reply.
// Every call blocks its thread. Handles are entries of a table: a call on a closed handle fails, and closing a handle
// from another thread ends the call that blocks on it or on a handle below it (ERROR_INTERNET_OPERATION_CANCELLED).
//
// HttpRequest.h holds the limits of time and size. Common errors (last error): 12002 time-out, 12005 a bad
// address, 12006 no such scheme, 12007 name not resolved, 12017 cancelled, 12019 wrong state, 12029 no
// connection, 12030 and 12031 connection lost, 12037 certificate date, 12038 certificate name, 12045 issuer, 12152 not
// HTTP, 12157 TLS, 8 out of memory.
#pragma once

#include "platform/base/Types.h"
#include "platform/http/InternetStatus.h"

using INTERNET_SCHEME = int;
constexpr INTERNET_SCHEME INTERNET_SCHEME_UNKNOWN = -1;
constexpr INTERNET_SCHEME INTERNET_SCHEME_HTTP = 3;
constexpr INTERNET_SCHEME INTERNET_SCHEME_HTTPS = 4;

constexpr DWORD INTERNET_OPEN_TYPE_PRECONFIG = 0;
constexpr DWORD INTERNET_SERVICE_HTTP = 3;
constexpr INTERNET_PORT INTERNET_DEFAULT_HTTP_PORT = 80;
constexpr INTERNET_PORT INTERNET_DEFAULT_HTTPS_PORT = 443;

constexpr DWORD INTERNET_FLAG_RELOAD = 0x80000000;
constexpr DWORD INTERNET_FLAG_EXISTING_CONNECT = 0x20000000;
constexpr DWORD INTERNET_FLAG_NO_CACHE_WRITE = 0x04000000;
constexpr DWORD INTERNET_FLAG_SECURE = 0x00800000;
constexpr DWORD INTERNET_FLAG_IGNORE_CERT_DATE_INVALID = 0x00002000;
constexpr DWORD INTERNET_FLAG_IGNORE_CERT_CN_INVALID = 0x00001000;
constexpr DWORD INTERNET_FLAG_RESYNCHRONIZE = 0x00000800;

constexpr DWORD INTERNET_OPTION_CONNECT_TIMEOUT = 2; // ms, on a session
constexpr DWORD INTERNET_OPTION_SEND_TIMEOUT = 5;    // ms, on a session
constexpr DWORD INTERNET_OPTION_SECURITY_FLAGS = 31; // on a request
constexpr DWORD SECURITY_FLAG_IGNORE_REVOCATION = 0x00000080;
constexpr DWORD SECURITY_FLAG_IGNORE_CERT_CN_INVALID = 0x00001000;
constexpr DWORD SECURITY_FLAG_IGNORE_CERT_DATE_INVALID = 0x00002000;

constexpr DWORD HTTP_QUERY_CONTENT_LENGTH = 5;
constexpr DWORD HTTP_QUERY_STATUS_CODE = 19;
constexpr DWORD HTTP_QUERY_FLAG_NUMBER = 0x20000000;
constexpr DWORD HTTP_ADDREQ_FLAG_ADD = 0x20000000;
constexpr DWORD HSR_INITIATE = 8;

/// What HttpSendRequestExW takes; only dwBufferTotal, the declared length of the body in bytes, is read.
struct INTERNET_BUFFERSW {
  DWORD dwStructSize;
  INTERNET_BUFFERSW *Next;
  WCHAR const *lpcszHeader;
  DWORD dwHeadersLength;
  DWORD dwHeadersTotal;
  void *lpvBuffer;
  DWORD dwBufferLength;
  DWORD dwBufferTotal;
  DWORD dwOffsetLow;
  DWORD dwOffsetHigh;
};

/// A split URL: the caller gives each buffer and its size in bytes, and finds the text's length there.
struct URL_COMPONENTSA {
  DWORD dwStructSize;
  char *lpszScheme;
  DWORD dwSchemeLength;
  INTERNET_SCHEME nScheme;
  char *lpszHostName;
  DWORD dwHostNameLength;
  INTERNET_PORT nPort;
  char *lpszUserName;
  DWORD dwUserNameLength;
  char *lpszPassword;
  DWORD dwPasswordLength;
  char *lpszUrlPath;
  DWORD dwUrlPathLength;
  char *lpszExtraInfo;
  DWORD dwExtraInfoLength;
};

// Thread, for all that opens or sets up a handle: any; calls on one session may overlap.

/// Opens a session. The agent is the User-Agent of its requests; null or empty sends none. Proxies come from the usual
/// environment variables. Differs: preconfigured access only, flags 0.
SKIFFPORT_PLATFORM_API HINTERNET InternetOpenW(WCHAR const *wszAgent, DWORD dwAccessType, WCHAR const *wszProxy,
                                               WCHAR const *wszBypass, DWORD dwFlags);
SKIFFPORT_PLATFORM_API HINTERNET InternetOpenA(char const *szAgent, DWORD dwAccessType, char const *szProxy,
                                               char const *szBypass, DWORD dwFlags);

/// Sets the callback of the session's later requests. Returns: the earlier one, null for none.
SKIFFPORT_PLATFORM_API INTERNET_STATUS_CALLBACK InternetSetStatusCallbackW(HINTERNET hSession,
                                                                           INTERNET_STATUS_CALLBACK pfnCallback);

/// Names the server; nothing goes out yet. A host that is empty, or holds a character that ends or escapes a host in a
/// URL ("/?#@\\% "), is refused (12005), and so is one whose ASCII form, which is what goes out for an international
/// name (RFC 5891), holds such a character.
SKIFFPORT_PLATFORM_API HINTERNET InternetConnectA(HINTERNET hSession, char const *szServer, INTERNET_PORT nPort,
                                                  char const *szUser, char const *szPassword, DWORD dwService,
                                                  DWORD dwFlags, DWORD_PTR dwContext);
SKIFFPORT_PLATFORM_API HINTERNET InternetConnectW(HINTERNET hSession, WCHAR const *wszServer, INTERNET_PORT nPort,
                                                  WCHAR const *wszUser, WCHAR const *wszPassword, DWORD dwService,
                                                  DWORD dwFlags, DWORD_PTR dwContext);

/// Opens a request; nothing goes out yet. The object is path and query; an empty one becomes "/", a leading slash is
/// added, a space goes out as %20, nothing else is touched or checked, not even a line end (wide text goes out in the
/// thread's ANSI code page). TLS with INTERNET_FLAG_SECURE, and always at port 443.
/// INTERNET_FLAG_NO_CACHE_WRITE adds "Cache-Control: no-cache". Differs: GET (also for an empty verb) and POST only.
/// Where the environment names a proxy for plain HTTP, bytes that a URL can't hold go out percent-encoded.
SKIFFPORT_PLATFORM_API HINTERNET HttpOpenRequestA(HINTERNET hConnect, char const *szVerb, char const *szObject,
                                                  char const *szVersion, char const *szReferrer,
                                                  char const **pszAcceptTypes, DWORD dwFlags, DWORD_PTR dwContext);
SKIFFPORT_PLATFORM_API HINTERNET HttpOpenRequestW(HINTERNET hConnect, WCHAR const *wszVerb, WCHAR const *wszObject,
                                                  WCHAR const *wszVersion, WCHAR const *wszReferrer,
                                                  WCHAR const **pwszAcceptTypes, DWORD dwFlags, DWORD_PTR dwContext);

// Thread, for all that works on a request, with InternetSetOptionW and HttpAddRequestHeadersA: any, but one call at a
// time. A second call on the request, also one from its status callback, fails with 12019.

/// Adds header lines (split at line ends) to the request; `dwLength` in characters, 0xFFFFFFFF for a terminated text.
/// Errors: 87 for a line without a colon, 12019 once the request was sent. Differs: HTTP_ADDREQ_FLAG_ADD only.
SKIFFPORT_PLATFORM_API BOOL HttpAddRequestHeadersA(HINTERNET hRequest, char const *szHeaders, DWORD dwLength,
                                                   DWORD dwModifiers);

/// Sets a 4-byte option: a time limit of the session's later requests, or a request's security flags.
SKIFFPORT_PLATFORM_API BOOL InternetSetOptionW(HINTERNET hInternet, DWORD dwOption, void *pValue, DWORD dwLength);

/// Sends a whole request and waits for the end of the reply's headers. The headers are split at line ends; a header
/// given here replaces the layer's own of the same name. A null body is none (a POST then declares length 0).
SKIFFPORT_PLATFORM_API BOOL HttpSendRequestW(HINTERNET hRequest, WCHAR const *wszHeaders, DWORD dwHeadersLength,
                                             void const *pBody, DWORD dwBodyLength);

/// Connects and sends the request's head with the declared body length; the body follows by InternetWriteFile.
SKIFFPORT_PLATFORM_API BOOL HttpSendRequestExW(HINTERNET hRequest, INTERNET_BUFFERSW *pIn, INTERNET_BUFFERSW *pOut,
                                               DWORD dwFlags, DWORD_PTR dwContext);

/// Writes the next bytes of the body and returns when the system has them; fewer than 4 KiB may be held and joined with
/// what follows. After an early final reply (a status of 300 or more, or one that ended the connection) the bytes are
/// taken as written. Fails beyond the declared length (12019). A failure of held bytes shows in the call that sends
/// them.
SKIFFPORT_PLATFORM_API BOOL InternetWriteFile(HINTERNET hRequest, void const *pBuffer, DWORD dwBytes,
                                              DWORD *pdwWritten);

/// Sends what is held and waits for the end of the reply's headers. Fails at once short of the declared length (12019).
SKIFFPORT_PLATFORM_API BOOL HttpEndRequestW(HINTERNET hRequest, INTERNET_BUFFERSW *pOut, DWORD dwFlags,
                                            DWORD_PTR dwContext);

/// A header's text (wide, terminated; `*pdwLength` in bytes: in the buffer's size, out the text's) or, with
/// HTTP_QUERY_FLAG_NUMBER, the status as a DWORD. Errors: 12150 not there, 122 too small, 12019 no reply yet.
SKIFFPORT_PLATFORM_API BOOL HttpQueryInfoW(HINTERNET hRequest, DWORD dwInfoLevel, void *pBuffer, DWORD *pdwLength,
                                           DWORD *pdwIndex);

/// Waits for the first byte of the reply, then reports all that can be had without waiting; 0 at its end.
SKIFFPORT_PLATFORM_API BOOL InternetQueryDataAvailable(HINTERNET hRequest, DWORD *pdwAvailable, DWORD dwFlags,
                                                       DWORD_PTR dwContext);

/// Reads exactly `dwBytes` bytes, fewer only at the reply's end; TRUE with 0 there. A reply that the server ends in
/// order, short of its declared length, simply ends. A loss, a time-out or a limit first gives out what came before;
/// the next call fails.
SKIFFPORT_PLATFORM_API BOOL InternetReadFile(HINTERNET hFile, void *pBuffer, DWORD dwBytes, DWORD *pdwRead);

// Thread, for the rest: any.

/// Opens a URL with GET and returns when the reply's headers are in, whatever the status; null on failure.
/// Differs: the caller's headers are not sent; http and https only.
SKIFFPORT_PLATFORM_API HINTERNET InternetOpenUrlA(HINTERNET hSession, char const *szUrl, char const *szHeaders,
                                                  DWORD dwHeadersLength, DWORD dwFlags, DWORD_PTR dwContext);

/// Closes a handle and those below it, once; any call that blocks on them ends. Errors: FALSE with 6 the second time.
SKIFFPORT_PLATFORM_API BOOL InternetCloseHandle(HINTERNET hInternet);

/// Splits an absolute URL. Errors: 12006 no scheme, 87 null or empty, 122 a component that does not fit its buffer,
/// 12005 a port that is no number from 1 to 65535, an empty host, or a control character (RFC 3986, sections 3.1
/// to 3.3). Differs: `dwUrlLength` 0 (terminated), flags 0 and all six buffers only.
SKIFFPORT_PLATFORM_API BOOL InternetCrackUrlA(char const *szUrl, DWORD dwUrlLength, DWORD dwFlags,
                                              URL_COMPONENTSA *pComponents);
