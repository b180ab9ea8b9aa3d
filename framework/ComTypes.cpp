// See ComTypes.h.
#include "framework/ComTypes.h"

#include "platform/text/CodePages.h"

#include <climits>
#include <cstring>
#include <new>

BSTR CComBSTR::Widened(char const *szText) {
  if (!szText)
    return nullptr;
  std::size_t const cb = std::strlen(szText) + 1; // no character set makes more characters than bytes
  BSTR const bstrText = cb > INT_MAX ? nullptr : new (std::nothrow) WCHAR[cb];
  if (bstrText &&
      MultiByteToWideChar(CP_THREAD_ACP, 0, szText, static_cast<int>(cb), bstrText, static_cast<int>(cb)) == 0)
    *bstrText = 0;
  return bstrText;
}
