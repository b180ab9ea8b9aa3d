// Builds object names, addresses and form bodies out of their parts. A pure function; any thread.
#pragma once

#include "framework/CString.h"

#include <cwchar>
#include <initializer_list>

/// The texts one after the other. Nothing is escaped, and a null text counts as empty. May throw std::bad_alloc. Leaves
/// no copy of a part elsewhere in memory.
inline CString JoinText(std::initializer_list<WCHAR const *> texts) {
  std::size_t cch = 0;
  for (WCHAR const *wszText : texts)
    cch += wszText ? std::wcslen(wszText) : 0;
  std::wstring joined;
  joined.reserve(cch);
  for (WCHAR const *wszText : texts)
    joined += wszText ? wszText : L"";
  return joined;
}
