// Preset categories: fetches the list of a location, merges it into the session's cache, and returns the whole cache.
// Holds the GIL throughout, which is what guards the cache.
#include "service/KHLoginData.h"

#include "platform/text/Text.h"
#include "service/JoinText.h"
#include "service/ServiceExchange.h"

#include <new>

namespace {

// Copies one entry. Returns: false, without a Python error, if id or name is empty or Python is out of memory.
bool AddEntry(PyObject *pDict, std::wstring const &strId, std::wstring const &strName) {
  if (strId.empty() || strName.empty())
    return false;
  PyObject *const pKey = PyUnicode_FromWideChar(strId.c_str(), static_cast<Py_ssize_t>(strId.size()));       // new
  PyObject *const pValue = PyUnicode_FromWideChar(strName.c_str(), static_cast<Py_ssize_t>(strName.size())); // new
  bool const bAdded = pKey && pValue && PyDict_SetItem(pDict, pKey, pValue) == 0;
  Py_XDECREF(pKey);
  Py_XDECREF(pValue);
  if (!bAdded)
    PyErr_Clear();
  return bAdded;
}

} // namespace

PyObject *KHLoginData::GetPresetCategory(WCHAR const *wszLocationID) {
  PyObject *const pDict = PyDict_New(); // new
  if (!pDict) {
    PyErr_Clear();
    Py_RETURN_NONE;
  }
  FetchCategories(wszLocationID);
  // An entry that can't be copied ends the copy there. The map is in the order of the ids, so an entry with an empty
  // name hides those whose ids sort after its own.
  for (auto const &[strId, strName] : m_mapCategory)
    if (!AddEntry(pDict, strId, strName))
      break;
  return pDict;
}

void KHLoginData::FetchCategories(WCHAR const *wszLocationID) {
  RunExchange(RequestKind::PresetCategories, [&](ServiceExchange &exchange) {
    EnsureKHServerURL();
    WCHAR const *const wszLocation = wszLocationID ? wszLocationID : L"(null)"; // as the formatter prints a null string
    exchange.Send(m_strKHServerUrl,
                  JoinText({L"/servlet/getPresetCategory?ap=TWR&Locid=", wszLocation, L"&version=", m_strProdVersion}));
    ForEachChild(exchange.ReadDocument(), L"categories", [this](IXMLDOMNode *pNode) { ParseCategories(pNode); });
  });
}

void KHLoginData::ParseCategories(IXMLDOMNode *pNode) {
  ForEachChild(pNode, L"category", [this](IXMLDOMNode *pChild) { ParseCategory(pChild); });
}

void KHLoginData::ParseCategory(IXMLDOMNode *pNode) {
  CComVariant id;
  CComPtr<IXMLDOMNamedNodeMap> pAttributes;
  CComPtr<IXMLDOMNode> pItem;
  if (SUCCEEDED(pNode->get_attributes(&pAttributes)) && pAttributes &&
      SUCCEEDED(pAttributes->getNamedItem(CComBSTR(L"categoryid"), &pItem)) && pItem)
    pItem->get_nodeValue(&id);
  CComBSTR bstrText;
  if (FAILED(pNode->get_text(&bstrText)))
    return;
  if (id.vt == VT_BSTR && id.bstrVal && *id.bstrVal)
    m_mapCategory.SetAt(id.bstrVal,
                        bstrText ? static_cast<WCHAR const *>(bstrText) : L""); // a null BSTR is the empty text
}

int KHLoginData::GetCategoryCount() { return static_cast<int>(m_mapCategory.GetCount()); }

// The number is the category's id, not its position in the list.
BOOL KHLoginData::GetCategroyName(int nCategroyIndex, CString &strCategroy) {
  WCHAR wszKey[16] = {};
  _snwprintf_s(wszKey, sizeof wszKey / sizeof *wszKey, _TRUNCATE, L"%d", nCategroyIndex);
  try {
    return m_mapCategory.Lookup(wszKey, strCategroy);
  } catch (std::bad_alloc const &) {
    return FALSE;
  }
}
