// The document object model over libxml2's tree. A wrapper object holds the tree it points into, so that a node
// outlives its document. One thread at a time works with a document; different documents are independent.
#include "platform/XmlDom.h"

#include "platform/CodePages.h"
#include "platform/LastError.h"
#include "platform/Seam.h"
#include "platform/Utf8.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/valid.h>

CLSID const CLSID_DOMDocument = {0x2933BF90, 0x7B36, 0x11D2, {0xB2, 0x0E, 0x00, 0xC0, 0x4F, 0x98, 0x3E, 0x60}};
IID const IID_IXMLDOMDocument = {0x2933BF81, 0x7B36, 0x11D2, {0xB2, 0x0E, 0x00, 0xC0, 0x4F, 0x98, 0x3E, 0x60}};

namespace {

constexpr HRESULT E_NOINTERFACE = static_cast<HRESULT>(0x80004002U);
constexpr HRESULT CLASS_E_NOAGGREGATION = static_cast<HRESULT>(0x80040110U);
constexpr HRESULT REGDB_E_CLASSNOTREG = static_cast<HRESULT>(0x80040154U);

std::string_view TextOf(xmlChar const *szText) {
  return szText ? reinterpret_cast<char const *>(szText) : std::string_view();
}

bool IsBlankUnit(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; } // what XML calls white space

bool IsBlank(std::string_view text) { return std::all_of(text.begin(), text.end(), IsBlankUnit); }

std::string_view Trim(std::string_view text) {
  while (!text.empty() && IsBlankUnit(text.front()))
    text.remove_prefix(1);
  while (!text.empty() && IsBlankUnit(text.back()))
    text.remove_suffix(1);
  return text;
}

/// The result for a failure that a test asked for.
HRESULT FaultResult() {
  auto const nError = static_cast<HRESULT>(GetLastError());
  return nError < 0 ? nError : static_cast<HRESULT>(0x80070000U | (static_cast<DWORD>(nError) & 0xFFFF));
}

/// A new string of the UTF-8 text's characters.
BSTR AllocString(std::string_view text) {
  std::unique_ptr<WCHAR[]> wide(new WCHAR[text.size() + 1]);
  std::size_t cch = text.size();
  if (AsciiPrefix(text) == text.size())
    CopyAscii(text, wide.get());
  else
    cch = static_cast<std::size_t>(MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                                       wide.get(), static_cast<int>(text.size())));
  wide[cch] = 0;
  return wide.release();
}

// --- The tree ------------------------------------------------------------------------------------------------------

/// A place in a tree: the tree, kept alive, and a node of it (or the document itself). An empty document has neither.
struct Place {
  std::shared_ptr<xmlDoc> tree;
  xmlNode *pNode = nullptr;
};

std::string QualifiedName(xmlNode const *pNode) {
  std::string name;
  if (pNode->ns && pNode->ns->prefix)
    name.append(TextOf(pNode->ns->prefix)).append(":");
  return name.append(TextOf(pNode->name));
}

bool HasName(xmlNode const *pNode, std::string_view name) {
  std::string_view const prefix = pNode->ns ? TextOf(pNode->ns->prefix) : std::string_view();
  std::string_view const local = TextOf(pNode->name);
  if (prefix.empty())
    return name == local;
  return name.size() == prefix.size() + 1 + local.size() && name.starts_with(prefix) && name[prefix.size()] == ':' &&
         name.ends_with(local);
}

bool KeepsBlanks(xmlNode const *pNode) { return xmlNodeGetSpacePreserve(pNode) == 1; }

/// White space between elements is no node, unless xml:space keeps it.
bool IsVisible(xmlNode const *pNode) {
  switch (pNode->type) {
  case XML_ELEMENT_NODE:
  case XML_CDATA_SECTION_NODE:
  case XML_PI_NODE:
  case XML_COMMENT_NODE:
    return true;
  case XML_TEXT_NODE:
    return !IsBlank(TextOf(pNode->content)) || KeepsBlanks(pNode->parent);
  default:
    return false;
  }
}

xmlNode *FirstVisible(xmlNode *pNode) {
  while (pNode && !IsVisible(pNode))
    pNode = pNode->next;
  return pNode;
}

