// The framework's session classes: session, connection, request file and exception. Thin and portable: written over the
// functions of WinInet.h alone. They and the service exchange report a failure by throwing CInternetException *, which
// the catcher deletes: RunExchange, or KHConnectUtil for a blocking request. Thread: any; an object belongs to one
// thread at a time, but WinInet.h says which calls another thread may end.
#pragma once

#include "framework/CString.h"
#include "framework/Handles.h"

/// The module's state: the application name is the agent of a session that is given none. Set once, before it is read.
struct AFX_MODULE_STATE {
  WCHAR const *m_lpszCurrentAppName;
};
AFX_MODULE_STATE *AfxGetModuleState();

class CInternetException {
public:
  explicit CInternetException(DWORD dwError) : m_dwError(dwError) {}
  /// Writes a sentence that names the cause, cut to `cchText` characters including the terminator. Returns: FALSE if
  /// there is no buffer.
  BOOL GetErrorMessage(WCHAR *wszText, UINT cchText) const;
  void Delete() { delete this; }

  DWORD m_dwError; ///< The error number, in the 12000 range for most.

private:
  ~CInternetException() = default;
};

/// A reply as a file. Owns its handle.
class CInternetFile {
public:
  CInternetFile(CInternetFile const &) = delete;
  CInternetFile &operator=(CInternetFile const &) = delete;
  virtual ~CInternetFile() = default;
  BOOL SetOption(DWORD dwOption, void *pValue, DWORD dwLength, DWORD dwFlags = 0);
  /// How many bytes can be read without waiting; waits for the first one. 0 at the end and on failure. Does not throw.
  std::uint64_t GetLength() const;
  /// Reads up to `nCount` bytes; fewer only at the end. Throws when the connection fails.
  UINT Read(void *pBuffer, UINT nCount);

protected:
  explicit CInternetFile(InternetHandle hFile) : m_hFile(std::move(hFile)) {}
  InternetHandle m_hFile;
};

class CHttpFile : public CInternetFile {
public:
  /// Sends the request and waits for the reply's headers. Throws on failure; FALSE for a failure without an error
  /// number.
  BOOL SendRequest(WCHAR const *wszHeaders = nullptr, DWORD dwHeadersLength = 0, void const *pBody = nullptr,
                   DWORD dwBodyLength = 0);
  /// The header's text. Returns: FALSE, with the text empty, if it is absent.
  BOOL QueryInfo(DWORD dwInfoLevel, CString &strText) const;

private:
  friend class CHttpConnection;
  using CInternetFile::CInternetFile;
};

class CHttpConnection {
public:
  enum Verb { HTTP_VERB_POST = 0, HTTP_VERB_GET = 1 };
  CHttpConnection(CHttpConnection const &) = delete;
  CHttpConnection &operator=(CHttpConnection const &) = delete;
  virtual ~CHttpConnection() = default;
  /// Creates a request, which the caller owns. Adds INTERNET_FLAG_SECURE at port 443. Throws on failure.
  CHttpFile *OpenRequest(int nVerb, WCHAR const *wszObject, WCHAR const *wszReferrer, DWORD_PTR dwContext,
                         WCHAR const **pwszAcceptTypes, WCHAR const *wszVersion, DWORD dwFlags);

private:
  friend class CInternetSession;
  CHttpConnection(InternetHandle hConnection, INTERNET_PORT nPort)
      : m_hConnection(std::move(hConnection)), m_nPort(nPort) {}
  InternetHandle m_hConnection;
  INTERNET_PORT m_nPort;
};

class CInternetSession {
public:
  /// A null agent stands for the module's application name. Throws on failure.
  CInternetSession(WCHAR const *wszAgent, DWORD_PTR dwContext, DWORD dwAccessType, WCHAR const *wszProxy,
                   WCHAR const *wszBypass, DWORD dwFlags);
  CInternetSession(CInternetSession const &) = delete;
  CInternetSession &operator=(CInternetSession const &) = delete;
  virtual ~CInternetSession() = default;
  BOOL SetOption(DWORD dwOption, DWORD dwValue, DWORD dwFlags = 0);
  /// Creates a connection to the server, which the caller owns; connects to nothing yet. Throws on failure.
  CHttpConnection *GetHttpConnection(WCHAR const *wszServer, INTERNET_PORT nPort, WCHAR const *wszUser,
                                     WCHAR const *wszPassword);
  void Close() { m_hSession.reset(); }

private:
  InternetHandle m_hSession;
};
