// What the tests of the DOM share. Where COM must be initialised, the main function does it.
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
  return names;
}

/// Loads over an older document, which a failed load empties, too.
inline void ExpectLoad(HRESULT hr, WCHAR const *xml) {
  auto const document = NewDocument();
  ASSERT_EQ(Load(document, L"<old/>"), S_OK);
  EXPECT_EQ(Load(document, xml), hr) << testing::PrintToString(xml);
  EXPECT_EQ(ChildrenOf(document).empty(), hr != S_OK) << testing::PrintToString(xml);
}

/// The text and the children of a root, which outlives its document.
inline void ExpectContent(WCHAR const *xml, WCHAR const *text, WCHAR const *children) {
  CComPtr<IXMLDOMNode> root;
  auto document = NewDocument();
  ASSERT_EQ(Load(document, xml), S_OK) << testing::PrintToString(xml);
  ASSERT_EQ(document->get_firstChild(&root), S_OK);
  document = {};
  EXPECT_EQ(TextOf(root), text) << testing::PrintToString(xml);
  EXPECT_EQ(ChildrenOf(root), children) << testing::PrintToString(xml);
}

/// What a path finds: the text of an element, or none.
inline void ExpectFound(IXMLDOMDocument *document, WCHAR const *path, HRESULT hr, WCHAR const *text = nullptr) {
  CComPtr<IXMLDOMNode> node;
  EXPECT_EQ(document->selectSingleNode(CComBSTR(path), &node), hr) << testing::PrintToString(path);
  ASSERT_EQ(node != nullptr, text != nullptr) << testing::PrintToString(path);
  if (text) {
    EXPECT_EQ(TextOf(node), text);
  }
}