bool IsText(xmlNode const *pNode) { return pNode->type == XML_TEXT_NODE || pNode->type == XML_CDATA_SECTION_NODE; }

/// White space counts as text only beside other text, or where xml:space keeps it.
bool CountsBlanks(xmlNode const *pParent) {
  for (xmlNode const *pChild = pParent->children; pChild; pChild = pChild->next)
    if (IsText(pChild) && !IsBlank(TextOf(pChild->content)))
      return true;
  return KeepsBlanks(pParent);
}

void AppendText(xmlNode const *pParent, std::string &text) {
  bool const bCountsBlanks = CountsBlanks(pParent);
  for (xmlNode const *pChild = pParent->children; pChild; pChild = pChild->next) {
    if (pChild->type == XML_ELEMENT_NODE)
      AppendText(pChild, text);
    else if (pChild->type == XML_CDATA_SECTION_NODE || (pChild->type == XML_TEXT_NODE && bCountsBlanks))
      text.append(TextOf(pChild->content));
  }
}

std::string AttributeValue(xmlNode const *pAttribute) {
  std::string text;
  for (xmlNode const *pChild = pAttribute->children; pChild; pChild = pChild->next)
    if (IsText(pChild))
      text.append(TextOf(pChild->content));
  return text;
}

std::string NodeText(xmlNode const *pNode) {
  switch (pNode->type) {
  case XML_ATTRIBUTE_NODE:
    return AttributeValue(pNode);
  case XML_ELEMENT_NODE:
  case XML_DOCUMENT_NODE: {
    std::string text;
    AppendText(pNode, text);
    std::string_view const trimmed = Trim(text);
    return trimmed.size() == text.size() || KeepsBlanks(pNode) ? text : std::string(trimmed);
  }
  case XML_TEXT_NODE:
    return std::string(KeepsBlanks(pNode->parent) ? TextOf(pNode->content) : Trim(TextOf(pNode->content)));
  default:
    return std::string(TextOf(pNode->content));
  }
}

/// The text of the only child, if that is text: what most elements and attributes have. Null for others.
xmlChar const *OnlyText(xmlNode const *pNode) {
  bool const bHasChildren = pNode->type == XML_ELEMENT_NODE || pNode->type == XML_ATTRIBUTE_NODE;
  xmlNode const *const pChild = bHasChildren ? pNode->children : nullptr;
  return pChild && !pChild->next && pChild->type == XML_TEXT_NODE ? pChild->content : nullptr;
}

/// The value of a node's text as a new string.
BSTR AllocNodeText(xmlNode const *pNode) {
  if (xmlChar const *const szOnly = pNode->type == XML_ELEMENT_NODE ? OnlyText(pNode) : nullptr) {
    std::string_view const trimmed = Trim(TextOf(szOnly));
    if (trimmed.size() == TextOf(szOnly).size() || !KeepsBlanks(pNode))
      return AllocString(trimmed);
  }
  return AllocString(NodeText(pNode));
}

/// The steps of a path of element names; none if it is no such path.
std::vector<std::string> PathSteps(std::string const &path) {
  std::vector<std::string> steps;
  for (std::size_t uStart = 0; uStart <= path.size();) {
    std::size_t const uEnd = std::min(path.find('/', uStart), path.size());
    steps.push_back(path.substr(uStart, uEnd - uStart));
    if (xmlValidateQName(reinterpret_cast<xmlChar const *>(steps.back().c_str()), 0) != 0)
      return {};
    uStart = uEnd + 1;
  }
  return steps;
}

/// The first node in document order that the steps from `uStep` on lead to; null for none.
xmlNode *FindByPath(xmlNode const *pParent, std::vector<std::string> const &steps, std::size_t uStep) {
  for (xmlNode *pChild = pParent->children; pChild; pChild = pChild->next) {
    if (pChild->type != XML_ELEMENT_NODE || !HasName(pChild, steps[uStep]))
      continue;
    xmlNode *const pFound = uStep + 1 == steps.size() ? pChild : FindByPath(pChild, steps, uStep + 1);
    if (pFound)
      return pFound;
  }
  return nullptr;
}

