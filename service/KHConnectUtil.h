// Blocking HTTP requests to any host on port 80 or 443.
//
// Thread: any, with the GIL held; an instance has no state.
#pragma once

#include <Python.h>

#include "platform/base/Types.h"

class KHConnectUtil {
public:
  KHConnectUtil();
  ~KHConnectUtil() = default;

  // Both send a POST, nothing escaped. They release the GIL while they connect (at most 5 s) and send (at most 5 s
  // without progress), and hold it while they read the reply. Both return a new reference to a dict, which is empty if
  // host, path or parameters are null. Its keys are "bSucc" (int: 1 if sent, else 0; always 0 for another port), "data"
  // (str: the body up to its Content-Length, decoded as UTF-8 with U+FFFD for errors) if a reply was read, and "errMsg"
  // (str: a sentence of at most 79 characters) if the network failed. Null with a Python error if no dict can be
  // created.

  /// Sends `wszParam` as the query; `wszHeader` is not used.
  PyObject *SyncSendHttpRequest(WCHAR const *wszHost, int nPort, WCHAR const *wszPath, WCHAR const *wszParam,
                                WCHAR const *wszHeader);
  /// Sends `wszParam` as a form body, in the thread's ANSI code page.
  PyObject *SyncSendHttpRequestParam(WCHAR const *wszHost, int nPort, WCHAR const *wszPath, WCHAR const *wszParam);
};
