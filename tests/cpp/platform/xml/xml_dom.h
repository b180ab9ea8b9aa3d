// What the tests of the DOM share. Where COM has to be initialised, the main function does it.
#pragma once

#include "framework/ComTypes.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

inline CComPtr<IXMLDOMDocument> NewDocument() {
  CComPtr<IXMLDOMDocument> document;
  EXPECT_EQ(CoCreateInstance(CLSID_DOMDocument, nullptr, CLSCTX_INPROC_SERVER, IID_IXMLDOMDocument,
                             reinterpret_cast<void **>(&document)),
            S_OK);
  return document;
}

inline HRESULT Load(IXMLDOMDocument *dom, WCHAR const *xml) {
  VARIANT_BOOL isSuccess = 1;
  HRESULT const hr = dom->loadXML(CComBSTR(xml), &isSuccess);
  EXPECT_EQ(isSuccess, hr == S_OK ? -1 : 0) << "the flag says what the result says";
  return hr;
}

inline std::wstring TextOf(IXMLDOMNode *parent) {
  CComBSTR text;
  EXPECT_EQ(parent->get_text(&text), S_OK);
  return static_cast<BSTR>(text);
}

/// "name|name|" of the children along the siblings.
inline std::wstring ChildrenOf(IXMLDOMNode *parent) {
  std::wstring names;
  CComPtr<IXMLDOMNode> child;
  for (HRESULT hr = parent->get_firstChild(&child); hr == S_OK;) {
    CComBSTR name;
    EXPECT_EQ(child->get_nodeName(&name), S_OK);
    names.append(name).append(L"|");
    CComPtr<IXMLDOMNode> next;
    hr = child->get_nextSibling(&next);
    child = std::move(next);
  }
  EXPECT_EQ(child, nullptr);
  return names;
}

/// The root of the markup, which outlives its document; null if the markup is refused.
inline CComPtr<IXMLDOMNode> RootOf(std::wstring const &xml) {
  auto const document = NewDocument();
  EXPECT_EQ(Load(document, xml.c_str()), S_OK) << testing::PrintToString(xml);
  CComPtr<IXMLDOMNode> root;
  document->get_firstChild(&root);
  return root;
}
