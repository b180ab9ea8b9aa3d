// See ComTypes.h.
#include "framework/ComTypes.h"

#include "platform/text/CodePages.h"

#include <climits>
#include <cstring>
#include <new>

BSTR CComBSTR::Widened(char const *text) {
  if (!text)
    return nullptr;
  std::size_t const size = std::strlen(text) + 1; // no character set yields more characters than bytes
  BSTR const wide = size > INT_MAX ? nullptr : new (std::nothrow) WCHAR[size];
  if (wide && MultiByteToWideChar(CP_THREAD_ACP, 0, text, static_cast<int>(size), wide, static_cast<int>(size)) == 0)
    *wide = 0;
  return wide;
}
