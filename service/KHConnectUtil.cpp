#include "service/KHConnectUtil.h"

#include "framework/CW2A.h"
#include "service/JoinText.h"
#include "service/ServiceExchange.h"
#include "shell/ScopedGILRelease.h"
#include "trace/Trace.h"

#include <cstring>
#include <exception>
#include <new>

namespace {

constexpr DWORD kTimeout = 5000; // ms to connect, and without progress while sending
constexpr UINT kErrorSize = 80;  // wide characters, terminator included

// Sets a key and steals the reference to the value. A null value (Python is out of memory) leaves the key out.
void SetKey(PyObject *pDict, char const *szKey, PyObject *pValue) {
  if (!pValue || PyDict_SetItemString(pDict, szKey, pValue) != 0)
    PyErr_Clear();
  Py_XDECREF(pValue);
}

// Connects and sends without the GIL. An exception is kept until the GIL is back: Python may end the thread where it
// takes the GIL, and unwinding the stack for that while an exception is in flight would terminate the process.
BOOL SendWithoutGil(ServiceExchange &exchange, WCHAR const *wszHost, WCHAR const *wszObject, char const *szForm) {
  BOOL bSent = FALSE;
  std::exception_ptr failure;
  {
    ScopedGILRelease const release;
    try {
      bSent = exchange.Send(wszHost, wszObject, szForm);
    } catch (CInternetException *) {
      failure = std::current_exception();
    } catch (std::bad_alloc const &) {
      failure = std::current_exception();
    }
  }
  if (failure)
    std::rethrow_exception(failure);
  return bSent;
}

// The exchange, after the arguments have been tested. A null `szForm` means no headers and no body. `bSucc` becomes
// what SendRequest returned, and keeps it if reading the reply then throws.
void Request(PyObject *pDict, BOOL &bSucc, WCHAR const *wszHost, int nPort, WCHAR const *wszObject,
             char const *szForm) {
  RequestKind const kind =
      nPort == INTERNET_DEFAULT_HTTPS_PORT ? RequestKind::BlockingRequestSecure : RequestKind::BlockingRequestPlain;
  ServiceExchange exchange(VariantOf(kind));
  exchange.SetTimeouts(kTimeout, kTimeout);
  if (nPort != INTERNET_DEFAULT_HTTPS_PORT && nPort != INTERNET_DEFAULT_HTTP_PORT)
    return;
  bSucc = SendWithoutGil(exchange, wszHost, wszObject, szForm);
  if (!bSucc)
    TraceMsgW(L"Send request fail: Get <false response> when send request to %s", wszHost);
  std::string const strReply = exchange.ReadReply();
  SetKey(pDict, "data",
         PyUnicode_DecodeUTF8(strReply.c_str(), static_cast<Py_ssize_t>(std::strlen(strReply.c_str())), "replace"));
}

PyObject *GuardedRequest(WCHAR const *wszHost, int nPort, WCHAR const *wszPath, WCHAR const *wszQuery,
                         WCHAR const *wszForm) {
  PyObject *const pDict = PyDict_New(); // new
  if (!pDict || !wszHost || !wszPath || (!wszQuery && !wszForm))
    return pDict;
  BOOL bSucc = FALSE;
  try {
    CString const strObject = JoinText({wszPath, wszQuery && *wszQuery ? L"?" : L"", wszQuery});
    CW2A const form(wszForm);
    Request(pDict, bSucc, wszHost, nPort, strObject, wszForm ? form.m_psz : nullptr);
  } catch (CInternetException *pException) {
    WCHAR wszError[kErrorSize] = {};
    pException->GetErrorMessage(wszError, kErrorSize);
    pException->Delete();
    SetKey(pDict, "errMsg", Py_BuildValue("u", wszError));
  } catch (std::bad_alloc const &) {
    // The keys set so far stand, as if the request was not sent or its reply not read.
  }
  SetKey(pDict, "bSucc", Py_BuildValue("b", bSucc));
  return pDict;
}

} // namespace

KHConnectUtil::KHConnectUtil() { TraceInit("KHConnectUtil"); }

PyObject *KHConnectUtil::SyncSendHttpRequest(WCHAR const *wszHost, int nPort, WCHAR const *wszPath,
                                             WCHAR const *wszParam, WCHAR const *) {
  return GuardedRequest(wszHost, nPort, wszPath, wszParam, nullptr);
}

PyObject *KHConnectUtil::SyncSendHttpRequestParam(WCHAR const *wszHost, int nPort, WCHAR const *wszPath,
                                                  WCHAR const *wszParam) {
  return GuardedRequest(wszHost, nPort, wszPath, nullptr, wszParam);
}
