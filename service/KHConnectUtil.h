// Plain blocking HTTP requests to any host on port 80 or 443. An instance has no state; any thread may call it.
#pragma once

#include <Python.h>

#include "platform/base/Types.h"

class KHConnectUtil {
public:
  KHConnectUtil();
  ~KHConnectUtil() = default;

  // Both POST, let go of the interpreter lock while they connect and send (5 s each at most), and read the reply with
  // it held. Returns: a new reference to a dict: empty if host, path or parameters are null; else "bSucc" (int: 1 sent,
  // 0 not), "data" (str: the reply's body as its Content-Length says, UTF-8, U+FFFD for what does not decode) if a
  // reply was read, and "errMsg" (str: a sentence of at most 79 characters) if the network failed. Nothing is escaped.

  /// `wszParam` goes as the query; `wszHeader` is not used.
  PyObject *SyncSendHttpRequest(WCHAR const *wszHost, int nPort, WCHAR const *wszPath, WCHAR const *wszParam,
                                WCHAR const *wszHeader);
  /// `wszParam` goes as a form body, in the thread's ANSI code page.
  PyObject *SyncSendHttpRequestParam(WCHAR const *wszHost, int nPort, WCHAR const *wszPath, WCHAR const *wszParam);
};
