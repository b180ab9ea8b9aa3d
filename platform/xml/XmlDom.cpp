// Each object keeps the tree that it points into alive, so that a node outlives its document.
#include "platform/xml/XmlDom.h"

#include "platform/base/LastError.h"
#include "platform/base/Seam.h"
#include "platform/text/Utf8.h"
#include "platform/xml/XmlTree.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <cwchar>
#include <memory>
#include <new>
#include <vector>

CLSID const CLSID_DOMDocument = {0x2933BF90, 0x7B36, 0x11D2, {0xB2, 0x0E, 0x00, 0xC0, 0x4F, 0x98, 0x3E, 0x60}};
IID const IID_IXMLDOMDocument = {0x2933BF81, 0x7B36, 0x11D2, {0xB2, 0x0E, 0x00, 0xC0, 0x4F, 0x98, 0x3E, 0x60}};

namespace {

constexpr HRESULT E_NOINTERFACE = static_cast<HRESULT>(0x80004002U);
constexpr HRESULT CLASS_E_NOAGGREGATION = static_cast<HRESULT>(0x80040110U);
constexpr HRESULT REGDB_E_CLASSNOTREG = static_cast<HRESULT>(0x80040154U);

/// The result of a failure that a test asked for: its error if that is an HRESULT.
HRESULT FaultResult() {
  auto const error = static_cast<HRESULT>(GetLastError());
  return FAILED(error) ? error : E_FAIL;
}

/// A new string of the UTF-8 text's characters.
BSTR AllocString(std::string_view text) {
  std::unique_ptr<WCHAR[]> wide(new WCHAR[text.size() + 1]);
  WCHAR *end = wide.get();
  DecodeAll(text, [&end](WCHAR unit) { *end++ = unit; });
  *end = 0;
  return wide.release();
}

// --- Paths ---------------------------------------------------------------------------------------------------------

/// The steps of a path of element names; none if the path holds an empty one or any other character of ASCII than names
/// do. What passes and is no name matches nothing, since no document has it.
std::vector<std::string> PathSteps(std::string const &path) {
  auto const isInName = [](unsigned char byte) {
    return byte >= 0x80 || std::isalnum(byte) || std::strchr("_-.:", byte);
  };
  std::vector<std::string> steps;
  for (std::size_t start = 0, end = 0; start <= path.size(); start = end + 1) {
    end = std::min(path.find('/', start), path.size());
    steps.push_back(path.substr(start, end - start));
    if (steps.back().empty() || !std::all_of(steps.back().begin(), steps.back().end(), isInName))
      return {};
  }
  return steps;
}

// --- The objects ---------------------------------------------------------------------------------------------------

/// Runs the body; E_OUTOFMEMORY if it runs out of memory.
template <class Body> HRESULT Guarded(Body const &body) try { return body(); } catch (std::bad_alloc const &) {
  return E_OUTOFMEMORY;
}

template <class Interface> class Released : public Interface {
public:
  ULONG Release() final {
    delete this;
    return 0;
  }

protected:
  virtual ~Released() = default;
};

/// A node, or the document, in a tree that it keeps alive.
struct Place {
  std::shared_ptr<XmlTree const> tree;
  XmlTree::Index node;
};

HRESULT StoreNode(Place place, IXMLDOMNode **ppNode);

class AttributeMap final : public Released<IXMLDOMNamedNodeMap> {
public:
  explicit AttributeMap(Place element) : m_element(std::move(element)) {}

