// Narrowing wide text for a call. Thin and portable: written over WideCharToMultiByte alone.
#pragma once

#include "platform/text/CodePages.h"

#include <string>

/// Bytes of a wide text in a code page, for as long as the object lives. A null text gives none. May throw
/// std::bad_alloc.
class CW2A {
public:
  explicit CW2A(WCHAR const *wszText, UINT uCodePage = CP_THREAD_ACP) : m_str(Narrow(wszText, uCodePage)) {}
  CW2A(CW2A const &) = delete;
  CW2A &operator=(CW2A const &) = delete;
  operator char const *() const { return m_psz; }

private:
  static std::string Narrow(WCHAR const *wszText, UINT uCodePage) {
    int const cb = wszText ? WideCharToMultiByte(uCodePage, 0, wszText, -1, nullptr, 0, nullptr, nullptr) : 0;
    std::string text(cb > 1 ? static_cast<std::size_t>(cb) - 1 : 0, '\0');
    if (!text.empty())
      WideCharToMultiByte(uCodePage, 0, wszText, -1, text.data(), cb, nullptr, nullptr);
    return text;
  }
  std::string m_str;

public:
  char const *m_psz = m_str.c_str(); ///< Borrowed from the object.
};
