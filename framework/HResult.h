// The one conversion of the last error to an HRESULT. Any thread. Thin and portable: knows GetLastError alone.
#pragma once

#include "platform/base/LastError.h"

/// The calling thread's last error as an HRESULT: 0, or a value that is negative as a signed number, stays as it is;
/// any other becomes a failure with its low 16 bits as the code. Thread: any. Cannot fail.
inline HRESULT HResultFromLastError() {
  auto const error = static_cast<HRESULT>(GetLastError());
  if (error <= 0)
    return error;
  return static_cast<HRESULT>((static_cast<DWORD>(error) & 0xFFFF) | 0x80070000U);
}
