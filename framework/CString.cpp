// See CString.h.
#include "framework/CString.h"

#include <cstring>

std::wstring CString::Widen(char const *text) {
  std::size_t const size = text ? std::strlen(text) : 0;
  std::wstring wide(size, L'\0'); // no character set yields more characters than bytes
  int const length = size == 0 ? 0
                               : MultiByteToWideChar(CP_THREAD_ACP, 0, text, static_cast<int>(size), wide.data(),
                                                     static_cast<int>(size));
  wide.resize(static_cast<std::size_t>(length));
  return wide;
}