// --- Parsing -------------------------------------------------------------------------------------------------------

/// What a tree frees, the C library would hand back to the system and take anew for the next one, page by page, which
/// costs more than all the parsing. Once it has seen a mapped block of this size freed, it keeps twice as much.
void LetHeapKeepTrees() {
  constexpr std::size_t kBlock = 1 << 20;
  void *volatile pBlock = std::malloc(kBlock); // volatile: else the pair would be optimized away
  std::free(pBlock);
}

void InitialiseParser() {
  static std::once_flag once;
  std::call_once(once, [] {
    xmlInitParser();
    LetHeapKeepTrees();
  });
}

/// A document type declaration ends the parsing: no entity of the sender's is ever expanded or loaded.
void RefuseDocumentType(void *pContext, xmlChar const *, xmlChar const *, xmlChar const *) {
  auto *const pParser = static_cast<xmlParserCtxt *>(pContext);
  xmlStopParser(pParser);
  pParser->wellFormed = 0;
}

std::shared_ptr<xmlDoc> ParseUtf8(std::string const &text) {
  std::unique_ptr<xmlParserCtxt, decltype(&xmlFreeParserCtxt)> const parser(xmlNewParserCtxt(), xmlFreeParserCtxt);
  if (!parser || text.size() > INT_MAX)
    return nullptr;
  parser->sax->internalSubset = RefuseDocumentType;
  xmlDoc *const pTree = xmlCtxtReadMemory(parser.get(), text.data(), static_cast<int>(text.size()), nullptr, "UTF-8",
                                          XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING |
                                              XML_PARSE_IGNORE_ENC | XML_PARSE_COMPACT);
  return {pTree, [](xmlDoc *pDoc) {
            if (pDoc)
              xmlFreeDoc(pDoc);
          }};
}

/// Null for a text that does not parse.
std::shared_ptr<xmlDoc> ParseWide(std::wstring_view text) {
  auto const uFirst = text.find_first_not_of(L" \t\r\n\uFEFF");
  text.remove_prefix(uFirst == std::wstring_view::npos ? text.size() : uFirst);
  // Pairs become characters; a surrogate that is left alone is no character of XML.
  for (WCHAR const *p = text.data() + AsciiPrefix(text), *const pEnd = text.data() + text.size(); p != pEnd;)
    if (IsSurrogate(NextCharacter(p, pEnd)))
      return nullptr;
  return text.empty() ? nullptr : ParseUtf8(Utf8FromWide(text));
}

// --- The objects ---------------------------------------------------------------------------------------------------

/// Runs the body and turns a shortage of memory into its result.
template <class Body> HRESULT Guarded(Body const &body) try { return body(); } catch (std::bad_alloc const &) {
  return E_OUTOFMEMORY;
}

template <class Interface> class Counted : public Interface {
public:
  ULONG AddRef() final { return ++m_uReferences; }
  ULONG Release() final {
    ULONG const uLeft = --m_uReferences;
    if (uLeft == 0)
      delete this;
    return uLeft;
  }

protected:
  virtual ~Counted() = default;

private:
  std::atomic<ULONG> m_uReferences = 1;
};

HRESULT StoreNode(Place place, IXMLDOMNode **ppNode);

class AttributeMap final : public Counted<IXMLDOMNamedNodeMap> {
public:
  explicit AttributeMap(Place element) : m_element(std::move(element)) {}

  HRESULT getNamedItem(BSTR bstrName, IXMLDOMNode **ppNode) override {
    if (!bstrName || !ppNode)
      return E_INVALIDARG;
    *ppNode = nullptr;
    return Guarded([&] {
      std::string const name = Utf8FromWide(bstrName);
      for (xmlAttr *pAttribute = m_element.pNode->properties; pAttribute; pAttribute = pAttribute->next)
        if (HasName(reinterpret_cast<xmlNode *>(pAttribute), name))
          return StoreNode({m_element.tree, reinterpret_cast<xmlNode *>(pAttribute)}, ppNode);
      return S_FALSE;
    });
  }

private:
  Place const m_element;
};

