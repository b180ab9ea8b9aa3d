// Builds object names, addresses and form bodies out of their parts. A pure function; any thread.
#pragma once

#include "framework/CString.h"

#include <initializer_list>

/// The texts one after the other. Nothing is escaped, and a null text counts as empty. May throw std::bad_alloc.
inline CString JoinText(std::initializer_list<WCHAR const *> texts) {
  CString strJoined;
  for (WCHAR const *wszText : texts)
    strJoined += wszText;
  return strJoined;
}
