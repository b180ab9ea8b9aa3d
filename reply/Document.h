// Turns a reply of the service into a document and finds its elements. Runs on the caller's thread; knows nothing of
// Python or of where the reply came from.
#pragma once

#include "framework/CString.h"
#include "framework/ComTypes.h"

#include <string>

/// Parses the reply up to its first zero byte, read in the calling thread's ANSI code page. `dwContext` is the COM
/// context of the document. Returns: an empty document if the reply does not parse; null if no document can be created.
/// May throw std::bad_alloc.
CComPtr<IXMLDOMDocument> LoadReply(std::string strReply, DWORD dwContext = CLSCTX_INPROC_SERVER);

enum class ElementState { Found, Missing, QueryFailed };

/// Reads the text of the first element at a path that starts at the root element. `strText` changes only if the element
/// was found. A null document has no elements; an element whose text can't be had counts as a failed query. May throw
/// std::bad_alloc.
ElementState ReadElement(IXMLDOMDocument *pDocument, WCHAR const *wszPath, CString &strText);

/// True if the node is not a comment and has that name; case is ignored.
bool NodeNameIs(IXMLDOMNode *pNode, WCHAR const *wszName);

/// Calls `visit` for each child node of that name, in document order; case is ignored. Comments and nodes without a
/// name are skipped. A null node has no children.
template <class Visit> void ForEachChild(IXMLDOMNode *pNode, WCHAR const *wszName, Visit visit) {
  CComPtr<IXMLDOMNode> pChild;
  if (!pNode || FAILED(pNode->get_firstChild(&pChild)))
    return;
  while (pChild) {
    if (NodeNameIs(pChild, wszName))
      visit(static_cast<IXMLDOMNode *>(pChild));
    CComPtr<IXMLDOMNode> pNext;
    if (FAILED(pChild->get_nextSibling(&pNext)))
      return;
    pChild = std::move(pNext);
  }
}