/// What a node and a document have in common.
template <class Interface> class NodeOf : public Counted<Interface> {
public:
  HRESULT get_nodeName(BSTR *pbstrName) override {
    if (!pbstrName)
      return E_INVALIDARG;
    *pbstrName = nullptr;
    return Guarded([&] {
      xmlNode const *const pNode = m_place.pNode;
      bool const bPlain = pNode && pNode->type == XML_ELEMENT_NODE && !pNode->ns;
      *pbstrName = bPlain ? AllocString(TextOf(pNode->name)) : AllocString(Name());
      return S_OK;
    });
  }
  HRESULT get_nodeValue(VARIANT *pValue) override {
    if (!pValue)
      return E_INVALIDARG;
    *pValue = {VT_NULL, nullptr};
    xmlNode const *const pNode = m_place.pNode;
    if (!pNode || pNode->type == XML_DOCUMENT_NODE || pNode->type == XML_ELEMENT_NODE)
      return S_FALSE;
    return Guarded([&] {
      xmlChar const *const szOnly = pNode->type == XML_ATTRIBUTE_NODE ? OnlyText(pNode) : pNode->content;
      BSTR const bstrValue =
          AllocString(szOnly || pNode->type != XML_ATTRIBUTE_NODE ? TextOf(szOnly) : AttributeValue(pNode));
      *pValue = {VT_BSTR, bstrValue};
      return S_OK;
    });
  }
  HRESULT get_nodeType(DOMNodeType *pType) override {
    if (!pType)
      return E_INVALIDARG;
    *pType = m_place.pNode ? static_cast<DOMNodeType>(m_place.pNode->type) : NODE_DOCUMENT; // the same numbers
    return S_OK;
  }
  HRESULT get_firstChild(IXMLDOMNode **ppChild) override {
    if (!ppChild)
      return E_INVALIDARG;
    bool const bHasChildren =
        m_place.pNode && (m_place.pNode->type == XML_ELEMENT_NODE || m_place.pNode->type == XML_DOCUMENT_NODE);
    return StoreNode({m_place.tree, bHasChildren ? FirstVisible(m_place.pNode->children) : nullptr}, ppChild);
  }
  HRESULT get_nextSibling(IXMLDOMNode **ppSibling) override {
    if (!ppSibling)
      return E_INVALIDARG;
    // The siblings of an attribute are attributes, which are no nodes of the tree.
    return StoreNode({m_place.tree, m_place.pNode ? FirstVisible(m_place.pNode->next) : nullptr}, ppSibling);
  }
  HRESULT get_attributes(IXMLDOMNamedNodeMap **ppAttributes) override {
    if (!ppAttributes)
      return E_INVALIDARG;
    *ppAttributes = nullptr;
    if (!m_place.pNode || m_place.pNode->type != XML_ELEMENT_NODE)
      return S_FALSE;
    *ppAttributes = new (std::nothrow) AttributeMap(m_place);
    return *ppAttributes ? S_OK : E_OUTOFMEMORY;
  }
  HRESULT get_text(BSTR *pbstrText) override {
    if (!pbstrText)
      return E_INVALIDARG;
    *pbstrText = nullptr;
    if (FaultAt("get_text"))
      return FaultResult();
    return Guarded([&] {
      *pbstrText = m_place.pNode ? AllocNodeText(m_place.pNode) : AllocString({});
      return S_OK;
    });
  }
  HRESULT selectSingleNode(BSTR bstrPath, IXMLDOMNode **ppNode) override {
    if (!ppNode)
      return E_INVALIDARG;
    *ppNode = nullptr;
    if (FaultAt("selectSingleNode"))
      return FaultResult();
    if (!bstrPath)
      return E_INVALIDARG;
    return Guarded([&] {
      std::vector<std::string> const steps = PathSteps(Utf8FromWide(bstrPath));
      if (steps.empty())
        return E_FAIL;
      return StoreNode({m_place.tree, m_place.pNode ? FindByPath(m_place.pNode, steps, 0) : nullptr}, ppNode);
    });
  }

protected:
  explicit NodeOf(Place place) : m_place(std::move(place)) {}

  Place m_place;

private:
  std::string Name() const {
    if (!m_place.pNode)
      return "#document";
    switch (m_place.pNode->type) {
    case XML_DOCUMENT_NODE:
      return "#document";
    case XML_TEXT_NODE:
      return "#text";
    case XML_CDATA_SECTION_NODE:
      return "#cdata-section";
    case XML_COMMENT_NODE:
      return "#comment";
    case XML_PI_NODE:
      return std::string(TextOf(m_place.pNode->name));
    default:
      return QualifiedName(m_place.pNode);
    }
  }
};

