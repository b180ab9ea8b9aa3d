// Measures what parsing one reply costs: loading it, a login's look-ups and the walk that collects categories.
// Single-threaded. Takes the reply's file; prints the CPU seconds, the MiB that the process grew by at its peak, and
// the number of the root's children.
#include "framework/ComTypes.h"
#include "platform/xml/XmlDom.h"

#include <cstdio>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>

namespace {

// Returns the value of a line of the process's status, in MiB.
double Status(std::string const &name) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with(name))
      return std::stod(line.substr(name.size())) / 1024;
  return 0;
}

void LookUp(IXMLDOMDocument *pDocument) {
  for (int i = 0; i < 11; ++i) {
    CComPtr<IXMLDOMNode> node;
    pDocument->selectSingleNode(CComBSTR(L"r/tokenid"), &node);
  }
}

int Walk(IXMLDOMDocument *pDocument) {
  CComPtr<IXMLDOMNode> root;
  CComPtr<IXMLDOMNode> child;
  int nChildren = 0;
  if (pDocument->get_firstChild(&root) != S_OK)
    return 0;
  for (HRESULT hr = root->get_firstChild(&child); hr == S_OK; ++nChildren) {
    CComBSTR bstrName;
    CComBSTR bstrText;
    CComVariant id;
    CComPtr<IXMLDOMNamedNodeMap> attributes;
    CComPtr<IXMLDOMNode> item;
    CComPtr<IXMLDOMNode> next;
    child->get_nodeName(&bstrName);
    if (child->get_attributes(&attributes) == S_OK && attributes->getNamedItem(CComBSTR(L"id"), &item) == S_OK)
      item->get_nodeValue(&id);
    child->get_text(&bstrText);
    hr = child->get_nextSibling(&next);
    child = std::move(next);
  }
  return nChildren;
}

} // namespace

int main(int, char **argv) {
  double const before = Status("VmRSS:");
  std::ifstream file(argv[1], std::ios::binary);
  std::string const reply{std::istreambuf_iterator<char>(file), {}};
  std::clock_t const start = std::clock();
  CComPtr<IXMLDOMDocument> document;
  CoCreateInstance(CLSID_DOMDocument, nullptr, CLSCTX_INPROC_SERVER, IID_IXMLDOMDocument,
                   reinterpret_cast<void **>(&document));
  VARIANT_BOOL bSuccess = 0;
  document->loadXML(CComBSTR(reply.c_str()), &bSuccess);
  LookUp(document);
  int const nChildren = Walk(document);
  double const cpu = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
  std::printf("%.3f %.1f %d\n", cpu, Status("VmHWM:") - before, nChildren);
}
