// The growable wide string and the string map of the window framework, as far as they are used. A string is never null;
// an unset one is empty. Thin and portable: standard containers underneath. Thread: any; an object belongs to one
// thread at a time.
#pragma once

#include "platform/base/Memory.h"
#include "platform/base/Types.h"

#include <functional>
#include <map>
#include <string>
#include <string_view>

class CString {
public:
  CString() = default;
  /// A null text gives an empty string.
  CString(WCHAR const *wszText) : m_str(wszText ? wszText : L"") {}
  CString(std::wstring text) : m_str(std::move(text)) {}

  operator WCHAR const *() const { return m_str.c_str(); }
  WCHAR const *GetString() const { return m_str.c_str(); }
  int GetLength() const { return static_cast<int>(m_str.size()); }
  bool IsEmpty() const { return m_str.empty(); }
  void Empty() { m_str.clear(); }
  /// Empties the string and overwrites what it held. An addition of ours.
  void Wipe() {
    SecureZeroMemory(m_str.data(), m_str.size() * sizeof(WCHAR));
    m_str.clear();
  }
  /// The position of the first occurrence, -1 for none. Case matters.
  int Find(WCHAR const *wszText) const { return static_cast<int>(m_str.find(wszText)); }
  CString &operator+=(WCHAR const *wszText) {
    m_str += wszText ? wszText : L"";
    return *this;
  }
  bool operator==(CString const &other) const { return m_str == other.m_str; }

private:
  std::wstring m_str;
};

class CMapStringToString {
public:
  explicit CMapStringToString(int /*nBlockSize*/ = 10) {}
  void SetAt(WCHAR const *wszKey, WCHAR const *wszValue) {
    auto const it = m_map.find(std::wstring_view(wszKey));
    if (it == m_map.end())
      m_map.emplace(wszKey, wszValue);
    else
      it->second = wszValue;
  }
  bool Lookup(WCHAR const *wszKey, CString &strValue) const {
    auto const it = m_map.find(std::wstring_view(wszKey));
    if (it == m_map.end())
      return false;
    strValue = it->second;
    return true;
  }
  std::size_t GetCount() const { return m_map.size(); }
  auto begin() const { return m_map.begin(); }
  auto end() const { return m_map.end(); }

private:
  std::map<std::wstring, std::wstring, std::less<>> m_map; // less<>: lookup without a copy of the key
};
