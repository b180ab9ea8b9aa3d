// Looks up the address of a shared effect by its GUID. Holds the GIL throughout.
#include "service/KHLoginData.h"

#include "reply/UrlText.h"
#include "service/JoinText.h"
#include "service/ServiceExchange.h"

#include <new>

namespace {

// Reads the text of the last pipURL in a PIP element.
void ParseEffectPIP(IXMLDOMNode *pNode, CString &strPipURL) {
  ForEachChild(pNode, L"pipURL", [&strPipURL](IXMLDOMNode *pChild) {
    CComBSTR bstrText;
    if (SUCCEEDED(pChild->get_text(&bstrText)))
      strPipURL = CString(static_cast<WCHAR const *>(bstrText));
  });
}

} // namespace

PyObject *KHLoginData::GetEffectByGUID(WCHAR const *wszPresetGUID) {
  if (!wszPresetGUID)
    return NewText(L" ");
  try {
    return NewText(DecodeURLText(FindEffect(wszPresetGUID)));
  } catch (std::bad_alloc const &) {
    return NewText(CString()); // as for a failed exchange
  }
}

CString KHLoginData::FindEffect(WCHAR const *wszPresetGUID) {
  CString strPipURL;
  CString const strToken = CopyLoginTokenID();
  RunExchange(RequestKind::EffectByGuid, [&](ServiceExchange &exchange) {
    EnsureKHServerURL();
    exchange.Send(m_strKHServerUrl,
                  JoinText({L"/servlet/GetEffectByGUIDForTWR?token=", strToken, L"&guid=", wszPresetGUID}));
    ForEachChild(exchange.ReadDocument(), L"PIP",
                 [&strPipURL](IXMLDOMNode *pNode) { ParseEffectPIP(pNode, strPipURL); });
  });
  return strPipURL;
}
