// Narrowing wide text for a call, and the check of what becomes a request's head. Thin and portable: written over
// WideCharToMultiByte alone. Thread: any; an object belongs to one thread at a time.
#pragma once

#include "platform/base/Memory.h"
#include "platform/text/CodePages.h"

#include <algorithm>
#include <string>
#include <string_view>

/// A wide text as bytes of a code page, which live as long as the object. A null text gives an empty one. May throw
/// std::bad_alloc.
class CW2A {
public:
  explicit CW2A(WCHAR const *wszText, UINT uCodePage = CP_THREAD_ACP) : m_str(Narrow(wszText, uCodePage)) {}
  CW2A(CW2A const &) = delete;
  CW2A &operator=(CW2A const &) = delete;
  operator char const *() const { return m_psz; }
  /// Overwrites the bytes with zeros. An addition of ours.
  void Wipe() { SecureZeroMemory(m_str.data(), m_str.size()); }

private:
  static std::string Narrow(WCHAR const *wide, UINT codePage) {
    int const size = wide ? WideCharToMultiByte(codePage, 0, wide, -1, nullptr, 0, nullptr, nullptr) : 0;
    std::string text(size > 1 ? static_cast<std::size_t>(size) - 1 : 0, '\0');
    if (!text.empty())
      WideCharToMultiByte(codePage, 0, wide, -1, text.data(), size, nullptr, nullptr);
    return text;
  }
  std::string m_str;

public:
  char const *m_psz = m_str.c_str(); ///< Borrowed from the object.
};

/// True if the bytes, as they go out, hold no control character of ASCII, such as a line end, which would begin another
/// header line or another request. Windows's functions send what they are given.
inline bool HasNoControlCharacter(std::string_view bytes) {
  return std::none_of(bytes.begin(), bytes.end(), [](char c) {
    auto const byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7F;
  });
}
