#include "reply/Document.h"

#include <algorithm>
#include <cwchar>
#include <cwctype>

// A longer reply does not parse, since a document has at most 8 * 1024 * 1024 characters of at most four bytes each. As
// text it would take four times its size.
constexpr std::size_t kMostBytes = 32 * 1024 * 1024;

CComPtr<IXMLDOMDocument> LoadReply(std::string strReply, DWORD dwContext) {
  CComPtr<IXMLDOMDocument> pDocument;
  if (FAILED(CoCreateInstance(CLSID_DOMDocument, nullptr, dwContext, IID_IXMLDOMDocument,
                              reinterpret_cast<void **>(&pDocument))))
    return pDocument;
  if (strReply.size() > kMostBytes)
    return pDocument;
  CComBSTR const bstrReply(strReply.c_str());
  std::string().swap(strReply); // frees the bytes of a large reply before the tree is built
  VARIANT_BOOL bLoaded = 0;
  pDocument->loadXML(bstrReply, &bLoaded);
  return pDocument;
}

ElementState ReadElement(IXMLDOMDocument *pDocument, WCHAR const *wszPath, CString &strText) {
  if (!pDocument)
    return ElementState::Missing;
  CComPtr<IXMLDOMNode> pNode;
  if (FAILED(pDocument->selectSingleNode(CComBSTR(wszPath), &pNode)))
    return ElementState::QueryFailed;
  if (!pNode)
    return ElementState::Missing;
  CComBSTR bstrText;
  if (FAILED(pNode->get_text(&bstrText))) // out of memory
    return ElementState::QueryFailed;
  strText = CString(static_cast<WCHAR const *>(bstrText));
  return ElementState::Found;
}

bool NodeNameIs(IXMLDOMNode *pNode, WCHAR const *wszName) {
  DOMNodeType type = NODE_COMMENT;
  CComBSTR bstrName;
  if (FAILED(pNode->get_nodeType(&type)) || type == NODE_COMMENT || FAILED(pNode->get_nodeName(&bstrName)) || !bstrName)
    return false;
  std::size_t const cch = std::wcslen(wszName);
  return std::wcslen(bstrName) == cch &&
         std::equal(wszName, wszName + cch, static_cast<WCHAR *>(bstrName),
                    [](WCHAR a, WCHAR b) { return a == b || std::towlower(a) == std::towlower(b); });
}
