// See CString.h.
#include "framework/CString.h"

#include <cstring>

std::wstring CString::Widen(char const *szText) {
  std::size_t const cb = szText ? std::strlen(szText) : 0;
  std::wstring strWide(cb, L'\0'); // no character set makes more characters than bytes
  int const nLength = cb == 0 ? 0
                              : MultiByteToWideChar(CP_THREAD_ACP, 0, szText, static_cast<int>(cb), strWide.data(),
                                                    static_cast<int>(cb));
  strWide.resize(static_cast<std::size_t>(nLength));
  return strWide;
}
