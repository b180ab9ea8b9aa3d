// The parts of the XML document object model that reading replies needs, and the calls of COM that go with them.
// Thread: any, for every function here; a document and its nodes belong to one thread at a time, different documents
// are independent. Knows nothing of what the documents say.
#pragma once

#include "platform/base/Types.h"

using BSTR = WCHAR *;
using VARIANT_BOOL = std::int16_t;
using VARTYPE = WORD;
constexpr VARTYPE VT_EMPTY = 0;
constexpr VARTYPE VT_NULL = 1;
constexpr VARTYPE VT_BSTR = 8;
constexpr DWORD CLSCTX_INPROC_SERVER = 1;
constexpr DWORD CLSCTX_ALL = 23;

struct VARIANT {
  VARTYPE vt;
  BSTR bstrVal;
};

enum DOMNodeType {
  NODE_ELEMENT = 1,
  NODE_TEXT = 3,
  NODE_CDATA_SECTION = 4,
  NODE_PROCESSING_INSTRUCTION = 7,
  NODE_COMMENT = 8,
  NODE_DOCUMENT = 9,
  NODE_ATTRIBUTE = 2
};

/// Differs: an object has one reference, since nobody takes a second one.
struct IUnknown {
  virtual ULONG Release() = 0;

protected:
  ~IUnknown() = default;
};

struct IXMLDOMNamedNodeMap;

/// Getters return S_OK with a new reference or string that the caller releases, S_FALSE with null where there is none,
/// and a negative HRESULT on failure. White space between elements is not a child unless xml:space keeps
/// it. Differs: the XML declaration is not a child either.
struct IXMLDOMNode : IUnknown {
  virtual HRESULT get_nodeName(BSTR *pbstrName) = 0;
  virtual HRESULT get_nodeValue(VARIANT *pValue) = 0;
  virtual HRESULT get_nodeType(DOMNodeType *pType) = 0;
  virtual HRESULT get_firstChild(IXMLDOMNode **ppChild) = 0;
  virtual HRESULT get_nextSibling(IXMLDOMNode **ppSibling) = 0;
  virtual HRESULT get_attributes(IXMLDOMNamedNodeMap **ppAttributes) = 0;
  /// All descendants' text and CDATA in order, outer white space trimmed. Between child elements and their content,
  /// white space alone counts as one blank; an element without child elements gives its text as it is.
  virtual HRESULT get_text(BSTR *pbstrText) = 0;
  /// The first node at a path of element names divided by "/", relative to this node; names compare exactly.
  /// S_OK with the node, S_FALSE with null for no match, negative for a query that failed. Differs: no other XPath.
  virtual HRESULT selectSingleNode(BSTR bstrPath, IXMLDOMNode **ppNode) = 0;

protected:
  ~IXMLDOMNode() = default;
};

struct IXMLDOMNamedNodeMap : IUnknown {
  virtual HRESULT getNamedItem(BSTR bstrName, IXMLDOMNode **ppNode) = 0;

protected:
  ~IXMLDOMNamedNodeMap() = default;
};

struct IXMLDOMDocument : IXMLDOMNode {
  /// Replaces the document by the parsed text, up to its first zero. A text that does not parse, holds a DOCTYPE or has
  /// more than 8 * 1024 * 1024 characters leaves it empty (S_FALSE); so does one for which the parser would need more
  /// than 64 MiB (E_OUTOFMEMORY). The declared encoding is ignored. `pbSuccess` may be null.
  virtual HRESULT loadXML(BSTR bstrXml, VARIANT_BOOL *pbSuccess) = 0;

protected:
  ~IXMLDOMDocument() = default;
};

extern SKIFFPORT_PLATFORM_API CLSID const CLSID_DOMDocument;
extern SKIFFPORT_PLATFORM_API IID const IID_IXMLDOMDocument;

/// Creates an empty document. Differs: CLSID_DOMDocument with IID_IXMLDOMDocument only; no prior CoInitialize is
/// needed.
SKIFFPORT_PLATFORM_API HRESULT CoCreateInstance(CLSID const &clsid, IUnknown *pOuter, DWORD dwContext, IID const &iid,
                                                void **ppObject);

/// A new string that the caller frees with SysFreeString; null when out of memory, and for a null text.
SKIFFPORT_PLATFORM_API BSTR SysAllocString(WCHAR const *wszText);
/// The same of `cchText` characters, not initialised for a null text; the terminator comes on top.
SKIFFPORT_PLATFORM_API BSTR SysAllocStringLen(WCHAR const *wszText, UINT cchText);
SKIFFPORT_PLATFORM_API void SysFreeString(BSTR bstrText);
inline void VariantInit(VARIANT *pValue) { *pValue = {VT_EMPTY, nullptr}; }
SKIFFPORT_PLATFORM_API HRESULT VariantClear(VARIANT *pValue);
