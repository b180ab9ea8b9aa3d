// COM for a scope, and holders of its objects, strings and values. Thin and portable: written over the functions of
// XmlDom.h and Com.h alone. Thread: any; an object belongs to one thread at a time.
#pragma once

#include "platform/base/Com.h"
#include "platform/xml/XmlDom.h"

#include <utility>

/// Initialises COM for a scope; where that fails, the scope goes on without it.
class ComScope {
public:
  ComScope() : m_hr(CoInitialize(nullptr)) {}
  ComScope(ComScope const &) = delete;
  ComScope &operator=(ComScope const &) = delete;
  ~ComScope() {
    if (SUCCEEDED(m_hr))
      CoUninitialize();
  }

private:
  HRESULT m_hr;
};

/// Holds one reference to a COM object.
template <class T> class CComPtr {
public:
  CComPtr() = default;
  CComPtr(CComPtr &&other) noexcept : p(std::exchange(other.p, nullptr)) {}
  CComPtr &operator=(CComPtr &&other) noexcept {
    std::swap(p, other.p);
    return *this;
  }
  ~CComPtr() {
    if (p)
      p->Release();
  }
  /// For an out parameter: releases what it holds first.
  T **operator&() {
    if (p)
      std::exchange(p, nullptr)->Release();
    return &p;
  }
  T *operator->() const { return p; }
  operator T *() const { return p; }

  T *p = nullptr;
};

/// Owns one BSTR.
class CComBSTR {
public:
  CComBSTR() = default;
  explicit CComBSTR(WCHAR const *wszText) : m_str(SysAllocString(wszText)) {}
  /// Widens bytes, up to the first zero, in the calling thread's ANSI code page.
  explicit CComBSTR(char const *szText) : m_str(Widened(szText)) {}
  CComBSTR(CComBSTR const &) = delete;
  CComBSTR &operator=(CComBSTR const &) = delete;
  ~CComBSTR() { SysFreeString(m_str); }
  BSTR *operator&() {
    SysFreeString(std::exchange(m_str, nullptr));
    return &m_str;
  }
  operator BSTR() const { return m_str; }

  BSTR m_str = nullptr;

private:
  static BSTR Widened(char const *text);
};

/// Owns one VARIANT.
class CComVariant : public VARIANT {
public:
  CComVariant() { VariantInit(this); }
  CComVariant(CComVariant const &) = delete;
  CComVariant &operator=(CComVariant const &) = delete;
  ~CComVariant() { VariantClear(this); }
};
