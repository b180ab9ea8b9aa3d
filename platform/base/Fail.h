// How a platform call reports a failure: the last error first, then the result. Any thread.
#pragma once

#include "platform/base/LastError.h"

/// Sets the last error and returns the result, so that a failure is one statement: `return Fail(ERROR_X, FALSE);`
template <class Result> Result Fail(DWORD error, Result result) {
  SetLastError(error);
  return result;
}
