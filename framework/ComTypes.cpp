#include "framework/ComTypes.h"

#include "platform/text/CodePages.h"

#include <climits>
#include <cstring>

BSTR CComBSTR::Widened(char const *text) {
  std::size_t const size = text ? std::strlen(text) : 0;
  if (!text || size > INT_MAX)
    return nullptr;
  auto const bytes = static_cast<int>(size);
  int const count = bytes == 0 ? 0 : MultiByteToWideChar(CP_THREAD_ACP, 0, text, bytes, nullptr, 0);
  BSTR const wide = SysAllocStringLen(nullptr, static_cast<UINT>(count));
  if (wide && count != 0)
    MultiByteToWideChar(CP_THREAD_ACP, 0, text, bytes, wide, count);
  return wide;
}
