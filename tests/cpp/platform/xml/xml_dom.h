// What the tests of the DOM share. Where COM must be initialised, the main function does it.
#pragma once

#include "framework/ComTypes.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

/// A document, with what loading the text says.
inline CComPtr<IXMLDOMDocument> Load(WCHAR const *xml, HRESULT &hr) {
  CComPtr<IXMLDOMDocument> document;
  EXPECT_EQ(CoCreateInstance(CLSID_DOMDocument, nullptr, CLSCTX_INPROC_SERVER, IID_IXMLDOMDocument,
                             reinterpret_cast<void **>(&document)),
            S_OK);
  VARIANT_BOOL isSuccess = 1;
  EXPECT_EQ(document->loadXML(CComBSTR(L"<old/>"), &isSuccess), S_OK);
  hr = document->loadXML(CComBSTR(xml), &isSuccess);
  EXPECT_EQ(isSuccess, hr == S_OK ? -1 : 0) << "the flag says what the result says";
  return document;
}

/// "text|name|name|": the text of a document's root, which outlives it, and the names of the root's children; else the
/// number that loading returns.
inline std::wstring Loaded(WCHAR const *xml) {
  HRESULT hr = S_OK;
  CComPtr<IXMLDOMNode> root, child;
  if (Load(xml, hr)->get_firstChild(&root) != S_OK)
    return std::to_wstring(hr);
  CComBSTR text;
  EXPECT_EQ(root->get_text(&text), S_OK);
  std::wstring shown = static_cast<BSTR>(text);
  for (hr = root->get_firstChild(&child); hr == S_OK;) {
    CComBSTR name;
    EXPECT_EQ(child->get_nodeName(&name), S_OK);
    shown.append(L"|").append(name);
    CComPtr<IXMLDOMNode> next;
    hr = child->get_nextSibling(&next);
    child = std::move(next);
  }
  return shown + L"|";
}

/// The text of the element that a path finds; else the number that the query returns.
inline std::wstring Find(IXMLDOMDocument *document, WCHAR const *path) {
  CComPtr<IXMLDOMNode> node;
  CComBSTR text;
  HRESULT const hr = document->selectSingleNode(CComBSTR(path), &node);
  EXPECT_EQ(node != nullptr, hr == S_OK);
  return node && node->get_text(&text) == S_OK ? static_cast<BSTR>(text) : std::to_wstring(hr);
}