  HRESULT getNamedItem(BSTR bstrName, IXMLDOMNode **ppNode) override {
    if (!bstrName || !ppNode)
      return E_INVALIDARG;
    *ppNode = nullptr;
    return Guarded([&] {
      XmlTree const &tree = *m_element.tree;
      return StoreNode({m_element.tree, tree.FindAttribute(m_element.node, Utf8FromWide(bstrName))}, ppNode);
    });
  }

private:
  Place const m_element;
};

/// What nodes and documents have in common.
template <class Interface> class NodeOf : public Released<Interface> {
public:
  HRESULT get_nodeName(BSTR *pbstrName) override {
    if (!pbstrName)
      return E_INVALIDARG;
    *pbstrName = nullptr;
    return Guarded([&] {
      *pbstrName = AllocString(Tree().Name(m_place.node));
      return S_OK;
    });
  }
  HRESULT get_nodeValue(VARIANT *pValue) override {
    if (!pValue)
      return E_INVALIDARG;
    *pValue = {VT_NULL, nullptr};
    DOMNodeType const type = Tree().Type(m_place.node);
    if (type == NODE_DOCUMENT || type == NODE_ELEMENT)
      return S_FALSE;
    return Guarded([&] {
      BSTR const value = AllocString(Tree().Value(m_place.node));
      *pValue = {VT_BSTR, value};
      return S_OK;
    });
  }
  HRESULT get_nodeType(DOMNodeType *pType) override {
    if (!pType)
      return E_INVALIDARG;
    *pType = Tree().Type(m_place.node);
    return S_OK;
  }
  HRESULT get_firstChild(IXMLDOMNode **ppChild) override {
    return ppChild ? StoreNode({m_place.tree, Tree().FirstChild(m_place.node)}, ppChild) : E_INVALIDARG;
  }
  HRESULT get_nextSibling(IXMLDOMNode **ppSibling) override {
    return ppSibling ? StoreNode({m_place.tree, Tree().NextSibling(m_place.node)}, ppSibling) : E_INVALIDARG;
  }
  HRESULT get_attributes(IXMLDOMNamedNodeMap **ppAttributes) override {
    if (!ppAttributes)
      return E_INVALIDARG;
    *ppAttributes = nullptr;
    if (Tree().Type(m_place.node) != NODE_ELEMENT)
      return S_FALSE;
    *ppAttributes = new (std::nothrow) AttributeMap(m_place);
    return *ppAttributes ? S_OK : E_OUTOFMEMORY;
  }
  HRESULT get_text(BSTR *pbstrText) override {
    if (!pbstrText)
      return E_INVALIDARG;
    *pbstrText = nullptr;
    return Guarded([&] {
      std::string store;
      *pbstrText = AllocString(Tree().Text(m_place.node, store));
      return S_OK;
    });
  }
  HRESULT selectSingleNode(BSTR bstrPath, IXMLDOMNode **ppNode) override {
    if (!ppNode)
      return E_INVALIDARG;
    *ppNode = nullptr;
    if (FaultAt(FaultPoint::selectSingleNode))
      return FaultResult();
    if (!bstrPath)
      return E_INVALIDARG;
    return Guarded([&] {
      std::vector<std::string> const steps = PathSteps(Utf8FromWide(bstrPath));
      return steps.empty() ? E_FAIL : StoreNode({m_place.tree, Tree().FindByPath(m_place.node, steps)}, ppNode);
    });
  }

protected:
  explicit NodeOf(Place place) : m_place(std::move(place)) {}

  XmlTree const &Tree() const { return *m_place.tree; }

  Place m_place;
};

class Node final : public NodeOf<IXMLDOMNode> {
public:
  explicit Node(Place place) : NodeOf(std::move(place)) {}
};

class Document final : public NodeOf<IXMLDOMDocument> {
public:
  explicit Document(std::shared_ptr<XmlTree const> const &empty)
      : NodeOf({empty, XmlTree::kDocument}), m_empty(empty) {}

  HRESULT loadXML(BSTR bstrXml, VARIANT_BOOL *pbSuccess) override {
    m_place.tree = m_empty;
    if (pbSuccess)
      *pbSuccess = 0;
    return Guarded([&] {
      auto tree = ParseXml(bstrXml ? bstrXml : L"");
      if (!tree)
        return S_FALSE;
      m_place.tree = std::move(tree);
      if (pbSuccess)
        *pbSuccess = -1;
      return S_OK;
    });
  }

private:
  std::shared_ptr<XmlTree const> const m_empty;
};

/// S_OK with a new object for the place, S_FALSE with null for none.
HRESULT StoreNode(Place place, IXMLDOMNode **ppNode) {
  *ppNode = nullptr;
  if (place.node == XmlTree::kNone)
    return S_FALSE;
  *ppNode = new (std::nothrow) Node(std::move(place));
  return *ppNode ? S_OK : E_OUTOFMEMORY;
}

bool IsSame(GUID const &a, GUID const &b) { return std::memcmp(&a, &b, sizeof a) == 0; }

} // namespace

HRESULT CoCreateInstance(CLSID const &clsid, IUnknown *pOuter, DWORD /*dwContext*/, IID const &iid, void **ppObject) {
  if (!ppObject)
    return E_INVALIDARG;
  *ppObject = nullptr;
  if (FaultAt(FaultPoint::CoCreateInstance))
    return FaultResult();
  if (pOuter)
    return CLASS_E_NOAGGREGATION;
  if (!IsSame(clsid, CLSID_DOMDocument))
    return REGDB_E_CLASSNOTREG;
  if (!IsSame(iid, IID_IXMLDOMDocument))
    return E_NOINTERFACE;
  return Guarded([&] {
    *ppObject = static_cast<IXMLDOMDocument *>(new Document(std::make_shared<XmlTree>()));
    return S_OK;
  });
}

BSTR SysAllocString(WCHAR const *wszText) {
  return wszText ? SysAllocStringLen(wszText, static_cast<UINT>(std::wcslen(wszText))) : nullptr;
}

BSTR SysAllocStringLen(WCHAR const *wszText, UINT cchText) {
  BSTR const bstrText = new (std::nothrow) WCHAR[static_cast<std::size_t>(cchText) + 1];
  if (!bstrText)
    return nullptr;
  if (wszText)
    std::wmemcpy(bstrText, wszText, cchText);
  bstrText[cchText] = 0;
  return bstrText;
}

void SysFreeString(BSTR bstrText) { delete[] bstrText; }

HRESULT VariantClear(VARIANT *pValue) {
  if (pValue->vt == VT_BSTR)
    SysFreeString(pValue->bstrVal);
  *pValue = {VT_EMPTY, nullptr};
  return S_OK;
}