class Node final : public NodeOf<IXMLDOMNode> {
public:
  explicit Node(Place place) : NodeOf(std::move(place)) {}
};

class Document final : public NodeOf<IXMLDOMDocument> {
public:
  Document() : NodeOf(Place{}) {}

  HRESULT loadXML(BSTR bstrXml, VARIANT_BOOL *pbSuccess) override {
    m_place = {};
    if (pbSuccess)
      *pbSuccess = 0;
    return Guarded([&] {
      auto const tree = ParseWide(bstrXml ? bstrXml : L"");
      if (!tree)
        return S_FALSE;
      m_place = {tree, reinterpret_cast<xmlNode *>(tree.get())};
      if (pbSuccess)
        *pbSuccess = -1;
      return S_OK;
    });
  }
};

/// S_OK with a new object for the place, S_FALSE with null for none.
HRESULT StoreNode(Place place, IXMLDOMNode **ppNode) {
  *ppNode = nullptr;
  if (!place.pNode)
    return S_FALSE;
  *ppNode = new (std::nothrow) Node(std::move(place));
  return *ppNode ? S_OK : E_OUTOFMEMORY;
}

bool IsSame(GUID const &a, GUID const &b) { return std::memcmp(&a, &b, sizeof a) == 0; }

thread_local int t_nInitialised = 0;

} // namespace

HRESULT CoInitialize(void * /*pReserved*/) { return t_nInitialised++ == 0 ? S_OK : S_FALSE; }

void CoUninitialize() {
  if (t_nInitialised > 0)
    --t_nInitialised;
}

HRESULT CoCreateInstance(CLSID const &clsid, IUnknown *pOuter, DWORD /*dwContext*/, IID const &iid, void **ppObject) {
  if (!ppObject)
    return E_INVALIDARG;
  *ppObject = nullptr;
  if (FaultAt("CoCreateInstance"))
    return FaultResult();
  if (pOuter)
    return CLASS_E_NOAGGREGATION;
  if (!IsSame(clsid, CLSID_DOMDocument))
    return REGDB_E_CLASSNOTREG;
  if (!IsSame(iid, IID_IXMLDOMDocument))
    return E_NOINTERFACE;
  InitialiseParser();
  *ppObject = static_cast<IXMLDOMDocument *>(new (std::nothrow) Document);
  return *ppObject ? S_OK : E_OUTOFMEMORY;
}

BSTR SysAllocString(WCHAR const *wszText) {
  if (!wszText)
    return nullptr;
  std::size_t const cch = std::wcslen(wszText) + 1;
  BSTR const bstrText = new (std::nothrow) WCHAR[cch];
  if (bstrText)
    std::wmemcpy(bstrText, wszText, cch);
  return bstrText;
}

BSTR CComBSTR::Widened(char const *szText) {
  if (!szText)
    return nullptr;
  std::size_t const cb = std::strlen(szText) + 1; // no character set makes more characters than bytes
  BSTR const bstrText = cb > INT_MAX ? nullptr : new (std::nothrow) WCHAR[cb];
  if (bstrText &&
      MultiByteToWideChar(CP_THREAD_ACP, 0, szText, static_cast<int>(cb), bstrText, static_cast<int>(cb)) == 0)
    *bstrText = 0;
  return bstrText;
}

void SysFreeString(BSTR bstrText) { delete[] bstrText; }

HRESULT VariantClear(VARIANT *pValue) {
  if (pValue->vt == VT_BSTR)
    SysFreeString(pValue->bstrVal);
  *pValue = {VT_EMPTY, nullptr};
  return S_OK;
}
