// A reply's way from its bytes to the elements that are read: parser, tree, DOM and element reader.
#include "reply/Document.h"
#include "tests/fuzz/fuzz.h"

#include <cwchar>
#include <set>

static std::wstring TextOf(IXMLDOMNode *node, HRESULT (IXMLDOMNode::*get)(BSTR *) = &IXMLDOMNode::get_text) {
  CComBSTR text;
  Require((node->*get)(&text) == S_OK && text, "a node has a name and a text");
  return static_cast<WCHAR const *>(text);
}

static std::wstring NameOf(IXMLDOMNode *node) { return TextOf(node, &IXMLDOMNode::get_nodeName); }

static std::wstring WithoutBlanks(std::wstring text) {
  std::erase_if(text, [](WCHAR c) { return std::wcschr(L" \t\r\n", c); });
  return text;
}

/// The text with references for what could be markup, or a blank that the parser changes.
static std::wstring Escaped(std::wstring const &text) {
  std::wstring escaped;
  for (WCHAR const c : text)
    escaped += std::wcschr(L"<>&\"\t\r\n", c) ? L"&#" + std::to_wstring(c) + L";" : std::wstring(1, c);
  return escaped;
}

/// The attribute that decides which blanks are nodes; the others can't be listed.
static std::wstring SpaceAttribute(IXMLDOMNode *element) {
  CComPtr<IXMLDOMNamedNodeMap> map;
  CComPtr<IXMLDOMNode> space;
  bool const hasMap = element->get_attributes(&map) == S_OK;
  Require(hasMap && SUCCEEDED(map->getNamedItem(CComBSTR(L"xml:space"), &space)), "an attribute or none");
  return space ? L" xml:space=\"" + Escaped(TextOf(space)) + L"\"" : L"";
}

/// The node's markup. Appends its text, without what the platform trims, to `text`.
static std::wstring Markup(IXMLDOMNode *node, std::wstring &text) {
  DOMNodeType type = NODE_COMMENT;
  CComVariant value;
  Require(node->get_nodeType(&type) == S_OK && SUCCEEDED(node->get_nodeValue(&value)), "a node has type and value");
  std::wstring const name = NameOf(node), own = value.vt == VT_BSTR ? value.bstrVal : L"";
  Require(NodeNameIs(node, name.c_str()) == (type != NODE_COMMENT), "a node has its own name");
  text += type == NODE_TEXT || type == NODE_CDATA_SECTION ? own : L"";
  if (type != NODE_ELEMENT && type != NODE_DOCUMENT)
    return type == NODE_TEXT            ? Escaped(own)
           : type == NODE_CDATA_SECTION ? L"<![CDATA[" + own + L"]]>"
           : type == NODE_COMMENT       ? L"<!--" + own + L"-->"
                                        : L"<?" + name + L" " + own + L"?>";
  std::wstring markup, inner;
  std::set<std::wstring> names;
  CComPtr<IXMLDOMNode> child, found;
  for (node->get_firstChild(&child); child;) {
    markup += Markup(child, inner);
    std::wstring const childName = NameOf(child);
    bool const isQueried = child->get_nodeType(&type) == S_OK && type == NODE_ELEMENT && names.insert(childName).second;
    HRESULT const hr = isQueried ? node->selectSingleNode(CComBSTR(childName.c_str()), &found) : E_FAIL;
    Require(hr != S_OK || TextOf(found) == TextOf(child), "a path finds the first child of that name");
    Require(!isQueried || hr == S_OK || childName.find(L':') != childName.npos, "a query of a name does not fail");
    CComPtr<IXMLDOMNode> next;
    child->get_nextSibling(&next);
    child = std::move(next);
  }
  Require(WithoutBlanks(TextOf(node)) == WithoutBlanks(inner), "an element's text is that of its descendants");
  text += inner;
  return name == L"#document" ? markup : L"<" + name + SpaceAttribute(node) + L">" + markup + L"</" + name + L">";
}

FUZZ_TARGET(input) {
  CComPtr<IXMLDOMDocument> const document = LoadReply(std::string(input));
  CString text(L"untouched");
  ElementState const state = ReadElement(document, L"result/code", text);
  Require(state == ElementState::Found || text == CString(L"untouched"), "a missing element leaves the text alone");
  CComPtr<IXMLDOMNode> root;
  if (document->get_firstChild(&root) != S_OK)
    return;
  std::wstring first, second;
  std::wstring const markup = Markup(document, first), rootText = TextOf(root);
  VARIANT_BOOL isLoaded = 0;
  Require(document->loadXML(CComBSTR(markup.c_str()), &isLoaded) == S_OK && isLoaded, "a document's markup parses");
  Require(TextOf(root) == rootText, "a node outlives its document");
  Require(Markup(document, second) == markup && first == second, "a document's markup gives the same document");
}
