// A reply's way from its bytes to the elements that are read: parser, tree, DOM and element reader.
#include "reply/Document.h"
#include "tests/fuzz/fuzz.h"

#include <cwchar>
#include <set>

namespace {

std::wstring Text(WCHAR const *text) { return text ? text : L""; }

std::wstring TextOf(IXMLDOMNode *node) {
  CComBSTR text;
  Require(node->get_text(&text) == S_OK && text, "a node has a text");
  return Text(text);
}

std::wstring NameOf(IXMLDOMNode *node) {
  CComBSTR name;
  Require(node->get_nodeName(&name) == S_OK && name, "a node has a name");
  return Text(name);
}

std::wstring WithoutBlanks(std::wstring text) {
  std::erase_if(text, [](WCHAR c) { return c == L' ' || c == L'\t' || c == L'\r' || c == L'\n'; });
  return text;
}

/// The text as character references, where it could be markup or a blank that the parser changes.
std::wstring Escaped(std::wstring const &text) {
  std::wstring escaped;
  for (WCHAR const c : text)
    escaped += std::wcschr(L"<>&\"\t\r\n", c) ? L"&#" + std::to_wstring(c) + L";" : std::wstring(1, c);
  return escaped;
}

/// The start tag, with the one attribute that decides which blanks are nodes.
std::wstring StartTag(IXMLDOMNode *element, std::wstring const &name) {
  CComPtr<IXMLDOMNamedNodeMap> attributes;
  CComPtr<IXMLDOMNode> space;
  Require(element->get_attributes(&attributes) == S_OK, "an element has a map of attributes");
  Require(SUCCEEDED(attributes->getNamedItem(CComBSTR(L"xml:space"), &space)), "an attribute or none");
  return L"<" + name + (space ? L" xml:space=\"" + Escaped(TextOf(space)) + L"\">" : L">");
}

/// The path finds the first child of that name.
void CheckQuery(IXMLDOMNode *parent, IXMLDOMNode *child, std::wstring const &name) {
  CComPtr<IXMLDOMNode> found;
  HRESULT const hr = parent->selectSingleNode(CComBSTR(name.c_str()), &found);
  Require(hr == S_OK ? NameOf(found) == name && TextOf(found) == TextOf(child) : FAILED(hr), "a child is found");
  Require(hr == S_OK || std::count(name.begin(), name.end(), L':') != 0, "a query of a plain name does not fail");
}

/// Appends the node's markup, and its text without what the platform trims.
void Write(IXMLDOMNode *node, std::wstring &markup, std::wstring &text) {
  DOMNodeType type;
  CComVariant value;
  Require(node->get_nodeType(&type) == S_OK, "a node has a type");
  Require(SUCCEEDED(node->get_nodeValue(&value)), "a value or none");
  std::wstring const name = NameOf(node), own = value.vt == VT_BSTR ? Text(value.bstrVal) : L"";
  Require(NodeNameIs(node, name.c_str()) == (type != NODE_COMMENT), "a node has its own name");
  if (type == NODE_TEXT || type == NODE_CDATA_SECTION)
    text += own;
  if (type == NODE_TEXT)
    markup += Escaped(own);
  else if (type == NODE_CDATA_SECTION)
    markup += L"<![CDATA[" + own + L"]]>";
  else if (type == NODE_COMMENT)
    markup += L"<!--" + own + L"-->";
  else if (type == NODE_PROCESSING_INSTRUCTION)
    markup += L"<?" + name + L" " + own + L"?>";
  if (type != NODE_ELEMENT && type != NODE_DOCUMENT)
    return;
  markup += type == NODE_ELEMENT ? StartTag(node, name) : L"";
  std::wstring inner;
  std::set<std::wstring> names;
  CComPtr<IXMLDOMNode> child, next;
  for (node->get_firstChild(&child); child; child = std::move(next)) {
    Write(child, markup, inner);
    DOMNodeType childType;
    child->get_nodeType(&childType);
    if (childType == NODE_ELEMENT && names.insert(NameOf(child)).second)
      CheckQuery(node, child, NameOf(child));
    child->get_nextSibling(&next);
  }
  markup += type == NODE_ELEMENT ? L"</" + name + L">" : L"";
  Require(WithoutBlanks(TextOf(node)) == WithoutBlanks(inner), "an element's text is that of its descendants");
  text += inner;
}

std::wstring Markup(IXMLDOMDocument *document) {
  std::wstring markup, text;
  Write(document, markup, text);
  return markup;
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
  CComPtr<IXMLDOMDocument> document = LoadReply(std::string(reinterpret_cast<char const *>(data), size));
  Require(document, "a document");
  CString text(L"untouched");
  ElementState const state = ReadElement(document, L"result/code", text);
  Require(state != ElementState::QueryFailed, "the query does not fail");
  Require(state == ElementState::Found || text == CString(L"untouched"), "a missing element leaves the text alone");
  CComPtr<IXMLDOMNode> root;
  document->get_firstChild(&root);
  if (!root)
    return 0;
  std::wstring const markup = Markup(document);
  VARIANT_BOOL isLoaded = 0;
  std::wstring const before = TextOf(root);
  Require(document->loadXML(CComBSTR(markup.c_str()), &isLoaded) == S_OK && isLoaded, "a document's markup parses");
  Require(TextOf(root) == before, "a node outlives its document");
  Require(Markup(document) == markup, "a document's markup gives the same document");
  return 0;
}
