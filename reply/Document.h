// A service's reply as a document, and the ways in which its elements are found. Runs on the caller's thread; knows
// nothing of Python and of where the reply came from.
#pragma once

#include "framework/CString.h"
#include "framework/ComTypes.h"

#include <string>

/// The reply, up to its first zero byte, as a document; its bytes count as the calling thread's ANSI code page.
/// Returns: an empty document for a reply that does not parse; null if no document can be made. May throw
/// std::bad_alloc.
CComPtr<IXMLDOMDocument> LoadReply(std::string strReply);

enum class ElementState { Found, Missing, QueryFailed };

/// The text of the first element at a path from the document. `strText` changes only when it was found. A null document
/// has no elements.
ElementState ReadElement(IXMLDOMDocument *pDocument, WCHAR const *wszPath, CString &strText);

/// True if the node is no comment and has that name, compared without regard to case.
bool NodeNameIs(IXMLDOMNode *pNode, WCHAR const *wszName);

/// Calls `visit` for each child node of that name, compared without regard to case; comments and nodes without a name
/// are passed over. A null node has no children.
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
